// The threads behind the timers.
#ifndef KTBASE_KTTIMERMANAGER_H
#define KTBASE_KTTIMERMANAGER_H

#include "KTBase/KTListT.h"
#include "KTBase/KTThread.h"
#include "KTBase/KTTimer.h"
#include "KTPin.h"

/// A runner: calls the callback of one timer at a time.
class IKTTimerThread : public CKTThread {
public:
    explicit IKTTimerThread(unsigned int slot);
    ~IKTTimerThread() override;

    bool IsFree();
    /// Takes the timer, with a reference of its own, and wakes the thread. False when the thread does
    /// not run or the wake-up was refused: nothing is held then.
    bool Take(IKTTimer* timer, unsigned int generation, unsigned long long nowMS);
    /// True when it has had nothing to do for longer than its idle limit.
    bool IsIdle(unsigned long long nowMS);

    IKTTimerThread* m_nextDropped = nullptr;  // the manager's

protected:
    unsigned int OnThread() override;

private:
    CKTMutex m_runnerLock;             // guards all below; taken after the manager lock
    IKTTimer* m_current = nullptr;     // with a reference
    unsigned int m_generation = 0;     // of the current timer when it was handed out
    unsigned int m_idleLimit;          // ms
    unsigned long long m_lastUse = 0;  // on the clock of CKTTime::GetTimeMS, 0 for not yet
};

/// The manager: finds due timers and hands them to runners.
class IKTTimerManager : public CKTThread, public KTPinned {
public:
    explicit IKTTimerManager(unsigned int capacity);
    ~IKTTimerManager() override;

    /// What IKTTimer::Start does under the manager lock.
    int Start(IKTTimer* timer, CKTObject* obj, KTSignalHandler fn, unsigned int intervalMS,
              unsigned int limit, bool immediate);
    /// Takes the timer out of the lists. Returns 0, or -11 when it is in neither.
    int Remove(IKTTimer* timer);

protected:
    unsigned int OnThread() override;

private:
    void Collect(unsigned long long nowMS);
    void Dispatch(unsigned long long nowMS);
    bool HandOut(unsigned int slot, unsigned long long nowMS);
    unsigned int FreeRunner();
    void Reap(unsigned long long nowMS);
    void DropRunner(unsigned int slot);
    void DeleteDropped();

    CKTMutex m_managerLock;    // guards all below; nothing is waited for under it
    CKTListP<IKTTimer> m_due;  // chosen, not yet handed out; each timer in a list has a reference
    CKTListP<IKTTimer> m_waiting;  // all other started timers
    unsigned int m_capacity;
    IKTTimerThread** m_runners = nullptr;  // m_capacity slots, null where empty
    IKTTimerThread* m_dropped = nullptr;   // chain of runners to be deleted without the lock
    bool m_refused = false;                // a runner did not take its timer: to be reported
};

#endif
