// Timers: member functions called after a delay, once, a number of times or for ever.
#ifndef KTBASE_KTTIMER_H
#define KTBASE_KTTIMER_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTSignal.h"

class IKTTimerManager;

/// A timer. All timers are served by one manager thread, "KTTimerM", which looks for due ones every
/// 5 ms and hands them to at most 16 runner threads, "TimerThread-1" and on; so a slow callback
/// delays neither the beat nor, while a runner is free, another timer. A timer fires up to one beat
/// late, and its period counts from the beat that fired it. Callbacks of one timer never overlap.
///
/// Reference-counted: the last Release deletes the timer. A started timer is held by the manager
/// too, so Stop it before giving up the last reference of your own.
///
/// Any thread may call the members. A callback may start and stop its own timer and others, but two
/// callbacks that stop each other's timer wait for each other. It must not end the last
/// KTTimerInitialize: that waits for the runner it runs on.
class KTBASE_API IKTTimer : public CKTObject, public IKTRef {
public:
    IKTTimer(const IKTTimer&) = delete;
    IKTTimer& operator=(const IKTTimer&) = delete;

    /// Makes the manager at the first call; each call wants its KTTimerInvalidate. Returns 0, -6
    /// without memory, -1 when the manager's thread cannot be started: the call then does not count.
    static int KTTimerInitialize();
    /// The last one deletes the manager, waiting for running callbacks; timers still started never
    /// fire again. Returns 0.
    static int KTTimerInvalidate();
    /// A new stopped timer with one reference, the caller's. Null without a manager or memory.
    static IKTTimer* AcquireTimer();

    /// Calls (obj->*fn)(this timer, 0, null, null) every intervalMS (0: 1000), first after one
    /// interval, or with immediate at the next beat; limit times, or without end for 0. Its result
    /// is not used. Returns 0; -4 when obj or fn is null; -7 without a manager or when the timer is
    /// started already, even if its limit is reached; -6 without memory.
    int Start(CKTObject* obj, KTSignalHandler fn, unsigned int intervalMS, unsigned int limit,
              bool immediate);
    /// Disconnects the callback. When it runs on another thread this waits for it: afterwards it does
    /// not run and is not called again. Returns 0.
    int Stop();

    /// Deletes the timer when the count drops to 0 or below. Returns what is left, 0 after that.
    int Release() override;

private:
    friend class IKTTimerManager;
    friend class IKTTimerThread;

    IKTTimer();
    ~IKTTimer() override;

    bool Check(unsigned long long nowMS);
    void Run(unsigned int generation);
    bool BeginDispatch(unsigned int& generation);
    void EndRun(unsigned int generation);

    IKTSignal m_signal;
    unsigned int m_interval = 1000;  // ms
    unsigned int m_limit = 0;        // firings allowed, 0 for any number
    unsigned int m_count = 0;        // firings since the start
    unsigned long long m_due = 0;    // on the clock of CKTTime::GetTimeMS
    CKTMutex m_lock;                 // guards all but the signal; taken after the manager lock
    unsigned int m_state = 0;        // 0 stopped, 1 armed, 2 firing
    unsigned int m_generation = 0;   // counts starts: a run handed out before a restart is stale
    unsigned int m_runner = 0;       // thread that runs the callback, 0 for none
    CKTEvent m_idle;                 // set while no thread runs the callback

    static CKTMutex& s_timermutex;  // guards the two below
    static int s_timerref;          // KTTimerInitialize calls outstanding
    static IKTTimerManager* s_pTimerManager;
};

#endif
