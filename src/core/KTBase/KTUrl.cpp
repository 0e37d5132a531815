#include "KTBase/KTUrl.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "KTBase/KTDebug.h"
#include "KTText.h"

namespace {

constexpr char kBlanks[] = " \t";
constexpr char kWhiteSpace[] = " \t\n\v\f\r";
constexpr char kSchemeEnd[] = "://";
constexpr std::size_t kSchemeEndLength = 3;

struct DefaultPort {
    const char* scheme;
    bool whole;  // else what the scheme begins with
    unsigned short port;
};

constexpr DefaultPort kDefaultPorts[] = {
    {"http", true, 80},   {"ws", true, 80},      {"https", true, 443},   {"wss", true, 443},
    {"rtsp", false, 554}, {"rtmp", false, 1935}, {"nubo", false, 34567},
};

// ---- reading ----

/// A null equals nothing.
bool EqualNoCase(const char* a, const char* b) {
    return a != nullptr && b != nullptr && KTEqualNoCase(a, b);
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The low 16 bits of the digits at begin; 0 when there are none or they exceed 32 bits.
unsigned short ReadPort(const char* begin, const char* end) {
    unsigned long long value = 0;
    for (; begin != end && IsDigit(*begin); ++begin) {
        value = value * 10 + static_cast<unsigned long long>(*begin - '0');
        if (value > UINT_MAX)
            return 0;
    }
    return static_cast<unsigned short>(value & 0xFFFF);
}

unsigned short PortOfScheme(const char* scheme) {
    for (const DefaultPort& entry : kDefaultPorts) {
        if (entry.whole ? EqualNoCase(scheme, entry.scheme)
                        : KTBehindPrefix(scheme, entry.scheme) != nullptr)
            return entry.port;
    }
    return 0;
}

/// The "@" that ends the credentials; null when there are none.
const char* FindCredentialsEnd(const char* rest) {
    const char* at = std::strchr(rest, '@');
    while (at != nullptr && at[1] == '@')
        at = std::strchr(at + 2, '@');
    const char* authen = std::strstr(rest, "/authen=");
    // Devices put an identity with an "@" of its own behind this word in the path.
    return at != nullptr && authen != nullptr && authen < at ? nullptr : at;
}

// ---- owned texts ----

bool Store(char*& slot, const char* begin, std::size_t length) {
    char* copy = KTCopyRange(begin, length);
    ZMKFree(slot);
    slot = copy;
    return copy != nullptr;
}

bool Store(char*& slot, const char* begin, const char* end) {
    return Store(slot, begin, static_cast<std::size_t>(end - begin));
}

/// Null for an empty text.
bool StoreOptional(char*& slot, const char* begin, std::size_t length) {
    if (length != 0)
        return Store(slot, begin, length);
    ZMKFree(slot);
    slot = nullptr;
    return true;
}

bool StoreOptional(char*& slot, const char* text) {
    return StoreOptional(slot, text, text != nullptr ? std::strlen(text) : 0);
}

/// All parts in a row; a null is an empty one. The old text stays when memory is out.
int StoreJoined(char*& slot, std::initializer_list<const char*> parts) {
    std::size_t length = 0;
    for (const char* part : parts)
        length += part != nullptr ? std::strlen(part) : 0;
    char* joined = reinterpret_cast<char*>(ZMKMalloc(length + 1));
    if (joined == nullptr)
        return KT_NO_MEMORY;
    char* end = joined;
    for (const char* part : parts) {
        const std::size_t partLength = part != nullptr ? std::strlen(part) : 0;
        end = std::copy_n(part, partLength, end);
    }
    *end = '\0';
    ZMKFree(slot);
    slot = joined;
    return KT_OK;
}

template <typename T, std::size_t N>
void FreeTexts(T& owner, char* T::*const (&texts)[N]) {
    for (char* T::*text : texts) {
        ZMKFree(owner.*text);
        owner.*text = nullptr;
    }
}

/// False without memory; some texts are copied then.
template <typename T, std::size_t N>
bool CopyTexts(T& to, const T& from, char* T::*const (&texts)[N]) {
    for (char* T::*text : texts) {
        if (from.*text != nullptr && !Store(to.*text, from.*text, std::strlen(from.*text)))
            return false;
    }
    return true;
}

template <typename T, std::size_t N>
void SwapTexts(T& a, T& b, char* T::*const (&texts)[N]) {
    for (char* T::*text : texts)
        std::swap(a.*text, b.*text);
}

/// Turns every "@@" into "@", in place.
void Unescape(char* text) {
    char* out = text;
    for (const char* in = text; *in != '\0'; ++in) {
        if (in[0] == '@' && in[1] == '@')
            ++in;
        *out++ = *in;
    }
    *out = '\0';
}

}  // namespace

// ---- CKTUrl ----

char* CKTUrl::*const CKTUrl::s_texts[9] = {
    &CKTUrl::m_urlFull,  &CKTUrl::m_url,       &CKTUrl::m_protocol,
    &CKTUrl::m_host,     &CKTUrl::m_ip,        &CKTUrl::m_path,
    &CKTUrl::m_username, &CKTUrl::m_password1, &CKTUrl::m_password,
};

CKTUrl::CKTUrl() = default;

CKTUrl::CKTUrl(const char* text) {
    Setup(text);
}

CKTUrl::CKTUrl(const CKTUrl& other) : IKTBaseOBJ(other) {
    *this = other;
}

CKTUrl::~CKTUrl() {
    Reset();
}

int CKTUrl::operator=(const char* text) {
    return Setup(text);
}

CKTUrl& CKTUrl::operator=(const CKTUrl& other) {
    CKTUrl copy;
    copy.m_port = other.m_port;
    if (!CopyTexts(copy, other, s_texts))
        copy.Reset();
    Swap(copy);
    return *this;
}

int CKTUrl::Setup(const char* text) {
    // Read aside: text may be one of this object's own.
    CKTUrl parsed;
    if (!parsed.Parse(text))
        parsed.Reset();
    Swap(parsed);
    return IsEmpty() ? KT_ARGUMENT : KT_OK;
}

void CKTUrl::Reset() {
    FreeTexts(*this, s_texts);
    m_port = 0;
}

int CKTUrl::UpdateURLFull() {
    if (CKTString::IsEmpty(m_protocol) || CKTString::IsEmpty(m_host))
        return KT_ERROR;
    const bool hasPassword = !CKTString::IsEmpty(m_password1);
    const bool hasCredentials = hasPassword || !CKTString::IsEmpty(m_username);
    return StoreJoined(m_urlFull, {m_protocol, kSchemeEnd, m_username, hasPassword ? ":" : "",
                                   m_password1, hasCredentials ? "@" : "", m_host, m_path});
}

int CKTUrl::UpdateURL() {
    if (CKTString::IsEmpty(m_protocol) || CKTString::IsEmpty(m_host))
        return KT_ERROR;
    return StoreJoined(m_url, {m_protocol, kSchemeEnd, m_host, m_path});
}

int CKTUrl::SetUser(const char* user, const char* password) {
    if (IsEmpty())
        return KT_BAD_STATE;
    if (CheckUser(user, password))
        return KT_OK;
    CKTUrl changed(*this);
    if (!StoreOptional(changed.m_username, user) || !StoreOptional(changed.m_password1, password) ||
        !StoreOptional(changed.m_password, password) || changed.UpdateURLFull() != KT_OK)
        return KT_NO_MEMORY;
    Swap(changed);
    return KT_OK;
}

int CKTUrl::CheckUser(const char* user, const char* password) const {
    return CKTString::IsEqual(user, m_username) && CKTString::IsEqual(password, m_password);
}

int CKTUrl::SetHost(const char* ip, unsigned short port) {
    if (IsEmpty())
        return KT_BAD_STATE;
    if (CKTString::IsEmpty(ip))
        return KT_ARGUMENT;
    if (std::strcmp(ip, m_ip) == 0 && port == m_port)
        return KT_OK;
    char digits[8];
    std::snprintf(digits, sizeof(digits), "%u", static_cast<unsigned int>(port));
    CKTUrl changed(*this);
    changed.m_port = port;
    if (!Store(changed.m_ip, ip, std::strlen(ip)) ||
        StoreJoined(changed.m_host, {ip, ":", digits}) != KT_OK ||
        changed.UpdateURLFull() != KT_OK || changed.UpdateURL() != KT_OK)
        return KT_NO_MEMORY;
    Swap(changed);
    return KT_OK;
}

int CKTUrl::operator==(const char* urlFull) const {
    return CKTString::IsEqual(m_urlFull, urlFull);
}

int CKTUrl::operator==(const CKTUrl& other) const {
    return *this == other.m_urlFull;
}

bool CKTUrl::IsAbsolute(const char* text) {
    return text != nullptr && text[std::strcspn(text, ":/")] == ':';
}

bool CKTUrl::BuildURL(CKTString& out, const char* url, const char* user, const char* password) {
    CKTUrl built(url);
    if (built.IsEmpty() || (!CKTString::IsEmpty(user) && built.SetUser(user, password) != KT_OK))
        return false;
    out = built.m_urlFull;
    return out.EqualTo(built.m_urlFull) != 0;  // an assignment that finds no room leaves it empty
}

bool CKTUrl::IsEmpty() const {
    return m_url == nullptr;
}

const char* CKTUrl::GetURLFull() const {
    return m_urlFull;
}

const char* CKTUrl::GetURL() const {
    return m_url;
}

const char* CKTUrl::GetProtocol() const {
    return m_protocol;
}

const char* CKTUrl::GetHost() const {
    return m_host;
}

const char* CKTUrl::GetIP() const {
    return m_ip;
}

const char* CKTUrl::GetPath() const {
    return m_path;
}

const char* CKTUrl::GetUsername() const {
    return m_username;
}

const char* CKTUrl::GetPassword1() const {
    return m_password1;
}

const char* CKTUrl::GetPassword() const {
    return m_password;
}

unsigned short CKTUrl::GetPort() const {
    return m_port;
}

/// Fills this empty object. False leaves it half-filled.
bool CKTUrl::Parse(const char* text) {
    if (text == nullptr)
        return false;
    text += std::strspn(text, kBlanks);
    const char* rest = std::strstr(text, kSchemeEnd);
    if (rest == nullptr || !Store(m_protocol, text, rest))
        return false;
    rest += kSchemeEndLength;
    if (const char* at = FindCredentialsEnd(rest)) {
        if (!TakeCredentials(rest, at))
            return false;
        rest = at + 1;
    }
    const char* path = rest + std::strcspn(rest, "/");
    if (!TakeHost(rest, path) || StoreJoined(m_path, {*path != '\0' ? path : "/"}) != KT_OK)
        return false;
    // Both refuse an empty scheme and an empty host.
    return UpdateURLFull() == KT_OK && UpdateURL() == KT_OK;
}

bool CKTUrl::TakeCredentials(const char* begin, const char* end) {
    const char* colon = std::find(begin, end, ':');
    const char* password = colon != end ? colon + 1 : end;
    const std::size_t length = static_cast<std::size_t>(end - password);
    if (!StoreOptional(m_username, begin, static_cast<std::size_t>(colon - begin)) ||
        !StoreOptional(m_password1, password, length) ||
        !StoreOptional(m_password, password, length))
        return false;
    if (m_password != nullptr)
        Unescape(m_password);
    return true;
}

bool CKTUrl::TakeHost(const char* begin, const char* end) {
    constexpr char kBracketColon[] = {']', ':'};
    const char* colon = std::search(begin, end, kBracketColon, kBracketColon + 2);
    colon = colon != end ? colon + 1 : std::find(begin, end, ':');
    if (!Store(m_host, begin, end) || !Store(m_ip, begin, colon))
        return false;
    m_port = colon != end ? ReadPort(colon + 1, end) : 0;
    if (m_port == 0)
        m_port = PortOfScheme(m_protocol);
    return true;
}

void CKTUrl::Swap(CKTUrl& other) {
    SwapTexts(*this, other, s_texts);
    std::swap(m_port, other.m_port);
}

// ---- CKTHTTPUrl ----

char* CKTHTTPUrl::*const CKTHTTPUrl::s_texts[5] = {
    &CKTHTTPUrl::m_url,  &CKTHTTPUrl::m_protocol, &CKTHTTPUrl::m_host,
    &CKTHTTPUrl::m_path, &CKTHTTPUrl::m_ip,
};

CKTHTTPUrl::CKTHTTPUrl() = default;

CKTHTTPUrl::CKTHTTPUrl(const char* text) {
    Parse(text);
}

CKTHTTPUrl::CKTHTTPUrl(const CKTHTTPUrl& other) : IKTBaseOBJ(other) {
    *this = other;
}

CKTHTTPUrl::~CKTHTTPUrl() {
    Reset();
}

void CKTHTTPUrl::Dump() {
    KTPrintf("<---------CKTHTTPUrl----------->\n");
    KTPrintf("m_url = %s\n", KTTextOrEmpty(m_url));
    KTPrintf("m_protocol = %s, m_host = %s, m_path = %s\n", KTTextOrEmpty(m_protocol),
             KTTextOrEmpty(m_host), KTTextOrEmpty(m_path));
    KTPrintf("m_ip = %s, m_port = %u\n", KTTextOrEmpty(m_ip), static_cast<unsigned int>(m_port));
}

int CKTHTTPUrl::operator=(const char* text) {
    return Parse(text);
}

CKTHTTPUrl& CKTHTTPUrl::operator=(const CKTHTTPUrl& other) {
    CKTHTTPUrl copy;
    copy.m_port = other.m_port;
    if (!CopyTexts(copy, other, s_texts))
        copy.Reset();
    Swap(copy);
    return *this;
}

int CKTHTTPUrl::Parse(const char* text) {
    // Read aside: text may be one of this object's own.
    CKTHTTPUrl parsed;
    if (!parsed.Read(text))
        parsed.Reset();
    Swap(parsed);
    return IsEmpty() ? KT_ERROR : KT_OK;
}

void CKTHTTPUrl::Reset() {
    FreeTexts(*this, s_texts);
    m_port = 0;
}

int CKTHTTPUrl::operator==(const char* url) const {
    return EqualNoCase(m_url, url);
}

int CKTHTTPUrl::operator==(const CKTHTTPUrl& other) const {
    return *this == other.m_url;
}

int CKTHTTPUrl::operator!=(const char* url) const {
    return !(*this == url);
}

bool CKTHTTPUrl::IsEmpty() const {
    return m_url == nullptr;
}

const char* CKTHTTPUrl::GetURL() const {
    return m_url;
}

const char* CKTHTTPUrl::GetProtocol() const {
    return m_protocol;
}

const char* CKTHTTPUrl::GetHost() const {
    return m_host;
}

const char* CKTHTTPUrl::GetPath() const {
    return m_path;
}

const char* CKTHTTPUrl::GetIP() const {
    return m_ip;
}

unsigned short CKTHTTPUrl::GetPort() const {
    return m_port;
}

/// Fills this empty object. False leaves it half-filled.
bool CKTHTTPUrl::Read(const char* text) {
    if (text == nullptr)
        return false;
    text += std::strspn(text, kBlanks);
    if (!Store(m_url, text, std::strcspn(text, kBlanks)))
        return false;
    const char* rest = std::strstr(m_url, kSchemeEnd);
    if (rest == nullptr)
        return false;
    rest += kSchemeEndLength;
    const bool http = KTBehindPrefix(m_url, "http://") != nullptr;
    if (http || KTBehindPrefix(m_url, "rtsp://") != nullptr) {
        if (StoreJoined(m_protocol, {http ? "HTTP/1.1" : "RTSP/1.0"}) != KT_OK)
            return false;
        m_port = http ? 80 : 554;
    }
    const char* path = rest + std::strcspn(rest, "/");
    // A request line always names a path; a target without one is refused.
    if (path == rest || *path == '\0')
        return false;
    return TakeHost(rest, path) && Store(m_path, path, std::strcspn(path, kWhiteSpace));
}

bool CKTHTTPUrl::TakeHost(const char* begin, const char* end) {
    const char* ipEnd = std::find(begin, end, ':');
    if (ipEnd != begin && end - ipEnd > 1 && IsDigit(ipEnd[1]))
        m_port = ReadPort(ipEnd + 1, end);
    else
        ipEnd = end;
    return Store(m_host, begin, end) && Store(m_ip, begin, ipEnd);
}

void CKTHTTPUrl::Swap(CKTHTTPUrl& other) {
    SwapTexts(*this, other, s_texts);
    std::swap(m_port, other.m_port);
}

// ---- CHTTPParser ----

CHTTPParser::CHTTPParser() : m_text(nullptr), m_headLength(0), m_cursor(nullptr) {}

CHTTPParser::~CHTTPParser() = default;

int CHTTPParser::Setup(const char* text, unsigned int length) {
    if (text == nullptr)
        return 0;
    constexpr char kBlankLine[] = {'\r', '\n', '\r', '\n'};
    constexpr std::size_t kBlankLineLength = sizeof(kBlankLine);
    const std::size_t given = length != 0 ? length : std::strlen(text);
    if (given < kBlankLineLength || *text == '\0')
        return 0;
    const char* end = text + std::min<std::size_t>(given, INT_MAX);
    const char* blank = std::search(text, end, kBlankLine, kBlankLine + kBlankLineLength);
    if (blank == end)
        return 0;
    Reset(true);
    m_text = text;
    m_headLength = static_cast<unsigned int>(blank - text);
    return static_cast<int>(m_headLength + kBlankLineLength);
}

void CHTTPParser::Reset(bool all) {
    m_line.Empty(false);
    m_cursor = nullptr;
    if (all) {
        m_text = nullptr;
        m_headLength = 0;
    }
}

const char* CHTTPParser::ParseNext() {
    m_line.Empty(false);
    if (m_text == nullptr)
        return nullptr;
    const char* end = m_text + m_headLength;
    const char* begin = m_cursor != nullptr ? m_cursor : m_text;
    while (begin != end && (*begin == '\r' || *begin == '\n' || *begin == ' '))
        ++begin;
    const char* lineEnd = std::find_if(begin, end, [](char c) { return c == '\r' || c == '\n'; });
    if (begin == end || m_line.AppendDAT(reinterpret_cast<const unsigned char*>(begin),
                                         static_cast<unsigned int>(lineEnd - begin)) < 0)
        return nullptr;
    m_cursor = lineEnd;
    return m_line.GetBuffer();
}

const char* CHTTPParser::GetLine() const {
    return m_line.IsEmpty() ? nullptr : m_line.GetBuffer();
}
