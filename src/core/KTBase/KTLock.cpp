#include "KTBase/KTLock.h"

#include "os/KTOsSync.h"

CKTMutex::CKTMutex() : m_handle(KTOsMutexCreate()) {}

CKTMutex::CKTMutex(const CKTMutex& other) : IKTBaseOBJ(other), m_handle(other.m_handle) {
    KTOsMutexShare(m_handle);
}

CKTMutex& CKTMutex::operator=(const CKTMutex& other) {
    void* old = m_handle;
    KTOsMutexShare(other.m_handle);
    m_handle = other.m_handle;
    KTOsMutexClose(old);
    return *this;
}

CKTMutex::~CKTMutex() {
    KTOsMutexClose(m_handle);
}

int CKTMutex::Enter(unsigned int timeoutMs) {
    return KTOsMutexEnter(m_handle, timeoutMs) == KT_OK ? 1 : 0;
}

int CKTMutex::Leave() {
    return KTOsMutexLeave(m_handle) ? 1 : 0;
}

CKTGuard::CKTGuard(CKTMutex& m) : m_mutex(&m) {
    KTOsMutexEnter(m.m_handle, KT_INFINITE);
}

CKTGuard::~CKTGuard() {
    KTOsMutexLeave(m_mutex->m_handle);
}

CKTEvent::CKTEvent() : CKTEvent(false) {}

CKTEvent::CKTEvent(bool autoReset) : m_autoReset(autoReset), m_handle(KTOsEventCreate(autoReset)) {}

CKTEvent::CKTEvent(const CKTEvent& other)
    : IKTBaseOBJ(other), m_autoReset(other.m_autoReset), m_handle(other.m_handle) {
    KTOsEventShare(m_handle);
}

CKTEvent& CKTEvent::operator=(const CKTEvent& other) {
    void* old = m_handle;
    KTOsEventShare(other.m_handle);
    m_autoReset = other.m_autoReset;
    m_handle = other.m_handle;
    KTOsEventClose(old);
    return *this;
}

CKTEvent::~CKTEvent() {
    KTOsEventClose(m_handle);
    m_handle = nullptr;
}

int CKTEvent::Set() {
    return KTOsEventSet(m_handle) ? 1 : 0;
}

int CKTEvent::Reset() {
    return KTOsEventReset(m_handle) ? 1 : 0;
}

int CKTEvent::Check() {
    return KTOsEventWait(m_handle, 0) == KT_OK ? 1 : 0;
}

int CKTEvent::Wait(unsigned int timeoutMs) {
    return KTOsEventWait(m_handle, timeoutMs);
}
