// Who may see the camera: the challenges of a 401 and the check of what comes back.
#ifndef KTCAMERA_ACCESS_H
#define KTCAMERA_ACCESS_H

#include <KTBase/KTHttp.h>

#include <string>

/// Basic (RFC 7617) and Digest without qop (RFC 2617). The texts hold neither quotes nor
/// backslashes, the user no colon.
///
/// A nonce is not stored: it carries its time and some random digits, sealed with a key that only
/// this process knows. So any number of them is alive at once, and nobody can push out another's.
/// While it lives, who has overheard an answer may repeat it: that is Digest without a count.
class Access {
public:
    enum Mode { kOpen = 0, kBasic = 1, kDigest = 2, kBoth = kBasic | kDigest };

    Access(Mode mode, const std::string& user, const std::string& password,
           const std::string& realm);

    /// Puts the challenges into the head of a 401. nowMs: as CKTTime::GetTimeMS counts.
    void Challenge(CKTHTTPCommand& reply, unsigned long long nowMs) const;
    /// authorization: the header's value, null when there is none.
    bool Allows(const char* authorization, const char* method, const char* uri,
                unsigned long long nowMs) const;

private:
    std::string MakeNonce(unsigned long long nowMs) const;
    std::string Seal(const std::string& text) const;
    bool IsLive(const std::string& nonce, unsigned long long nowMs) const;
    bool AllowsBasic(const char* authorization) const;
    bool AllowsDigest(const char* authorization, const char* method, const char* uri,
                      unsigned long long nowMs) const;

    const Mode m_mode;
    const std::string m_user;
    const std::string m_password;
    const std::string m_realm;
    std::string m_key;
};

#endif
