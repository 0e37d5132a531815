#include <climits>

#include "KTBase/KTSocket.h"
#include "KTSocketHost.h"
#include "os/KTOsNet.h"

namespace {

constexpr unsigned int kPendingPerBlock = 10;
constexpr int kMulticastReceiveBytes = 524288;

}  // namespace

// ---- message ----

CKTSocketMSG::CKTSocketMSG() = default;

CKTSocketMSG::~CKTSocketMSG() = default;

void CKTSocketMSG::Dump() {
    CKTString line("CKTSocketMSG: Local = ");
    m_local.ToString(line, true);
    line << " Remote = ";
    CKTString host;
    // Without brackets whatever the family: log readers split this line at its last colon.
    if (m_peer.ToString(host, false) == KT_OK)
        line.Append("%s:%u", host.GetBuffer(), m_peer.GetPort());
    KTPrintf("%s\n", line.IsEmpty() ? "" : line.GetBuffer());
}

CKTSocketAddress* CKTSocketMSG::GetLocal() {
    return &m_local;
}

CKTSocketAddress* CKTSocketMSG::GetPeer() {
    return &m_peer;
}

int CKTSocketMSG::SetLocal(CKTSocketAddress* local) {
    if (local == nullptr)
        return KT_ARGUMENT;
    m_local = *local;
    return KT_OK;
}

int CKTSocketMSG::SetPeer(CKTSocketAddress* peer) {
    if (peer == nullptr)
        return KT_ARGUMENT;
    m_peer = *peer;
    return KT_OK;
}

int CKTSocketMSG::SetPeer(const char* host, unsigned short port) {
    const int result = m_peer.FromString(host);
    return result == KT_OK ? m_peer.SetPort(port) : result;
}

int CKTSocketMSG::Clone(const CKTSocketMSG& other) {
    if (this == &other)
        return KT_OK;
    CKTString::operator=(other);
    m_local = other.m_local;
    m_peer = other.m_peer;
    const bool whole = GetLength() == other.GetLength() &&
                       m_local.GetLength() == other.m_local.GetLength() &&
                       m_peer.GetLength() == other.m_peer.GetLength();
    return whole ? KT_OK : KT_NO_MEMORY;
}

CKTSocketMSG* CKTSocketMSG::Clone() const {
    CKTSocketMSG* copy = new CKTSocketMSG;
    if (copy != nullptr && copy->Clone(*this) != KT_OK) {
        delete copy;
        copy = nullptr;
    }
    return copy;
}

int CKTSocketMSG::GetFreeSize() const {
    return GetSpace() > INT_MAX ? INT_MAX : static_cast<int>(GetSpace());
}

char* CKTSocketMSG::GetFreeBuffer() const {
    return GetBuffer() == nullptr ? nullptr : GetBuffer() + GetLength();
}

int CKTSocketMSG::AddLength(int n) {
    return Add(n);
}

// ---- datagrams ----

CKTSocketUDP::CKTSocketUDP() : m_pending(kPendingPerBlock) {}

CKTSocketUDP::~CKTSocketUDP() {
    m_pending.RemoveAll();
}

int CKTSocketUDP::OpenBound(CKTSocketAddress& address) {
    if (m_handle != KT_NO_SOCKET || !address.IsValid())
        return KT_ERROR;
    m_handle = UDPOpen(&address);
    return m_handle == KT_NO_SOCKET ? KT_ERROR : KT_OK;
}

int CKTSocketUDP::Open(const char*, unsigned short) {
    return OpenBound(m_local);
}

int CKTSocketUDP::OpenEx(const char* host, unsigned short port) {
    if (m_handle != KT_NO_SOCKET || host == nullptr || port == 0)
        return KT_ERROR;
    if (m_peer.FromString(host) != KT_OK || m_peer.SetPort(port) != KT_OK ||
        !m_local.Init(m_peer.GetFamily()) || OpenBound(m_local) != KT_OK)
        return KT_ERROR;
    if (KTOsSocketConnect(m_handle, m_peer.GetAddress(), m_peer.GetLength()) ||
        KTOsNetWouldBlock(KTOsNetError()))
        return KT_OK;
    CloseHandle(false);
    return KT_ERROR;
}

int CKTSocketUDP::Close() {
    m_pending.RemoveAll();
    return CKTSocket::Close();
}

int CKTSocketUDP::Send(const char* data, int length, unsigned int timeoutMs) {
    return SendTimed(nullptr, data, length, timeoutMs);
}

int CKTSocketUDP::Recv(char* buffer, int size, unsigned int timeoutMs) {
    return RecvTimed(nullptr, buffer, size, timeoutMs);
}

int CKTSocketUDP::Send(const CKTString* data, CKTSocketAddress* to) {
    if (!IsValid() || data == nullptr)
        return KT_ERROR;
    CKTSocketMSG* message = new CKTSocketMSG;
    if (message == nullptr)
        return KT_NO_MEMORY;
    if ((*message << data) < 0 || message->SetPeer(to != nullptr ? to : &m_peer) != KT_OK ||
        m_pending.AddTail(message) == nullptr) {
        delete message;
        return KT_NO_MEMORY;
    }
    return KT_OK;
}

int CKTSocketUDP::Send(const CKTString* data) {
    return Send(data, nullptr);
}

bool CKTSocketUDP::IsSending() {
    return !m_pending.IsEmpty();
}

int CKTSocketUDP::OnSend(fd_set* ready) {
    if (!IsValid())
        return KT_ERROR;
    if (m_pending.IsEmpty())
        return 0;
    const int state = CheckReady(ready, true);
    if (state < 1)
        return state;
    CKTSocketMSG* message = static_cast<CKTSocketMSG*>(m_pending.RemoveHead());
    const CKTSocketAddress& peer = *message->GetPeer();
    int result = 0;
    if (peer.IsValid())
        result =
            KTOsSocketSendTo(m_handle, message->GetBuffer(), static_cast<int>(message->GetLength()),
                             peer.GetAddress(), peer.GetLength());
    delete message;
    return result;
}

int CKTSocketUDP::OnRecv(fd_set* ready, CKTSocketMSG* message) {
    if (message == nullptr || !IsValid())
        return KT_ERROR;
    if (message->GetFreeSize() < 1)
        return 0;
    const int state = CheckReady(ready, false);
    if (state < 1)
        return state;
    sockaddr_storage from = {};
    int fromLength = 0;
    const int count = KTOsSocketRecvFrom(m_handle, message->GetFreeBuffer(), message->GetFreeSize(),
                                         from, fromLength);
    if (count < 0)
        return KTOsNetError() == KT_RAW_TRY_AGAIN ? 0 : KT_ERROR;
    message->GetPeer()->SetAddress(reinterpret_cast<const sockaddr*>(&from), fromLength);
    if (count == 0)
        return KT_ERROR;
    message->AddLength(count);
    message->SetLocal(&m_local);
    return count;
}

// ---- multicast ----

CKTSocketMCAST::CKTSocketMCAST() = default;

CKTSocketMCAST::~CKTSocketMCAST() {
    LeaveGroup();
}

int CKTSocketMCAST::Open(const char* groupHost, unsigned short port) {
    if (m_handle != KT_NO_SOCKET || groupHost == nullptr || port == 0)
        return KT_ERROR;
    if (m_peer.FromString(groupHost) != KT_OK || m_peer.SetPort(port) != KT_OK ||
        m_local.SetPort(port) != KT_OK)
        return KT_ERROR;
    // The local address stays the interface, whatever the socket is bound to.
    CKTSocketAddress bound(m_local);
    if (bound.GetFamily() == KT_FAMILY_IPV4) {
        sockaddr_in address = *reinterpret_cast<const sockaddr_in*>(bound.GetAddress());
        KTOsMulticastBindAddress(address);
        bound = reinterpret_cast<const sockaddr*>(&address);
    }
    if (OpenBound(bound) != KT_OK)
        return KT_ERROR;
    KTOsSocketReceiveBytes(m_handle, kMulticastReceiveBytes);
    const int result = MCASTGroupAdd(m_handle, m_local, m_peer);
    if (result != KT_OK)
        CKTSocketUDP::Close();
    return result;
}

int CKTSocketMCAST::Close() {
    LeaveGroup();
    return CKTSocketUDP::Close();
}

void CKTSocketMCAST::LeaveGroup() {
    if (m_handle != KT_NO_SOCKET)
        MCASTGroupDrop(m_handle, m_local, m_peer);
}
