#include "os/KTOsNet.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <limits.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>

#include "KTBase/KTDefs.h"

namespace {

constexpr unsigned long long kNone = ~0ull;

int Fd(unsigned long long handle) {
    return handle > INT_MAX ? -1 : static_cast<int>(handle);
}

/// Calls again what a signal has interrupted.
template <typename Call>
auto Retry(Call call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

template <typename Value>
bool SetOption(unsigned long long handle, int level, int name, const Value& value) {
    return setsockopt(Fd(handle), level, name, &value, sizeof(value)) == 0;
}

/// Time left of a wait, whatever signals interrupt it.
class Deadline {
public:
    explicit Deadline(unsigned int timeoutMs) : m_timeoutMs(timeoutMs), m_startMs(NowMs()) {}
    bool IsEndless() const { return m_timeoutMs == KT_INFINITE; }
    unsigned int LeftMs() const {
        const unsigned long long passed = NowMs() - m_startMs;
        return passed >= m_timeoutMs ? 0 : static_cast<unsigned int>(m_timeoutMs - passed);
    }

private:
    static unsigned long long NowMs() {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * 1000ull + now.tv_nsec / 1000000;
    }
    unsigned int m_timeoutMs;
    unsigned long long m_startMs;
};

class AddressList {
public:
    AddressList() : m_loaded(getifaddrs(&m_first) == 0) {}
    ~AddressList() {
        if (m_loaded)
            freeifaddrs(m_first);
    }
    AddressList(const AddressList&) = delete;
    AddressList& operator=(const AddressList&) = delete;

    bool IsLoaded() const { return m_loaded; }
    /// Adapters in the system's order, the loopback ones last; the addresses of each together.
    /// name: of this adapter only.
    void Walk(const char* name, int family, KTOsNetTake take, void* context) const {
        for (const bool loopback : {false, true}) {
            for (const ifaddrs* adapter = m_first; adapter != nullptr;
                 adapter = adapter->ifa_next) {
                if (((adapter->ifa_flags & IFF_LOOPBACK) != 0) != loopback || !IsFirst(adapter))
                    continue;
                if (name != nullptr && strcmp(name, adapter->ifa_name) != 0)
                    continue;
                if (!WalkAdapter(adapter, family, take, context))
                    return;
            }
        }
    }

private:
    bool IsFirst(const ifaddrs* entry) const {
        const ifaddrs* first = m_first;
        while (strcmp(first->ifa_name, entry->ifa_name) != 0)
            first = first->ifa_next;
        return first == entry;
    }
    static bool WalkAdapter(const ifaddrs* adapter, int family, KTOsNetTake take, void* context) {
        const int length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        for (const ifaddrs* entry = adapter; entry != nullptr; entry = entry->ifa_next) {
            const bool wanted = entry->ifa_addr != nullptr &&
                                entry->ifa_addr->sa_family == family &&
                                strcmp(entry->ifa_name, adapter->ifa_name) == 0;
            if (wanted && !take(context, entry->ifa_addr, length))
                return false;
        }
        return true;
    }

    ifaddrs* m_first = nullptr;
    bool m_loaded;
};

struct FirstAddress {
    KTOsNetTake take;
    void* context;
    bool found;
};

bool TakeFirst(void* context, const sockaddr* address, int length) {
    FirstAddress& first = *static_cast<FirstAddress*>(context);
    first.found = true;
    first.take(first.context, address, length);
    return false;
}

int CountBits(const fd_set& set) {
    unsigned long words[sizeof(set) / sizeof(unsigned long)];
    memcpy(words, &set, sizeof(set));
    int count = 0;
    for (const unsigned long word : words)
        count += __builtin_popcountl(word);
    return count;
}

/// Waits for the first count of entry, which is 1 or 0. Returns as KTOsSocketWait.
int Poll(pollfd& entry, nfds_t count, unsigned int timeoutMs) {
    const Deadline deadline(timeoutMs);
    while (entry.fd >= 0) {
        const unsigned int leftMs = deadline.LeftMs();
        const int waitMs = deadline.IsEndless() ? -1 : leftMs > INT_MAX ? INT_MAX : leftMs;
        const int ready = poll(&entry, count, waitMs);
        if (ready > 0 && (entry.revents & POLLNVAL) != 0)
            break;
        if (ready > 0)
            return 1;
        if (ready < 0 && errno != EINTR)
            return -1;
        if (!deadline.IsEndless() && deadline.LeftMs() == 0)
            return 0;
    }
    entry.revents = 0;
    errno = EBADF;
    return -1;
}

}  // namespace

void KTOsNetOpen() {}

void KTOsNetClose() {}

int KTOsNetError() {
    return errno;
}

bool KTOsNetWouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINPROGRESS;
}

// ---- names and adapters ----

bool KTOsNetParse(int family, const char* text, void* out) {
    return inet_pton(family, text, out) == 1;
}

bool KTOsNetHostText(const sockaddr* address, int length, char* host, std::size_t hostSize) {
    return getnameinfo(address, length, host, hostSize, nullptr, 0, NI_NUMERICHOST) == 0;
}

bool KTOsNetResolve(const char* host, sockaddr_in& out) {
    addrinfo* list = nullptr;
    if (getaddrinfo(host, "0", nullptr, &list) != 0)
        return false;
    const addrinfo* entry = list;
    while (entry != nullptr &&
           (entry->ai_family != AF_INET || entry->ai_addrlen < sizeof(sockaddr_in)))
        entry = entry->ai_next;
    if (entry != nullptr)
        memcpy(&out, entry->ai_addr, sizeof(out));
    freeaddrinfo(list);
    return entry != nullptr;
}

unsigned int KTOsNetIPv4(const char* text) {
    return inet_addr(text);
}

bool KTOsNetAdapter(const char* name, int family, KTOsNetTake take, void* context) {
    const AddressList list;
    FirstAddress first = {take, context, false};
    list.Walk(name, family, TakeFirst, &first);
    return first.found;
}

bool KTOsNetAddresses(int family, KTOsNetTake take, void* context) {
    const AddressList list;
    list.Walk(nullptr, family, take, context);
    return list.IsLoaded();
}

bool KTOsTrust(bool (*)(void* context, const unsigned char* der, int length), void*) {
    return false;
}

// ---- sockets ----

unsigned long long KTOsSocketOpen(int family, bool stream) {
    const int fd = socket(family, (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return kNone;
    const int on = 1;
    const int off = 0;
    // Bound to any address, a socket would otherwise hear every group that the machine has joined.
    if (family == AF_INET && !stream)
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof(off));
    if (family == AF_INET6)
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    return static_cast<unsigned long long>(fd);
}

bool KTOsSocketClose(unsigned long long handle) {
    // Not repeated after EINTR: the descriptor is gone by then.
    return close(Fd(handle)) == 0 || errno == EINTR;
}

void KTOsSocketShutdown(unsigned long long handle) {
    shutdown(Fd(handle), SHUT_RDWR);
}

bool KTOsSocketReuseAddress(unsigned long long handle) {
    return SetOption(handle, SOL_SOCKET, SO_REUSEADDR, 1);
}

bool KTOsSocketBlock(unsigned long long handle, bool block) {
    int nonBlocking = !block;
    return ioctl(Fd(handle), FIONBIO, &nonBlocking) == 0;
}

bool KTOsSocketReceiveBytes(unsigned long long handle, int bytes) {
    return SetOption(handle, SOL_SOCKET, SO_RCVBUF, bytes);
}

bool KTOsSocketBind(unsigned long long handle, const sockaddr* address, int length) {
    int reuse = 0;
    socklen_t size = sizeof(reuse);
    getsockopt(Fd(handle), SOL_SOCKET, SO_REUSEADDR, &reuse, &size);
    const sockaddr_in* withPort = reinterpret_cast<const sockaddr_in*>(address);
    const bool choose =
        reuse != 0 && length >= static_cast<int>(sizeof(*withPort)) && withPort->sin_port == 0;
    // While addresses may be shared, this system may choose a port that another such socket has.
    if (choose)
        SetOption(handle, SOL_SOCKET, SO_REUSEADDR, 0);
    if (bind(Fd(handle), address, length) != 0)
        return false;
    return !choose || KTOsSocketReuseAddress(handle);
}

bool KTOsSocketConnect(unsigned long long handle, const sockaddr* address, int length) {
    if (connect(Fd(handle), address, length) == 0)
        return true;
    if (errno != EINTR)
        return false;
    // The connection goes on without the call.
    if (KTOsSocketWait(handle, KTOsWait::Connect, KT_INFINITE) < 0)
        return false;
    errno = KTOsSocketPendingError(handle);
    return errno == 0;
}

bool KTOsSocketListen(unsigned long long handle, int backlog) {
    return listen(Fd(handle), backlog) == 0;
}

unsigned long long KTOsSocketAccept(unsigned long long handle) {
    const int fd = Retry([&] { return accept4(Fd(handle), nullptr, nullptr, SOCK_CLOEXEC); });
    return fd < 0 ? kNone : static_cast<unsigned long long>(fd);
}

bool KTOsSocketName(unsigned long long handle, sockaddr_storage& out, int& length) {
    socklen_t size = sizeof(out);
    const bool found = getsockname(Fd(handle), reinterpret_cast<sockaddr*>(&out), &size) == 0;
    length = static_cast<int>(size);
    return found;
}

bool KTOsSocketPeer(unsigned long long handle, sockaddr_storage& out, int& length) {
    socklen_t size = sizeof(out);
    const bool found = getpeername(Fd(handle), reinterpret_cast<sockaddr*>(&out), &size) == 0;
    length = static_cast<int>(size);
    return found;
}

int KTOsSocketPendingError(unsigned long long handle) {
    int error = 0;
    socklen_t size = sizeof(error);
    return getsockopt(Fd(handle), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : -1;
}

int KTOsSocketSend(unsigned long long handle, const void* data, int length, int flags) {
    return static_cast<int>(
        Retry([&] { return send(Fd(handle), data, length, flags | MSG_NOSIGNAL); }));
}

int KTOsSocketRecv(unsigned long long handle, void* buffer, int size, int flags) {
    return static_cast<int>(Retry([&] { return recv(Fd(handle), buffer, size, flags); }));
}

int KTOsSocketSendTo(unsigned long long handle, const void* data, int length, const sockaddr* to,
                     int toLength) {
    return static_cast<int>(
        Retry([&] { return sendto(Fd(handle), data, length, MSG_NOSIGNAL, to, toLength); }));
}

int KTOsSocketRecvFrom(unsigned long long handle, void* buffer, int size, sockaddr_storage& from,
                       int& fromLength) {
    socklen_t length = sizeof(from);
    const int count = static_cast<int>(Retry([&] {
        length = sizeof(from);
        return recvfrom(Fd(handle), buffer, size, 0, reinterpret_cast<sockaddr*>(&from), &length);
    }));
    fromLength = static_cast<int>(length);
    return count;
}

int KTOsSocketWait(unsigned long long handle, KTOsWait what, unsigned int timeoutMs) {
    pollfd entry = {Fd(handle), static_cast<short>(what == KTOsWait::Read ? POLLIN : POLLOUT), 0};
    return Poll(entry, 1, timeoutMs);
}

int KTOsSocketWaitAny(unsigned long long handle, const KTOsReady& wanted, unsigned int timeoutMs,
                      KTOsReady& found) {
    const int events = POLLPRI | (wanted.read ? POLLIN : 0) | (wanted.write ? POLLOUT : 0);
    pollfd entry = {Fd(handle), static_cast<short>(events), 0};
    // A dead connection shows whatever is asked for: it would end a wait for nothing for ever.
    const int result = Poll(entry, wanted.read || wanted.write, timeoutMs);
    found.read = wanted.read && (entry.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    found.write = wanted.write && (entry.revents & (POLLOUT | POLLHUP | POLLERR)) != 0;
    found.error = (entry.revents & POLLPRI) != 0;
    return result;
}

// ---- multicast ----

void KTOsMulticastBindAddress(sockaddr_in& local) {
    // This system takes a bound address for a filter on the destination, which is the group.
    local.sin_addr.s_addr = INADDR_ANY;
}

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
    return handle < FD_SETSIZE;
}

void KTOsSetClear(fd_set& set) {
    FD_ZERO(&set);
}

void KTOsSetAdd(fd_set& set, unsigned long long handle, int limit) {
    if (KTOsSetFits(handle) && CountBits(set) < limit)
        FD_SET(Fd(handle), &set);
}

bool KTOsSetHas(const fd_set& set, unsigned long long handle) {
    return KTOsSetFits(handle) && FD_ISSET(Fd(handle), &set);
}

int KTOsSetWait(unsigned long long maxHandle, fd_set& read, fd_set& write, fd_set& error,
                unsigned int timeoutMs) {
    const Deadline deadline(timeoutMs);
    for (;;) {
        fd_set sets[] = {read, write, error};
        const unsigned int leftMs = deadline.LeftMs();
        timeval left = {leftMs / 1000, static_cast<suseconds_t>(leftMs % 1000) * 1000};
        const int count = select(static_cast<int>(maxHandle) + 1, &sets[0], &sets[1], &sets[2],
                                 deadline.IsEndless() ? nullptr : &left);
        if (count < 0 && errno == EINTR)
            continue;
        if (count >= 0) {
            read = sets[0];
            write = sets[1];
            error = sets[2];
        }
        return count;
    }
}
