// The arithmetic of HTTP Digest authentication: RFC 2617 and RFC 7616, algorithms MD5 and SHA-256.
#ifndef KTBASE_KTHTTPDIGEST_H
#define KTBASE_KTHTTPDIGEST_H

/// What a response is made of. Null texts count as empty but for the cnonce.
struct KTHttpDigest {
    bool sha256;
    const char* user;
    const char* realm;
    const char* password;
    const char* nonce;
    const char* method;
    const char* uri;
    const char* cnonce;       // null: the form without qop
    unsigned int nonceCount;  // with qop alone
};

/// Largest response, in hexadecimal and with its NUL.
constexpr unsigned int kKTHttpDigestBytes = 65;

/// Puts the response into out, kKTHttpDigestBytes large. False without memory.
bool KTHttpDigestResponse(const KTHttpDigest& from, char* out);

#endif
