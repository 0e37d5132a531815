#include "KTBase/KTAsync.h"

#include "KTBase/KTListT.h"
#include "KTBase/KTThreadPool.h"
#include "KTLibrary.h"
#include "KTPin.h"

namespace {

constexpr unsigned int kStopCommand = 1;
constexpr unsigned int kRunCommand = 201;
constexpr unsigned int kDeleteCommand = 202;
constexpr unsigned int kIdleWaitMs = 10000;

}  // namespace

/// A task. Pinned under the manager lock.
class IASYNCExecTask : public CKTObject, public KTPinned {
public:
    explicit IASYNCExecTask(unsigned int priority);
    IASYNCExecTask(const IASYNCExecTask&) = delete;
    IASYNCExecTask& operator=(const IASYNCExecTask&) = delete;
    ~IASYNCExecTask() override;

    int Commit(void* context, KTStreamFn fn);
    /// Waits for the jobs, then ends the worker.
    void TearDown();
    bool IsOnItsWorker();
    /// Without its event nobody could wait for a job.
    bool IsSound() { return m_done.Check() != 0; }

private:
    int OnJob(CKTMessageT* msg, unsigned int nowMS, unsigned int& waitMS);
    bool Start();

    const unsigned int m_priority;
    CKTThreadWorker* m_worker = nullptr;  // made by the first job
    CKTMutex m_jobLock;                   // guards the worker's address and the pending job
    void* m_context = nullptr;
    KTStreamFn m_fn = nullptr;
    CKTEvent m_done;          // set while no job waits or runs
    CKTMutex m_teardownLock;  // held while the worker is being removed
};

/// The manager: owns the tasks and deletes them on its own thread.
class IASYNCExecManager : public CKTThread, public KTPinned {
public:
    IASYNCExecManager() : CKTThread("ASYNCExecM", 0, 30) {}
    ~IASYNCExecManager() override;

    IASYNCExecTask* Create(unsigned int priority);
    int Commit(void* task, void* context, KTStreamFn fn);
    int Delete(void* task, bool now);

protected:
    unsigned int OnThread() override;

private:
    IASYNCExecTask* Pin(void* task);
    void Unpin(IASYNCExecTask* task);
    void DeleteNow(void* task);

    CKTMutex m_lock;  // guards the list and the tasks' pins; nothing is waited for under it
    CKTListP<IASYNCExecTask> m_tasks;
};

namespace {

IASYNCExecManager* g_manager;  // guarded by the library's lock for it
int g_uses;                    // KTASYNCExecInitialize calls outstanding; likewise

typedef KTPin<IASYNCExecManager> ManagerPin;

}  // namespace

// ---- task ----

IASYNCExecTask::IASYNCExecTask(unsigned int priority) : m_priority(priority) {
    m_done.Set();
}

IASYNCExecTask::~IASYNCExecTask() {
    TearDown();
}

int IASYNCExecTask::Commit(void* context, KTStreamFn fn) {
    {
        CKTGuard hold(m_jobLock);
        if (m_fn != nullptr)
            return KT_BAD_STATE;
        m_context = context;
        m_fn = fn;
        m_done.Reset();
    }
    if (Start())
        return KT_OK;
    CKTGuard hold(m_jobLock);
    m_context = nullptr;
    m_fn = nullptr;
    m_done.Set();
    return KT_ERROR;
}

/// Wakes the worker for the pending job; makes it at the first. Only the thread whose job is pending
/// comes here.
bool IASYNCExecTask::Start() {
    if (m_worker == nullptr) {
        const KTWorkerHandler handler = static_cast<KTWorkerHandler>(&IASYNCExecTask::OnJob);
        CKTThreadWorker* worker =
            new CKTThreadWorker(0, "IASYNCExecTask", 0, static_cast<int>(m_priority));
        if (worker == nullptr || worker->IsRunning() == 0 ||
            worker->Attach(this, handler) != KT_OK) {
            delete worker;
            return false;
        }
        CKTGuard hold(m_jobLock);
        m_worker = worker;
    }
    return m_worker->KTPostMessage(kRunCommand, static_cast<CKTObject*>(this), nullptr, 0) == KT_OK;
}

int IASYNCExecTask::OnJob(CKTMessageT* msg, unsigned int, unsigned int& waitMS) {
    waitMS = kIdleWaitMs;
    if (msg == nullptr || msg->Command() != kRunCommand)
        return KT_OK;
    void* context;
    KTStreamFn fn;
    {
        CKTGuard hold(m_jobLock);
        context = m_context;
        fn = m_fn;
        m_context = nullptr;
        m_fn = nullptr;
    }
    if (context != nullptr && fn != nullptr)
        fn(context, this, kRunCommand, this, context);
    CKTGuard hold(m_jobLock);
    if (m_fn == nullptr)
        m_done.Set();  // else the next job waits already: it is not done with
    return KT_OK;
}

void IASYNCExecTask::TearDown() {
    CKTGuard hold(m_teardownLock);
    if (m_worker == nullptr)
        return;
    m_done.Wait(KT_INFINITE);
    m_worker->Detach(this, static_cast<KTWorkerHandler>(&IASYNCExecTask::OnJob));
    delete m_worker;
    m_worker = nullptr;
}

bool IASYNCExecTask::IsOnItsWorker() {
    CKTGuard hold(m_jobLock);
    return m_worker != nullptr && m_worker->GetThreadID() == CKTThread::GetCurrentThreadID();
}

// ---- manager ----

IASYNCExecManager::~IASYNCExecManager() {
    ThreadStop();
    IASYNCExecTask* task = nullptr;
    while (m_tasks.RemoveHead(task) == KT_OK)
        delete task;
}

IASYNCExecTask* IASYNCExecManager::Create(unsigned int priority) {
    IASYNCExecTask* task = new IASYNCExecTask(priority);
    bool listed = false;
    if (task != nullptr && task->IsSound()) {
        CKTGuard hold(m_lock);
        listed = m_tasks.AddTail(task) != nullptr;
    }
    if (listed)
        return task;
    delete task;
    return nullptr;
}

int IASYNCExecManager::Commit(void* task, void* context, KTStreamFn fn) {
    IASYNCExecTask* pinned = Pin(task);
    if (pinned == nullptr)
        return KT_NO_HANDLE;
    const int result = pinned->Commit(context, fn);
    Unpin(pinned);
    return result;
}

int IASYNCExecManager::Delete(void* task, bool now) {
    IASYNCExecTask* pinned = Pin(task);
    if (pinned == nullptr)
        return KT_OK;
    const bool later = pinned->IsOnItsWorker() || (!now && IsRunning() != 0);
    Unpin(pinned);
    if (later)
        return KTPostMessage(kDeleteCommand, task, nullptr, 0);
    DeleteNow(task);
    return KT_OK;
}

unsigned int IASYNCExecManager::OnThread() {
    while (IsRunning() != 0) {
        CKTMessageT message;
        if (KTGetMessage(message, KT_INFINITE) != KT_OK || message.Command() == kStopCommand)
            return 0;
        if (message.Command() == kDeleteCommand)
            DeleteNow(message.Param0());
    }
    return 0;
}

/// The task while it is listed: a handle is compared, not trusted.
IASYNCExecTask* IASYNCExecManager::Pin(void* task) {
    CKTGuard hold(m_lock);
    IASYNCExecTask* wanted = static_cast<IASYNCExecTask*>(task);
    if (m_tasks.Find(wanted) == nullptr)
        return nullptr;
    ++wanted->m_pins;
    return wanted;
}

void IASYNCExecManager::Unpin(IASYNCExecTask* task) {
    CKTGuard hold(m_lock);
    if (--task->m_pins == 0)
        task->m_unpinned.Set();
}

void IASYNCExecManager::DeleteNow(void* task) {
    IASYNCExecTask* doomed = static_cast<IASYNCExecTask*>(task);
    {
        CKTGuard hold(m_lock);
        if (m_tasks.Remove(doomed) != KT_OK)
            return;
    }
    KTAwaitUnpinned(m_lock, *doomed);
    delete doomed;
}

// ---- functions ----

int KTASYNCExecInitialize() {
    CKTGuard hold(KTLibraryGet().async);
    if (g_manager == nullptr) {
        IASYNCExecManager* manager = new IASYNCExecManager;
        if (manager == nullptr)
            return KT_NO_MEMORY;
        if (manager->ThreadStart() != KT_OK) {
            delete manager;
            return KT_ERROR;
        }
        g_manager = manager;
    }
    return ++g_uses;
}

int KTASYNCExecInvalidate() {
    IASYNCExecManager* manager;
    {
        CKTGuard hold(KTLibraryGet().async);
        if (g_uses > 0 && --g_uses > 0)
            return g_uses;
        manager = g_manager;
        g_manager = nullptr;
    }
    if (manager != nullptr) {
        KTAwaitUnpinned(KTLibraryGet().async, *manager);
        delete manager;
    }
    return 0;
}

int KTASYNCExecCreate(void** task, unsigned int priority) {
    if (task == nullptr)
        return KT_ARGUMENT;
    *task = nullptr;
    const ManagerPin manager(KTLibraryGet().async, g_manager);
    if (!manager)
        return KT_BAD_STATE;
    *task = manager->Create(priority);
    return *task != nullptr ? KT_OK : KT_NO_MEMORY;
}

int KTASYNCExecCommit(void* task, void* context, KTStreamFn fn) {
    if (task == nullptr)
        return KT_NO_HANDLE;
    if (context == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    const ManagerPin manager(KTLibraryGet().async, g_manager);
    return manager ? manager->Commit(task, context, fn) : static_cast<int>(KT_BAD_STATE);
}

int KTASYNCExecDelete(void* task, bool now) {
    if (task == nullptr)
        return KT_NO_HANDLE;
    const ManagerPin manager(KTLibraryGet().async, g_manager);
    return manager ? manager->Delete(task, now) : static_cast<int>(KT_BAD_STATE);
}
