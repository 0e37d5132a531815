// A user's name and password.
#ifndef KTBASE_KTUSER_H
#define KTBASE_KTUSER_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

/// User name and password, kept as given: the password is plain text.
/// Owns both texts and lends them until the next change; each is null while there is none, and ""
/// is a text. A text that the object itself has lent may be passed back in. Where memory is out a
/// copy is null. Belongs to one thread at a time.
class KTBASE_API CKTUser : public IKTBaseOBJ {
public:
    CKTUser();
    CKTUser(const char* username, const char* password);
    CKTUser(const CKTUser& other);
    ~CKTUser() override;

    void operator=(const CKTUser& other);

    void Clear();
    void SetUsername(const char* name);
    void SetPassword(const char* password);
    const char* GetUsername() const;
    const char* GetPassword() const;

    /// Whether the user name is this one, case included. Null equals only a user without a name.
    bool operator==(const char* name) const;

private:
    char* m_username;
    char* m_password;
};

#endif
