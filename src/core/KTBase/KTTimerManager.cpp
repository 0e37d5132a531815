#include "KTTimerManager.h"

#include <cstdio>

#include "KTBase/KTDebug.h"
#include "KTBase/KTTime.h"

namespace {

constexpr unsigned int kBeatMs = 5;
constexpr unsigned int kStopCommand = 1;
constexpr unsigned int kRunCommand = 101;
constexpr unsigned int kIdleLimitMs = 60000;
constexpr unsigned int kLeastRunners = 4;
constexpr unsigned int kNoSlot = ~0u;

struct RunnerName {
    explicit RunnerName(unsigned int slot) {
        std::snprintf(text, sizeof(text), "TimerThread-%u", slot + 1);
    }
    char text[32];
};

}  // namespace

// ---- runner ----

IKTTimerThread::IKTTimerThread(unsigned int slot)
    : CKTThread(RunnerName(slot).text, 0, 30), m_idleLimit(kIdleLimitMs) {}

IKTTimerThread::~IKTTimerThread() {
    ThreadStop();
    if (m_current != nullptr)
        m_current->Release();
}

bool IKTTimerThread::IsFree() {
    CKTGuard hold(m_runnerLock);
    return m_current == nullptr;
}

bool IKTTimerThread::Take(IKTTimer* timer, unsigned int generation, unsigned long long nowMS) {
    CKTGuard hold(m_runnerLock);
    if (m_current != nullptr || IsRunning() == 0 ||
        OnPostMessage(kRunCommand, nullptr, nullptr, 0) != KT_OK)
        return false;
    timer->AddRef();
    m_current = timer;
    m_generation = generation;
    m_lastUse = nowMS;
    return true;
}

bool IKTTimerThread::IsIdle(unsigned long long nowMS) {
    CKTGuard hold(m_runnerLock);
    if (m_lastUse == 0)
        m_lastUse = nowMS;
    return m_current == nullptr && m_lastUse + m_idleLimit < nowMS;
}

unsigned int IKTTimerThread::OnThread() {
    while (IsRunning() != 0) {
        CKTMessageT message;
        if (KTGetMessage(message, KT_INFINITE) != KT_OK || message.Command() == kStopCommand)
            return 0;
        IKTTimer* timer;
        unsigned int generation;
        {
            CKTGuard hold(m_runnerLock);
            timer = m_current;
            generation = m_generation;
        }
        if (timer == nullptr)
            continue;
        timer->Run(generation);
        {
            CKTGuard hold(m_runnerLock);
            m_current = nullptr;
        }
        timer->Release();
    }
    return 0;
}

// ---- manager ----

IKTTimerManager::IKTTimerManager(unsigned int capacity)
    : CKTThread("KTTimerM", 0, 35), m_capacity(capacity != 0 ? capacity : kLeastRunners) {}

IKTTimerManager::~IKTTimerManager() {
    ThreadStop();
    IKTTimer* timer = nullptr;
    while (m_due.RemoveHead(timer) == KT_OK || m_waiting.RemoveHead(timer) == KT_OK)
        timer->Release();
    ZMKFree(m_runners);
}

unsigned int IKTTimerManager::OnThread() {
    m_runners = static_cast<IKTTimerThread**>(ZMKCalloc(m_capacity, sizeof(IKTTimerThread*)));
    while (m_runners != nullptr && IsRunning() != 0) {
        CKTMessageT message;
        const int result = KTGetMessage(message, kBeatMs);
        if (result == KT_OK ? message.Command() == kStopCommand : result != KT_TIMEOUT)
            break;
        const unsigned long long nowMs = CKTTime::GetTimeMS();
        bool refused;
        {
            CKTGuard hold(m_managerLock);
            Collect(nowMs);
            Dispatch(nowMs);
            Reap(nowMs);
            refused = m_refused;
            m_refused = false;
        }
        DeleteDropped();
        if (refused)
            KTPrintf("%s(%d)--------->Invalid state.\n", "CKTThread::KTPostMessage", 604);
    }
    if (m_runners != nullptr) {
        CKTGuard hold(m_managerLock);
        for (unsigned int slot = 0; slot < m_capacity; ++slot)
            DropRunner(slot);
    }
    DeleteDropped();
    return 0;
}

/// Moves the timers that are due to the due list, in the order of the waiting list.
void IKTTimerManager::Collect(unsigned long long nowMS) {
    void* next = nullptr;
    for (void* at = m_waiting.FindIndex(0); at != nullptr; at = next) {
        next = m_waiting.GetNext(at);
        IKTTimer* timer = nullptr;
        m_waiting.GetAt(at, timer);
        if (!timer->Check(nowMS))
            continue;
        // Without memory for the node this firing is left out.
        unsigned int generation;
        if (m_due.AddTail(timer) != nullptr)
            m_waiting.RemoveAt(at, timer);
        else if (timer->BeginDispatch(generation))
            timer->EndRun(generation);
    }
}

void IKTTimerManager::Dispatch(unsigned long long nowMS) {
    while (!m_due.IsEmpty()) {
        const unsigned int slot = FreeRunner();
        if (slot == kNoSlot || !HandOut(slot, nowMS))
            return;
    }
}

/// The first runner without a timer, else the first empty slot.
unsigned int IKTTimerManager::FreeRunner() {
    unsigned int empty = kNoSlot;
    for (unsigned int slot = 0; slot < m_capacity; ++slot) {
        if (m_runners[slot] == nullptr)
            empty = empty == kNoSlot ? slot : empty;
        else if (m_runners[slot]->IsFree())
            return slot;
    }
    return empty;
}

/// Gives the timer at the head of the due list to the slot's runner, which is made if need be. False
/// when memory is out: the timer stays in the due list.
bool IKTTimerManager::HandOut(unsigned int slot, unsigned long long nowMS) {
    IKTTimer* timer = nullptr;
    m_due.GetAtHead(timer);
    if (m_waiting.AddTail(timer) == nullptr)
        return false;
    m_due.RemoveHead(timer);
    unsigned int generation;
    if (!timer->BeginDispatch(generation))
        return true;  // being stopped: its Stop takes it out of the waiting list
    if (m_runners[slot] == nullptr) {
        m_runners[slot] = new IKTTimerThread(slot);
        if (m_runners[slot] != nullptr)
            m_runners[slot]->ThreadStart();
    }
    if (m_runners[slot] != nullptr && m_runners[slot]->Take(timer, generation, nowMS))
        return true;
    timer->EndRun(generation);
    DropRunner(slot);
    m_refused = true;
    return true;
}

void IKTTimerManager::Reap(unsigned long long nowMS) {
    for (unsigned int slot = 0; slot < m_capacity; ++slot) {
        if (m_runners[slot] != nullptr && m_runners[slot]->IsIdle(nowMS))
            DropRunner(slot);
    }
}

void IKTTimerManager::DropRunner(unsigned int slot) {
    IKTTimerThread* runner = m_runners[slot];
    m_runners[slot] = nullptr;
    if (runner == nullptr)
        return;
    runner->m_nextDropped = m_dropped;
    m_dropped = runner;
}

/// On the manager's thread, without the lock: a runner ends when its callback has.
void IKTTimerManager::DeleteDropped() {
    while (IKTTimerThread* runner = m_dropped) {
        m_dropped = runner->m_nextDropped;
        delete runner;
    }
}
