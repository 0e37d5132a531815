#include "KTBase/KTThread.h"

#include <cstdio>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTString.h"
#include "KTBase/KTTime.h"
#include "KTLibrary.h"
#include "os/KTOsThread.h"

namespace {

enum State : unsigned int { kIdle, kStart, kRun, kStop };

constexpr unsigned int kStopCommand = 1;
constexpr unsigned int kStepMs = 10;  // a wait for another thread's state looks again this often
constexpr unsigned int kSlotStep = 128;
constexpr unsigned int kNoSlot = ~0u;

const char* StateName(unsigned int state) {
    static const char* const names[] = {"Idle", "Start", "Run", "Stop"};
    return state <= kStop ? names[state] : "N/A";
}

// The library's scale to the platform's steps; a smaller number is more urgent.
int PriorityStep(int priority) {
    if (priority <= 10)
        return 2;
    if (priority <= 20)
        return 1;
    if (priority <= 30)
        return 0;
    return priority <= 40 ? -1 : -2;
}

char* CopyName(const char* name, const void* object) {
    if (name != nullptr && name[0] != '\0')
        return CKTString::Clone(name, 0);
    char made[40];
    std::snprintf(made, sizeof(made), "Thread_%p", object);
    return CKTString::Clone(made, 0);
}

void* InvalidHandle() {
    return reinterpret_cast<void*>(-1);
}

}  // namespace

CKTThread** CKTThread::s_THDObj = nullptr;
unsigned int CKTThread::s_THDSlot = kSlotStep;
unsigned int CKTThread::s_THDNum = 0;

CKTThread::CKTThread() : CKTThread(nullptr, 0, 30) {}

CKTThread::CKTThread(const char* name, unsigned long long stackSize, int priority)
    : m_name(CopyName(name, this)),
      m_stackSize(stackSize),
      m_priority(priority),
      m_state(kIdle),
      m_handle(nullptr),
      m_threadId(0),
      m_slot(kNoSlot),
      m_run(0),
      m_starting(false),
      m_stopPosted(false),
      m_hasLock(m_stateLock.Enter(0) == 1) {
    if (m_hasLock)
        m_stateLock.Leave();
    m_slot = THDInsert(this);
}

CKTThread::~CKTThread() {
    ThreadStop();
    KTOsThreadClose(m_handle);
    THDRemove(this);
    ZMKFree(m_name);
    while (void* message = m_queue.Unlink())
        delete static_cast<CKTMessageT*>(message);
}

int CKTThread::IsRunning() {
    CKTGuard hold(m_stateLock);
    return m_state == kStart || m_state == kRun;
}

// ---- start and stop ----

bool CKTThread::IsCaller() const {
    return m_threadId == KTOsThreadCurrentId();
}

// True when no thread of an earlier run uses this object. A thread that starts itself anew while it
// leaves its last run does not wait for itself.
bool CKTThread::HasLeft() const {
    if (m_state != kIdle || m_starting)
        return false;
    return m_handle == nullptr || IsCaller() || KTOsThreadWait(m_handle, 0) == KT_OK;
}

void CKTThread::RequestStop() {
    m_state = kStop;
    m_stopPosted = OnPostMessage(kStopCommand, nullptr, nullptr, 0) == KT_OK;
}

void* CKTThread::PinHandle() {
    KTOsThreadShare(m_handle);
    return m_handle;
}

// Waits one step, without the state lock, for the thread to return; ends the pin.
void CKTThread::AwaitStep(void* pinned) {
    if (pinned == nullptr) {
        m_wake.Wait(kStepMs);
        return;
    }
    if (KTOsThreadWait(pinned, kStepMs) == KT_OK) {
        // A thread that the system ended with the process never closed.
        CKTGuard hold(m_stateLock);
        if (m_handle == pinned)
            m_state = kIdle;
    }
    KTOsThreadClose(pinned);
}

int CKTThread::ThreadStart() {
    if (!m_hasLock)
        return KT_ERROR;
    for (;;) {
        void* previous = nullptr;
        bool begun = false;
        {
            CKTGuard hold(m_stateLock);
            if (m_state == kStart || m_state == kRun)
                return KT_OK;
            if (m_state == kStop && IsCaller())
                return KT_ERROR;
            if (HasLeft()) {
                begun = true;
                previous = m_handle;
                m_handle = nullptr;
                m_threadId = 0;
                m_state = kStart;
                m_starting = true;
                m_stopPosted = false;
                ++m_run;
            } else {
                previous = PinHandle();
            }
        }
        if (begun) {
            KTOsThreadClose(previous);
            break;
        }
        AwaitStep(previous);
    }

    OnThreadStop();

    unsigned long id = 0;
    void* thread =
        KTOsThreadCreate(ThreadProc, this, m_stackSize, PriorityStep(m_priority), m_name, id);
    CKTGuard hold(m_stateLock);
    m_starting = false;
    m_handle = thread;
    m_threadId = static_cast<unsigned int>(id);
    if (thread != nullptr)
        return KT_OK;
    m_state = kIdle;
    return KT_ERROR;
}

int CKTThread::ThreadStop() {
    unsigned int run;
    {
        CKTGuard hold(m_stateLock);
        run = m_run;
        if (m_state == kStart || m_state == kRun)
            RequestStop();
        if (IsCaller())
            return KT_OK;
    }
    for (;;) {
        void* running;
        {
            CKTGuard hold(m_stateLock);
            if (m_run != run)
                return KT_OK;  // started anew by another thread: the run to be stopped has ended
            // Running although asked to stop: it was just starting, and that start drained the queue.
            if (m_state == kRun || (m_state == kStop && !m_stopPosted))
                RequestStop();
            if (HasLeft()) {
                KTOsThreadClose(m_handle);
                m_handle = nullptr;
                return KT_OK;
            }
            running = PinHandle();
        }
        AwaitStep(running);
    }
}

unsigned long CKTThread::ThreadProc(void* object) {
    CKTThread* thread = static_cast<CKTThread*>(object);
    if (thread == nullptr) {
        KTFault("src/core/KTBase/KTThread", "CKTThread::ThreadProc", 472);
        return 0;
    }
    thread->OnThreadStart();
    const unsigned int exitCode = thread->OnThread();
    thread->OnThreadClose();
    return exitCode;
}

int CKTThread::OnThreadStart() {
    CKTGuard hold(m_stateLock);
    m_threadId = KTOsThreadCurrentId();
    m_state = kRun;
    return KT_OK;
}

int CKTThread::OnThreadStop() {
    for (;;) {
        void* message = m_queue.Unlink();
        if (message != nullptr)
            OnMessageCancel(static_cast<CKTMessageT*>(message));
        else if (!m_queue.Poll())
            return KT_OK;
    }
}

int CKTThread::OnThreadClose() {
    for (;;) {
        OnThreadStop();
        // A post that came between is cancelled too: none is left for a later run to find.
        CKTGuard hold(m_stateLock);
        if (m_queue.IsEmpty()) {
            m_state = kIdle;
            return KT_OK;
        }
    }
}

int CKTThread::OnMessageCancel(CKTMessageT* msg) {
    delete msg;
    return KT_OK;
}

// ---- messages ----

int CKTThread::OnPostMessage(unsigned int cmd, void* p0, void* p1, unsigned int time) {
    CKTMessageT* message = new CKTMessageT(cmd, p0, p1, time);
    if (message == nullptr)
        return KT_NO_MEMORY;
    const int result = m_queue.Put(message);
    if (result != KT_OK)
        delete message;
    return result;
}

int CKTThread::Post(unsigned int cmd, void* p0, void* p1, unsigned int time, const char* function,
                    int line) {
    {
        CKTGuard hold(m_stateLock);
        if (m_state == kStart || m_state == kRun)
            return OnPostMessage(cmd, p0, p1, time);
    }
    KTPrintf("%s(%d)--------->Invalid state.\n", function, line);
    return KT_BAD_STATE;
}

int CKTThread::KTPostMessage(unsigned int cmd, void* p0, void* p1, unsigned int time) {
    return Post(cmd, p0, p1, time, "CKTThread::KTPostMessage", 604);
}

int CKTThread::PostMessageW(unsigned int cmd, void* p0, void* p1, unsigned int time) {
    return Post(cmd, p0, p1, time, "CKTThread::PostMessageW", 615);
}

int CKTThread::GetMessageW(CKTMessageT*& msg, unsigned int timeoutMS) {
    void* item = nullptr;
    const int result = m_queue.Get(item, timeoutMS);
    msg = static_cast<CKTMessageT*>(item);
    return result;
}

int CKTThread::KTGetMessage(CKTMessageT*& msg, unsigned int timeoutMS) {
    return GetMessageW(msg, timeoutMS);
}

int CKTThread::GetMessageW(CKTMessageT& msg, unsigned int timeoutMS) {
    CKTMessageT* taken = nullptr;
    const int result = GetMessageW(taken, timeoutMS);
    if (taken == nullptr)
        return result;
    msg = *taken;
    delete taken;
    return result;
}

int CKTThread::KTGetMessage(CKTMessageT& msg, unsigned int timeoutMS) {
    return GetMessageW(msg, timeoutMS);
}

unsigned int CKTThread::GetMessageCount() {
    return m_queue.GetCount();
}

unsigned int CKTThread::GetThreadID() {
    CKTGuard hold(m_stateLock);
    return m_threadId;
}

unsigned int CKTThread::GetCurrentThreadID() {
    return KTOsThreadCurrentId();
}

// ---- bare threads ----

void* CKTThread::KTThreadCreate(unsigned long (*fn)(void*), void* arg, unsigned long long stackSize,
                                int priority, unsigned long& threadId) {
    void* thread = KTOsThreadCreate(fn, arg, stackSize, PriorityStep(priority), nullptr, threadId);
    return thread != nullptr ? thread : InvalidHandle();
}

int CKTThread::KTThreadDestroy(void*& handle) {
    if (handle == nullptr)
        return KT_NO_HANDLE;
    if (handle != InvalidHandle())
        KTOsThreadClose(handle);
    handle = nullptr;
    return KT_OK;
}

// ---- thread table ----

unsigned int CKTThread::THDInsert(CKTThread* thread) {
    CKTGuard hold(KTLibraryGet().threads);
    if (s_THDObj == nullptr) {
        s_THDObj = static_cast<CKTThread**>(ZMKCalloc(kSlotStep, sizeof(CKTThread*)));
        s_THDSlot = kSlotStep;
        s_THDNum = 0;
        if (s_THDObj == nullptr)
            return kNoSlot;
    }
    unsigned int slot = 0;
    while (slot < s_THDSlot && s_THDObj[slot] != nullptr)
        ++slot;
    if (slot == s_THDSlot) {
        void* grown = ZMKCalloc(s_THDSlot + kSlotStep, sizeof(CKTThread*));
        if (grown == nullptr)
            return kNoSlot;
        std::memcpy(grown, s_THDObj, s_THDSlot * sizeof(CKTThread*));
        ZMKFree(s_THDObj);
        s_THDObj = static_cast<CKTThread**>(grown);
        s_THDSlot += kSlotStep;
    }
    s_THDObj[slot] = thread;
    ++s_THDNum;
    return slot;
}

int CKTThread::THDRemove(CKTThread* thread) {
    CKTGuard hold(KTLibraryGet().threads);
    if (s_THDObj == nullptr || thread->m_slot >= s_THDSlot || s_THDObj[thread->m_slot] != thread)
        return KT_ERROR;
    s_THDObj[thread->m_slot] = nullptr;
    if (--s_THDNum == 0) {
        ZMKFree(s_THDObj);
        s_THDObj = nullptr;
        s_THDSlot = kSlotStep;
    }
    return KT_OK;
}

void CKTThread::AppendLine(CKTString& out) {
    CKTGuard hold(m_stateLock);
    out.Append("%4d  %25s  %8s  %4d  %5d  %5x\n", static_cast<int>(m_slot),
               m_name != nullptr ? m_name : " ", StateName(m_state), m_priority,
               static_cast<int>(m_stackSize), m_threadId);
}

void CKTThread::AppendTable(CKTString& out, int index) {
    CKTGuard hold(KTLibraryGet().threads);
    out.Append("Dump All Threads, Total Number = %d\n", static_cast<int>(s_THDNum));
    out.Append("%4s  %25s  %8s  %4s  %5s  %5s\n", "ID", "Name", "State", "Prio", "Stack", "TID");
    for (unsigned int slot = 0; s_THDObj != nullptr && slot < s_THDSlot; ++slot) {
        if (s_THDObj[slot] != nullptr && (index < 0 || static_cast<unsigned int>(index) == slot))
            s_THDObj[slot]->AppendLine(out);
    }
}

void CKTThread::Dump(CKTString& out) {
    AppendLine(out);
}

void CKTThread::THDDump(int) {
    CKTString table;
    AppendTable(table, -1);
    KTDBG_Output(0, table.GetBuffer(), table.GetLength());
}

void CKTThread::THDDump(CKTString& out, int index) {
    out.Empty(false);
    AppendTable(out, index);
    out.AppendChar('\n', 1);
    KTDBG_Output(0, out.GetBuffer(), out.GetLength());
}
