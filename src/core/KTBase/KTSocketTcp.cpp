#include "KTBase/KTSocket.h"
#include "KTBase/KTSsl.h"
#include "KTBase/KTTime.h"
#include "KTSocketHost.h"
#include "os/KTOsNet.h"

namespace {

constexpr unsigned int kBufferBytes = 32768;
constexpr unsigned int kSslConnectMs = 1000;
constexpr int kConnectTries = 2;
constexpr unsigned int kConnectPauseMs = 100;
constexpr int kUnderWay = 1;  // besides the codes, of a connect

const char* TextOrNull(const CKTString& text) {
    return text.IsEmpty() ? nullptr : text.GetBuffer();
}

bool Store(CKTString& slot, const char* text) {
    slot = text;
    return slot.EqualTo(text) != 0;
}

/// Gives target the same capacity and room for the same bytes, without content. The capacity
/// counts the terminator.
bool MatchCapacity(const CKTString& source, CKTString& target) {
    target.Empty(true);
    return source.Size() == 0 || target.AllocBuffer(source.Size() - 1) >= 0;
}

void MoveBytes(CKTString& source, CKTString& target) {
    target << source;  // there is room already
    source.Empty(false);
}

}  // namespace

CKTSocketTCP::CKTSocketTCP() : m_ssl(nullptr), m_verify(false) {
    m_sendBuf.AllocBuffer(kBufferBytes - 1);
    m_recvBuf.AllocBuffer(kBufferBytes - 1);
}

CKTSocketTCP::~CKTSocketTCP() {
    CKTSocketTCP::Close();
}

// ---- opening and closing ----

/// Connects with the mode given. Returns 0, kUnderWay, or -1 and is closed.
int CKTSocketTCP::BeginConnect(const char* host, unsigned short port, bool block) {
    if (m_handle != KT_NO_SOCKET || host == nullptr || port == 0)
        return KT_ERROR;
    if (m_peer.FromString(host) != KT_OK || m_peer.SetPort(port) != KT_OK ||
        !m_local.Init(m_peer.GetFamily()))
        return KT_ERROR;
    m_handle = KTOsSocketOpen(m_peer.GetAddress()->sa_family, true);
    if (m_handle == KT_NO_SOCKET)
        return KT_ERROR;
    if (KTOsSocketBind(m_handle, m_local.GetAddress(), m_local.GetLength()) &&
        EnableBlock(block) == KT_OK) {
        if (KTOsSocketConnect(m_handle, m_peer.GetAddress(), m_peer.GetLength()))
            return KT_OK;
        if (KTOsNetWouldBlock(KTOsNetError()))
            return kUnderWay;
    }
    DropConnection();
    return KT_ERROR;
}

/// Returns 0 when the connection stands, or -1.
int CKTSocketTCP::AwaitConnect(unsigned int timeoutMs) {
    for (int i = 0; i < kConnectTries; ++i) {
        if (i != 0)
            KTSleepMS(kConnectPauseMs);
        const int ready = KTOsSocketWait(m_handle, KTOsWait::Connect, timeoutMs);
        if (ready < 0)
            return KT_ERROR;
        if (ready > 0)
            return KTOsSocketPendingError(m_handle) == 0 ? KT_OK : KT_ERROR;
    }
    return KT_ERROR;
}

int CKTSocketTCP::OpenSock(const char* host, unsigned short port, bool block) {
    return BeginConnect(host, port, block) == KT_ERROR ? KT_ERROR : KT_OK;
}

int CKTSocketTCP::OpenSockEx(const char* host, unsigned short port, bool block,
                             unsigned int timeoutMs) {
    const int result = BeginConnect(host, port, false);
    if (result != kUnderWay)
        return result;
    if (AwaitConnect(timeoutMs) == KT_OK) {
        EnableBlock(block);
        return KT_OK;
    }
    DropConnection();
    return KT_ERROR;
}

int CKTSocketTCP::Open(const char* host, unsigned short port) {
    const bool useSsl = UsedSsl() != nullptr;
    const int result =
        useSsl ? OpenSockEx(host, port, true, kSslConnectMs) : OpenSock(host, port, false);
    if (result != KT_OK)
        return result;
    GiveHandleToSsl();
    return useSsl ? Handshake(host) : KT_OK;
}

int CKTSocketTCP::Handshake(const char* host) {
    EnableBlock(true);
    if (m_ssl->SetServerName(host) == KT_OK && m_ssl->BindSsl()) {
        EnableBlock(false);
        return KT_OK;
    }
    DropConnection();
    return KT_ERROR;
}

/// Closes the handle and ends the session. The TLS layer stays, with its flag: trying again must
/// not go out in plain text.
void CKTSocketTCP::DropConnection() {
    if (m_ssl != nullptr)
        m_ssl->FreeSsl();
    CloseHandle(true);
}

int CKTSocketTCP::Close() {
    const bool open = m_handle != KT_NO_SOCKET;
    DropConnection();
    delete m_ssl;
    m_ssl = nullptr;
    m_sendBuf.Empty(false);
    return open ? KT_OK : KT_ERROR;
}

int CKTSocketTCP::Accept(unsigned long long listenHandle) {
    if (listenHandle == KT_NO_SOCKET)
        return KT_NO_HANDLE;
    if (m_handle != KT_NO_SOCKET)
        return KT_BAD_STATE;
    m_handle = KTOsSocketAccept(listenHandle);
    if (m_handle == KT_NO_SOCKET)
        return KT_ERROR;
    m_local.SetSocketName(m_handle);
    m_peer.SetSocketPeer(m_handle);
    EnableBlock(false);
    GiveHandleToSsl();
    return KT_OK;
}

int CKTSocketTCP::MoveTo(CKTSocketTCP* target) {
    if (target == nullptr)
        return KT_ARGUMENT;
    if (m_handle == KT_NO_SOCKET || target->m_handle != KT_NO_SOCKET)
        return KT_BAD_STATE;
    if (!MatchCapacity(m_sendBuf, target->m_sendBuf) ||
        !MatchCapacity(m_recvBuf, target->m_recvBuf) ||
        target->m_local.SetAddress(m_local.GetAddress(), m_local.GetLength()) == KT_NO_MEMORY ||
        target->m_peer.SetAddress(m_peer.GetAddress(), m_peer.GetLength()) == KT_NO_MEMORY ||
        (m_verify && target->SetVerify(TextOrNull(m_verifyHost), TextOrNull(m_verifyCa)) != KT_OK))
        return KT_NO_MEMORY;
    MoveBytes(m_sendBuf, target->m_sendBuf);
    MoveBytes(m_recvBuf, target->m_recvBuf);
    target->m_handle = m_handle;
    target->m_block = m_block;
    m_handle = KT_NO_SOCKET;
    m_block = false;
    delete target->m_ssl;
    target->m_ssl = m_ssl;
    m_ssl = nullptr;
    return KT_OK;
}

// ---- TLS ----

CKTSsl* CKTSocketTCP::UsedSsl() const {
    return m_ssl != nullptr && m_ssl->GetUseSsl() ? m_ssl : nullptr;
}

void CKTSocketTCP::GiveHandleToSsl() {
    // The system's handles fit 32 bits on every system.
    if (m_ssl != nullptr && m_handle != KT_NO_SOCKET)
        m_ssl->SetSocket(static_cast<int>(m_handle));
}

int CKTSocketTCP::SetUseSsl(bool useSsl) {
    if (useSsl && m_ssl == nullptr) {
        CKTSsl* ssl = new CKTSsl;
        if (ssl == nullptr || !PutVerify(ssl)) {
            delete ssl;
            return KT_NO_MEMORY;
        }
        m_ssl = ssl;
        GiveHandleToSsl();
    }
    if (m_ssl != nullptr)
        m_ssl->SetUseSsl(useSsl);
    return KT_OK;
}

int CKTSocketTCP::SetCertsPathName(const char* caFile, const char* certFile, const char* keyFile) {
    if (m_ssl != nullptr)
        m_ssl->SetCertsPathName(caFile, certFile, keyFile);
    return KT_OK;
}

int CKTSocketTCP::SetVerify(const char* hostName, const char* caFile) {
    m_verify = true;  // first: without memory nothing is trusted rather than all
    if (!Store(m_verifyHost, hostName) || !Store(m_verifyCa, caFile))
        return KT_NO_MEMORY;
    return m_ssl == nullptr || PutVerify(m_ssl) ? KT_OK : KT_NO_MEMORY;
}

bool CKTSocketTCP::PutVerify(CKTSsl* ssl) {
    return !m_verify || ssl->SetVerify(TextOrNull(m_verifyHost), TextOrNull(m_verifyCa)) == KT_OK;
}

const char* CKTSocketTCP::GetSslReason() const {
    return m_ssl != nullptr ? m_ssl->GetReason() : "";
}

bool CKTSocketTCP::IsUsingSsl() const {
    return UsedSsl() != nullptr;
}

bool CKTSocketTCP::HasDecrypted() const {
    const CKTSsl* ssl = UsedSsl();
    return ssl != nullptr && ssl->HasDecrypted();
}

// ---- timed ----

int CKTSocketTCP::Send(const char* data, int length, unsigned int timeoutMs) {
    return SendTimed(UsedSsl(), data, length, timeoutMs);
}

int CKTSocketTCP::Recv(char* buffer, int size, unsigned int timeoutMs) {
    return RecvTimed(UsedSsl(), buffer, size, timeoutMs);
}

// ---- event-driven ----

int CKTSocketTCP::Send(const CKTString* data) {
    if (data == nullptr)
        return KT_ERROR;
    if (data == &m_sendBuf)
        return KT_OK;
    return (m_sendBuf << data) < 0 ? KT_NO_MEMORY : KT_OK;
}

bool CKTSocketTCP::IsSending() {
    return m_sendBuf.IsEmpty() == 0;
}

/// Writes the whole send buffer once and removes what has gone out.
int CKTSocketTCP::SendPending() {
    const int count =
        SendOnce(UsedSsl(), m_sendBuf.GetBuffer(), static_cast<int>(m_sendBuf.GetLength()));
    if (count < 0)
        return count == KT_ERROR ? 0 : KT_ERROR;
    m_sendBuf.Flush(count);
    return count;
}

int CKTSocketTCP::OnSend(fd_set* ready) {
    if (!IsValid())
        return KT_ERROR;
    if (!IsSending())
        return 0;
    const int state = CheckReady(ready, true);
    return state < 1 ? state : SendPending();
}

int CKTSocketTCP::OnSend(fd_set* ready, char* data, int length) {
    if (!IsValid())
        return KT_ERROR;
    if (ready != nullptr && CheckReady(ready, true) < 1)
        return 0;
    if (UsedSsl() != nullptr)
        return IsSending() ? SendPending() : 0;
    if (data == nullptr || length < 1)
        return 0;
    const int count = SendOnce(nullptr, data, length);
    return count == KT_ERROR ? 0 : count < 0 ? KT_ERROR : count;
}

int CKTSocketTCP::OnRecv(fd_set* ready, char* buffer, int size) {
    if (!IsValid() || buffer == nullptr || size < 1)
        return KT_ERROR;
    CKTSsl* ssl = UsedSsl();
    if (!HasDecrypted()) {
        const int state = CheckReady(ready, false);
        if (state < 1)
            return state;
    }
    if (ssl != nullptr)
        return ssl->RecvData(buffer, static_cast<unsigned long long>(size), 0);
    const int count = KTOsSocketRecv(m_handle, buffer, size, 0);
    if (count > 0)
        return count;
    return count < 0 && KTOsNetError() == KT_RAW_TRY_AGAIN ? 0 : KT_ERROR;
}

int CKTSocketTCP::OnRecv(fd_set* ready) {
    const unsigned int space = m_recvBuf.GetSpace();
    if (space == 0)
        return KT_FULL;
    const int count =
        OnRecv(ready, m_recvBuf.GetBuffer() + m_recvBuf.GetLength(), static_cast<int>(space));
    if (count < 1)
        return count;
    const int length = m_recvBuf.Add(count);
    return length < 0 ? count : length;
}

CKTString* CKTSocketTCP::GetSendBuf() {
    return &m_sendBuf;
}

CKTString* CKTSocketTCP::GetRecvBuf() {
    return &m_recvBuf;
}
