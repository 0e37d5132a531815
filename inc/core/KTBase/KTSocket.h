// Socket addresses, TCP, UDP and multicast sockets, and the set that waits on many of them.
//
// No object here locks: each is used by one thread at a time. The static functions may be called
// from any thread. Handles are the system's own, widened; KT_NO_SOCKET stands for none.
#ifndef KTBASE_KTSOCKET_H
#define KTBASE_KTSOCKET_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTList.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"
#include "KTBase/KTSysTypes.h"

class CKTSsl;

/// No socket.
constexpr unsigned long long KT_NO_SOCKET = ~0ull;

/// Address families as this interface speaks them, the same on every system. A sockaddr always
/// carries the system's own number.
constexpr unsigned short KT_FAMILY_IPV4 = 2;
constexpr unsigned short KT_FAMILY_IPV6 = 23;

/// Most handles that a set takes.
constexpr int KT_SOCKET_SET_LIMIT = 64;

/// IPv4 or IPv6 address with port, or empty. Owns its bytes.
class KTBASE_API CKTSocketAddress : public IKTBaseOBJ {
public:
    CKTSocketAddress();                                  ///< empty
    explicit CKTSocketAddress(unsigned short family);    ///< as Init; empty for another family
    explicit CKTSocketAddress(const char* text);         ///< as FromString
    explicit CKTSocketAddress(const sockaddr* address);  ///< empty for null and another family
    CKTSocketAddress(const CKTSocketAddress& other);
    ~CKTSocketAddress() override;

    /// Each does what the constructor of its kind does; an unknown family number changes nothing,
    /// a sockaddr of an unknown family empties.
    CKTSocketAddress& operator=(unsigned short family);
    CKTSocketAddress& operator=(const char* text);
    CKTSocketAddress& operator=(const sockaddr* address);
    CKTSocketAddress& operator=(const CKTSocketAddress& other);

    /// Becomes 0.0.0.0 (family 2) or :: (23, or the system's own AF_INET6), port 0. False, and no
    /// change, for another family or without memory.
    bool Init(unsigned short family);
    void Clear();
    bool IsValid() const;  ///< Not empty.

    /// Takes a numeric IPv4 or IPv6 address, the latter also in brackets, or else a name, which is
    /// resolved to its first IPv4 address; that may block. Text with a port is a name like any
    /// other: ports are set apart, and the port becomes 0. Returns 0, or -1 and is empty.
    int FromString(const char* text);
    /// Appends the numeric host, with the port "host:port" or "[host]:port". Returns 0, or -1.
    int ToString(CKTString& out, bool withPort) const;

    unsigned short GetFamily() const;  ///< 2, 23, another that SetAddress brought, or 0: empty
    int GetLength() const;             ///< bytes of the sockaddr, 0 when empty
    /// Borrowed; null when empty.
    const sockaddr* GetAddress() const;
    unsigned short GetPort() const;      ///< 0 also when the address is cut short
    int SetPort(unsigned short port);    ///< Returns 0; -1 when empty or cut short.
    int SetPortEx(unsigned short port);  ///< Same as SetPort.
    /// Copies length bytes, at least 16. Returns 0; -4 for less or null, and -6 without memory:
    /// empty then.
    int SetAddress(const sockaddr* address, int length);
    /// Becomes the socket's own, or its peer's, address. Returns 0, or -1 and is empty.
    int SetSocketName(unsigned long long handle);
    int SetSocketPeer(unsigned long long handle);

    /// Whether both are the same host; ports do not count, and an empty address equals nothing.
    bool operator==(const CKTSocketAddress& other) const;
    bool operator==(const sockaddr* address) const;
    /// text is read as by FromString.
    bool operator==(const char* text) const;

    /// Becomes the first address of an adapter, of the first adapter that has one when
    /// interfaceName is null. Names are the system's: the friendly name on Windows. The port
    /// argument is not used: the port stays what the system reports. Returns 0; -1 when none
    /// matches; -10 for another family than 2 and 23.
    int BindEthnet(const char* interfaceName, unsigned short family, unsigned short port);
    /// Appends a new CKTSocketAddress per address of this machine to out and prints each. Returns
    /// their number; -1; -4 for a null list; -10 for another family than 2 and 23.
    static int ETHListQuery(CKTListOBJ* out, int family);
    /// Not supported: -10, or -4 when an argument is null or the second is empty.
    static int FindEthIF(CKTSocketAddress* out, const CKTSocketAddress* address);

private:
    bool IsComplete() const;

    int m_length;
    sockaddr* m_address;  // m_length bytes; null exactly when m_length is 0
};

class CKTSocketMSG;

/// Base of all sockets: one handle, a local and a peer address. What it does not support answers
/// -1, false or null. Destroying a socket closes it.
///
/// The event-driven calls take the set that select has left; null asks the system itself, without
/// waiting. On POSIX a handle that is too large for an fd_set is never put into one nor found there;
/// the calls without a set work for it.
class KTBASE_API CKTSocket : public IKTBaseOBJ {
public:
    CKTSocket();
    CKTSocket(const CKTSocket&) = delete;
    CKTSocket& operator=(const CKTSocket&) = delete;
    ~CKTSocket() override;

    virtual bool IsValid() const;  ///< Open.
    virtual int Open(const char* host, unsigned short port);
    /// Returns 0, or -1 when there is no handle.
    virtual int Close();
    /// Each sets the local address before opening; -1 while a handle is held.
    virtual int Bind(unsigned short port);  ///< Keeps the host. -1 without address.
    virtual int Bind(const char* address);  ///< As FromString: the port becomes 0.
    virtual int Bind(const CKTSocketAddress& address);
    /// The address of an adapter as by BindEthnet; with a null name the empty address of the
    /// family. -10 for another family.
    virtual int BindEth(const char* interfaceName, unsigned short family);
    virtual int EnableBlock(bool block);  ///< Returns 0, or -1.
    /// Sends all of data within timeoutMs (KT_INFINITE: without end). Returns length, or the bytes
    /// sent before the system failed to wait; 0 for nothing to send; -1 when not open; -2 when the
    /// time ran out, though part may have been sent; -13.
    virtual int Send(const char* data, int length, unsigned int timeoutMs);
    /// Queues a copy for OnSend.
    virtual int Send(const CKTString* data, CKTSocketAddress* to);
    virtual int Send(const CKTString* data);
    /// Waits up to timeoutMs, then reads once. Returns the bytes read, 0 on time-out, -1 when not
    /// open, failed or closed by the peer.
    virtual int Recv(char* buffer, int size, unsigned int timeoutMs);
    /// Puts the handle into the sets that are not null, into writeSet only when something waits to
    /// be sent or forceWrite is set; each set takes 64. Raises maxHandle, where all ones means
    /// none yet, and returns it; -1 when not open or the handle is too large for an fd_set.
    virtual int Select(unsigned long long& maxHandle, fd_set* readSet, fd_set* writeSet,
                       fd_set* errorSet, bool forceWrite);
    virtual bool IsSending();
    /// Sends what is queued, if the handle is ready. Returns the bytes sent; 0: nothing now; -1.
    virtual int OnSend(fd_set* ready);
    /// Reads once if the handle is ready. Returns the bytes read; 0: nothing now; -1: failed or
    /// closed by the peer.
    virtual int OnRecv(fd_set* ready, char* buffer, int size);
    virtual int OnRecv(fd_set* ready, CKTSocketMSG* message);
    virtual int OnRecv(fd_set* ready);
    virtual CKTString* GetSendBuf();  ///< Borrowed.
    virtual CKTString* GetRecvBuf();  ///< Borrowed.

    unsigned long long GetHandle() const;
    CKTSocketAddress* GetLocal();  ///< Borrowed.
    CKTSocketAddress* GetPeer();   ///< Borrowed.
    void GetLocal(CKTSocketAddress* out) const;
    void GetPeer(CKTSocketAddress* out) const;

    /// A non-blocking stream or datagram socket bound to address, which then holds what the system
    /// chose for port 0. The stream socket still has to Listen. The caller closes the handle.
    /// KT_NO_SOCKET on failure.
    static unsigned long long TCPOpen(CKTSocketAddress* address);
    static unsigned long long UDPOpen(CKTSocketAddress* address);
    /// Makes a handle of TCPOpen accept connections. Returns 0, -1, or -5 without a handle.
    static int Listen(unsigned long long handle, int backlog);
    /// Closes a handle that no CKTSocket holds. Returns 0, -1, or -5 without a handle.
    static int CloseSock(unsigned long long handle);

    /// Joins or leaves an IPv4 group on the interface that has the local address. Returns 0, also
    /// when the system refuses, which is printed; -4 for an empty address or two families; -10 for
    /// IPv6.
    static int MCASTGroupAdd(unsigned long long handle, CKTSocketAddress& local,
                             CKTSocketAddress& group);
    static int MCASTGroupDrop(unsigned long long handle, CKTSocketAddress& local,
                              CKTSocketAddress& group);
    /// Whether this machine hears what it sends to a group. Returns 0, or -1.
    static int MCASTEnableLoop(unsigned long long handle, bool enable);
    static int EnableBlock(unsigned long long handle, bool block);
    /// Dotted text to an address in network byte order, all ones when it is none. mask is not
    /// touched. Returns 0, or -1 for a null text or address.
    static int GetIPv4Addr(const char* text, unsigned int* address, unsigned int* mask);

protected:
    /// Whether the handle may be read (or written) now: 1, 0, or -1.
    int CheckReady(const fd_set* ready, bool write) const;
    /// Send and Recv with their time-outs, through ssl unless it is null.
    int SendTimed(CKTSsl* ssl, const char* data, int length, unsigned int timeoutMs);
    int RecvTimed(CKTSsl* ssl, char* buffer, int size, unsigned int timeoutMs);
    /// What CKTSsl::SendData does: the bytes sent, -1 when it would block, -2 when it failed.
    int SendOnce(CKTSsl* ssl, const char* data, int length);
    /// Closes the handle, after a shutdown of both directions when the socket is a stream.
    void CloseHandle(bool stream);

    unsigned long long m_handle;
    CKTSocketAddress m_local;
    CKTSocketAddress m_peer;
    bool m_block;  // the mode last set through this object
};

/// Stream socket with a send and a receive buffer, and TLS as a client when switched on.
class KTBASE_API CKTSocketTCP : public CKTSocket {
public:
    CKTSocketTCP();
    ~CKTSocketTCP() override;

    using CKTSocket::EnableBlock;
    using CKTSocket::OnRecv;
    using CKTSocket::Send;

    /// Starts to connect, without blocking; with TLS connects (within a second, twice), shakes
    /// hands and returns when that is done. Returns 0, or -1 and is closed. The TLS layer stays
    /// after a failure: the next Open uses TLS again.
    int Open(const char* host, unsigned short port) override;
    /// Drops the TLS layer too: the next Open is in plain text unless SetUseSsl is called again.
    /// Empties the send buffer and keeps the receive buffer.
    int Close() override;
    int Send(const char* data, int length, unsigned int timeoutMs) override;
    /// Appends to the send buffer. Returns 0; -1 for null; -6.
    int Send(const CKTString* data) override;
    int Recv(char* buffer, int size, unsigned int timeoutMs) override;
    bool IsSending() override;
    int OnSend(fd_set* ready) override;
    int OnRecv(fd_set* ready, char* buffer, int size) override;
    /// Reads into the receive buffer. Returns its new length; -8 when it is full; else as above.
    int OnRecv(fd_set* ready) override;
    CKTString* GetSendBuf() override;
    CKTString* GetRecvBuf() override;

    /// Takes a connection of a listening handle, non-blocking. Returns 0; -1; -5 without a handle;
    /// -7 while open.
    virtual int Accept(unsigned long long listenHandle);
    /// Connects, without TLS. A socket that does not block returns before the connection stands.
    /// Returns 0, or -1 and is closed.
    virtual int OpenSock(const char* host, unsigned short port, bool block);
    /// The same, waiting twice up to timeoutMs for the connection. A connection that stands at
    /// once leaves the socket non-blocking, whatever block says.
    virtual int OpenSockEx(const char* host, unsigned short port, bool block,
                           unsigned int timeoutMs);
    /// Makes the TLS layer when there is none, and switches it. Returns 0, or -6.
    virtual int SetUseSsl(bool useSsl);
    /// See CKTSsl::SetCertsPathName. Without a TLS layer nothing happens. Returns 0.
    virtual int SetCertsPathName(const char* caFile, const char* certFile, const char* keyFile);
    /// Sends data itself, past the buffer; with TLS the pending buffer instead. A null ready counts
    /// as ready.
    virtual int OnSend(fd_set* ready, char* data, int length);
    /// Hands connection, addresses, buffered bytes and TLS layer to target, which is closed. What
    /// SetVerify has set goes along and stays here too. Returns 0; -4 for null; -6, nothing moved;
    /// -7 unless this is open and target closed.
    virtual int MoveTo(CKTSocketTCP* target);

    /// From now on a TLS handshake fails unless the server's certificate verifies against caFile
    /// (PEM; null: the system's trust) and names hostName (null: the host given to Open). hostName
    /// is also the name that the server is told. Both outlive Close. Returns 0, or -6.
    int SetVerify(const char* hostName, const char* caFile);
    /// Why the last TLS handshake failed; "" when it did not. Borrowed until the next Open or
    /// Close.
    const char* GetSslReason() const;

protected:
    bool IsUsingSsl() const;
    /// Whether bytes can be read although the handle may have none: TLS has decrypted them already.
    bool HasDecrypted() const;

private:
    /// The layer while TLS is in use, else null.
    CKTSsl* UsedSsl() const;
    int BeginConnect(const char* host, unsigned short port, bool block);
    int AwaitConnect(unsigned int timeoutMs);
    int Handshake(const char* host);
    void GiveHandleToSsl();
    void DropConnection();
    bool PutVerify(CKTSsl* ssl);
    int SendPending();

    CKTString m_sendBuf;
    CKTString m_recvBuf;
    CKTSsl* m_ssl;  // owned; null: never switched on since Close
    bool m_verify;  // SetVerify was called
    CKTString m_verifyHost;
    CKTString m_verifyCa;
};

/// One datagram: the payload is the string, beside it where it was received and its peer.
class KTBASE_API CKTSocketMSG : public CKTString {
public:
    CKTSocketMSG();
    ~CKTSocketMSG() override;

    /// Prints both addresses on one line.
    void Dump() override;

    CKTSocketAddress* GetLocal();  ///< Borrowed.
    CKTSocketAddress* GetPeer();   ///< Borrowed.
    /// Each copies. Returns 0; -4 for null.
    int SetLocal(CKTSocketAddress* local);
    int SetPeer(CKTSocketAddress* peer);
    int SetPeer(const char* host, unsigned short port);  ///< As FromString.
    /// Copies payload and addresses. Returns 0, or -6.
    int Clone(const CKTSocketMSG& other);
    CKTSocketMSG* Clone() const;  ///< A new copy, the caller's; null without memory.

    int GetFreeSize() const;      ///< bytes free beside the terminator, 0 without buffer
    char* GetFreeBuffer() const;  ///< Behind the payload; null without buffer.
    /// Takes n bytes written to GetFreeBuffer into the payload. Returns as CKTString::Add.
    int AddLength(int n);

private:
    CKTSocketAddress m_local;
    CKTSocketAddress m_peer;
};

/// Datagram socket with a queue of outgoing messages.
class KTBASE_API CKTSocketUDP : public CKTSocket {
public:
    CKTSocketUDP();
    ~CKTSocketUDP() override;

    using CKTSocket::EnableBlock;
    using CKTSocket::OnRecv;

    /// Opens on the local address, which then holds what the system chose for port 0. host and
    /// port are not used. Returns 0, or -1.
    int Open(const char* host, unsigned short port) override;
    /// Drops the queue too.
    int Close() override;
    int Send(const char* data, int length, unsigned int timeoutMs) override;
    /// Queues a datagram for `to`, null: the socket's peer. Returns 0; -1 for null data or when not
    /// open; -6.
    int Send(const CKTString* data, CKTSocketAddress* to) override;
    int Send(const CKTString* data) override;
    int Recv(char* buffer, int size, unsigned int timeoutMs) override;
    bool IsSending() override;
    /// Sends the first queued datagram; it leaves the queue whatever the result, which is the
    /// system's.
    int OnSend(fd_set* ready) override;
    /// Receives into the free space of message and fills its addresses. 0 also without free space.
    int OnRecv(fd_set* ready, CKTSocketMSG* message) override;

    /// Opens on any local port, connected to a peer. Returns 0, or -1.
    virtual int OpenEx(const char* host, unsigned short port);

protected:
    int OpenBound(CKTSocketAddress& address);

private:
    CKTListOBJ m_pending;  // CKTSocketMSG, owned
};

/// Member of an IPv4 multicast group.
class KTBASE_API CKTSocketMCAST : public CKTSocketUDP {
public:
    CKTSocketMCAST();
    ~CKTSocketMCAST() override;

    /// Joins the group on the interface that has the local address, set before by Bind or BindEth.
    /// Returns 0, or -1, -4 or -10 and is closed.
    int Open(const char* groupHost, unsigned short port) override;
    /// Leaves the group.
    int Close() override;

private:
    void LeaveGroup();
};

/// Handles of many sockets to wait on together: fill it, Wait, ask it, Clear it and fill it anew.
class KTBASE_API CKTSocketSET : public IKTBaseOBJ {
public:
    CKTSocketSET();
    ~CKTSocketSET() override;

    void Clear();
    /// Adds a handle. Returns 0; -5 without a handle; -8 after 64 additions, the same handle twice
    /// counting twice, and for a handle that is too large for an fd_set.
    int Select(unsigned long long handle, bool recv, bool send);
    /// Returns the number of handles that are ready, 0 on time-out (KT_INFINITE: none), -1, or -7
    /// when nothing was added.
    int Wait(unsigned int timeoutMs);
    bool CheckRecv(unsigned long long handle) const;
    bool CheckSend(unsigned long long handle) const;
    bool CheckError(unsigned long long handle) const;

private:
    unsigned long long m_maxHandle;
    int m_count;
    fd_set m_read;
    fd_set m_write;
    fd_set m_error;
};

#endif
