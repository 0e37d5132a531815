#include <openssl/rand.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "KTBase/KTDigest.h"
#include "KTBase/KTHttp.h"
#include "KTBase/KTTime.h"
#include "KTHttpDigest.h"
#include "KTHttpText.h"
#include "KTText.h"

namespace {

constexpr unsigned int kCountBytes = 9;
constexpr unsigned int kCnonceBytes = 17;

// ---- digests ----

bool Hash(bool sha256, std::initializer_list<const char*> parts, char* out) {
    CKTString text;
    for (const char* part : parts) {
        if (text.AppendSTR(part, 0) < 0)
            return false;
    }
    const unsigned char* data = reinterpret_cast<const unsigned char*>(text.GetBuffer());
    if (!sha256)
        return KTMD5Data(data, text.GetLength(), out) != nullptr;
    unsigned char digest[32];
    if (text.GetLength() > INT_MAX || !KTSHA256(data, static_cast<int>(text.GetLength()), digest))
        return false;
    for (unsigned int i = 0; i < sizeof(digest); ++i)
        std::snprintf(out + 2 * i, 3, "%02x", static_cast<unsigned int>(digest[i]));
    return true;
}

/// nonceCount as it is hashed and written.
void PrintCount(unsigned int nonceCount, char* out) {
    std::snprintf(out, kCountBytes, "%08x", nonceCount);
}

/// 16 hexadecimal digits that nobody can foresee.
void MakeCnonce(const void* owner, char* out) {
    unsigned char bytes[(kCnonceBytes - 1) / 2];
    if (RAND_bytes(bytes, sizeof(bytes)) != 1) {
        // Without a source of randomness the values differ at least.
        const unsigned long long now = CKTTime::GetTimeUS();
        const unsigned long long mixed =
            now * 0x9E3779B97F4A7C15ull ^ reinterpret_cast<std::uintptr_t>(owner);
        std::memcpy(bytes, &mixed, sizeof(bytes));
    }
    for (unsigned int i = 0; i < sizeof(bytes); ++i)
        std::snprintf(out + 2 * i, 3, "%02x", static_cast<unsigned int>(bytes[i]));
}

// ---- reading ----

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// Between parameters and challenges.
bool IsSeparator(char c) {
    return c == ',' || IsBlank(c);
}

bool EndsValue(char c) {
    return c == '\0' || IsSeparator(c);
}

bool EndsWord(char c) {
    return c == '=' || c == '"' || EndsValue(c);
}

const char* SkipBlanks(const char* text) {
    while (IsBlank(*text))
        ++text;
    return text;
}

const char* SkipSeparators(const char* text) {
    while (IsSeparator(*text))
        ++text;
    return text;
}

/// A piece of a challenge; begin is null where it is absent.
struct Piece {
    const char* begin = nullptr;
    const char* end = nullptr;

    bool Is(const char* word) const {
        const std::size_t length = static_cast<std::size_t>(end - begin);
        return std::strlen(word) == length && KTEqualNoCase(begin, word, length);
    }
};

/// A new heap text that takes a field's place once all of its kind are there.
class NewText {
public:
    NewText() = default;
    ~NewText() { ZMKFree(m_text); }
    NewText(const NewText&) = delete;
    NewText& operator=(const NewText&) = delete;

    /// An absent piece, and null, make no text. False without memory.
    bool Copy(const Piece& piece) {
        if (piece.begin != nullptr)
            m_text = KTCopyRange(piece.begin, static_cast<std::size_t>(piece.end - piece.begin));
        return m_text != nullptr || piece.begin == nullptr;
    }
    bool Copy(const char* text) {
        return text == nullptr || Copy(Piece{text, text + std::strlen(text)});
    }
    char* Get() const { return m_text; }
    void Swap(char*& field) { std::swap(m_text, field); }

private:
    char* m_text = nullptr;
};

/// Drops the backslash of each pair, in place. RFC 9110, section 5.6.4.
void Unescape(char* text) {
    if (text == nullptr)
        return;
    char* out = text;
    for (const char* in = text; *in != '\0'; ++in) {
        if (in[0] == '\\' && in[1] != '\0')
            ++in;
        *out++ = *in;
    }
    *out = '\0';
}

Piece ReadWord(const char*& at) {
    const char* begin = at;
    while (!EndsWord(*at))
        ++at;
    return {begin, at};
}

/// Text in quotes, at standing on the first of them. escapes: a backslash takes the next character
/// along. Without an end it goes to the end of the text.
Piece ReadQuoted(const char*& at, bool escapes) {
    const char* begin = ++at;
    while (*at != '\0' && *at != '"')
        at += escapes && at[0] == '\\' && at[1] != '\0' ? 2 : 1;
    const Piece piece = {begin, at};
    if (*at == '"')
        ++at;
    return piece;
}

/// The next `name=value` of a Digest challenge, read as deployed devices read it: a value goes to
/// the next double quote, or, not quoted, to the next comma. It is absent where there is no "=".
/// False at the end.
bool ReadParameter(const char*& at, Piece& name, Piece& value) {
    at = SkipSeparators(at);
    if (*at == '\0')
        return false;
    name = ReadWord(at);
    value = Piece();
    at = SkipBlanks(at);
    if (*at == '"')
        ReadQuoted(at, false);  // of nothing
    if (*at != '=')
        return true;
    at = SkipBlanks(at + 1);
    if (*at == '"') {
        value = ReadQuoted(at, false);
        return true;
    }
    value.begin = at;
    while (*at != '\0' && *at != ',')
        ++at;
    value.end = at;
    while (value.end != value.begin && IsBlank(value.end[-1]))
        --value.end;
    return true;
}

/// Value behind a name: a quoted string or a word. False where there is no "=".
bool ReadValue(const char*& at, Piece& value) {
    const char* sign = SkipBlanks(at);
    if (*sign != '=')
        return false;
    while (*sign == '=')  // an opaque text may end in several
        ++sign;
    at = SkipBlanks(sign);
    if (*at == '"') {
        value = ReadQuoted(at, true);
        return true;
    }
    value.begin = at;
    while (!EndsValue(*at))
        ++at;
    value.end = at;
    return true;
}

/// Passes over what cannot begin a name.
void SkipStray(const char*& at) {
    if (*at == '"')
        ReadQuoted(at, true);
    else
        ++at;
}

/// `Scheme realm="..."` in front of text, of which at becomes the rest.
bool ReadRealm(const char*& at, const char* scheme, Piece& realm) {
    const char* rest = KTBehindPrefix(at, scheme);
    rest = rest != nullptr ? KTBehindPrefix(SkipBlanks(rest), "realm=\"") : nullptr;
    if (rest == nullptr)
        return false;
    at = rest - 1;
    realm = ReadQuoted(at, false);
    return realm.begin != realm.end;
}

/// `Digest realm="...", nonce="..."`, in this order.
bool ReadRealmNonce(const char* challenge, Piece& realm, Piece& nonce) {
    const char* at = challenge;
    if (!ReadRealm(at, "Digest", realm) || *at != ',')
        return false;
    at = KTBehindPrefix(SkipBlanks(at + 1), "nonce=\"");
    if (at == nullptr)
        return false;
    nonce = ReadQuoted(--at, false);
    return nonce.begin != nonce.end;
}

bool HasWord(const Piece& list, const char* word) {
    for (const char* at = list.begin; at < list.end;) {
        if (ReadWord(at).Is(word))
            return true;
        ++at;  // what ended the word
    }
    return false;
}

// ---- writing ----

/// Appends `name="text", ` with text as a quoted string. False for control characters, which no
/// header line can carry, and without memory.
bool AppendQuoted(CKTString& out, const char* name, const char* text) {
    bool complete = out.Append("%s=\"", name) >= 0;
    for (text = KTTextOrEmpty(text); *text != '\0'; ++text) {
        if (static_cast<unsigned char>(*text) < ' ' || *text == 0x7F)
            return false;
        if (*text == '"' || *text == '\\')
            complete = complete && out.AppendChar('\\', 1) == 1;
        complete = complete && out.AppendChar(*text, 1) == 1;
    }
    return complete && out.AppendSTR("\", ", 3) >= 0;
}

}  // namespace

bool KTHttpDigestResponse(const KTHttpDigest& from, char* out) {
    char credentials[kKTHttpDigestBytes], request[kKTHttpDigestBytes], count[kCountBytes];
    if (!Hash(from.sha256, {from.user, ":", from.realm, ":", from.password}, credentials) ||
        !Hash(from.sha256, {from.method, ":", from.uri}, request))
        return false;
    if (from.cnonce == nullptr)
        return Hash(from.sha256, {credentials, ":", from.nonce, ":", request}, out);
    PrintCount(from.nonceCount, count);
    return Hash(from.sha256,
                {credentials, ":", from.nonce, ":", count, ":", from.cnonce, ":auth:", request},
                out);
}

char* CKTHTTPAuthen::*const CKTHTTPAuthen::s_texts[8] = {
    &CKTHTTPAuthen::m_user,   &CKTHTTPAuthen::m_password, &CKTHTTPAuthen::m_realm,
    &CKTHTTPAuthen::m_nonce,  &CKTHTTPAuthen::m_result,   &CKTHTTPAuthen::m_qop,
    &CKTHTTPAuthen::m_opaque, &CKTHTTPAuthen::m_algorithm};

/// What a challenge says. With escapes, a backslash in a quoted text stands for the character
/// behind it.
struct CKTHTTPAuthen::Challenge {
    Scheme scheme = kNone;
    bool escapes = false;
    Piece realm, nonce, opaque, algorithm, qop;

    bool Read(const char*& at);
    void Set(const Piece& name, const Piece& value);
    void Judge();
};

CKTHTTPAuthen::CKTHTTPAuthen() = default;

CKTHTTPAuthen::CKTHTTPAuthen(const CKTHTTPAuthen& other) : IKTBaseOBJ(other) {
    *this = other;
}

CKTHTTPAuthen& CKTHTTPAuthen::operator=(const CKTHTTPAuthen& other) {
    CKTHTTPAuthen copy;
    bool complete = true;
    for (char* CKTHTTPAuthen::*text : s_texts) {
        copy.*text = CKTString::Clone(other.*text, 0);
        complete = complete && (copy.*text != nullptr || other.*text == nullptr);
    }
    if (complete) {
        copy.m_digest = other.m_digest;
        copy.m_nonceCount = other.m_nonceCount;
        copy.m_scheme = other.m_scheme;
    } else {
        copy.Reset();
    }
    Swap(copy);
    return *this;
}

CKTHTTPAuthen::~CKTHTTPAuthen() {
    Reset();
}

void CKTHTTPAuthen::Reset() {
    for (char* CKTHTTPAuthen::*text : s_texts) {
        ZMKFree(this->*text);
        this->*text = nullptr;
    }
    m_digest = false;
    m_nonceCount = 0;
    m_scheme = kNone;
}

void CKTHTTPAuthen::Swap(CKTHTTPAuthen& other) {
    for (char* CKTHTTPAuthen::*text : s_texts)
        std::swap(this->*text, other.*text);
    std::swap(m_digest, other.m_digest);
    std::swap(m_nonceCount, other.m_nonceCount);
    std::swap(m_scheme, other.m_scheme);
}

bool CKTHTTPAuthen::IsBasic() const {
    return !m_digest;
}

const char* CKTHTTPAuthen::GetUser() const {
    return m_user;
}

const char* CKTHTTPAuthen::GetPassword() const {
    return m_password;
}

const char* CKTHTTPAuthen::GetRealm() const {
    return m_realm;
}

const char* CKTHTTPAuthen::GetNonce() const {
    return m_nonce;
}

int CKTHTTPAuthen::SetUser(const char* user, const char* password) {
    NewText newUser, newPassword;
    if (!newUser.Copy(user) || !newPassword.Copy(password))
        return KT_NO_MEMORY;
    newUser.Swap(m_user);
    newPassword.Swap(m_password);
    return KT_OK;
}

int CKTHTTPAuthen::SetRealmNonce(const char* realm, const char* nonce) {
    NewText newRealm, newNonce;
    if (!newRealm.Copy(realm) || !newNonce.Copy(nonce))
        return KT_NO_MEMORY;
    newRealm.Swap(m_realm);
    newNonce.Swap(m_nonce);
    return KT_OK;
}

// ---- challenges ----

int CKTHTTPAuthen::ParseResponse(const char* challenge) {
    if (challenge == nullptr)
        return KT_ARGUMENT;
    Challenge found;
    const char* at = challenge;
    if (ReadRealmNonce(challenge, found.realm, found.nonce))
        found.scheme = kMD5;
    else if (ReadRealm(at, "Basic", found.realm))
        found.scheme = kBasic;
    else
        return KT_ERROR;
    return Take(found);
}

int CKTHTTPAuthen::ParseRespDigest(const char* challenge) {
    constexpr char kDigest[] = "Digest";
    if (challenge == nullptr)
        return KT_ARGUMENT;
    const char* at = KTHttpFind(challenge, challenge + std::strlen(challenge), kDigest);
    if (at == nullptr)
        return KT_ARGUMENT;
    at += sizeof(kDigest) - 1;
    Challenge found;
    found.scheme = kMD5;
    bool newCount = false;
    for (Piece name, value; ReadParameter(at, name, value);) {
        if (name.Is("realm"))
            found.realm = value;
        else if (name.Is("nonce"))
            found.nonce = value;
        else if (name.Is("qop"))
            found.qop = value;
        else if (name.Is("stale") && !value.Is("true"))
            newCount = true;
    }
    const int result = Take(found);
    if (result == KT_OK && newCount)
        m_nonceCount = 0;
    return result;
}

int CKTHTTPAuthen::ParseRequest(const char* authorization) {
    if (authorization == nullptr)
        return KT_ARGUMENT;
    const char* text = KTBehindPrefix(authorization, "Basic ");
    if (text == nullptr)
        return KT_UNSUPPORTED;
    unsigned char* data = nullptr;
    unsigned int length = 0;
    if (!KTBASE64Decode(&data, &length, KTHttpSkipSpaces(text), 0))
        return KT_NO_MEMORY;
    int result = KT_ERROR;
    if (length != 0) {
        char* user = reinterpret_cast<char*>(data);
        char* colon = std::strchr(user, ':');
        if (colon != nullptr)
            *colon = '\0';
        result = SetUser(user, colon != nullptr ? colon + 1 : nullptr);
    }
    ZMKFree(data);
    return result;
}

int CKTHTTPAuthen::ParseChallenge(const char* challenge) {
    if (challenge == nullptr)
        return KT_ARGUMENT;
    Challenge best;
    for (Challenge next; next.Read(challenge); next = Challenge()) {
        next.Judge();
        if (next.scheme > best.scheme)
            best = next;
    }
    if (best.scheme == kNone)
        return KT_UNSUPPORTED;
    CKTHTTPAuthen taken;
    const int result = taken.Take(best);
    if (result != KT_OK)
        return result;
    // A server that finds a nonce too old sends another one for the same realm.
    const bool renews = best.scheme == m_scheme && CKTString::IsEqual(taken.m_realm, m_realm);
    if (best.scheme < m_scheme || (best.scheme == m_scheme && !renews))
        return KT_OK;
    const bool sameNonce = CKTString::IsEqual(taken.m_nonce, m_nonce);
    taken.m_nonceCount = sameNonce ? m_nonceCount : 0;
    std::swap(taken.m_user, m_user);
    std::swap(taken.m_password, m_password);
    std::swap(taken.m_result, m_result);
    Swap(taken);
    return KT_OK;
}

/// Holds what challenge says from now on, and nothing of an older one. Returns 0, or -6.
int CKTHTTPAuthen::Take(const Challenge& challenge) {
    NewText realm, nonce, opaque, algorithm, qop;
    if (!realm.Copy(challenge.realm) || !nonce.Copy(challenge.nonce) ||
        !opaque.Copy(challenge.opaque) || !algorithm.Copy(challenge.algorithm) ||
        !qop.Copy(challenge.qop))
        return KT_NO_MEMORY;
    if (challenge.escapes) {
        for (const NewText* text : {&realm, &nonce, &opaque})
            Unescape(text->Get());
    }
    realm.Swap(m_realm);
    if (challenge.scheme != kBasic)
        nonce.Swap(m_nonce);
    opaque.Swap(m_opaque);
    algorithm.Swap(m_algorithm);
    qop.Swap(m_qop);
    m_digest = challenge.scheme != kBasic;
    m_scheme = challenge.scheme;
    return KT_OK;
}

/// Reads the next challenge of a list: a scheme, then parameters or one opaque text (RFC 9110,
/// section 11.3). A word that no "=" and value follow begins the next. False at the end.
bool CKTHTTPAuthen::Challenge::Read(const char*& at) {
    Piece word;
    do {
        at = SkipSeparators(at);
        if (*at == '\0')
            return false;
        word = ReadWord(at);
        if (word.begin == word.end)
            SkipStray(at);
    } while (word.begin == word.end);
    escapes = true;
    scheme = word.Is("Basic") ? kBasic : word.Is("Digest") ? kMD5 : kNone;
    const char* opaqueText = SkipBlanks(at);
    for (;;) {
        at = SkipSeparators(at);
        word = ReadWord(at);
        Piece value;
        if (word.begin == word.end) {
            if (*at == '\0')
                return true;
            SkipStray(at);
        } else if (ReadValue(at, value)) {
            Set(word, value);
        } else {
            const char* next = SkipBlanks(at);
            if (word.begin != opaqueText || (*next != ',' && *next != '\0')) {
                at = word.begin;
                return true;
            }
        }
    }
}

void CKTHTTPAuthen::Challenge::Set(const Piece& name, const Piece& value) {
    if (name.Is("realm"))
        realm = value;
    else if (name.Is("nonce"))
        nonce = value;
    else if (name.Is("opaque"))
        opaque = value;
    else if (name.Is("algorithm"))
        algorithm = value;
    else if (name.Is("qop"))
        qop = value;
}

/// Settles the scheme of a challenge that was read: none for one that cannot be answered.
void CKTHTTPAuthen::Challenge::Judge() {
    if (scheme != kMD5)
        return;
    if (algorithm.begin != nullptr && algorithm.Is("SHA-256"))
        scheme = kSHA256;
    else if (algorithm.begin != nullptr && !algorithm.Is("MD5"))
        scheme = kNone;
    if (realm.begin == nullptr || nonce.begin == nullptr)
        scheme = kNone;
    if (qop.begin == nullptr)
        return;
    if (!HasWord(qop, "auth"))
        scheme = kNone;
    static constexpr char kAuth[] = "auth";
    qop = {kAuth, kAuth + sizeof(kAuth) - 1};
}

// ---- answers ----

const char* CKTHTTPAuthen::GetAuthenRequBasic() {
    CKTString credentials, value("Basic ");
    if (CKTString::IsEmpty(m_user) || credentials.AppendSTR(m_user, 0) < 0 ||
        credentials.AppendSTR(":", 1) < 0 || credentials.AppendSTR(m_password, 0) < 0 ||
        value.IsEmpty() ||
        !KTBASE64EncodeSTR(value, reinterpret_cast<unsigned char*>(credentials.GetBuffer()),
                           credentials.GetLength()))
        return nullptr;
    return Keep(value);
}

bool CKTHTTPAuthen::GetDigestKey(CKTString& out, const char* method, const char* uri) {
    char response[kKTHttpDigestBytes];
    if (m_qop != nullptr)
        StartCount();
    if (!Respond(false, method, uri, m_qop != nullptr ? "" : nullptr, response))
        return false;
    out = response;
    return out.EqualTo(response) != 0;
}

const char* CKTHTTPAuthen::GetAuthenRequDigest(const char* method, const char* uri) {
    return Digest(method, uri, nullptr);
}

const char* CKTHTTPAuthen::GetRequDigestResult(const char* method, const char* uri) {
    return Digest(method, uri, m_qop);
}

const char* CKTHTTPAuthen::GetAuthorization(const char* method, const char* uri) {
    if (m_scheme < kMD5)
        return m_scheme == kBasic ? GetAuthenRequBasic() : nullptr;
    char response[kKTHttpDigestBytes], cnonce[kCnonceBytes], count[kCountBytes];
    if (m_qop != nullptr) {
        MakeCnonce(this, cnonce);
        StartCount();
        PrintCount(m_nonceCount, count);
    }
    CKTString value("Digest ");
    if (value.IsEmpty() ||
        !Respond(m_scheme == kSHA256, method, uri, m_qop != nullptr ? cnonce : nullptr, response) ||
        !AppendQuoted(value, "username", m_user) || !AppendQuoted(value, "realm", m_realm) ||
        !AppendQuoted(value, "nonce", m_nonce) || !AppendQuoted(value, "uri", uri) ||
        (m_algorithm != nullptr && value.Append("algorithm=%s, ", m_algorithm) < 0) ||
        (m_qop != nullptr && value.Append("qop=auth, nc=%s, cnonce=\"%s\", ", count, cnonce) < 0) ||
        (m_opaque != nullptr && !AppendQuoted(value, "opaque", m_opaque)) ||
        value.Append("response=\"%s\"", response) < 0)
        return nullptr;
    const char* kept = Keep(value);
    if (kept != nullptr && m_qop != nullptr)
        ++m_nonceCount;
    return kept;
}

/// qop: null for the form without.
const char* CKTHTTPAuthen::Digest(const char* method, const char* uri, const char* qop) {
    char response[kKTHttpDigestBytes], cnonce[kCnonceBytes], count[kCountBytes];
    if (qop != nullptr) {
        MakeCnonce(this, cnonce);
        StartCount();
        PrintCount(m_nonceCount, count);
    }
    CKTString value;
    if (!Respond(false, method, uri, qop != nullptr ? cnonce : nullptr, response) ||
        value.Append("Digest username=\"%s\", realm=\"%s\", nonce=\"%s\", uri=\"%s\", ", m_user,
                     KTTextOrEmpty(m_realm), KTTextOrEmpty(m_nonce), uri) < 0 ||
        (qop != nullptr &&
         value.Append("cnonce=\"%s\", nc=%s, qop=\"%s\", ", cnonce, count, qop) < 0) ||
        value.Append("response=\"%s\"", response) < 0)
        return nullptr;
    const char* kept = Keep(value);
    if (kept != nullptr && qop != nullptr)
        ++m_nonceCount;
    return kept;
}

/// The response to the challenge held. cnonce: null for the form without qop. False when something
/// is missing, and without memory.
bool CKTHTTPAuthen::Respond(bool sha256, const char* method, const char* uri, const char* cnonce,
                            char* out) const {
    if (CKTString::IsEmpty(m_user) || CKTString::IsEmpty(method) || CKTString::IsEmpty(uri))
        return false;
    return KTHttpDigestResponse(
        {sha256, m_user, m_realm, m_password, m_nonce, method, uri, cnonce, m_nonceCount}, out);
}

/// The first use of a nonce counts as 1.
void CKTHTTPAuthen::StartCount() {
    if (m_nonceCount == 0)
        m_nonceCount = 1;
}

/// Becomes the value lent last. Null without memory: the old one is gone then.
const char* CKTHTTPAuthen::Keep(CKTString& value) {
    char* text = value.Clone();
    ZMKFree(m_result);
    m_result = text;
    return text;
}
