#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTThreadPool.h"
#include "KTBase/KTTime.h"

/// An attachment.
class CThreadObject : public CKTObject {
public:
    CThreadObject(CKTObject* object, KTWorkerHandler handler)
        : m_object(object), m_handler(handler) {
        m_idle.Set();
    }

    CKTObject* m_object;
    KTWorkerHandler m_handler;
    CKTEvent m_idle;           // set while the handler does not run
    unsigned char m_flag = 0;  // reserved
};

namespace {

constexpr unsigned int kStopCommand = 1;
constexpr unsigned int kAttachedCommand = 2;
constexpr unsigned int kRoundMs = 100;
constexpr unsigned int kGrowPlaces = 4;

unsigned int NowMs() {
    return static_cast<unsigned int>(CKTTime::GetTimeMS());
}

}  // namespace

CKTThreadWorker::CKTThreadWorker(unsigned int, const char* name, unsigned long long stackSize,
                                 int priority)
    : CKTThread(name, stackSize, priority) {
    ThreadStart();
}

CKTThreadWorker::~CKTThreadWorker() {
    ThreadStop();
    Clear();
}

int CKTThreadWorker::Attach(CKTObject* obj, KTWorkerHandler fn) {
    if (obj == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    const int result = Insert(obj, fn);
    if (result == KT_NO_MEMORY)
        KTFault("src/core/KTBase/KTThread", "CKTThreadWorker::Attach", 798);
    return result;
}

/// Attach without its checks and without its report, for callers that hold a lock.
int CKTThreadWorker::Insert(CKTObject* obj, KTWorkerHandler fn) {
    CKTGuard hold(m_entryLock);
    if (Find(obj, fn) != nullptr)
        return KT_BAD_STATE;
    CThreadObject** place = FreePlace();
    CThreadObject* entry = place != nullptr ? new CThreadObject(obj, fn) : nullptr;
    // Without its event an entry could not be waited for.
    if (entry == nullptr || entry->m_idle.Check() == 0) {
        delete entry;
        return KT_NO_MEMORY;
    }
    *place = entry;
    OnPostMessage(kAttachedCommand, obj, nullptr, 0);
    return KT_OK;
}

int CKTThreadWorker::Detach(CKTObject* obj, KTWorkerHandler fn) {
    if (obj == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    CKTGuard hold(m_entryLock);
    CThreadObject** place = Find(obj, fn);
    if (place == nullptr)
        return KT_ERROR;
    Remove(*place);
    return KT_OK;
}

int CKTThreadWorker::PostWorkerMessage(CKTObject* obj, unsigned int cmd, void* param) {
    if (obj == nullptr || cmd == kStopCommand)
        return KT_ARGUMENT;
    if (!Holds(obj))
        return KT_NOT_FOUND;
    KTPostMessage(cmd, obj, param, 0);
    return KT_OK;
}

unsigned int CKTThreadWorker::GetObjectNum() {
    unsigned int count = 0;
    Check(count, nullptr, nullptr);
    return count;
}

bool CKTThreadWorker::Check(unsigned int& count, CKTObject* obj, KTWorkerHandler fn) {
    CKTGuard hold(m_entryLock);
    if (m_entries == nullptr)
        return false;
    count = 0;
    for (unsigned int i = 0; i < m_capacity; ++i)
        count += m_entries[i] != nullptr;
    return obj != nullptr && Find(obj, fn) != nullptr;
}

bool CKTThreadWorker::Holds(CKTObject* obj) {
    CKTGuard hold(m_entryLock);
    for (unsigned int i = 0; i < m_capacity; ++i) {
        if (m_entries[i] != nullptr && m_entries[i]->m_object == obj)
            return true;
    }
    return false;
}

bool CKTThreadWorker::IsCaller() {
    return GetThreadID() == GetCurrentThreadID();
}

unsigned int CKTThreadWorker::OnThread() {
    unsigned int waitMs = 0;
    while (IsRunning() != 0) {
        CKTMessageT message;
        const int result = KTGetMessage(message, waitMs);
        if (result == KT_OK) {
            if (message.Command() == kStopCommand)
                return 0;
            OnMessage(message);
        } else if (result != KT_TIMEOUT) {
            return 0;  // the queue could not be built: no wait would ever sleep
        }
        OnPolling(waitMs);
    }
    return 0;
}

int CKTThreadWorker::OnMessage(CKTMessageT& msg) {
    const unsigned int nowMs = NowMs();
    unsigned int unused = kRoundMs;
    CKTGuard hold(m_entryLock);
    // Every handler may have changed the array and its length.
    for (unsigned int i = 0; i < m_capacity; ++i) {
        if (m_entries[i] != nullptr && m_entries[i]->m_object == msg.Param0())
            Call(m_entries[i], &msg, nowMs, unused);
    }
    return KT_OK;
}

int CKTThreadWorker::OnPolling(unsigned int& waitMS) {
    const unsigned int nowMs = NowMs();
    waitMS = kRoundMs;
    CKTGuard hold(m_entryLock);
    for (unsigned int i = 0; i < m_capacity; ++i) {
        if (m_entries[i] != nullptr)
            Call(m_entries[i], nullptr, nowMs, waitMS);
    }
    return KT_OK;
}

int CKTThreadWorker::Clear() {
    CKTGuard hold(m_entryLock);
    unsigned int i = 0;
    while (i < m_capacity) {
        if (m_entries[i] == nullptr)
            ++i;
        else if (Remove(m_entries[i]))
            i = 0;  // others may have attached meanwhile, or cleared
    }
    ZMKFree(m_entries);
    m_entries = nullptr;
    m_capacity = 0;
    return KT_ERROR;
}

CThreadObject** CKTThreadWorker::Find(CKTObject* obj, KTWorkerHandler fn) {
    for (unsigned int i = 0; i < m_capacity; ++i) {
        const CThreadObject* entry = m_entries[i];
        if (entry != nullptr && entry->m_object == obj && entry->m_handler == fn)
            return &m_entries[i];
    }
    return nullptr;
}

/// The first free place, in a larger array if need be. Null without memory.
CThreadObject** CKTThreadWorker::FreePlace() {
    for (unsigned int i = 0; i < m_capacity; ++i) {
        if (m_entries[i] == nullptr)
            return &m_entries[i];
    }
    // Not ZMKRealloc: when that fails, the old array drops out of the accounting.
    void* grown = ZMKCalloc(std::size_t{m_capacity} + kGrowPlaces, sizeof(CThreadObject*));
    if (grown == nullptr)
        return nullptr;
    if (m_capacity != 0)
        std::memcpy(grown, m_entries, m_capacity * sizeof(CThreadObject*));
    ZMKFree(m_entries);
    m_entries = static_cast<CThreadObject**>(grown);
    m_capacity += kGrowPlaces;
    return &m_entries[m_capacity - kGrowPlaces];
}

/// Runs a handler with the lock released. The entry may be gone afterwards.
void CKTThreadWorker::Call(CThreadObject* entry, CKTMessageT* msg, unsigned int nowMS,
                           unsigned int& waitMS) {
    m_current = entry;
    entry->m_idle.Reset();
    CKTObject* object = entry->m_object;
    const KTWorkerHandler handler = entry->m_handler;
    m_entryLock.Leave();
    (object->*handler)(msg, nowMS, waitMS);
    m_entryLock.Enter(KT_INFINITE);
    if (m_current != nullptr)
        m_current->m_idle.Set();
    m_current = nullptr;
}

/// Empties the place and deletes its entry, waiting with the lock released while the handler runs on
/// another thread. True when it waited: the array may be another one then.
bool CKTThreadWorker::Remove(CThreadObject*& place) {
    CThreadObject* entry = place;
    place = nullptr;
    const bool wait = entry == m_current && !IsCaller();
    if (wait) {
        m_entryLock.Leave();
        entry->m_idle.Wait(KT_INFINITE);
        // Deleted under the lock only: the worker sets the event while it holds it.
        m_entryLock.Enter(KT_INFINITE);
    } else if (entry == m_current) {
        m_current = nullptr;
    }
    delete entry;
    return wait;
}
