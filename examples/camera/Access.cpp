#include "Access.h"

#include <KTBase/KTDigest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>

namespace {

constexpr unsigned long long kNonceLifeMs = 60000;
constexpr std::size_t kClockDigits = 16;  // hexadecimal digits of a nonce
constexpr std::size_t kRandomDigits = 16;
constexpr std::size_t kSealDigits = 40;

std::string Hex(unsigned long long value) {
    char text[17];
    std::snprintf(text, sizeof(text), "%016llx", value);
    return text;
}

unsigned long long Random64() {
    std::random_device device;
    return static_cast<unsigned long long>(device()) << 32 | device();
}

/// Takes the same time wherever the texts differ: who measures how long a refusal takes learns
/// nothing about the right text.
bool IsSame(const std::string& a, const std::string& b) {
    unsigned char digests[2][32] = {};
    KTSHA256(reinterpret_cast<const unsigned char*>(a.data()), static_cast<int>(a.size()),
             digests[0]);
    KTSHA256(reinterpret_cast<const unsigned char*>(b.data()), static_cast<int>(b.size()),
             digests[1]);
    unsigned char difference = a.empty() != b.empty();  // an empty text has no digest
    for (int i = 0; i < 32; ++i)
        difference |= digests[0][i] ^ digests[1][i];
    return difference == 0;
}

std::string Lower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c + ('a' - 'A'));
    return text;
}

/// Whether an Authorization value is of the scheme, given in lower case with its blank.
bool IsScheme(const char* authorization, const std::string& scheme) {
    return Lower(std::string(authorization).substr(0, scheme.size())) == scheme;
}

typedef std::map<std::string, std::string> Parameters;

/// Reads name=value and name="value", parted by commas. False for any other text, and when a name
/// comes twice: which of the two counts must not be a matter of opinion.
bool ReadParameters(const char* text, Parameters& out) {
    for (;;) {
        text += std::strspn(text, " \t,");
        if (*text == '\0')
            return true;
        const std::size_t nameLength = std::strcspn(text, "= \t,\"");
        if (nameLength == 0 || text[nameLength] != '=')
            return false;
        const std::string name = Lower(std::string(text, nameLength));
        text += nameLength + 1;
        const bool quoted = *text == '"';
        text += quoted;
        const std::size_t length = std::strcspn(text, quoted ? "\"" : " \t,");
        if (!out.emplace(name, std::string(text, length)).second)
            return false;
        text += length;
        if (quoted && *text++ != '"')
            return false;
    }
}

}  // namespace

Access::Access(Mode mode, const std::string& user, const std::string& password,
               const std::string& realm)
    : m_mode(mode),
      m_user(user),
      m_password(password),
      m_realm(realm),
      m_key(Hex(Random64()) + Hex(Random64())) {}

void Access::Challenge(CKTHTTPCommand& reply, unsigned long long nowMs) const {
    if (m_mode & kBasic)
        reply.SetAuthenWWW(("Basic realm=\"" + m_realm + "\"").c_str());
    // Realm and then nonce: deployed clients read nothing else. A second line of the head, for
    // clients that take the last challenge they see: Digest is the better one.
    if (m_mode & kDigest)
        reply.SetAuthenDigestWWW(
            ("Digest realm=\"" + m_realm + "\", nonce=\"" + MakeNonce(nowMs) + "\"").c_str());
}

bool Access::Allows(const char* authorization, const char* method, const char* uri,
                    unsigned long long nowMs) const {
    if (m_mode == kOpen)
        return true;
    if (authorization == nullptr)
        return false;
    if ((m_mode & kBasic) && IsScheme(authorization, "basic "))
        return AllowsBasic(authorization);
    return (m_mode & kDigest) && AllowsDigest(authorization, method, uri, nowMs);
}

bool Access::AllowsBasic(const char* authorization) const {
    CKTHTTPAuthen authen;
    if (authen.ParseRequest(authorization) != KT_OK)
        return false;
    const char* const user = authen.GetUser();
    const char* const password = authen.GetPassword();
    // The user has no colon, so the joined texts are the same only when both parts are.
    return IsSame(
        std::string(user != nullptr ? user : "") + ":" + (password != nullptr ? password : ""),
        m_user + ":" + m_password);
}

bool Access::AllowsDigest(const char* authorization, const char* method, const char* uri,
                          unsigned long long nowMs) const {
    Parameters sent;
    if (!IsScheme(authorization, "digest ") || !ReadParameters(authorization + 7, sent))
        return false;
    // The answer holds for the target that it names; it must be the one that is asked for.
    if (sent["username"] != m_user || sent["realm"] != m_realm || sent["uri"] != uri ||
        !IsLive(sent["nonce"], nowMs))
        return false;
    CKTHTTPAuthen authen;
    CKTString right;
    if (authen.SetUser(m_user.c_str(), m_password.c_str()) != KT_OK ||
        authen.SetRealmNonce(m_realm.c_str(), sent["nonce"].c_str()) != KT_OK ||
        !authen.GetDigestKey(right, method, uri))
        return false;
    return IsSame(sent["response"], std::string(right.GetBuffer(), right.GetLength()));
}

// ---- nonces: clock, random digits, seal ----

std::string Access::MakeNonce(unsigned long long nowMs) const {
    const std::string text = Hex(nowMs) + Hex(Random64());
    return text + Seal(text);
}

std::string Access::Seal(const std::string& text) const {
    unsigned char digest[20];
    KTHMAC_SHA1(text.data(), static_cast<int>(text.size()),
                reinterpret_cast<const unsigned char*>(m_key.data()),
                static_cast<int>(m_key.size()), digest);
    std::string seal;
    for (const unsigned char byte : digest) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        seal += digits;
    }
    return seal;
}

bool Access::IsLive(const std::string& nonce, unsigned long long nowMs) const {
    if (nonce.size() != kClockDigits + kRandomDigits + kSealDigits)
        return false;
    const std::string text = nonce.substr(0, kClockDigits + kRandomDigits);
    if (!IsSame(nonce.substr(text.size()), Seal(text)))
        return false;
    // The seal is right, so these are digits of ours.
    const unsigned long long madeMs =
        std::strtoull(text.substr(0, kClockDigits).c_str(), nullptr, 16);
    return nowMs - madeMs < kNonceLifeMs;
}
