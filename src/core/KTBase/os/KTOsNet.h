// Sockets, name lookup and adapters of the platform.
//
// Handles are the system's own, widened to 64 bits; all ones is none, and every call then fails.
// Calls that return bool or a count leave the reason for KTOsNetError.
#ifndef KTBASE_OS_KTOSNET_H
#define KTBASE_OS_KTOSNET_H

#include <cstddef>

#include "KTBase/KTSysTypes.h"

/// Starts the system's socket library; every call that needs it does so too. Any thread, any
/// number of times. Nothing to do on POSIX.
void KTOsNetOpen();
/// When the library is unloaded while the process goes on.
void KTOsNetClose();

/// The system's number for this thread's last failure.
int KTOsNetError();
/// Whether that number says that a call on a non-blocking socket would have to wait, or that a
/// connection is under way.
bool KTOsNetWouldBlock(int error);

/// Text to a numeric address: 4 bytes at out for AF_INET, 16 for AF_INET6. text is not null.
bool KTOsNetParse(int family, const char* text, void* out);
/// The numeric host of an address, as text.
bool KTOsNetHostText(const sockaddr* address, int length, char* host, std::size_t hostSize);
/// First IPv4 address of a host name. Blocks while the system resolves.
bool KTOsNetResolve(const char* host, sockaddr_in& out);
/// inet_addr: network byte order; all ones when text is no address.
unsigned int KTOsNetIPv4(const char* text);

/// Receives an address; false ends the walk.
typedef bool (*KTOsNetTake)(void* context, const sockaddr* address, int length);
/// Hands out the first address, of family AF_INET or AF_INET6, of the first adapter that has one;
/// with a name, of that adapter. False when there is none.
bool KTOsNetAdapter(const char* name, int family, KTOsNetTake take, void* context);
/// Hands out every address of this machine. False when the system does not tell.
bool KTOsNetAddresses(int family, KTOsNetTake take, void* context);

/// Hands out the certificates, as DER, that the system trusts to sign others; take says whether to
/// go on. False where they are the files that OpenSSL knows by itself.
bool KTOsTrust(bool (*take)(void* context, const unsigned char* der, int length), void* context);

/// Not inherited by child processes. IPv6 sockets serve IPv6 only. A datagram socket hears only
/// the groups that it joined itself, and nothing of unreachable ports that it sent to before.
unsigned long long KTOsSocketOpen(int family, bool stream);
bool KTOsSocketClose(unsigned long long handle);
void KTOsSocketShutdown(unsigned long long handle);
bool KTOsSocketReuseAddress(unsigned long long handle);
bool KTOsSocketBlock(unsigned long long handle, bool block);
bool KTOsSocketReceiveBytes(unsigned long long handle, int bytes);  ///< Size of its buffer.
bool KTOsSocketBind(unsigned long long handle, const sockaddr* address, int length);
bool KTOsSocketConnect(unsigned long long handle, const sockaddr* address, int length);
bool KTOsSocketListen(unsigned long long handle, int backlog);
unsigned long long KTOsSocketAccept(unsigned long long handle);
bool KTOsSocketName(unsigned long long handle, sockaddr_storage& out, int& length);
bool KTOsSocketPeer(unsigned long long handle, sockaddr_storage& out, int& length);
/// The failure that the socket itself holds, as of an asynchronous connect; -1 when not to be had.
int KTOsSocketPendingError(unsigned long long handle);

/// Each returns the bytes done or -1; sending to a closed connection raises no signal.
int KTOsSocketSend(unsigned long long handle, const void* data, int length, int flags);
int KTOsSocketRecv(unsigned long long handle, void* buffer, int size, int flags);
int KTOsSocketSendTo(unsigned long long handle, const void* data, int length, const sockaddr* to,
                     int toLength);
int KTOsSocketRecvFrom(unsigned long long handle, void* buffer, int size, sockaddr_storage& from,
                       int& fromLength);

enum class KTOsWait { Read, Write, Connect };
/// Waits up to timeoutMs (all ones: without end). Returns 1 when ready or failed, 0 when the time
/// ran out, -1 when the wait failed. Takes any handle.
int KTOsSocketWait(unsigned long long handle, KTOsWait what, unsigned int timeoutMs);

/// What to wait for, or what a wait has found.
struct KTOsReady {
    bool read = false;   // also: failed, or closed by the peer
    bool write = false;  // also: failed
    bool error = false;  // urgent data, and where the system tells it apart a failed connect
};
/// Waits for several things at once, for errors always; with neither of the others wanted the time
/// may have to run out first. Otherwise as KTOsSocketWait.
int KTOsSocketWaitAny(unsigned long long handle, const KTOsReady& wanted, unsigned int timeoutMs,
                      KTOsReady& found);

/// Turns local, of IPv4, into what a member of a group that uses this interface binds to.
void KTOsMulticastBindAddress(sockaddr_in& local);
bool KTOsMulticastInterface(unsigned long long handle, const in_addr& local);
bool KTOsMulticastJoin(unsigned long long handle, const in_addr& group, const in_addr& local);
bool KTOsMulticastLeave(unsigned long long handle, const in_addr& group, const in_addr& local);
bool KTOsMulticastLoop(unsigned long long handle, bool enable);

/// Whether the system can put the handle into an fd_set at all.
bool KTOsSetFits(unsigned long long handle);
void KTOsSetClear(fd_set& set);
/// Adds the handle, unless it is there already, does not fit, or limit handles are in.
void KTOsSetAdd(fd_set& set, unsigned long long handle, int limit);
bool KTOsSetHas(const fd_set& set, unsigned long long handle);
/// select on the three sets, with time-outs as in KTOsSocketWait. Returns the number ready, or -1.
int KTOsSetWait(unsigned long long maxHandle, fd_set& read, fd_set& write, fd_set& error,
                unsigned int timeoutMs);

#endif
