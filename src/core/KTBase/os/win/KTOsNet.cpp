#include "os/KTOsNet.h"

// Before wincrypt.h, which is not part of the lean windows.h.
#include <windows.h>

#include <iphlpapi.h>
#include <mstcpip.h>
#include <wincrypt.h>

#include <atomic>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"
#include "os/KTOsSync.h"

#ifndef SIO_UDP_CONNRESET
#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#endif

namespace {

constexpr unsigned long long kNone = ~0ull;
constexpr unsigned long kFirstListBytes = 4096;
// The lists can grow between two calls; a system that asks for ever more is not followed for ever.
constexpr int kMostListTries = 8;
constexpr unsigned long kMostListBytes = 16 * 1024 * 1024;

KTOsFastLock g_startLock;
std::atomic<bool> g_started{false};

SOCKET Native(unsigned long long handle) {
    return static_cast<SOCKET>(handle);
}

template <typename Value>
bool SetOption(unsigned long long handle, int level, int name, const Value& value) {
    return setsockopt(Native(handle), level, name, reinterpret_cast<const char*>(&value),
                      sizeof(value)) == 0;
}

timeval TimeValue(unsigned int timeoutMs) {
    return {static_cast<long>(timeoutMs / 1000), static_cast<long>(timeoutMs % 1000) * 1000};
}

/// A list that a system call fills, as large as the call asks for.
class ListBuffer {
public:
    ListBuffer() { Resize(kFirstListBytes); }
    ~ListBuffer() { ZMKFree(m_bytes); }
    ListBuffer(const ListBuffer&) = delete;
    ListBuffer& operator=(const ListBuffer&) = delete;

    bool Resize(unsigned long size) {
        ZMKFree(m_bytes);
        m_bytes = size <= kMostListBytes ? ZMKMalloc(size) : nullptr;
        m_size = size;
        return m_bytes != nullptr;
    }
    unsigned char* Bytes() const { return m_bytes; }
    unsigned long Size() const { return m_size; }

private:
    unsigned char* m_bytes = nullptr;
    unsigned long m_size = 0;
};

/// The adapters, in buffer; null when the system does not tell.
const IP_ADAPTER_ADDRESSES* QueryAdapters(int family, ListBuffer& buffer) {
    const unsigned long flags =
        GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER | GAA_FLAG_INCLUDE_PREFIX;
    for (int i = 0; i < kMostListTries && buffer.Bytes() != nullptr; ++i) {
        auto* list = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.Bytes());
        unsigned long size = buffer.Size();
        const unsigned long error = GetAdaptersAddresses(family, flags, nullptr, list, &size);
        if (error == NO_ERROR)
            return list;
        if (error != ERROR_BUFFER_OVERFLOW)
            return nullptr;
        buffer.Resize(size);
    }
    return nullptr;
}

/// Whether the adapter's friendly name, in the ANSI code page, is name byte for byte.
bool IsNamed(const IP_ADAPTER_ADDRESSES* adapter, const char* name) {
    const wchar_t* wide = adapter->FriendlyName;
    const int size = WideCharToMultiByte(CP_ACP, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    char* text = size > 0 ? reinterpret_cast<char*>(ZMKMalloc(size)) : nullptr;
    if (text == nullptr)
        return false;
    const bool same =
        WideCharToMultiByte(CP_ACP, 0, wide, -1, text, size, nullptr, nullptr) == size &&
        std::strcmp(text, name) == 0;
    ZMKFree(text);
    return same;
}

/// The address list, in buffer; null when the system does not tell.
const SOCKET_ADDRESS_LIST* QueryAddresses(SOCKET socket, ListBuffer& buffer) {
    for (int i = 0; i < kMostListTries && buffer.Bytes() != nullptr; ++i) {
        unsigned long size = 0;
        if (WSAIoctl(socket, SIO_ADDRESS_LIST_QUERY, nullptr, 0, buffer.Bytes(), buffer.Size(),
                     &size, nullptr, nullptr) == 0)
            return reinterpret_cast<const SOCKET_ADDRESS_LIST*>(buffer.Bytes());
        const int error = WSAGetLastError();
        if (error != WSAEFAULT)
            return nullptr;
        KTPrintf("WSAIoctl: error = %d\n", error);
        buffer.Resize(size);
    }
    return nullptr;
}

}  // namespace

void KTOsNetOpen() {
    if (g_started.load(std::memory_order_acquire))
        return;
    KTOsFastGuard hold(g_startLock);
    WSADATA data;
    if (!g_started.load(std::memory_order_relaxed) && WSAStartup(MAKEWORD(2, 2), &data) == 0)
        g_started.store(true, std::memory_order_release);
}

void KTOsNetClose() {
    if (g_started.exchange(false))
        WSACleanup();
}

int KTOsNetError() {
    return WSAGetLastError();
}

bool KTOsNetWouldBlock(int error) {
    return error == WSAEWOULDBLOCK;
}

// ---- names and adapters ----

bool KTOsNetParse(int family, const char* text, void* out) {
    KTOsNetOpen();
    return inet_pton(family, text, out) == 1;
}

bool KTOsNetHostText(const sockaddr* address, int length, char* host, std::size_t hostSize) {
    KTOsNetOpen();
    return getnameinfo(address, length, host, static_cast<DWORD>(hostSize), nullptr, 0,
                       NI_NUMERICHOST) == 0;
}

bool KTOsNetResolve(const char* host, sockaddr_in& out) {
    KTOsNetOpen();
    addrinfo* list = nullptr;
    if (getaddrinfo(host, "0", nullptr, &list) != 0)
        return false;
    const addrinfo* entry = list;
    while (entry != nullptr &&
           (entry->ai_family != AF_INET || entry->ai_addrlen < sizeof(sockaddr_in)))
        entry = entry->ai_next;
    if (entry != nullptr)
        std::memcpy(&out, entry->ai_addr, sizeof(out));
    freeaddrinfo(list);
    return entry != nullptr;
}

unsigned int KTOsNetIPv4(const char* text) {
    return inet_addr(text);
}

bool KTOsNetAdapter(const char* name, int family, KTOsNetTake take, void* context) {
    ListBuffer buffer;
    const IP_ADAPTER_ADDRESSES* adapter = QueryAdapters(family, buffer);
    for (; adapter != nullptr; adapter = adapter->Next) {
        if (adapter->FirstUnicastAddress == nullptr)
            continue;
        if (name != nullptr && !IsNamed(adapter, name))
            continue;
        const SOCKET_ADDRESS& address = adapter->FirstUnicastAddress->Address;
        take(context, address.lpSockaddr, address.iSockaddrLength);
        return true;
    }
    return false;
}

bool KTOsNetAddresses(int family, KTOsNetTake take, void* context) {
    const unsigned long long handle = KTOsSocketOpen(family, false);
    if (handle == kNone)
        return false;
    ListBuffer buffer;
    const SOCKET_ADDRESS_LIST* list = QueryAddresses(Native(handle), buffer);
    KTOsSocketClose(handle);
    for (int i = 0; list != nullptr && i < list->iAddressCount; ++i) {
        if (!take(context, list->Address[i].lpSockaddr, list->Address[i].iSockaddrLength))
            break;
    }
    return list != nullptr;
}

bool KTOsTrust(bool (*take)(void* context, const unsigned char* der, int length), void* context) {
    const HCERTSTORE store = CertOpenSystemStoreW(0, L"ROOT");
    if (store == nullptr)
        return false;
    const CERT_CONTEXT* entry = nullptr;
    while ((entry = CertEnumCertificatesInStore(store, entry)) != nullptr) {
        if (!take(context, entry->pbCertEncoded, static_cast<int>(entry->cbCertEncoded))) {
            CertFreeCertificateContext(entry);
            break;
        }
    }
    CertCloseStore(store, 0);
    return true;
}

// ---- sockets ----

unsigned long long KTOsSocketOpen(int family, bool stream) {
    KTOsNetOpen();
    const SOCKET socket = WSASocketW(family, stream ? SOCK_STREAM : SOCK_DGRAM, 0, nullptr, 0,
                                     WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (socket == INVALID_SOCKET)
        return kNone;
    if (family == AF_INET6)
        SetOption(socket, IPPROTO_IPV6, IPV6_V6ONLY, DWORD{1});
    if (!stream) {
        // One unreachable receiver would otherwise end receiving from all others.
        BOOL report = FALSE;
        DWORD size = 0;
        WSAIoctl(socket, SIO_UDP_CONNRESET, &report, sizeof(report), nullptr, 0, &size, nullptr,
                 nullptr);
    }
    return socket;
}

bool KTOsSocketClose(unsigned long long handle) {
    return closesocket(Native(handle)) == 0;
}

void KTOsSocketShutdown(unsigned long long handle) {
    shutdown(Native(handle), SD_BOTH);
}

bool KTOsSocketReuseAddress(unsigned long long handle) {
    return SetOption(handle, SOL_SOCKET, SO_REUSEADDR, BOOL{TRUE});
}

bool KTOsSocketBlock(unsigned long long handle, bool block) {
    u_long nonBlocking = !block;
    return ioctlsocket(Native(handle), FIONBIO, &nonBlocking) == 0;
}

bool KTOsSocketReceiveBytes(unsigned long long handle, int bytes) {
    return SetOption(handle, SOL_SOCKET, SO_RCVBUF, bytes);
}

bool KTOsSocketBind(unsigned long long handle, const sockaddr* address, int length) {
    return bind(Native(handle), address, length) == 0;
}

bool KTOsSocketConnect(unsigned long long handle, const sockaddr* address, int length) {
    return connect(Native(handle), address, length) == 0;
}

bool KTOsSocketListen(unsigned long long handle, int backlog) {
    return listen(Native(handle), backlog) == 0;
}

unsigned long long KTOsSocketAccept(unsigned long long handle) {
    return accept(Native(handle), nullptr, nullptr);
}

bool KTOsSocketName(unsigned long long handle, sockaddr_storage& out, int& length) {
    length = sizeof(out);
    return getsockname(Native(handle), reinterpret_cast<sockaddr*>(&out), &length) == 0;
}

bool KTOsSocketPeer(unsigned long long handle, sockaddr_storage& out, int& length) {
    length = sizeof(out);
    return getpeername(Native(handle), reinterpret_cast<sockaddr*>(&out), &length) == 0;
}

int KTOsSocketPendingError(unsigned long long handle) {
    int error = 0;
    int size = sizeof(error);
    const int result =
        getsockopt(Native(handle), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
    return result == 0 ? error : -1;
}

int KTOsSocketSend(unsigned long long handle, const void* data, int length, int flags) {
    return send(Native(handle), static_cast<const char*>(data), length, flags);
}

int KTOsSocketRecv(unsigned long long handle, void* buffer, int size, int flags) {
    return recv(Native(handle), static_cast<char*>(buffer), size, flags);
}

int KTOsSocketSendTo(unsigned long long handle, const void* data, int length, const sockaddr* to,
                     int toLength) {
    return sendto(Native(handle), static_cast<const char*>(data), length, 0, to, toLength);
}

int KTOsSocketRecvFrom(unsigned long long handle, void* buffer, int size, sockaddr_storage& from,
                       int& fromLength) {
    fromLength = sizeof(from);
    return recvfrom(Native(handle), static_cast<char*>(buffer), size, 0,
                    reinterpret_cast<sockaddr*>(&from), &fromLength);
}

int KTOsSocketWait(unsigned long long handle, KTOsWait what, unsigned int timeoutMs) {
    fd_set set, failed;
    FD_ZERO(&set);
    FD_ZERO(&failed);
    set.fd_array[set.fd_count++] = Native(handle);
    // A connection that fails shows here only.
    if (what == KTOsWait::Connect)
        failed = set;
    timeval time = TimeValue(timeoutMs);
    const int count = select(
        0, what == KTOsWait::Read ? &set : nullptr, what == KTOsWait::Read ? nullptr : &set,
        what == KTOsWait::Connect ? &failed : nullptr, timeoutMs == KT_INFINITE ? nullptr : &time);
    return count > 0 ? 1 : count;
}

int KTOsSocketWaitAny(unsigned long long handle, const KTOsReady& wanted, unsigned int timeoutMs,
                      KTOsReady& found) {
    fd_set read, write, error;
    FD_ZERO(&read);
    FD_ZERO(&write);
    FD_ZERO(&error);
    if (wanted.read)
        KTOsSetAdd(read, handle, 1);
    if (wanted.write)
        KTOsSetAdd(write, handle, 1);
    KTOsSetAdd(error, handle, 1);
    const int count = KTOsSetWait(handle, read, write, error, timeoutMs);
    found.read = count > 0 && KTOsSetHas(read, handle);
    found.write = count > 0 && KTOsSetHas(write, handle);
    found.error = count > 0 && KTOsSetHas(error, handle);
    return count > 0 ? 1 : count;
}

// ---- multicast ----

void KTOsMulticastBindAddress(sockaddr_in&) {}

bool KTOsMulticastInterface(unsigned long long handle, const in_addr& local) {
    return SetOption(handle, IPPROTO_IP, IP_MULTICAST_IF, local);
}

bool KTOsMulticastJoin(unsigned long long handle, const in_addr& group, const in_addr& local) {
    return SetOption(handle, IPPROTO_IP, IP_ADD_MEMBERSHIP, ip_mreq{group, local});
}

bool KTOsMulticastLeave(unsigned long long handle, const in_addr& group, const in_addr& local) {
    return SetOption(handle, IPPROTO_IP, IP_DROP_MEMBERSHIP, ip_mreq{group, local});
}

bool KTOsMulticastLoop(unsigned long long handle, bool enable) {
    return SetOption(handle, IPPROTO_IP, IP_MULTICAST_LOOP, static_cast<unsigned char>(enable));
}

// ---- sets ----

bool KTOsSetFits(unsigned long long handle) {
    return handle != kNone;
}

void KTOsSetClear(fd_set& set) {
    FD_ZERO(&set);
}

void KTOsSetAdd(fd_set& set, unsigned long long handle, int limit) {
    if (!KTOsSetHas(set, handle) && set.fd_count < static_cast<u_int>(limit))
        set.fd_array[set.fd_count++] = Native(handle);
}

bool KTOsSetHas(const fd_set& set, unsigned long long handle) {
    for (u_int i = 0; i < set.fd_count; ++i) {
        if (set.fd_array[i] == Native(handle))
            return true;
    }
    return false;
}

int KTOsSetWait(unsigned long long, fd_set& read, fd_set& write, fd_set& error,
                unsigned int timeoutMs) {
    timeval time = TimeValue(timeoutMs);
    return select(0, &read, &write, &error, timeoutMs == KT_INFINITE ? nullptr : &time);
}
