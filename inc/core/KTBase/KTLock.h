// Locks and events: thin wrappers over the system's synchronisation objects.
#ifndef KTBASE_KTLOCK_H
#define KTBASE_KTLOCK_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

/// Lock that its owner may enter again; every Enter needs its Leave. Any thread.
/// When creation failed, Enter and Leave answer 0. Copies share one lock, which lives until the
/// last of them is destroyed. Destroying a lock that the caller holds releases it first.
class KTBASE_API CKTMutex : public IKTBaseOBJ {
public:
    CKTMutex();
    CKTMutex(const CKTMutex& other);
    CKTMutex& operator=(const CKTMutex& other);
    ~CKTMutex() override;

    /// Waits up to timeoutMs (KT_INFINITE: without end). Returns 1 when acquired; 0 on time-out, on
    /// failure, and when the last owner died holding it: do not call Leave after a 0.
    int Enter(unsigned int timeoutMs);
    /// Releases one level. Returns non-zero, or 0 when the caller does not own the lock.
    int Leave();

private:
    friend class CKTGuard;
    void* m_handle;
};

/// Holds a lock for a scope. Waits without end; a lock whose owner died is taken over.
/// Must not outlive the lock. Copies are not meant to be made: each would release once.
class KTBASE_API CKTGuard : public IKTBaseOBJ {
public:
    CKTGuard(CKTMutex& m);
    ~CKTGuard() override;

private:
    CKTMutex* m_mutex;
};

/// Event, created unsignalled: manual-reset unless built with true. Any thread.
/// When creation failed, Set, Reset and Check answer 0 and Wait -1. Copies share one event.
/// A thread may destroy the event as soon as its own Wait has returned, though Set still runs.
class KTBASE_API CKTEvent : public IKTBaseOBJ {
public:
    CKTEvent();
    explicit CKTEvent(bool autoReset);
    CKTEvent(const CKTEvent& other);
    CKTEvent& operator=(const CKTEvent& other);
    ~CKTEvent() override;

    /// Manual-reset: releases every thread that waits now, and all later ones until Reset.
    /// Auto-reset: releases one waiting thread, or else the next Wait or Check.
    /// Returns non-zero on success.
    int Set();
    int Reset();  ///< Returns non-zero on success.
    /// 1 when signalled, else 0, at once. Takes the signal of an auto-reset event.
    int Check();
    /// Waits up to timeoutMs (KT_INFINITE: without end). Returns 0 when signalled, -2 on time-out,
    /// -1 on failure.
    int Wait(unsigned int timeoutMs);

private:
    bool m_autoReset;
    void* m_handle;
};

#endif
