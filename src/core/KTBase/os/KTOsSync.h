// Locks and events of the platform.
//
// Handles are blocks with a use count, from the raw heap: Create makes one use, Share adds one,
// Close ends one, and the last Close frees. Every call tolerates null and then fails.
#ifndef KTBASE_OS_KTOSSYNC_H
#define KTBASE_OS_KTOSSYNC_H

/// Small lock for inner state: constant-initialised, never destroyed, not recursive.
struct KTOsFastLock {
    void* storage[5] = {};
};
void KTOsFastEnter(KTOsFastLock& lock);
void KTOsFastLeave(KTOsFastLock& lock);

class KTOsFastGuard {
public:
    explicit KTOsFastGuard(KTOsFastLock& lock) : m_lock(lock) { KTOsFastEnter(m_lock); }
    ~KTOsFastGuard() { KTOsFastLeave(m_lock); }
    KTOsFastGuard(const KTOsFastGuard&) = delete;
    KTOsFastGuard& operator=(const KTOsFastGuard&) = delete;

private:
    KTOsFastLock& m_lock;
};

/// Recursive lock. Null when it cannot be had.
void* KTOsMutexCreate();
void KTOsMutexShare(void* mutex);
/// The last Close of a lock that the caller holds releases it first; one that another thread holds
/// is left to that thread and never freed.
void KTOsMutexClose(void* mutex);
/// Waits up to timeoutMs (all ones: without end). Returns KT_OK; KT_TIMEOUT; KT_BAD_STATE when the
/// last owner died holding it, and the caller owns it now; KT_ERROR.
int KTOsMutexEnter(void* mutex, unsigned int timeoutMs);
/// Releases one level. False when the caller does not own the lock.
bool KTOsMutexLeave(void* mutex);

/// Event, unsignalled. Null when it cannot be had.
void* KTOsEventCreate(bool autoReset);
void KTOsEventShare(void* event);
void KTOsEventClose(void* event);
/// Releases the threads that wait at this moment, as the kind of event has it: a Reset right after
/// does not take that back, and two sets release two waiters of an auto-reset event.
bool KTOsEventSet(void* event);
bool KTOsEventReset(void* event);
/// Waits up to timeoutMs (all ones: without end). Returns KT_OK, KT_TIMEOUT or KT_ERROR.
int KTOsEventWait(void* event, unsigned int timeoutMs);

#endif
