#include "KTBase/KTTimer.h"

#include "KTBase/KTTime.h"
#include "KTLibrary.h"
#include "KTTimerManager.h"

namespace {

constexpr unsigned int kRunners = 16;
constexpr unsigned int kDefaultIntervalMs = 1000;

enum State : unsigned int { kStopped, kArmed, kFiring };

}  // namespace

int IKTTimer::s_timerref = 0;
IKTTimerManager* IKTTimer::s_pTimerManager = nullptr;

IKTTimer::IKTTimer() {
    m_idle.Set();
}

IKTTimer::~IKTTimer() = default;

int IKTTimer::KTTimerInitialize() {
    CKTGuard hold(KTLibraryGet().timers);
    if (s_pTimerManager == nullptr) {
        IKTTimerManager* manager = new IKTTimerManager(kRunners);
        if (manager == nullptr)
            return KT_NO_MEMORY;
        if (manager->ThreadStart() != KT_OK) {
            delete manager;
            return KT_ERROR;
        }
        s_pTimerManager = manager;
    }
    ++s_timerref;
    return KT_OK;
}

int IKTTimer::KTTimerInvalidate() {
    IKTTimerManager* manager;
    {
        CKTGuard hold(KTLibraryGet().timers);
        if (s_timerref > 0 && --s_timerref > 0)
            return KT_OK;
        manager = s_pTimerManager;
        s_pTimerManager = nullptr;
    }
    if (manager == nullptr)
        return KT_OK;
    KTAwaitUnpinned(KTLibraryGet().timers, *manager);
    delete manager;
    return KT_OK;
}

IKTTimer* IKTTimer::AcquireTimer() {
    CKTGuard hold(KTLibraryGet().timers);
    IKTTimer* timer = s_pTimerManager != nullptr ? new IKTTimer : nullptr;
    // Without its event nobody could wait for its callback.
    if (timer != nullptr && timer->m_idle.Check() == 0) {
        delete timer;
        return nullptr;
    }
    return timer;
}

int IKTTimer::Start(CKTObject* obj, KTSignalHandler fn, unsigned int intervalMS, unsigned int limit,
                    bool immediate) {
    if (obj == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    const KTPin<IKTTimerManager> manager(KTLibraryGet().timers, s_pTimerManager);
    if (!manager)
        return KT_BAD_STATE;
    return manager->Start(this, obj, fn, intervalMS != 0 ? intervalMS : kDefaultIntervalMs, limit,
                          immediate);
}

int IKTTimer::Stop() {
    {
        CKTGuard hold(m_lock);
        m_state = kStopped;
    }
    {
        const KTPin<IKTTimerManager> manager(KTLibraryGet().timers, s_pTimerManager);
        if (manager)
            manager->Remove(this);
    }
    // With no lock held: this waits for a callback that runs on another thread.
    m_signal.Clear();
    bool wait;
    {
        CKTGuard hold(m_lock);
        wait = m_runner != 0 && m_runner != CKTThread::GetCurrentThreadID();
    }
    // A runner may stand between its test of the state and the callback: a connection made by a
    // later Start must not be called by it.
    if (wait)
        m_idle.Wait(KT_INFINITE);
    return KT_OK;
}

int IKTTimer::Release() {
    const int left = IKTRef::Release();
    if (left > 0)
        return left;
    delete this;
    return 0;
}

/// Whether the timer is due; it is chosen by this call then.
bool IKTTimer::Check(unsigned long long nowMS) {
    CKTGuard hold(m_lock);
    if (m_state != kArmed || (m_limit != 0 && m_count >= m_limit) || m_due > nowMS || m_runner != 0)
        return false;
    m_due = nowMS + m_interval;
    ++m_count;
    m_state = kFiring;
    return true;
}

/// Which start the firing belongs to; false when the timer was stopped meanwhile.
bool IKTTimer::BeginDispatch(unsigned int& generation) {
    CKTGuard hold(m_lock);
    generation = m_generation;
    return m_state == kFiring;
}

void IKTTimer::Run(unsigned int generation) {
    {
        CKTGuard hold(m_lock);
        if (m_state != kFiring || m_generation != generation)
            return;
        m_runner = CKTThread::GetCurrentThreadID();
        m_idle.Reset();
    }
    m_signal.Commit(static_cast<CKTObject*>(this), 0, nullptr, nullptr);
    {
        CKTGuard hold(m_lock);
        m_runner = 0;
        m_idle.Set();
    }
    EndRun(generation);
}

/// Armed again after its callback, or after a firing that nobody took; unless stopped meanwhile.
void IKTTimer::EndRun(unsigned int generation) {
    CKTGuard hold(m_lock);
    if (m_state == kFiring && m_generation == generation)
        m_state = kArmed;
}

// ---- the manager's part of starting and stopping ----

int IKTTimerManager::Start(IKTTimer* timer, CKTObject* obj, KTSignalHandler fn,
                           unsigned int intervalMS, unsigned int limit, bool immediate) {
    CKTGuard holdManager(m_managerLock);
    CKTGuard holdTimer(timer->m_lock);
    if (timer->m_signal.GetCount() != 0)
        return KT_BAD_STATE;
    if (timer->m_signal.Attach(obj, fn) != KT_OK)
        return KT_NO_MEMORY;
    if (m_due.Find(timer) == nullptr && m_waiting.Find(timer) == nullptr) {
        if (m_waiting.AddTail(timer) == nullptr) {
            timer->m_signal.Clear();
            return KT_NO_MEMORY;
        }
        timer->AddRef();
    }
    timer->m_interval = intervalMS;
    timer->m_limit = limit;
    timer->m_count = 0;
    timer->m_due = CKTTime::GetTimeMS() + (immediate ? 0 : intervalMS);
    ++timer->m_generation;
    timer->m_state = kArmed;
    return KT_OK;
}

int IKTTimerManager::Remove(IKTTimer* timer) {
    bool held;
    {
        CKTGuard hold(m_managerLock);
        held = m_due.Remove(timer) == KT_OK || m_waiting.Remove(timer) == KT_OK;
    }
    if (!held)
        return KT_NOT_FOUND;
    timer->Release();
    return KT_OK;
}
