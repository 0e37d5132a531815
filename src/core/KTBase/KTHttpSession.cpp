#include <algorithm>
#include <climits>
#include <cstring>

#include "KTBase/KTHttp.h"
#include "KTBase/KTTime.h"
#include "KTHttpAnswer.h"
#include "KTHttpText.h"
#include "KTOwnBuffer.h"
#include "os/KTOsNet.h"

namespace {

constexpr unsigned int kPollMs = 1000;
constexpr unsigned int kEndMs = 100;
constexpr int kUnauthorized = 401;

unsigned long long NowMs() {
    return CKTTime::GetTimeUS() / 1000;
}

/// Bytes at content, whose length of 0 means: up to the NUL.
unsigned long long LengthOf(const char* content, unsigned long long length) {
    if (content == nullptr)
        return 0;
    return length != 0 ? length : std::strlen(content);
}

}  // namespace

CKTHTTPSession::CKTHTTPSession()
    : m_server(false),
      m_refs(1),
      m_state(0),
      m_timeoutStartMs(0),
      m_timeoutMs(0),
      m_digestFull(false) {}

CKTHTTPSession::~CKTHTTPSession() = default;

CKTHTTPSession* CKTHTTPSession::Acquire() {
    CKTHTTPSession* session = new CKTHTTPSession;
    if (session == nullptr)
        return nullptr;
    if (session->GetSendBuf()->Size() != 0 && session->GetRecvBuf()->Size() != 0)
        return session;
    session->Release();
    return nullptr;
}

// ---- counting and state ----

int CKTHTTPSession::AddRef() {
    CKTGuard hold(m_refLock);
    return ++m_refs;
}

int CKTHTTPSession::Release() {
    int left;
    {
        CKTGuard hold(m_refLock);
        left = --m_refs;
    }
    // The lock goes with the session, so nobody may be inside it any more.
    if (left <= 0) {
        Close();
        delete this;
    }
    return left;
}

unsigned int CKTHTTPSession::GetState() {
    CKTGuard hold(m_refLock);
    return m_state;
}

void CKTHTTPSession::SetState(unsigned int state) {
    CKTGuard hold(m_refLock);
    m_state = state;
}

void CKTHTTPSession::Lock() {
    m_ioLock.Enter(KT_INFINITE);
}

void CKTHTTPSession::Unlock() {
    m_ioLock.Leave();
}

bool CKTHTTPSession::IsServer() const {
    return m_server;
}

CKTHTTPCommand* CKTHTTPSession::GetRequest() {
    return &m_request;
}

CKTHTTPCommand* CKTHTTPSession::GetResponse() {
    return &m_response;
}

void CKTHTTPSession::SetDigestFull(bool on) {
    m_digestFull = on;
}

// ---- time-out ----

void CKTHTTPSession::TimeoutSet(unsigned int timeoutMs) {
    m_timeoutMs = timeoutMs;
    TimeoutUpdate();
}

void CKTHTTPSession::TimeoutUpdate() {
    if (m_timeoutMs != 0)
        m_timeoutStartMs = NowMs();
}

bool CKTHTTPSession::TimeoutCheck() {
    return m_timeoutMs != 0 && m_timeoutStartMs + m_timeoutMs <= NowMs();
}

// ---- messages on the buffers ----

int CKTHTTPSession::SendRequ(CKTHTTPCommand* cmd) {
    if (m_server)
        return KT_BAD_STATE;
    return (cmd != nullptr ? cmd : &m_request)->BuildRequest(GetSendBuf(), nullptr);
}

int CKTHTTPSession::SendResp(CKTHTTPCommand* cmd) {
    if (!m_server)
        return KT_BAD_STATE;
    return (cmd != nullptr ? cmd : &m_response)->BuildResponse(GetSendBuf(), nullptr);
}

int CKTHTTPSession::SendRequContent(CKTHTTPCommand* cmd, const char* data,
                                    unsigned long long length) {
    if (m_server)
        return KT_BAD_STATE;
    return (cmd != nullptr ? cmd : &m_request)->BuildContent(*GetSendBuf(), data, length);
}

int CKTHTTPSession::SendRespContent(CKTHTTPCommand* cmd, const char* data,
                                    unsigned long long length) {
    if (!m_server)
        return KT_BAD_STATE;
    return (cmd != nullptr ? cmd : &m_response)->BuildContent(*GetSendBuf(), data, length);
}

int CKTHTTPSession::RecvRequ(CKTHTTPCommand* cmd) {
    if (cmd == nullptr)
        cmd = &m_request;
    CKTString& received = *GetRecvBuf();
    const int head =
        cmd->ParseRequest(received.GetBuffer(), static_cast<int>(received.GetLength()));
    if (head > 0)
        received.Flush(head);
    return head;
}

int CKTHTTPSession::RecvResp(CKTHTTPCommand* cmd) {
    if (cmd == nullptr)
        cmd = &m_response;
    CKTString& received = *GetRecvBuf();
    const int head =
        cmd->ParseResponse(received.GetBuffer(), static_cast<int>(received.GetLength()));
    if (head > 0)
        received.Flush(head);
    return head;
}

int CKTHTTPSession::RecvRequContent(CKTHTTPCommand* cmd, CKTString& content) {
    if (cmd == nullptr)
        cmd = m_server ? &m_request : &m_response;
    if (cmd->GetCode() <= 0 || cmd->IsCompleted())
        return 0;
    CKTString& received = *GetRecvBuf();
    const int body =
        cmd->ParseContent(received.GetBuffer(), static_cast<int>(received.GetLength()), &content);
    if (body > 0)
        received.Flush(body);
    return body;
}

// ---- connection ----

int CKTHTTPSession::Accept(unsigned long long listenHandle) {
    const int result = CKTSocketTCP::Accept(listenHandle);
    if (result != KT_OK)
        return result;
    CKTGuard hold(m_ioLock);
    m_server = true;
    GetRecvBuf()->Empty(false);
    return KT_OK;
}

int CKTHTTPSession::Polling(unsigned int timeoutMs) {
    KTOsReady wanted, found;
    unsigned long long handle;
    bool decrypted;
    {
        CKTGuard hold(m_ioLock);
        if (!IsValid())
            return KT_BAD_STATE;
        handle = m_handle;
        wanted.read = GetRecvBuf()->GetSpace() != 0;
        wanted.write = IsSending();
        decrypted = wanted.read && HasDecrypted();
    }
    const int result = KTOsSocketWaitAny(handle, wanted, decrypted ? 0 : timeoutMs, found);
    CKTGuard hold(m_ioLock);
    if (m_handle != handle)
        return KT_DISCONNECTED;  // closed by another thread meanwhile
    if (result < 0 || (result == 0 && !decrypted))
        return result;
    const bool alive = !found.error && Transfer(found.read || decrypted, found.write);
    if (alive)
        return 1;
    Close();
    return KT_DISCONNECTED;
}

/// Under the I/O lock. False when the connection has failed or ended.
bool CKTHTTPSession::Transfer(bool read, bool write) {
    // The wait has told already: a handle that fits a set need not be asked again.
    fd_set set;
    KTOsSetClear(set);
    KTOsSetAdd(set, m_handle, 1);
    fd_set* ready = KTOsSetFits(m_handle) ? &set : nullptr;
    // Another thread may have filled the buffer meanwhile.
    const int received = read && GetRecvBuf()->GetSpace() != 0 ? Receive(ready) : 0;
    if (received < 0)
        return false;
    if (!write || OnSend(ready) >= 0)
        return true;
    // The peer takes no more, but may have answered before: what has arrived is still read.
    return received > 0 || Receive(nullptr) > 0;
}

/// Reads once, and parses a head that is due. Returns as OnRecv.
int CKTHTTPSession::Receive(fd_set* ready) {
    const int received = OnRecv(ready);
    if (received > 0 && m_server)
        RecvRequ(nullptr);
    else if (received > 0)
        RecvResp(nullptr);
    return received;
}

void CKTHTTPSession::CloseLocked() {
    CKTGuard hold(m_ioLock);
    Close();
}

// ---- a client's exchange ----

int CKTHTTPSession::OnCommit(const char* content, unsigned long long contentLength) {
    return Exchange(content, LengthOf(content, contentLength), *m_response.GetContent());
}

int CKTHTTPSession::OnHTTPCommit(CKTString* request, CKTString* response) {
    const char* body = request != nullptr ? request->GetBuffer() : nullptr;
    return Exchange(body, body != nullptr ? request->GetLength() : 0,
                    response != nullptr ? *response : *m_response.GetContent());
}

int CKTHTTPSession::Exchange(const char* body, unsigned long long length, CKTString& answer) {
    // What must be encrypted does not go out on a connection that is not.
    if (IsTargetSecure() && !IsUsingSsl())
        CloseLocked();
    int result = BuildExchange(body, length);
    if (result == KT_OK && !IsValid())
        result = OpenTarget();
    if (result == KT_OK)
        result = AwaitHead();
    if (result == KT_OK)
        result = AwaitBody(answer);
    return result;
}

int CKTHTTPSession::BuildExchange(const char* body, unsigned long long length) {
    CKTGuard hold(m_ioLock);
    CKTString& out = *GetSendBuf();
    m_response.Reset();
    GetRecvBuf()->Empty(false);
    out.Empty(false);
    m_request.RestartContent();
    const int result = m_request.BuildRequest(&out, nullptr);
    if (result != KT_OK)
        return result;
    if (length != 0)
        m_request.BuildContent(out, body, length);
    if (m_request.IsChunked()) {
        m_request.BuildContent(out, nullptr, 0);
        m_request.SetChunked(true);  // for the same request once more
    }
    return KT_OK;
}

int CKTHTTPSession::OpenTarget() {
    // Close has dropped the layer: it is asked for before every opening.
    if (IsTargetSecure() && SetUseSsl(true) != KT_OK)
        return KT_NO_MEMORY;
    return Open(m_target.GetIP(), m_target.GetPort());
}

bool CKTHTTPSession::IsTargetSecure() const {
    const char* scheme = m_target.GetProtocol();
    return scheme != nullptr && (KTEqualNoCase(scheme, "https") || KTEqualNoCase(scheme, "wss"));
}

int CKTHTTPSession::AwaitHead() {
    TimeoutUpdate();
    int result = KT_OK;
    while (result == KT_OK && !TakeFinalHead())
        result = AwaitMore();
    return result;
}

/// Passes over interim answers. Whether the head of the final one is there.
bool CKTHTTPSession::TakeFinalHead() {
    CKTGuard hold(m_ioLock);
    while (KTHttpIsInterim(m_response.GetCode())) {
        m_response.Reset();
        RecvResp(nullptr);
    }
    return m_response.GetCode() != 0;
}

int CKTHTTPSession::AwaitBody(CKTString& answer) {
    TimeoutUpdate();
    answer.Empty(false);
    const char* method = m_request.GetMethod();
    const bool head = method != nullptr && std::strcmp(method, "HEAD") == 0;
    if (!KTHttpMayHaveBody(head, m_response.GetCode()))
        return KT_OK;
    for (;;) {
        {
            CKTGuard hold(m_ioLock);
            if (RecvRequContent(&m_response, answer) < 0)
                return KT_ERROR;
            if (m_response.IsCompleted())
                return KT_OK;
        }
        const int result = AwaitMore();
        if (result != KT_OK)
            return result;
    }
}

/// One step. Returns 0 to go on, -1, or -2.
int CKTHTTPSession::AwaitMore() {
    if (TimeoutCheck())
        return KT_TIMEOUT;
    unsigned int waitMs = kPollMs;
    if (m_timeoutMs != 0) {
        const unsigned long long endMs = m_timeoutStartMs + m_timeoutMs;
        const unsigned long long nowMs = NowMs();
        waitMs = static_cast<unsigned int>(
            std::min<unsigned long long>(kPollMs, endMs > nowMs ? endMs - nowMs : 0));
    } else if (IsRecvFull()) {
        return KT_ERROR;  // no time-out would ever end this
    }
    return Polling(waitMs) < 0 ? KT_ERROR : KT_OK;
}

bool CKTHTTPSession::IsRecvFull() {
    CKTGuard hold(m_ioLock);
    return GetRecvBuf()->GetSpace() == 0;
}

// ---- 401 ----

/// Reads the challenge, with authorize answers it, and leaves the connection only if the second
/// request can use it. False when the challenge does not read.
bool CKTHTTPSession::TakeChallenge(bool authorize) {
    CKTHTTPAuthen authen;
    authen.SetUser(m_target.GetUsername(), m_target.GetPassword());
    const char* method = m_request.GetMethod();
    const char* uri = m_request.GetURI();
    if (m_digestFull) {
        if (!ReadChallenges(authen))
            return false;
        m_request.SetAuthen(authen.GetAuthorization(method, uri));
    } else {
        if (authen.ParseResponse(m_response.GetAuthenWWW()) != KT_OK)
            return false;
        if (authorize)
            m_request.SetAuthen(authen.GetAuthenRequDigest(method, uri));
    }
    if (IsStale())
        CloseLocked();
    return true;
}

bool CKTHTTPSession::ReadChallenges(CKTHTTPAuthen& authen) const {
    bool known = false;
    const char* challenge;
    for (unsigned int i = 0; (challenge = m_response.GetChallenge(i)) != nullptr; ++i)
        known |= authen.ParseChallenge(challenge) == KT_OK;
    return known;
}

/// Whether the connection ends here, or is out of step: part of the request has not gone out, or
/// more has come in than the answer.
bool CKTHTTPSession::IsStale() {
    if (!IsValid())
        return false;
    CKTString& left = *GetRecvBuf();
    // An empty line follows the last chunk.
    if (IsSending() || HasDecrypted() || !(left.IsEmpty() || left == "\r\n"))
        return true;
    // A peer that does not speak of keeping the connection mostly closes it at once, but not before
    // its answer has arrived here.
    const unsigned int waitMs = m_response.IsKeepAlive() ? 0 : kEndMs;
    return KTOsSocketWait(m_handle, KTOsWait::Read, waitMs) != 0;
}

// ---- commits ----

int CKTHTTPSession::Commit(const char* method, const char* url, const char* content,
                           unsigned long long contentLength, const char* contentType,
                           unsigned int timeoutMs) {
    if (m_server)
        return KT_BAD_STATE;
    if (method == nullptr)
        return KT_ARGUMENT;
    const unsigned long long length = LengthOf(content, contentLength);
    if (contentLength > UINT_MAX || length > UINT_MAX)
        return KT_UNSUPPORTED;
    CKTString copy;  // of a body that the exchange itself would overwrite
    if (length != 0 && KTLiesIn(*m_response.GetContent(), content)) {
        if (copy.AppendSTR(content, static_cast<unsigned int>(length)) < 0)
            return KT_NO_MEMORY;
        content = copy.GetBuffer();
    }
    int result = m_target.Setup(url);
    if (result != KT_OK)
        return result;
    TimeoutSet(timeoutMs);
    CKTHTTPAuthen authen;
    authen.SetUser(m_target.GetUsername(), m_target.GetPassword());
    m_request.SetMethod(method);
    m_request.SetProtocol(m_target.GetProtocol());
    m_request.SetHost(m_target.GetHost());
    m_request.SetURI(m_target.GetPath());
    m_request.SetContentType(contentType);
    m_request.SetAuthen(authen.GetAuthenRequBasic());
    m_request.SetContentLen(static_cast<unsigned int>(length));
    if (m_request.GetMethod() == nullptr || m_request.GetHost() == nullptr ||
        m_request.GetURI() == nullptr)
        return KT_NO_MEMORY;
    result = OnCommit(content, length);
    const bool challenged = result == KT_OK && m_response.GetCode() == kUnauthorized;
    if (challenged && !TakeChallenge(true))
        result = KT_AUTH_FAILED;
    else if (challenged)
        result = OnCommit(content, length);
    CloseLocked();
    return result == KT_OK && challenged && m_response.GetCode() != 200 ? KT_AUTH_FAILED : result;
}

int CKTHTTPSession::HTTPOpen(const CKTUrl& url) {
    m_target = url;
    if (m_target.IsEmpty())
        return url.IsEmpty() ? KT_ARGUMENT : KT_NO_MEMORY;
    return KT_OK;
}

int CKTHTTPSession::HTTPCommit(CKTString* request, CKTString* response, unsigned int timeoutMs) {
    if (m_server)
        return KT_BAD_STATE;
    CKTString copy;  // of a body that the exchange itself would overwrite
    if (request != nullptr && (request == response || request == m_response.GetContent())) {
        if ((copy << request) < 0)
            return KT_NO_MEMORY;
        request = &copy;
    }
    m_request.SetContentLen(request != nullptr ? request->GetLength() : 0);
    TimeoutSet(timeoutMs);
    int result = OnHTTPCommit(request, response);
    if (result == KT_OK && m_response.GetCode() == kUnauthorized) {
        if (TakeChallenge(false))
            result = OnHTTPCommit(request, response);
        else
            result = KT_AUTH_FAILED;
    }
    CloseLocked();
    if (result != KT_OK)
        return result;
    if (m_response.GetCode() == kUnauthorized)
        return KT_AUTH_FAILED;
    return m_response.GetCode() == 200 ? KT_OK : KT_ERROR;
}
