#include "KTBase/KTSocket.h"

#include "KTBase/KTSsl.h"
#include "KTBase/KTTime.h"
#include "os/KTOsNet.h"

namespace {

constexpr unsigned int kSendPollMs = 1000;

// Results of one write, besides a count.
constexpr int kWouldBlock = -1;
constexpr int kFailed = -2;

/// Keeps a blocking handle from blocking: a timed call waits itself, no longer than it may.
class NonBlocking {
public:
    NonBlocking(unsigned long long handle, bool block) : m_handle(handle), m_block(block) {
        if (m_block)
            KTOsSocketBlock(m_handle, false);
    }
    ~NonBlocking() {
        if (m_block)
            KTOsSocketBlock(m_handle, true);
    }
    NonBlocking(const NonBlocking&) = delete;
    NonBlocking& operator=(const NonBlocking&) = delete;

private:
    unsigned long long m_handle;
    bool m_block;
};

bool HasPassed(unsigned long long startUs, unsigned int timeoutMs) {
    return timeoutMs != KT_INFINITE && CKTTime::GetTimeUS() - startUs > timeoutMs * 1000ull;
}

/// Bound to address and non-blocking, or KT_NO_SOCKET. failed names the step, error its number.
unsigned long long OpenBound(CKTSocketAddress& address, bool stream, const char*& failed,
                             int& error) {
    const sockaddr* bytes = address.GetAddress();
    failed = "socket";
    const unsigned long long handle =
        KTOsSocketOpen(bytes != nullptr ? bytes->sa_family : 0, stream);
    if (handle != KT_NO_SOCKET) {
        failed = "setsockopt";
        if (KTOsSocketReuseAddress(handle)) {
            failed = "bind";
            if (KTOsSocketBind(handle, bytes, address.GetLength())) {
                KTOsSocketBlock(handle, false);
                address.SetSocketName(handle);
                return handle;
            }
        }
    }
    error = KTOsNetError();
    if (handle != KT_NO_SOCKET)
        KTOsSocketClose(handle);
    return KT_NO_SOCKET;
}

/// KT_OK when both are IPv4; group and interface are then filled.
int ReadGroup(const CKTSocketAddress& local, const CKTSocketAddress& group, in_addr& groupHost,
              in_addr& localHost) {
    if (!local.IsValid() || !group.IsValid() || local.GetFamily() != group.GetFamily())
        return KT_ARGUMENT;
    if (local.GetFamily() != KT_FAMILY_IPV4)
        return KT_UNSUPPORTED;
    groupHost = reinterpret_cast<const sockaddr_in*>(group.GetAddress())->sin_addr;
    localHost = reinterpret_cast<const sockaddr_in*>(local.GetAddress())->sin_addr;
    return KT_OK;
}

}  // namespace

CKTSocket::CKTSocket()
    : m_handle(KT_NO_SOCKET), m_local(KT_FAMILY_IPV4), m_peer(KT_FAMILY_IPV4), m_block(false) {}

CKTSocket::~CKTSocket() {
    CloseHandle(false);
}

// ---- what every socket does ----

bool CKTSocket::IsValid() const {
    return m_handle != KT_NO_SOCKET;
}

int CKTSocket::Open(const char*, unsigned short) {
    return KT_ERROR;
}

int CKTSocket::Close() {
    if (m_handle == KT_NO_SOCKET)
        return KT_ERROR;
    CloseHandle(false);
    return KT_OK;
}

void CKTSocket::CloseHandle(bool stream) {
    if (m_handle == KT_NO_SOCKET)
        return;
    if (stream)
        KTOsSocketShutdown(m_handle);
    KTOsSocketClose(m_handle);
    m_handle = KT_NO_SOCKET;
    m_block = false;
}

int CKTSocket::Bind(unsigned short port) {
    return m_handle != KT_NO_SOCKET ? KT_ERROR : m_local.SetPort(port);
}

int CKTSocket::Bind(const char* address) {
    return m_handle != KT_NO_SOCKET ? KT_ERROR : m_local.FromString(address);
}

int CKTSocket::Bind(const CKTSocketAddress& address) {
    if (m_handle != KT_NO_SOCKET)
        return KT_ERROR;
    m_local = address;
    return m_local.GetLength() == address.GetLength() ? KT_OK : KT_NO_MEMORY;
}

int CKTSocket::BindEth(const char* interfaceName, unsigned short family) {
    if (m_handle != KT_NO_SOCKET)
        return KT_ERROR;
    if (interfaceName == nullptr)
        return m_local.Init(family) ? KT_OK : KT_UNSUPPORTED;
    return m_local.BindEthnet(interfaceName, family, 0);
}

int CKTSocket::EnableBlock(bool block) {
    if (EnableBlock(m_handle, block) != KT_OK)
        return KT_ERROR;
    m_block = block;
    return KT_OK;
}

int CKTSocket::Select(unsigned long long& maxHandle, fd_set* readSet, fd_set* writeSet,
                      fd_set* errorSet, bool forceWrite) {
    if (!IsValid() || !KTOsSetFits(m_handle))
        return KT_ERROR;
    if (readSet != nullptr)
        KTOsSetAdd(*readSet, m_handle, KT_SOCKET_SET_LIMIT);
    if (writeSet != nullptr && (forceWrite || IsSending()))
        KTOsSetAdd(*writeSet, m_handle, KT_SOCKET_SET_LIMIT);
    if (errorSet != nullptr)
        KTOsSetAdd(*errorSet, m_handle, KT_SOCKET_SET_LIMIT);
    if (maxHandle == KT_NO_SOCKET || maxHandle < m_handle)
        maxHandle = m_handle;
    return static_cast<int>(maxHandle);
}

int CKTSocket::CheckReady(const fd_set* ready, bool write) const {
    if (ready != nullptr)
        return KTOsSetHas(*ready, m_handle);
    return KTOsSocketWait(m_handle, write ? KTOsWait::Write : KTOsWait::Read, 0);
}

int CKTSocket::SendOnce(CKTSsl* ssl, const char* data, int length) {
    if (ssl != nullptr)
        return ssl->SendData(data, static_cast<unsigned long long>(length), 0);
    const int count = KTOsSocketSend(m_handle, data, length, 0);
    if (count >= 0)
        return count;
    return KTOsNetWouldBlock(KTOsNetError()) ? kWouldBlock : kFailed;
}

int CKTSocket::SendTimed(CKTSsl* ssl, const char* data, int length, unsigned int timeoutMs) {
    if (!IsValid())
        return KT_ERROR;
    if (data == nullptr || length < 1)
        return 0;
    const NonBlocking hold(m_handle, m_block);
    const unsigned long long startUs = CKTTime::GetTimeUS();
    int sent = 0;
    for (bool first = true; sent < length; first = false) {
        if (!first && HasPassed(startUs, timeoutMs))
            return KT_TIMEOUT;
        const int ready = KTOsSocketWait(m_handle, KTOsWait::Write, kSendPollMs);
        if (ready < 0)
            return sent;
        const int count = ready == 0 ? kWouldBlock : SendOnce(ssl, data + sent, length - sent);
        if (count == 0)
            return sent;
        if (count == kFailed)
            return KT_SEND_ERROR;
        if (count > 0)
            sent += count;
    }
    return sent;
}

int CKTSocket::RecvTimed(CKTSsl* ssl, char* buffer, int size, unsigned int timeoutMs) {
    if (!IsValid())
        return KT_ERROR;
    if (buffer == nullptr || size < 1)
        return 0;
    if (ssl == nullptr || !ssl->HasDecrypted()) {
        const int ready = KTOsSocketWait(m_handle, KTOsWait::Read, timeoutMs);
        if (ready < 1)
            return ready;
    }
    const NonBlocking hold(m_handle, m_block);
    if (ssl != nullptr)
        return ssl->RecvData(buffer, static_cast<unsigned long long>(size), 0);
    const int count = KTOsSocketRecv(m_handle, buffer, size, 0);
    if (count > 0)
        return count;
    return count < 0 && KTOsNetWouldBlock(KTOsNetError()) ? 0 : KT_ERROR;
}

// ---- not supported here ----

int CKTSocket::Send(const char*, int, unsigned int) {
    return KT_ERROR;
}

int CKTSocket::Send(const CKTString*, CKTSocketAddress*) {
    return KT_ERROR;
}

int CKTSocket::Send(const CKTString*) {
    return KT_ERROR;
}

int CKTSocket::Recv(char*, int, unsigned int) {
    return KT_ERROR;
}

bool CKTSocket::IsSending() {
    return false;
}

int CKTSocket::OnSend(fd_set*) {
    return KT_ERROR;
}

int CKTSocket::OnRecv(fd_set*, char*, int) {
    return KT_ERROR;
}

int CKTSocket::OnRecv(fd_set*, CKTSocketMSG*) {
    return KT_ERROR;
}

int CKTSocket::OnRecv(fd_set*) {
    return KT_ERROR;
}

CKTString* CKTSocket::GetSendBuf() {
    return nullptr;
}

CKTString* CKTSocket::GetRecvBuf() {
    return nullptr;
}

// ---- access ----

unsigned long long CKTSocket::GetHandle() const {
    return m_handle;
}

CKTSocketAddress* CKTSocket::GetLocal() {
    return &m_local;
}

CKTSocketAddress* CKTSocket::GetPeer() {
    return &m_peer;
}

void CKTSocket::GetLocal(CKTSocketAddress* out) const {
    if (out != nullptr)
        *out = m_local;
}

void CKTSocket::GetPeer(CKTSocketAddress* out) const {
    if (out != nullptr)
        *out = m_peer;
}

// ---- plain handles ----

unsigned long long CKTSocket::TCPOpen(CKTSocketAddress* address) {
    if (address == nullptr)
        return KT_NO_SOCKET;
    const char* failed = nullptr;
    int error = 0;
    const unsigned long long handle = OpenBound(*address, true, failed, error);
    if (handle != KT_NO_SOCKET)
        return handle;
    if (failed[0] != 'b') {
        KTPrintf("TCPOpen: %s failed( error = %d)\n", failed, error);
        return handle;
    }
    CKTString text;
    address->ToString(text, true);
    KTPrintf("TCPOpen: bind failed( error = %d, addr = %s)\n", error,
             text.IsEmpty() ? "" : text.GetBuffer());
    return handle;
}

unsigned long long CKTSocket::UDPOpen(CKTSocketAddress* address) {
    const char* failed = nullptr;
    int error = 0;
    return address == nullptr ? KT_NO_SOCKET : OpenBound(*address, false, failed, error);
}

int CKTSocket::Listen(unsigned long long handle, int backlog) {
    if (handle == KT_NO_SOCKET)
        return KT_NO_HANDLE;
    return KTOsSocketListen(handle, backlog) ? KT_OK : KT_ERROR;
}

int CKTSocket::CloseSock(unsigned long long handle) {
    if (handle == KT_NO_SOCKET)
        return KT_NO_HANDLE;
    return KTOsSocketClose(handle) ? KT_OK : KT_ERROR;
}

int CKTSocket::MCASTGroupAdd(unsigned long long handle, CKTSocketAddress& local,
                             CKTSocketAddress& group) {
    in_addr groupHost, localHost;
    const int result = ReadGroup(local, group, groupHost, localHost);
    if (result != KT_OK)
        return result;
    // Refusals are told but not returned: a camera network without a route still gets its socket.
    if (!KTOsMulticastInterface(handle, localHost))
        KTPrintf("IP_MULTICAST_IF Error.(error = %d)\n", KTOsNetError());
    if (!KTOsMulticastJoin(handle, groupHost, localHost))
        KTPrintf("IP_ADD_MEMBERSHIP Error.(error = %d)\n", KTOsNetError());
    return KT_OK;
}

int CKTSocket::MCASTGroupDrop(unsigned long long handle, CKTSocketAddress& local,
                              CKTSocketAddress& group) {
    in_addr groupHost, localHost;
    const int result = ReadGroup(local, group, groupHost, localHost);
    if (result == KT_OK && !KTOsMulticastLeave(handle, groupHost, localHost))
        KTPrintf("IP_DROP_MEMBERSHIP Error.(error = %d)\n", KTOsNetError());
    return result;
}

int CKTSocket::MCASTEnableLoop(unsigned long long handle, bool enable) {
    return KTOsMulticastLoop(handle, enable) ? KT_OK : KT_ERROR;
}

int CKTSocket::EnableBlock(unsigned long long handle, bool block) {
    if (handle == KT_NO_SOCKET)
        return KT_ERROR;
    // Whatever the system says: a handle that it refuses fails at its next use.
    KTOsSocketBlock(handle, block);
    return KT_OK;
}

int CKTSocket::GetIPv4Addr(const char* text, unsigned int* address, unsigned int*) {
    if (text == nullptr || address == nullptr)
        return KT_ERROR;
    *address = KTOsNetIPv4(text);
    return KT_OK;
}
