// HTTP/1.1 and RTSP/1.0 messages, Basic and Digest authentication, the one-shot client and the
// sessions of clients and servers. RFC 9110 and 9112, RFC 2326, RFC 2617 and 7616.
#ifndef KTBASE_KTHTTP_H
#define KTBASE_KTHTTP_H

#include <cstddef>

#include "KTBase/KTDefs.h"
#include "KTBase/KTListT.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTSocket.h"
#include "KTBase/KTString.h"
#include "KTBase/KTUrl.h"

/// One message, request or response: its head, the counts of its body, and the reading and writing
/// of both. Owns its texts; the getters lend them until the next change, null where one is absent.
/// A text that the object itself has lent may be passed back in. Belongs to one thread at a time.
///
/// A message is fresh (code 0), its head is parsed (code not 0), or it is complete (IsCompleted).
/// A head is parsed once: Reset makes room for the next message.
///
/// What deployed devices have come to rely on stays as it is:
/// - Header names are written, and matched without regard to case, with one space behind the colon;
///   only "Content-Length:" is taken without it. A repeated header keeps the last value.
/// - A request line is always written with "HTTP/1.1", whatever the protocol text says.
/// - The last chunk is "0" CR LF, without the empty line that should follow, on both ways.
/// - Parts of a multipart body follow each other without CR LF between them; each names its length.
/// - Nothing is written for a content length of 0.
class KTBASE_API CKTHTTPCommand : public IKTBaseOBJ {
public:
    CKTHTTPCommand();
    CKTHTTPCommand(const CKTHTTPCommand&) = delete;
    CKTHTTPCommand& operator=(const CKTHTTPCommand&) = delete;
    ~CKTHTTPCommand() override;

    /// Writes ToString's text to the debug output, level 0.
    virtual void Dump();

    // ---- whole messages ----

    /// Appends the head of a request. content is not appended, but its length becomes the content
    /// length; null leaves that. Returns 0; -1 for null head, without a protocol text, and when
    /// head cannot grow: head is then as it was.
    virtual int BuildRequest(CKTString* head, CKTString* content);
    /// Takes a request's head off the front of data. Returns its length, the blank line included,
    /// whatever its lines hold: a malformed first line makes the code -1, else it is 200. 0: the
    /// head is not complete, data is null or length below 1, a head was parsed before, or memory is
    /// out. A cookie, challenge or session identifier that finds no memory is left out.
    virtual int ParseRequest(const char* data, int length);
    /// Takes head and body off the front of data as far as they go, the body appended to content.
    /// Returns the bytes taken; 0: more are needed; a negative result of ParseContent.
    virtual int RecvRequest(const char* data, int length, CKTString* content);
    /// As BuildRequest. A code that GetError does not know becomes 400, here too.
    virtual int BuildResponse(CKTString* head, CKTString* content);
    /// As ParseRequest, for a status line. Without a reason phrase it is malformed. The code is
    /// that of the line, or -1 when it does not read or is below 1.
    virtual int ParseResponse(const char* data, int length);

    // ---- bodies received ----
    // Each takes what it can off the front of data, which lies outside of content, appends it to
    // content and returns the bytes taken; 0: more are needed, or there is nothing to do; -6 when
    // content cannot grow or memory is out.

    /// By the kind of body: chunked, multipart, or plain up to the content length, where a body of
    /// zlib data (gzip flag) is expanded in the pieces in which it arrives (see SetInflate).
    /// Returns also -15: a malformed part, corrupt or cut compressed data.
    virtual int ParseContent(const char* data, int length, CKTString* content);
    /// One whole chunk, of which the size has up to 8 digits; an extension behind it is passed
    /// over. The last one turns the chunked flag off. What is no chunk is never taken.
    virtual int ParseChunked(const char* data, int length, CKTString* content);
    /// One whole part; content may be null. Parts do not count towards the content length. Returns
    /// also -15: no boundary line, or no part length from 0 to 0x7FFFFFFF.
    virtual int ParseBoundary(const char* data, int length, CKTString* content);

    /// As RecvRequest.
    virtual int RecvResponse(const char* data, int length, CKTString* content);
    /// Fresh: no texts, no content, flags off, counts 0. SetInflate is kept.
    virtual void Reset();

    // ---- single lines of a head ----
    // Each returns whether it took the line.

    /// Tries the text fields, then the parsers below in their order. A CSeq line is stored and
    /// reported as not taken, so that a derived command sees it too.
    virtual bool ParseHeadLine(const char* line);
    virtual bool ParseLineConnection(const char* line);
    virtual bool ParseLineTransferEncoding(const char* line);
    /// Also without a space behind the colon. A length that does not read leaves the old one.
    virtual bool ParseLineContentLength(const char* line);
    /// The time-out is 60 s unless ";timeout=" follows at once, at least 20 s, at most 65535 s.
    virtual bool ParseLineSessionID(const char* line);
    virtual bool ParseLineCSeq(const char* line);
    virtual bool ParseSetCookie(const char* line);
    virtual bool ParseContentEncoding(const char* line);
    /// Appends all header lines of a head. False when head cannot grow.
    virtual bool BuildHeadLine(CKTString& head);

    // ---- bodies sent ----

    /// Appends one chunk with as much of data as out has room for, or with the last chunk for no
    /// data; the latter turns the chunked flag off. length 0: up to the NUL. out grows only by what
    /// the size line of 64 KiB and more takes. Returns the bytes of data taken; 0 also while out has
    /// less than 8 bytes of room.
    virtual int BuildChunked(CKTString& out, const char* data, unsigned long long length);
    /// Appends as much of data as out has room for and the content length leaves; in chunks when
    /// the flag says so. length 0: up to the NUL. Returns the bytes taken. out does not grow but
    /// for a chunk as above.
    virtual int BuildContent(CKTString& out, const char* data, unsigned long long length);

    /// For derived commands: a line of a request's head that nothing else took.
    virtual bool ParseOther(const char* line);

    // ---- state ----

    /// Whether head and body are there. True after a malformed first line.
    bool IsCompleted() const;
    /// Reason phrase of code; an unknown code becomes 400. Never null.
    static const char* GetError(int& code);
    /// Appends the dump text. Returns 0, or -6.
    int ToString(CKTString& out);

    /// From now on gzip and zlib bodies, plain, chunked or multipart, are expanded through one
    /// stream, in whatever pieces they arrive. More than maxOut bytes out of one message (0: no
    /// limit) are -15, as is corrupt or cut data, and so is all that follows. Off, chunked bodies
    /// are handed over as they come, and each piece of a plain one has to be zlib data of its own.
    void SetInflate(bool on, unsigned int maxOut);

    // ---- fields ----
    // Texts are copied; null clears.

    void SetMethod(const char* method);
    void SetProtocol(const char* protocol);
    void SetURI(const char* uri);
    void SetHost(const char* host);
    void SetLocation(const char* location);
    void SetContentType(const char* type);
    void SetContentDesc(const char* description);  ///< never written
    void SetMIMEVerSion(const char* version);      ///< never written
    void SetAuthen(const char* authorization);
    void SetAuthenWWW(const char* challenge);
    void SetAuthenDigestWWW(const char* challenge);  ///< a second WWW-Authenticate line
    void SetAccept(const char* accept);
    void SetAcceptEncoding(const char* encoding);
    void SetCookie(const char* cookie);
    void SetRange(const char* range);
    void SetTransport(const char* transport);
    void SetAgent(const char* agent);
    void SetDisposition(const char* disposition);  ///< never written
    void SetSessionID(const char* session);
    void SetCode(int code);
    void SetKeepalive(bool on);
    void SetChunked(bool on);
    void SetCached(bool on);  ///< off: "no-cache" and "no-store" are written
    void SetGZip(bool on);
    void SetContentLen(unsigned int bytes);
    unsigned short SetSN(unsigned short number);         ///< Returns it.
    unsigned short SetTimeout(unsigned short timeoutS);  ///< Returns it.

    int GetCode() const;
    const char* GetReason() const;  ///< of a parsed status line
    const char* GetMethod() const;
    const char* GetProtocol() const;
    const char* GetURI() const;
    const char* GetHost() const;
    const char* GetLocation() const;
    const char* GetContentType() const;
    const char* GetContentDesc() const;
    const char* GetMIMEVersion() const;
    const char* GetAuthen() const;
    const char* GetAuthenWWW() const;        ///< the last WWW-Authenticate line received
    const char* GetAuthenDigestWWW() const;  ///< what its setter set
    const char* GetAgent() const;
    const char* GetAccept() const;
    const char* GetAcceptEncoding() const;
    const char* GetTransport() const;
    const char* GetRange() const;
    const char* GetCookie() const;
    const char* GetDisposition() const;
    const char* GetSessionID() const;
    const char* GetBoundary() const;
    unsigned int GetContentLen() const;
    unsigned short GetSN() const;
    unsigned short GetTimeout() const;
    bool IsKeepAlive() const;
    bool IsChunked() const;
    bool IsCached() const;
    bool IsGZip() const;
    bool IsAcceptingGZip() const;
    /// First place where name stands in a Set-Cookie value received, in order of arrival.
    const char* GetSetCookie(const char* name) const;
    /// WWW-Authenticate value received, the first for index 0; null behind the last.
    const char* GetChallenge(unsigned int index) const;
    CKTString* GetContent();  ///< Borrowed.

protected:
    /// Puts what follows name and its spaces into field, a heap text. False when line does not
    /// begin with name, in any case; name includes ": ".
    bool ParseLine(char*& field, const char* line, const char* name);
    /// The same for a number; one that does not read leaves value, and the line is taken.
    bool ParseLine(unsigned int& value, const char* line, const char* name);
    /// Appends name, value, CR and LF. False for null value and when head cannot grow.
    bool BuildLine(CKTString& head, const char* name, const char* value);
    bool BuildLine(CKTString& head, const char* name, unsigned int value);

private:
    friend class CKTHTTPSession;  // sends a request more than once
    struct Inflate;

    bool IsInHead(const char* text) const;
    void Store(char*& field, const char* text);
    void StoreCopy(char*& field, const char* begin, std::size_t length);
    void Free(char* text);
    void FreeFields();
    void FreeHead();
    void AddText(CKTListT<char*>*& list, const char* text);
    void FreeList(CKTListT<char*>*& list);

    int TakeHead(const char* data, int length);
    void ParseRequestLine(char* line);
    void ParseStatusLine(char* line);
    bool TakeLine(char*& field, const char* line, const char* name);
    bool TakeContentType(const char* line);
    bool TakeChallenge(const char* line);
    bool BuildOptional(CKTString& head, const char* name, const char* value);
    bool BuildSession(CKTString& head);
    bool BuildLength(CKTString& head);

    int ParseBody(const char* data, int length, int head, CKTString* content);
    int ParsePlain(const char* data, int length, CKTString& content);
    int TakeBody(const char* data, unsigned int count, bool compressed, CKTString& content);
    int Expand(const char* data, unsigned int count, CKTString& content);
    int ExpandPiece(const char* data, unsigned int count, CKTString& content);
    int EndExpansion();
    void FreeInflate();
    int AppendChunk(CKTString& out, const char* data, unsigned int count);
    void RestartContent();

    static char* CKTHTTPCommand::*const s_texts[21];  // all texts below

    int m_code = 0;
    char* m_error = nullptr;
    char* m_method = nullptr;
    char* m_protocol = nullptr;
    char* m_uri = nullptr;
    char* m_host = nullptr;
    char* m_location = nullptr;
    char* m_authen = nullptr;
    char* m_authenWWW = nullptr;
    char* m_authenDigestWWW = nullptr;
    char* m_agent = nullptr;
    char* m_accept = nullptr;
    char* m_acceptEncoding = nullptr;
    char* m_transport = nullptr;
    char* m_range = nullptr;
    bool m_keepalive = false;
    bool m_chunked = false;
    bool m_cached = false;
    bool m_gzip = false;
    char* m_cookie = nullptr;
    char* m_mimever = nullptr;
    char* m_contendesc = nullptr;
    unsigned short m_sn = 0;
    unsigned short m_timeout = 0;  // seconds
    char* m_session = nullptr;
    char* m_disposition = nullptr;
    CKTListT<char*>* m_setCookies = nullptr;  // values of Set-Cookie lines; null before the first
    char* m_boundary = nullptr;
    char* m_type = nullptr;
    unsigned int m_len = 0;
    unsigned int m_done = 0;  // bytes of the body received or built
    CKTString m_content;

    CKTListT<char*>* m_challenges = nullptr;  // values of WWW-Authenticate lines
    // Copy of the head parsed, cut into lines. A text of these fields either lies in it or is a
    // heap block of its own.
    char* m_head = nullptr;
    std::size_t m_headBytes = 0;
    Inflate* m_inflate = nullptr;  // null before the first compressed bytes
    bool m_inflateOn = false;
    unsigned int m_maxOut = 0;
};

/// One set of credentials and the server's last challenge; reads and writes the values of
/// WWW-Authenticate and Authorization. Owns its texts. Belongs to one thread at a time.
///
/// Where nothing else is said it speaks Digest with MD5 and "auth" alone (RFC 2617), as deployed
/// devices do; ParseChallenge and GetAuthorization know RFC 7616.
class KTBASE_API CKTHTTPAuthen : public IKTBaseOBJ {
public:
    CKTHTTPAuthen();
    CKTHTTPAuthen(const CKTHTTPAuthen& other);
    CKTHTTPAuthen& operator=(const CKTHTTPAuthen& other);
    ~CKTHTTPAuthen() override;

    void Reset();
    bool IsBasic() const;

    /// Replace two texts; null clears. Return 0, or -6.
    int SetUser(const char* user, const char* password);
    int SetRealmNonce(const char* realm, const char* nonce);
    const char* GetUser() const;
    const char* GetPassword() const;
    const char* GetRealm() const;
    const char* GetNonce() const;

    // A call that fails changes nothing; each returns -6 without memory.

    /// Takes a challenge: Digest with realm and then nonce, or Basic with a realm. Forgets an older
    /// qop. Returns 0; -4 for null; -1 for any other challenge.
    int ParseResponse(const char* challenge);
    /// Takes a Digest challenge with its parameters in any order. Returns 0; -4 when it is null,
    /// empty or no Digest challenge.
    int ParseRespDigest(const char* challenge);
    /// Takes the user and password of a Basic Authorization value. Returns 0; -4 for null; -10 for
    /// another scheme; -1 when the Base64 text is none.
    int ParseRequest(const char* authorization);

    // The values produced are lent until the next one or Reset; null when something is missing.

    const char* GetAuthenRequBasic();
    /// Puts the Digest response into out. False without user, method or uri. The cnonce is empty.
    bool GetDigestKey(CKTString& out, const char* method, const char* uri);
    /// Authorization value of the form without qop, whatever was offered.
    const char* GetAuthenRequDigest(const char* method, const char* uri);
    /// Authorization value, with cnonce, nc and qop when the challenge had a qop. Raises nc.
    const char* GetRequDigestResult(const char* method, const char* uri);

    /// Takes what a server offers in one WWW-Authenticate value, which may hold several challenges,
    /// if that is stronger than what is held already (Digest with SHA-256, Digest with MD5, Basic),
    /// or the same for the same realm: a new nonce starts the count anew. Digest takes realm, nonce,
    /// opaque, algorithm and, where "auth" is offered, qop. Reset drops the challenge held. Returns
    /// 0; -4 for null; -10 when there is none that this class can answer.
    int ParseChallenge(const char* challenge);
    /// Answers the challenge of ParseChallenge in full: RFC 7616 or Basic. Raises nc.
    const char* GetAuthorization(const char* method, const char* uri);

private:
    struct Challenge;

    // What the challenge held asks for, the strongest last.
    enum Scheme : unsigned int { kNone, kBasic, kMD5, kSHA256 };

    bool Respond(bool sha256, const char* method, const char* uri, const char* cnonce,
                 char* out) const;
    const char* Digest(const char* method, const char* uri, const char* qop);
    const char* Keep(CKTString& value);
    int Take(const Challenge& challenge);
    void StartCount();
    void Swap(CKTHTTPAuthen& other);

    static char* CKTHTTPAuthen::*const s_texts[8];  // all texts below

    bool m_digest = false;
    char* m_user = nullptr;
    char* m_password = nullptr;
    char* m_realm = nullptr;
    char* m_nonce = nullptr;
    char* m_result = nullptr;
    char* m_qop = nullptr;
    unsigned int m_nonceCount = 0;
    char* m_opaque = nullptr;
    char* m_algorithm = nullptr;  // as received
    Scheme m_scheme = kNone;
};

/// Client for single requests: opens a connection for each, waits for the answer, and closes.
/// Belongs to one thread at a time, and takes no locks.
class KTBASE_API CKTHTTPSocket : public CKTSocketTCP {
public:
    CKTHTTPSocket();
    ~CKTHTTPSocket() override;

    /// Sends content to url and replaces it by the answer's body. timeout counts in 5 ms for the
    /// answer, 200 is one second, and in ms for the sending. A url that differs from the last one
    /// in case alone counts as the last one. Returns the status code, itself -1 for a malformed
    /// status line; -1 for a null argument, a url other than http: and rtsp:, and when the exchange
    /// fails. The connection is closed.
    int Commit(const char* method, const char* url, CKTString* content, unsigned int timeout);
    CKTHTTPCommand* GetRequest();   ///< Borrowed.
    CKTHTTPCommand* GetResponse();  ///< Borrowed.

protected:
    /// Sends head and content. Returns 0; -1 when not open, for null, and when not all was sent in
    /// time.
    int SendRequ(CKTHTTPCommand* request, CKTString* content, unsigned int timeoutMs);
    /// Reads the answer to the request sent last to its end within timeout times 5 ms, past interim
    /// ones (1xx). Returns 0, or -1. A head or chunk larger than the receive buffer never ends.
    int RecvResp(CKTHTTPCommand* response, CKTString* content, unsigned int timeout);

private:
    int Exchange(CKTString* content, unsigned int timeout);
    int Consume(CKTHTTPCommand& response, CKTString& content);
    bool SendAll(const CKTString& data, unsigned int timeoutMs);

    CKTHTTPUrl m_target;
    CKTHTTPCommand m_request;
    CKTHTTPCommand m_response;
    bool m_sentHead;  // the request sent last is a HEAD
};

/// One connection of a client (Acquire, Commit) or of a server (Acquire, Accept), counted. A loop
/// around Polling moves its bytes; the calls below work on the send and receive buffers alone.
/// These begin with 32 KB each. A head, a chunk and a part have to fit the one, what is sent at once
/// the other: AllocBuffer on GetRecvBuf() or GetSendBuf() makes room that stays.
///
/// Locks: Polling reads, parses heads and sends under the I/O lock, which it never holds while it
/// waits. Other threads take it around their own use of commands, buffers and Close. Reference count
/// and state have a lock of their own. Polling, Commit and HTTPCommit belong to one thread at a time.
class KTBASE_API CKTHTTPSession : public CKTSocketTCP {
public:
    /// With one reference, the caller's.
    CKTHTTPSession();

    /// Null without memory.
    static CKTHTTPSession* Acquire();
    /// Each returns the new count. The last Release closes and deletes the session.
    virtual int AddRef();
    virtual int Release();
    /// As CKTSocketTCP::Accept; makes this a server's session. What an older connection has left in
    /// the receive buffer is dropped; the commands stay as they are.
    int Accept(unsigned long long listenHandle) override;

    void Lock();  ///< the I/O lock
    void Unlock();
    bool IsServer() const;
    CKTHTTPCommand* GetRequest();   ///< Borrowed.
    CKTHTTPCommand* GetResponse();  ///< Borrowed.
    /// A number of the owner's, without meaning here. Any thread.
    unsigned int GetState();
    void SetState(unsigned int state);

    /// Sets the time-out and starts it; 0 for none.
    void TimeoutSet(unsigned int timeoutMs);
    void TimeoutUpdate();  ///< Starts it again.
    bool TimeoutCheck();   ///< Whether it has run out.

    /// Append the head of cmd (null: the session's own) to the send buffer. Return 0; -1 as the
    /// build calls; -7 on the wrong side.
    int SendRequ(CKTHTTPCommand* cmd);
    int SendResp(CKTHTTPCommand* cmd);
    /// Append as much of a body as the send buffer has room for. Return the bytes taken; -7 on the
    /// wrong side.
    int SendRequContent(CKTHTTPCommand* cmd, const char* data, unsigned long long length);
    int SendRespContent(CKTHTTPCommand* cmd, const char* data, unsigned long long length);
    /// Take a head off the receive buffer unless cmd (null: the session's own) has one. Return its
    /// length, or 0. Polling does so when bytes arrive: a head that came along with the message
    /// before it is taken by this call, after Reset.
    int RecvRequ(CKTHTTPCommand* cmd);
    int RecvResp(CKTHTTPCommand* cmd);
    /// Takes what has arrived of cmd's body (null: of what this side receives) off the receive
    /// buffer, appended to content. Returns the bytes taken; 0: nothing to take; negative as
    /// ParseContent.
    int RecvRequContent(CKTHTTPCommand* cmd, CKTString& content);

    /// Waits up to timeoutMs for the connection, then reads, parses a head that is due, and sends.
    /// Returns 1; 0 when nothing happened; -1; -7 without a connection; -18 when it has failed or
    /// the peer has closed it: it is closed then, and what was received is still there. While the
    /// receive buffer is full nothing is read. What another thread appends to the send buffer during
    /// the wait goes out with the next call. Any handle will do, however large.
    int Polling(unsigned int timeoutMs);

    /// One exchange: sends content (contentLength 0: up to its NUL) and reads the answer into
    /// GetResponse(), its body into GetResponse()->GetContent(). Interim answers (1xx) are passed
    /// over; the answer to HEAD, a 204 and a 304 end at their head. Credentials of the URL go along
    /// as Basic; a 401 is answered once with Digest, after up to 0.1 s in which a server that did not
    /// promise to keep the connection may close it. A body larger than the room in the send buffer
    /// is cut. https and wss use TLS (see SetVerify). timeoutMs counts anew for the head and for
    /// the body, and not for resolving, connecting with TLS and shaking hands; 0: none. Returns 0
    /// whatever the code, but -16 when the second answer is not 200; -1, without a time-out also
    /// when a head or chunk is larger than the receive buffer; -2 when the time ran out; -4 for a
    /// bad URL or a null method; -6; -7 on a server's session; -10 for contentLength above 32 bits;
    /// -16 also when the challenge does not read. The connection is closed.
    int Commit(const char* method, const char* url, const char* content,
               unsigned long long contentLength, const char* contentType, unsigned int timeoutMs);
    /// Sets the target of HTTPCommit. Returns 0; -4 when url is empty; -6.
    int HTTPOpen(const CKTUrl& url);
    /// One exchange with the target of HTTPOpen, with GetRequest() as the owner has filled it. On a
    /// 401 whose challenge reads it is sent once more as it is. Body and answer may be null. Returns
    /// 0 for a 200; -16 for a 401; -1 for another code; else as Commit. The connection is closed.
    int HTTPCommit(CKTString* request, CKTString* response, unsigned int timeoutMs);

    /// From now on Commit and HTTPCommit answer a 401 as RFC 7616 says: any of several challenges
    /// in any order, SHA-256 before MD5, with qop where one was offered; with Basic where nothing
    /// else was.
    void SetDigestFull(bool on);

protected:
    ~CKTHTTPSession() override;
    /// The exchange of Commit, once, with GetRequest() as it stands. Returns 0 when the answer is
    /// there; else as Commit. The connection stays open.
    int OnCommit(const char* content, unsigned long long contentLength);
    int OnHTTPCommit(CKTString* request, CKTString* response);

private:
    int Exchange(const char* body, unsigned long long length, CKTString& answer);
    int BuildExchange(const char* body, unsigned long long length);
    int OpenTarget();
    int AwaitHead();
    int AwaitBody(CKTString& answer);
    int AwaitMore();
    bool TakeFinalHead();
    bool IsRecvFull();
    bool TakeChallenge(bool authorize);
    bool ReadChallenges(CKTHTTPAuthen& authen) const;
    bool IsStale();
    bool IsTargetSecure() const;
    bool Transfer(bool read, bool write);
    int Receive(fd_set* ready);
    void CloseLocked();

    bool m_server;
    CKTMutex m_ioLock;
    CKTHTTPCommand m_request;
    CKTHTTPCommand m_response;
    CKTMutex m_refLock;  // innermost
    int m_refs;
    unsigned int m_state;
    unsigned long long m_timeoutStartMs;
    unsigned int m_timeoutMs;  // 0: none
    CKTUrl m_target;
    bool m_digestFull;
};

#endif
