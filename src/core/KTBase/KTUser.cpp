#include "KTBase/KTUser.h"

#include <cstring>

#include "KTText.h"

namespace {

char* Copy(const char* text) {
    return text != nullptr ? KTCopyRange(text, std::strlen(text)) : nullptr;
}

void Store(char*& slot, const char* text) {
    char* copy = Copy(text);
    // Freed last: text may lie in it.
    ZMKFree(slot);
    slot = copy;
}

}  // namespace

CKTUser::CKTUser() : m_username(nullptr), m_password(nullptr) {}

CKTUser::CKTUser(const char* username, const char* password)
    : m_username(Copy(username)), m_password(Copy(password)) {}

CKTUser::CKTUser(const CKTUser& other)
    : IKTBaseOBJ(other), m_username(Copy(other.m_username)), m_password(Copy(other.m_password)) {}

CKTUser::~CKTUser() {
    Clear();
}

void CKTUser::operator=(const CKTUser& other) {
    Store(m_username, other.m_username);
    Store(m_password, other.m_password);
}

void CKTUser::Clear() {
    Store(m_username, nullptr);
    Store(m_password, nullptr);
}

void CKTUser::SetUsername(const char* name) {
    Store(m_username, name);
}

void CKTUser::SetPassword(const char* password) {
    Store(m_password, password);
}

const char* CKTUser::GetUsername() const {
    return m_username;
}

const char* CKTUser::GetPassword() const {
    return m_password;
}

bool CKTUser::operator==(const char* name) const {
    if (name == nullptr || m_username == nullptr)
        return name == m_username;
    return std::strcmp(name, m_username) == 0;
}
