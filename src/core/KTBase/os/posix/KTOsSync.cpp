#include "os/KTOsSync.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "KTBase/KTDefs.h"
#include "KTHeap.h"

namespace {

// A time-out counts on the monotonic clock: setting the time must not stretch a wait.
timespec DeadlineAfter(clockid_t clock, unsigned int timeoutMs) {
    timespec at;
    clock_gettime(clock, &at);
    at.tv_sec += timeoutMs / 1000;
    at.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000;
    if (at.tv_nsec >= 1000000000) {
        at.tv_nsec -= 1000000000;
        ++at.tv_sec;
    }
    return at;
}

// ---- fast lock ----

pthread_mutex_t* Native(KTOsFastLock& lock) {
    // All zeroes is PTHREAD_MUTEX_INITIALIZER on this system.
    static_assert(sizeof(pthread_mutex_t) <= sizeof(lock.storage), "storage too small");
    return reinterpret_cast<pthread_mutex_t*>(lock.storage);
}

// ---- mutex ----

struct OsMutex {
    pthread_mutex_t native;  // recursive and robust
    std::atomic<int> uses{1};
    std::atomic<pthread_t> owner{};
    unsigned int depth = 0;  // levels held; guarded by native itself
};

int LockNative(OsMutex* mutex, unsigned int timeoutMs) {
    int result = pthread_mutex_trylock(&mutex->native);
    if (result != EBUSY || timeoutMs == 0)
        return result;
    if (timeoutMs == KT_INFINITE)
        return pthread_mutex_lock(&mutex->native);
#if defined(__SANITIZE_THREAD__)
    // The thread sanitizer does not know the call with a clock.
    const timespec at = DeadlineAfter(CLOCK_REALTIME, timeoutMs);
    return pthread_mutex_timedlock(&mutex->native, &at);
#else
    const timespec at = DeadlineAfter(CLOCK_MONOTONIC, timeoutMs);
    return pthread_mutex_clocklock(&mutex->native, CLOCK_MONOTONIC, &at);
#endif
}

void FreeMutex(OsMutex* mutex) {
    const int result = pthread_mutex_trylock(&mutex->native);
    // Held by another thread: a robust lock destroyed while held breaks that thread's list of held
    // locks, so the block stays.
    if (result == EBUSY || result == EAGAIN)
        return;
    unsigned int levels = 1;
    if (result == EOWNERDEAD)
        pthread_mutex_consistent(&mutex->native);
    else if (mutex->owner.load(std::memory_order_relaxed) == pthread_self())
        levels += mutex->depth;
    while (levels-- > 0)
        pthread_mutex_unlock(&mutex->native);
    pthread_mutex_destroy(&mutex->native);
    mutex->~OsMutex();
    KTHeapFree(mutex);
}

// ---- event ----

// A waiting thread, on its own stack. Each has its own word to sleep on, so that a set releases
// exactly the threads that were waiting, whatever happens to the event afterwards.
struct Waiter {
    std::atomic<int> released{0};
    Waiter* next = nullptr;
    Waiter* prev = nullptr;
};

struct OsEvent {
    KTOsFastLock lock;
    std::atomic<int> uses{1};
    bool set = false;
    bool autoReset = false;
    Waiter* first = nullptr;  // oldest waiter
    Waiter* last = nullptr;
};

void Unlink(OsEvent* event, Waiter* waiter) {
    (waiter->prev != nullptr ? waiter->prev->next : event->first) = waiter->next;
    (waiter->next != nullptr ? waiter->next->prev : event->last) = waiter->prev;
}

void ReleaseWaiter(Waiter* waiter) {
    std::atomic<int>* word = &waiter->released;
    word->store(1, std::memory_order_release);
    // The waiter may be gone by now; waking an address that nobody sleeps on is harmless.
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// Sleeps until released or past the deadline (null: none). False when the time ran out.
bool Sleep(Waiter& waiter, const timespec* deadline) {
    while (waiter.released.load(std::memory_order_acquire) == 0) {
        const long result = syscall(SYS_futex, &waiter.released, FUTEX_WAIT_BITSET_PRIVATE, 0,
                                    deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
        if (result != 0 && errno == ETIMEDOUT)
            return false;
    }
    return true;
}

void DropEvent(OsEvent* event) {
    if (event->uses.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        event->~OsEvent();
        KTHeapFree(event);
    }
}

}  // namespace

void KTOsFastEnter(KTOsFastLock& lock) {
    pthread_mutex_lock(Native(lock));
}

void KTOsFastLeave(KTOsFastLock& lock) {
    pthread_mutex_unlock(Native(lock));
}

void* KTOsMutexCreate() {
    void* block = KTHeapAlloc(sizeof(OsMutex));
    if (block == nullptr)
        return nullptr;
    OsMutex* mutex = new (block) OsMutex;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    const int result = pthread_mutex_init(&mutex->native, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (result == 0)
        return mutex;
    mutex->~OsMutex();
    KTHeapFree(block);
    return nullptr;
}

void KTOsMutexShare(void* handle) {
    if (handle != nullptr)
        static_cast<OsMutex*>(handle)->uses.fetch_add(1, std::memory_order_relaxed);
}

void KTOsMutexClose(void* handle) {
    OsMutex* mutex = static_cast<OsMutex*>(handle);
    if (mutex != nullptr && mutex->uses.fetch_sub(1, std::memory_order_acq_rel) == 1)
        FreeMutex(mutex);
}

int KTOsMutexEnter(void* handle, unsigned int timeoutMs) {
    if (handle == nullptr)
        return KT_ERROR;
    OsMutex* mutex = static_cast<OsMutex*>(handle);
    const int result = LockNative(mutex, timeoutMs);
    if (result == EOWNERDEAD) {
        pthread_mutex_consistent(&mutex->native);
        mutex->depth = 0;
    } else if (result != 0) {
        return result == ETIMEDOUT || result == EBUSY ? KT_TIMEOUT : KT_ERROR;
    }
    mutex->owner.store(pthread_self(), std::memory_order_relaxed);
    ++mutex->depth;
    return result == EOWNERDEAD ? KT_BAD_STATE : KT_OK;
}

bool KTOsMutexLeave(void* handle) {
    OsMutex* mutex = static_cast<OsMutex*>(handle);
    if (mutex == nullptr || mutex->owner.load(std::memory_order_relaxed) != pthread_self())
        return false;
    if (--mutex->depth == 0)
        mutex->owner.store(pthread_t{}, std::memory_order_relaxed);
    return pthread_mutex_unlock(&mutex->native) == 0;
}

void* KTOsEventCreate(bool autoReset) {
    void* block = KTHeapAlloc(sizeof(OsEvent));
    if (block == nullptr)
        return nullptr;
    OsEvent* event = new (block) OsEvent;
    event->autoReset = autoReset;
    return event;
}

void KTOsEventShare(void* handle) {
    if (handle != nullptr)
        static_cast<OsEvent*>(handle)->uses.fetch_add(1, std::memory_order_relaxed);
}

void KTOsEventClose(void* handle) {
    if (handle != nullptr)
        DropEvent(static_cast<OsEvent*>(handle));
}

bool KTOsEventSet(void* handle) {
    if (handle == nullptr)
        return false;
    OsEvent* event = static_cast<OsEvent*>(handle);
    // A released thread may destroy the event before this call is through with it.
    KTOsEventShare(event);
    {
        KTOsFastGuard hold(event->lock);
        if (event->autoReset) {
            Waiter* waiter = event->first;
            if (waiter == nullptr) {
                event->set = true;
            } else {
                Unlink(event, waiter);
                ReleaseWaiter(waiter);
            }
        } else {
            event->set = true;
            while (Waiter* waiter = event->first) {
                Unlink(event, waiter);
                ReleaseWaiter(waiter);
            }
        }
    }
    DropEvent(event);
    return true;
}

bool KTOsEventReset(void* handle) {
    if (handle == nullptr)
        return false;
    OsEvent* event = static_cast<OsEvent*>(handle);
    KTOsFastGuard hold(event->lock);
    event->set = false;
    return true;
}

int KTOsEventWait(void* handle, unsigned int timeoutMs) {
    if (handle == nullptr)
        return KT_ERROR;
    OsEvent* event = static_cast<OsEvent*>(handle);
    Waiter self;
    {
        KTOsFastGuard hold(event->lock);
        if (event->set) {
            event->set = !event->autoReset;
            return KT_OK;
        }
        if (timeoutMs == 0)
            return KT_TIMEOUT;
        self.prev = event->last;
        (event->last != nullptr ? event->last->next : event->first) = &self;
        event->last = &self;
    }
    if (timeoutMs == KT_INFINITE) {
        Sleep(self, nullptr);
        return KT_OK;
    }
    const timespec deadline = DeadlineAfter(CLOCK_MONOTONIC, timeoutMs);
    if (Sleep(self, &deadline))
        return KT_OK;
    KTOsFastGuard hold(event->lock);
    if (self.released.load(std::memory_order_acquire) != 0)
        return KT_OK;  // released while the time ran out
    Unlink(event, &self);
    return KT_TIMEOUT;
}
