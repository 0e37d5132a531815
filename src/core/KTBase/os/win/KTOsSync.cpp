#include "os/KTOsSync.h"

#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <atomic>
#include <new>

#include "KTBase/KTDefs.h"
#include "KTHeap.h"

namespace {

SRWLOCK* Native(KTOsFastLock& lock) {
    // All zeroes is SRWLOCK_INIT.
    static_assert(sizeof(SRWLOCK) <= sizeof(lock.storage), "storage too small");
    return reinterpret_cast<SRWLOCK*>(lock.storage);
}

// A kernel mutex or event with its use count.
struct OsObject {
    HANDLE native;
    std::atomic<int> uses{1};
};

OsObject* Wrap(HANDLE native) {
    if (native == nullptr)
        return nullptr;
    void* block = KTHeapAlloc(sizeof(OsObject));
    if (block == nullptr) {
        CloseHandle(native);
        return nullptr;
    }
    OsObject* object = new (block) OsObject;
    object->native = native;
    return object;
}

void Share(void* handle) {
    if (handle != nullptr)
        static_cast<OsObject*>(handle)->uses.fetch_add(1, std::memory_order_relaxed);
}

// True for the last use, which the caller then ends with Free.
bool IsLast(OsObject* object) {
    return object != nullptr && object->uses.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

void Free(OsObject* object) {
    CloseHandle(object->native);
    object->~OsObject();
    KTHeapFree(object);
}

int Wait(void* handle, unsigned int timeoutMs) {
    if (handle == nullptr)
        return KT_ERROR;
    switch (WaitForSingleObject(static_cast<OsObject*>(handle)->native, timeoutMs)) {
        case WAIT_OBJECT_0:
            return KT_OK;
        case WAIT_TIMEOUT:
            return KT_TIMEOUT;
        case WAIT_ABANDONED:
            return KT_BAD_STATE;
        default:
            return KT_ERROR;
    }
}

}  // namespace

void KTOsFastEnter(KTOsFastLock& lock) {
    AcquireSRWLockExclusive(Native(lock));
}

void KTOsFastLeave(KTOsFastLock& lock) {
    ReleaseSRWLockExclusive(Native(lock));
}

void* KTOsMutexCreate() {
    return Wrap(CreateMutexW(nullptr, FALSE, nullptr));
}

void KTOsMutexShare(void* handle) {
    Share(handle);
}

void KTOsMutexClose(void* handle) {
    OsObject* mutex = static_cast<OsObject*>(handle);
    if (!IsLast(mutex))
        return;
    // Waiters hold a reference of their own to the kernel object: they get the lock now.
    while (ReleaseMutex(mutex->native)) {
    }
    Free(mutex);
}

int KTOsMutexEnter(void* handle, unsigned int timeoutMs) {
    return Wait(handle, timeoutMs);
}

bool KTOsMutexLeave(void* handle) {
    return handle != nullptr && ReleaseMutex(static_cast<OsObject*>(handle)->native);
}

void* KTOsEventCreate(bool autoReset) {
    return Wrap(CreateEventW(nullptr, !autoReset, FALSE, nullptr));
}

void KTOsEventShare(void* handle) {
    Share(handle);
}

void KTOsEventClose(void* handle) {
    OsObject* event = static_cast<OsObject*>(handle);
    if (IsLast(event))
        Free(event);
}

bool KTOsEventSet(void* handle) {
    return handle != nullptr && SetEvent(static_cast<OsObject*>(handle)->native);
}

bool KTOsEventReset(void* handle) {
    return handle != nullptr && ResetEvent(static_cast<OsObject*>(handle)->native);
}

int KTOsEventWait(void* handle, unsigned int timeoutMs) {
    const int result = Wait(handle, timeoutMs);
    return result == KT_BAD_STATE ? KT_ERROR : result;
}
