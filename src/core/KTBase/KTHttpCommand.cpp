#include <cstdint>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTHttp.h"
#include "KTHttpText.h"
#include "KTText.h"

namespace {

constexpr unsigned int kListBlock = 16;
constexpr int kBadRequest = 400;

struct Reason {
    int code;
    const char* phrase;
};

constexpr Reason kReasons[] = {
    {100, "Continue"},
    {200, "OK"},
    {201, "Created"},
    {250, "Low on Storage Space"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Redirect"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Time-out"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Large"},
    {415, "Unsupported Media Type"},
    {451, "Parameter Not Understood"},
    {452, "Conference Not Found"},
    {453, "Not Enough Bandwidth"},
    {454, "Session Not Found"},
    {455, "Method Not Valid in This State"},
    {456, "Header Field Not Valid for Resource"},
    {457, "Invalid Range"},
    {458, "Parameter Is Read-Only"},
    {459, "Aggregate operation not allowed"},
    {460, "Only aggregate operation allowed"},
    {461, "Unsupported transport"},
    {462, "Destination unreachable"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Time-out"},
    {505, "RTSP Version not supported"},
    {551, "Option not supported"},
};

}  // namespace

char* CKTHTTPCommand::*const CKTHTTPCommand::s_texts[21] = {
    &CKTHTTPCommand::m_error,       &CKTHTTPCommand::m_method,
    &CKTHTTPCommand::m_protocol,    &CKTHTTPCommand::m_uri,
    &CKTHTTPCommand::m_host,        &CKTHTTPCommand::m_location,
    &CKTHTTPCommand::m_authen,      &CKTHTTPCommand::m_authenWWW,
    &CKTHTTPCommand::m_agent,       &CKTHTTPCommand::m_authenDigestWWW,
    &CKTHTTPCommand::m_accept,      &CKTHTTPCommand::m_acceptEncoding,
    &CKTHTTPCommand::m_transport,   &CKTHTTPCommand::m_range,
    &CKTHTTPCommand::m_cookie,      &CKTHTTPCommand::m_mimever,
    &CKTHTTPCommand::m_contendesc,  &CKTHTTPCommand::m_session,
    &CKTHTTPCommand::m_disposition, &CKTHTTPCommand::m_boundary,
    &CKTHTTPCommand::m_type,
};

CKTHTTPCommand::CKTHTTPCommand() = default;

CKTHTTPCommand::~CKTHTTPCommand() {
    FreeFields();
    FreeInflate();
}

void CKTHTTPCommand::Reset() {
    FreeFields();
    FreeInflate();
    m_content.Empty(true);
    m_code = 0;
    m_keepalive = m_chunked = m_cached = m_gzip = false;
    m_sn = m_timeout = 0;
    m_len = m_done = 0;
}

// ---- texts ----

bool CKTHTTPCommand::IsInHead(const char* text) const {
    return reinterpret_cast<std::uintptr_t>(text) - reinterpret_cast<std::uintptr_t>(m_head) <
           m_headBytes;
}

void CKTHTTPCommand::Free(char* text) {
    if (text != nullptr && !IsInHead(text))
        ZMKFree(text);
}

/// The field becomes a copy of text, which may lie in the field; null without memory. A text of
/// the head is not copied: nothing there changes any more.
void CKTHTTPCommand::Store(char*& field, const char* text) {
    if (text == nullptr || IsInHead(text)) {
        Free(field);
        field = const_cast<char*>(text);
    } else {
        StoreCopy(field, text, std::strlen(text));
    }
}

void CKTHTTPCommand::StoreCopy(char*& field, const char* begin, std::size_t length) {
    char* copy = KTCopyRange(begin, length);
    Free(field);
    field = copy;
}

void CKTHTTPCommand::FreeFields() {
    FreeList(m_setCookies);
    FreeList(m_challenges);
    for (char* CKTHTTPCommand::*text : s_texts) {
        Free(this->*text);
        this->*text = nullptr;
    }
    FreeHead();
}

/// With the head go the texts that lie in it.
void CKTHTTPCommand::FreeHead() {
    if (m_head == nullptr)
        return;
    FreeList(m_setCookies);
    FreeList(m_challenges);
    for (char* CKTHTTPCommand::*text : s_texts) {
        if (IsInHead(this->*text))
            this->*text = nullptr;
    }
    ZMKFree(m_head);
    m_head = nullptr;
    m_headBytes = 0;
}

/// A text that finds no memory is left out; the list reports what it lacks itself.
void CKTHTTPCommand::AddText(CKTListT<char*>*& list, const char* text) {
    if (list == nullptr)
        list = new CKTListT<char*>(kListBlock);
    char* item = nullptr;
    Store(item, text);
    if (list == nullptr || item == nullptr || list->AddTail(item) == nullptr)
        Free(item);
}

void CKTHTTPCommand::FreeList(CKTListT<char*>*& list) {
    if (list == nullptr)
        return;
    for (void* pos = list->FindIndex(0); pos != nullptr; pos = list->GetNext(pos)) {
        char* item = nullptr;
        list->GetAt(pos, item);
        Free(item);
    }
    delete list;
    list = nullptr;
}

// ---- state ----

bool CKTHTTPCommand::IsCompleted() const {
    return m_code < 0 || (m_code != 0 && !m_chunked && m_done >= m_len);
}

const char* CKTHTTPCommand::GetError(int& code) {
    for (const Reason& reason : kReasons) {
        if (reason.code == code)
            return reason.phrase;
    }
    code = kBadRequest;
    return "Bad Request";
}

int CKTHTTPCommand::ToString(CKTString& out) {
    CKTString dump;
    const auto text = [](const char* field) { return KTTextOrEmpty(field); };
    const auto optional = [&dump](const char* label, const char* field) {
        return field == nullptr || dump.Append("%s%s\n", label, field) >= 0;
    };
    const bool complete =
        dump.Append(
            "m_code       = %u\n"
            "m_error      = %s\n"
            "m_method     = %s\n"
            "m_protocol   = %s\n"
            "m_uri        = %s\n"
            "m_host       = %s\n"
            "m_type       = %s\n"
            "m_contendesc       = %s\n"
            "m_disposition = %s\n"
            "m_mimever       = %s\n"
            "m_len        = %u\n"
            "m_location   = %s\n"
            "m_connection = %s\n"
            "m_authen     = %s\n"
            "m_cookie\t = %s\n",
            static_cast<unsigned int>(m_code), text(m_error), text(m_method), text(m_protocol),
            text(m_uri), text(m_host), text(m_type), text(m_contendesc), text(m_disposition),
            text(m_mimever), m_len, text(m_location), m_keepalive ? "keep-alive" : "close",
            text(m_authen), text(m_cookie)) >= 0 &&
        optional("m_transport  = ", m_transport) && optional("m_accept     = ", m_accept) &&
        optional("m_range      = ", m_range) && optional("m_session    = ", m_session) &&
        dump.Append("m_agent      = %s\n", text(m_agent)) >= 0;
    return complete && (out << dump) >= 0 ? KT_OK : KT_NO_MEMORY;
}

void CKTHTTPCommand::Dump() {
    CKTString text;
    if (ToString(text) == KT_OK)
        KTDBG_Output(0, text.GetBuffer(), text.GetLength());
}

void CKTHTTPCommand::SetInflate(bool on, unsigned int maxOut) {
    m_inflateOn = on;
    m_maxOut = maxOut;
    if (!on)
        FreeInflate();
}

// ---- fields ----

void CKTHTTPCommand::SetMethod(const char* method) {
    Store(m_method, method);
}

void CKTHTTPCommand::SetProtocol(const char* protocol) {
    Store(m_protocol, protocol);
}

void CKTHTTPCommand::SetURI(const char* uri) {
    Store(m_uri, uri);
}

void CKTHTTPCommand::SetHost(const char* host) {
    Store(m_host, host);
}

void CKTHTTPCommand::SetLocation(const char* location) {
    Store(m_location, location);
}

void CKTHTTPCommand::SetContentType(const char* type) {
    Store(m_type, type);
}

void CKTHTTPCommand::SetContentDesc(const char* description) {
    Store(m_contendesc, description);
}

void CKTHTTPCommand::SetMIMEVerSion(const char* version) {
    Store(m_mimever, version);
}

void CKTHTTPCommand::SetAuthen(const char* authorization) {
    Store(m_authen, authorization);
}

void CKTHTTPCommand::SetAuthenWWW(const char* challenge) {
    Store(m_authenWWW, challenge);
}

void CKTHTTPCommand::SetAuthenDigestWWW(const char* challenge) {
    Store(m_authenDigestWWW, challenge);
}

void CKTHTTPCommand::SetAccept(const char* accept) {
    Store(m_accept, accept);
}

void CKTHTTPCommand::SetAcceptEncoding(const char* encoding) {
    Store(m_acceptEncoding, encoding);
}

void CKTHTTPCommand::SetCookie(const char* cookie) {
    Store(m_cookie, cookie);
}

void CKTHTTPCommand::SetRange(const char* range) {
    Store(m_range, range);
}

void CKTHTTPCommand::SetTransport(const char* transport) {
    Store(m_transport, transport);
}

void CKTHTTPCommand::SetAgent(const char* agent) {
    Store(m_agent, agent);
}

void CKTHTTPCommand::SetDisposition(const char* disposition) {
    Store(m_disposition, disposition);
}

void CKTHTTPCommand::SetSessionID(const char* session) {
    Store(m_session, session);
}

void CKTHTTPCommand::SetCode(int code) {
    m_code = code;
}

void CKTHTTPCommand::SetKeepalive(bool on) {
    m_keepalive = on;
}

void CKTHTTPCommand::SetChunked(bool on) {
    m_chunked = on;
}

void CKTHTTPCommand::SetCached(bool on) {
    m_cached = on;
}

void CKTHTTPCommand::SetGZip(bool on) {
    m_gzip = on;
}

void CKTHTTPCommand::SetContentLen(unsigned int bytes) {
    m_len = bytes;
}

unsigned short CKTHTTPCommand::SetSN(unsigned short number) {
    return m_sn = number;
}

unsigned short CKTHTTPCommand::SetTimeout(unsigned short timeoutS) {
    return m_timeout = timeoutS;
}

int CKTHTTPCommand::GetCode() const {
    return m_code;
}

const char* CKTHTTPCommand::GetReason() const {
    return m_error;
}

const char* CKTHTTPCommand::GetMethod() const {
    return m_method;
}

const char* CKTHTTPCommand::GetProtocol() const {
    return m_protocol;
}

const char* CKTHTTPCommand::GetURI() const {
    return m_uri;
}

const char* CKTHTTPCommand::GetHost() const {
    return m_host;
}

const char* CKTHTTPCommand::GetLocation() const {
    return m_location;
}

const char* CKTHTTPCommand::GetContentType() const {
    return m_type;
}

const char* CKTHTTPCommand::GetContentDesc() const {
    return m_contendesc;
}

const char* CKTHTTPCommand::GetMIMEVersion() const {
    return m_mimever;
}

const char* CKTHTTPCommand::GetAuthen() const {
    return m_authen;
}

const char* CKTHTTPCommand::GetAuthenWWW() const {
    return m_authenWWW;
}

const char* CKTHTTPCommand::GetAuthenDigestWWW() const {
    return m_authenDigestWWW;
}

const char* CKTHTTPCommand::GetAgent() const {
    return m_agent;
}

const char* CKTHTTPCommand::GetAccept() const {
    return m_accept;
}

const char* CKTHTTPCommand::GetAcceptEncoding() const {
    return m_acceptEncoding;
}

const char* CKTHTTPCommand::GetTransport() const {
    return m_transport;
}

const char* CKTHTTPCommand::GetRange() const {
    return m_range;
}

const char* CKTHTTPCommand::GetCookie() const {
    return m_cookie;
}

const char* CKTHTTPCommand::GetDisposition() const {
    return m_disposition;
}

const char* CKTHTTPCommand::GetSessionID() const {
    return m_session;
}

const char* CKTHTTPCommand::GetBoundary() const {
    return m_boundary;
}

unsigned int CKTHTTPCommand::GetContentLen() const {
    return m_len;
}

unsigned short CKTHTTPCommand::GetSN() const {
    return m_sn;
}

unsigned short CKTHTTPCommand::GetTimeout() const {
    return m_timeout;
}

bool CKTHTTPCommand::IsKeepAlive() const {
    return m_keepalive;
}

bool CKTHTTPCommand::IsChunked() const {
    return m_chunked;
}

bool CKTHTTPCommand::IsCached() const {
    return m_cached;
}

bool CKTHTTPCommand::IsGZip() const {
    return m_gzip;
}

bool CKTHTTPCommand::IsAcceptingGZip() const {
    return CKTString::Find("gzip", m_acceptEncoding, 0) != nullptr;
}

const char* CKTHTTPCommand::GetSetCookie(const char* name) const {
    void* pos = m_setCookies != nullptr ? m_setCookies->FindIndex(0) : nullptr;
    for (; pos != nullptr; pos = m_setCookies->GetNext(pos)) {
        char* value = nullptr;
        m_setCookies->GetAt(pos, value);
        if (const char* found = CKTString::Find(name, value, 0))
            return found;
    }
    return nullptr;
}

const char* CKTHTTPCommand::GetChallenge(unsigned int index) const {
    char* value = nullptr;
    if (m_challenges != nullptr && index < m_challenges->GetCount())
        m_challenges->GetAt(m_challenges->FindIndex(static_cast<int>(index)), value);
    return value;
}

CKTString* CKTHTTPCommand::GetContent() {
    return &m_content;
}
