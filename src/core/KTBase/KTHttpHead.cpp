#include <algorithm>
#include <climits>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTHttp.h"
#include "KTHttpText.h"
#include "KTText.h"

namespace {

constexpr unsigned int kDefaultTimeoutS = 60;
constexpr unsigned int kLeastTimeoutS = 20;
constexpr unsigned int kMostTimeoutS = 0xFFFF;

/// Bytes of the head at the front of data, its blank line included; 0 while it is not complete.
int HeadLength(const char* data, int length) {
    constexpr int kBlankLineLength = 4;
    if (length < kBlankLineLength || *data == '\0')
        return 0;
    const char* end = data + length;
    const char* at = data + kBlankLineLength - 1;
    while (at != end) {
        at = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
        if (at == nullptr)
            return 0;
        if (at[-1] == '\r' && at[-2] == '\n' && at[-3] == '\r')
            return static_cast<int>(at + 1 - data);
        ++at;
    }
    return 0;
}

/// Cuts a head into lines where it stands, as CHTTPParser gives them: either of CR and LF ends one,
/// leading spaces and empty lines are passed over. *end is a NUL.
class Lines {
public:
    Lines(char* begin, char* end) : m_next(begin), m_end(end), m_feed(begin) { FindFeed(); }

    /// Null at the end.
    char* Next() {
        while (m_next != m_end && (*m_next == '\r' || *m_next == '\n' || *m_next == ' '))
            ++m_next;
        if (m_next == m_end)
            return nullptr;
        char* line = m_next;
        if (m_feed < line)
            FindFeed();
        char* lineEnd = Find(line, m_feed, '\r');
        m_next = lineEnd != m_end ? lineEnd + 1 : m_end;
        *lineEnd = '\0';
        return line;
    }

private:
    static char* Find(char* begin, char* end, char c) {
        void* found = std::memchr(begin, c, static_cast<std::size_t>(end - begin));
        return found != nullptr ? static_cast<char*>(found) : end;
    }
    void FindFeed() { m_feed = Find(m_next, m_end, '\n'); }

    char* m_next;
    char* m_end;
    char* m_feed;  // the next LF, or the end: looked for once, however many lines a CR ends before
};

/// Ends text at its first space. Returns what follows the spaces there; null without one.
char* CutAtSpace(char* text) {
    char* space = std::strchr(text, ' ');
    if (space == nullptr)
        return nullptr;
    *space = '\0';
    return const_cast<char*>(KTHttpSkipSpaces(space + 1));
}

/// The value behind name and its spaces; null when line does not begin with name.
const char* Value(const char* line, const char* name) {
    const char* value = line != nullptr ? KTBehindPrefix(line, name) : nullptr;
    return value != nullptr ? KTHttpSkipSpaces(value) : nullptr;
}

/// Takes back what was appended to text since it had length bytes.
void CutBack(CKTString& text, unsigned int length) {
    if (text.GetLength() == length)
        return;
    const char first = *text.GetBuffer();
    text.Empty(false);
    if (length == 0)
        return;
    *text.GetBuffer() = first;
    text.Add(static_cast<int>(length));
}

}  // namespace

// ---- parsing ----

/// Copies the head at the front of data into m_head, with its last line's CR LF and a NUL, but
/// without the blank line. Returns its length with the blank line, or 0.
int CKTHTTPCommand::TakeHead(const char* data, int length) {
    if (data == nullptr || length < 1 || m_code != 0)
        return 0;
    const int headLength = HeadLength(data, length);
    if (headLength == 0)
        return 0;
    const std::size_t bytes = static_cast<std::size_t>(headLength) - 2;
    char* head = KTCopyRange(data, bytes);
    if (head == nullptr)
        return 0;
    FreeHead();
    m_head = head;
    m_headBytes = bytes + 1;
    m_code = -1;
    return headLength;
}

int CKTHTTPCommand::ParseRequest(const char* data, int length) {
    const int taken = TakeHead(data, length);
    if (taken == 0)
        return 0;
    Lines lines(m_head, m_head + m_headBytes - 1);
    char* line = lines.Next();
    if (line != nullptr)
        ParseRequestLine(line);
    // A derived command may reset this one on a line it does not like.
    while (m_head != nullptr && (line = lines.Next()) != nullptr) {
        if (!ParseHeadLine(line))
            ParseOther(line);
    }
    return taken;
}

int CKTHTTPCommand::ParseResponse(const char* data, int length) {
    const int taken = TakeHead(data, length);
    if (taken == 0)
        return 0;
    FreeList(m_setCookies);
    FreeList(m_challenges);
    Lines lines(m_head, m_head + m_headBytes - 1);
    char* line = lines.Next();
    if (line != nullptr)
        ParseStatusLine(line);
    while (m_head != nullptr && (line = lines.Next()) != nullptr)
        ParseHeadLine(line);
    return taken;
}

/// line lies in the head. The code stays -1 where it is malformed; the same below.
void CKTHTTPCommand::ParseRequestLine(char* line) {
    char* uri = CutAtSpace(line);
    if (uri == nullptr)
        return;
    Store(m_method, line);
    char* protocol = CutAtSpace(uri);
    if (protocol == nullptr)
        return;
    Store(m_uri, uri);
    Store(m_protocol, protocol);
    m_code = 200;
}

void CKTHTTPCommand::ParseStatusLine(char* line) {
    char* status = CutAtSpace(line);
    if (status == nullptr)
        return;
    Store(m_protocol, line);
    char* phrase = CutAtSpace(status);
    unsigned int code = 0;
    if (phrase == nullptr || !KTHttpReadNumber(status, INT_MAX, code) || code == 0)
        return;
    Store(m_error, phrase);
    m_code = static_cast<int>(code);
}

bool CKTHTTPCommand::ParseHeadLine(const char* line) {
    if (line == nullptr)
        return false;
    bool taken = false;
    switch (KTLower(*line)) {
        case 'a':
            taken = TakeLine(m_accept, line, "Accept: ") ||
                    TakeLine(m_acceptEncoding, line, "Accept-Encoding: ") ||
                    TakeLine(m_authen, line, "Authorization: ");
            break;
        case 'c':
            taken = TakeLine(m_cookie, line, "Cookie: ") || TakeContentType(line);
            break;
        case 'h':
            taken = TakeLine(m_host, line, "Host: ");
            break;
        case 'l':
            taken = TakeLine(m_location, line, "Location: ");
            break;
        case 'm':
            taken = TakeLine(m_mimever, line, "MIME-Version: ");
            break;
        case 'r':
            taken = TakeLine(m_range, line, "Range: ");
            break;
        case 't':
            taken = TakeLine(m_transport, line, "Transport: ");
            break;
        case 'u':
            taken = TakeLine(m_agent, line, "User-Agent: ");
            break;
        case 'w':
            taken = TakeChallenge(line);
            break;
        default:
            break;
    }
    // All of these are asked, whatever the first letter: a derived command may take any line here.
    return taken || ParseLineConnection(line) || ParseLineTransferEncoding(line) ||
           ParseLineContentLength(line) || ParseLineSessionID(line) || ParseLineCSeq(line) ||
           ParseSetCookie(line) || ParseContentEncoding(line);
}

bool CKTHTTPCommand::ParseLineConnection(const char* line) {
    const char* value = Value(line, "Connection: ");
    if (value == nullptr)
        return false;
    m_keepalive = *value != '\0' && !KTEqualNoCase(value, "close");
    return true;
}

bool CKTHTTPCommand::ParseLineTransferEncoding(const char* line) {
    const char* value = Value(line, "Transfer-Encoding: ");
    if (value == nullptr)
        return false;
    m_chunked = KTEqualNoCase(value, "chunked");
    // With a length left from another line the message would never be complete.
    if (m_chunked)
        m_len = 0;
    return true;
}

bool CKTHTTPCommand::ParseLineContentLength(const char* line) {
    if (!ParseLine(m_len, line, "Content-Length:"))
        return false;
    if (m_chunked)
        m_len = 0;
    return true;
}

bool CKTHTTPCommand::ParseLineSessionID(const char* line) {
    const char* value = Value(line, "Session: ");
    if (value == nullptr)
        return false;
    if (*value == '\0') {
        KTFault(kKTHttpSource, "CKTHTTPCommand::ParseLineSessionID", 563);
        return true;
    }
    const std::size_t length = std::strcspn(value, ";");
    StoreCopy(m_session, value, length);
    unsigned int timeoutS = kDefaultTimeoutS;
    constexpr char kTimeout[] = ";timeout=";
    if (std::strncmp(value + length, kTimeout, sizeof(kTimeout) - 1) == 0)
        KTHttpReadNumber(value + length + sizeof(kTimeout) - 1, kMostTimeoutS, timeoutS);
    m_timeout = static_cast<unsigned short>(std::max(timeoutS, kLeastTimeoutS));
    return true;
}

bool CKTHTTPCommand::ParseLineCSeq(const char* line) {
    unsigned int number = m_sn;
    if (ParseLine(number, line, "CSeq: "))
        m_sn = static_cast<unsigned short>(number);
    return false;  // for a derived command to see
}

bool CKTHTTPCommand::ParseSetCookie(const char* line) {
    const char* value = Value(line, "Set-Cookie: ");
    if (value == nullptr)
        return false;
    AddText(m_setCookies, value);
    return true;
}

bool CKTHTTPCommand::ParseContentEncoding(const char* line) {
    const char* value = Value(line, "Content-Encoding: ");
    if (value == nullptr)
        return false;
    m_gzip = std::strstr(value, "gzip") != nullptr;
    return true;
}

bool CKTHTTPCommand::ParseOther(const char* /*line*/) {
    return false;
}

bool CKTHTTPCommand::TakeLine(char*& field, const char* line, const char* name) {
    const char* value = Value(line, name);
    if (value == nullptr)
        return false;
    Store(field, value);
    return true;
}

bool CKTHTTPCommand::TakeContentType(const char* line) {
    if (!TakeLine(m_type, line, "Content-Type: "))
        return false;
    Store(m_boundary, nullptr);
    if (m_type == nullptr || KTBehindPrefix(m_type, "multipart/mixed") == nullptr)
        return true;
    constexpr char kBoundary[] = "boundary=";
    if (const char* found = KTHttpFind(m_type, m_type + std::strlen(m_type), kBoundary))
        Store(m_boundary, found + sizeof(kBoundary) - 1);
    return true;
}

bool CKTHTTPCommand::TakeChallenge(const char* line) {
    if (!TakeLine(m_authenWWW, line, "WWW-Authenticate: "))
        return false;
    AddText(m_challenges, Value(line, "WWW-Authenticate: "));
    return true;
}

bool CKTHTTPCommand::ParseLine(char*& field, const char* line, const char* name) {
    const char* value = Value(line, name);
    if (value == nullptr)
        return false;
    CKTString::Clone(&field, value, 0);
    return true;
}

bool CKTHTTPCommand::ParseLine(unsigned int& value, const char* line, const char* name) {
    const char* text = Value(line, name);
    if (text == nullptr)
        return false;
    KTHttpReadNumber(text, UINT_MAX, value);
    return true;
}

// ---- building ----

int CKTHTTPCommand::BuildRequest(CKTString* head, CKTString* content) {
    if (head == nullptr || m_protocol == nullptr)
        return KT_ERROR;
    const unsigned int oldLength = head->GetLength();
    if (content != nullptr)
        m_len = content->GetLength();
    // Deployed servers have always seen this version, whatever the protocol text says.
    if (head->Append("%s %s HTTP/1.1\r\n", KTTextOrEmpty(m_method), KTTextOrEmpty(m_uri)) >= 0 &&
        BuildHeadLine(*head) && head->AppendSTR("\r\n", 2) >= 0)
        return KT_OK;
    CutBack(*head, oldLength);
    return KT_ERROR;
}

int CKTHTTPCommand::BuildResponse(CKTString* head, CKTString* content) {
    if (head == nullptr || m_protocol == nullptr)
        return KT_ERROR;
    const unsigned int oldLength = head->GetLength();
    if (content != nullptr)
        m_len = content->GetLength();
    const char* phrase = GetError(m_code);
    // The second Accept line is wanted: deployed clients look for it behind the others.
    if (head->Append("%s %u %s\r\n", m_protocol, static_cast<unsigned int>(m_code), phrase) >= 0 &&
        BuildHeadLine(*head) && BuildOptional(*head, "Accept: ", m_accept) &&
        head->AppendSTR("\r\n", 2) >= 0)
        return KT_OK;
    CutBack(*head, oldLength);
    return KT_ERROR;
}

bool CKTHTTPCommand::BuildHeadLine(CKTString& head) {
    return BuildOptional(head, "Host: ", m_host) &&
           BuildLine(head, "Connection: ", m_keepalive ? "keep-alive" : "close") &&
           BuildOptional(head, "Location: ", m_location) &&
           BuildOptional(head, "Authorization: ", m_authen) &&
           BuildOptional(head, "WWW-Authenticate: ", m_authenWWW) &&
           BuildOptional(head, "WWW-Authenticate: ", m_authenDigestWWW) &&
           BuildOptional(head, "Accept: ", m_accept) &&
           BuildOptional(head, "Accept-Encoding: ", m_acceptEncoding) &&
           BuildOptional(head, "Transport: ", m_transport) &&
           BuildOptional(head, "Range: ", m_range) && BuildOptional(head, "Cookie: ", m_cookie) &&
           (m_cached || (BuildLine(head, "Pragma: ", "no-cache") &&
                         BuildLine(head, "Cache-Control: ", "no-store"))) &&
           BuildOptional(head, "Content-Type: ", m_type) && BuildSession(head) &&
           BuildLength(head) && BuildOptional(head, "User-Agent: ", m_agent);
}

bool CKTHTTPCommand::BuildSession(CKTString& head) {
    if (m_session == nullptr || m_timeout == 0)
        return BuildOptional(head, "Session: ", m_session);
    return head.Append("Session: %s; timeout = %u\r\n", m_session,
                       static_cast<unsigned int>(m_timeout)) >= 0;
}

bool CKTHTTPCommand::BuildLength(CKTString& head) {
    if (m_chunked)
        return BuildLine(head, "Transfer-Encoding: ", "chunked");
    if (m_len == 0)
        return true;
    return BuildLine(head, "Content-Length: ", m_len) &&
           (!m_gzip || BuildLine(head, "Content-Encoding: ", "gzip"));
}

bool CKTHTTPCommand::BuildOptional(CKTString& head, const char* name, const char* value) {
    return value == nullptr || BuildLine(head, name, value);
}

bool CKTHTTPCommand::BuildLine(CKTString& head, const char* name, const char* value) {
    return value != nullptr && head.AppendSTR(name, 0) >= 0 && head.AppendSTR(value, 0) >= 0 &&
           head.AppendSTR("\r\n", 2) >= 0;
}

bool CKTHTTPCommand::BuildLine(CKTString& head, const char* name, unsigned int value) {
    return head.Append("%s%u\r\n", KTTextOrEmpty(name), value) >= 0;
}
