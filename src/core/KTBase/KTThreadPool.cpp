#include "KTBase/KTThreadPool.h"

#include <cstdio>

#include "KTBase/KTDebug.h"
#include "KTBase/KTString.h"

namespace {

constexpr unsigned int kStopCommand = 1;
constexpr unsigned int kNoSlot = ~0u;

char* PoolName(const char* name, const void* pool) {
    CKTString made;
    if (name != nullptr && name[0] != '\0')
        made.Append("KTTP_%s", name);
    else
        made.Append("KTTP_%p", pool);
    return made.Clone();
}

}  // namespace

CKTThreadPool::CKTThreadPool(unsigned int count, const char* name, unsigned long long stackSize,
                             int priority)
    : m_count(count != 0 ? count : 1),
      m_name(PoolName(name, this)),
      m_stackSize(stackSize),
      m_priority(priority),
      m_workers(static_cast<CKTThreadWorker**>(ZMKCalloc(m_count, sizeof(CKTThreadWorker*)))),
      m_retired(nullptr) {
    if (m_workers == nullptr)
        m_count = 0;
}

CKTThreadPool::~CKTThreadPool() {
    Clear();
    ZMKFree(m_workers);
    ZMKFree(m_name);
}

int CKTThreadPool::Attach(CKTObject* obj, KTWorkerHandler fn) {
    if (obj == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    DeleteRetired();
    int result = KT_OK;
    {
        CKTGuard hold(m_poolLock);
        const unsigned int slot = ChooseSlot(obj, fn, result);
        if (result == KT_OK)
            result = slot != kNoSlot ? AttachTo(slot, obj, fn) : KT_BAD_STATE;
    }
    if (result == KT_NO_MEMORY)
        KTFault("src/core/KTBase/KTThread", "CKTThreadWorker::Attach", 798);
    return result;
}

/// The first empty slot, else the least loaded worker's. A count of 0 stands for "none yet", so a
/// worker without pairs gives way to any later one; deployed pools count on that spread.
unsigned int CKTThreadPool::ChooseSlot(CKTObject* obj, KTWorkerHandler fn, int& result) {
    unsigned int chosen = kNoSlot;
    unsigned int lowest = 0;
    unsigned int count = 0;  // a worker that never had a pair keeps the count of the one before
    for (unsigned int slot = 0; slot < m_count; ++slot) {
        if (m_workers[slot] == nullptr)
            return slot;
        if (m_workers[slot]->Check(count, obj, fn)) {
            result = KT_ATTACHED;
            return kNoSlot;
        }
        if (count >= lowest && lowest != 0)
            continue;
        chosen = slot;
        lowest = count;
    }
    return chosen;
}

int CKTThreadPool::Detach(CKTObject* obj, KTWorkerHandler fn) {
    return DetachPair(obj, fn, true);
}

int CKTThreadPool::DetachPair(CKTObject* obj, KTWorkerHandler fn, bool deleteEmpty) {
    if (obj == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    if (m_count == 0)
        return KT_BAD_STATE;
    DeleteRetired();
    CKTThreadWorker* worker = Pin(obj, fn);
    if (worker == nullptr)
        return KT_NOT_FOUND;
    // Outside the pool lock: this waits for the handler, which may use the pool.
    const int result = worker->Detach(obj, fn);
    Unpin(worker, deleteEmpty && result == KT_OK);
    return result == KT_OK ? KT_OK : KT_NOT_FOUND;
}

int CKTThreadPool::PostPoolMessage(CKTObject* obj, unsigned int cmd, void* param) {
    if (obj == nullptr || cmd == kStopCommand)
        return KT_ARGUMENT;
    DeleteRetired();
    CKTThreadWorker* worker = Pin(obj, nullptr);
    if (worker == nullptr)
        return KT_NOT_FOUND;
    const int result = worker->PostWorkerMessage(obj, cmd, param);
    Unpin(worker, false);
    return result;
}

unsigned int CKTThreadPool::GetObjectNum() {
    CKTGuard hold(m_poolLock);
    unsigned int sum = 0;
    for (unsigned int slot = 0; slot < m_count; ++slot)
        sum += m_workers[slot] != nullptr ? m_workers[slot]->GetObjectNum() : 0;
    return sum;
}

int CKTThreadPool::Clear() {
    {
        CKTGuard hold(m_poolLock);
        for (unsigned int slot = 0; slot < m_count; ++slot) {
            CKTThreadWorker* worker = m_workers[slot];
            m_workers[slot] = nullptr;
            if (worker != nullptr)
                Retire(worker);
        }
    }
    DeleteRetired();
    return KT_OK;
}

CKTThreadWorker* CKTThreadPool::Pin(CKTObject* obj, KTWorkerHandler fn) {
    CKTGuard hold(m_poolLock);
    for (unsigned int slot = 0; slot < m_count; ++slot) {
        CKTThreadWorker* worker = m_workers[slot];
        unsigned int count = 0;
        if (worker != nullptr &&
            (fn != nullptr ? worker->Check(count, obj, fn) : worker->Holds(obj))) {
            ++worker->m_pins;
            return worker;
        }
    }
    return nullptr;
}

void CKTThreadPool::Unpin(CKTThreadWorker* worker, bool deleteEmpty) {
    {
        CKTGuard hold(m_poolLock);
        --worker->m_pins;
        // Looked at again under the lock: another object may have come to it meanwhile.
        if (deleteEmpty && worker->m_pooled && worker->GetObjectNum() == 0) {
            for (unsigned int slot = 0; slot < m_count; ++slot) {
                if (m_workers[slot] == worker)
                    m_workers[slot] = nullptr;
            }
            Retire(worker);
        }
    }
    DeleteRetired();
}

/// Puts a worker that has left its slot on the chain. On its own thread its stop is asked for here,
/// where nothing waits for it.
void CKTThreadPool::Retire(CKTThreadWorker* worker) {
    worker->m_pooled = false;
    worker->m_nextRetired = m_retired;
    m_retired = worker;
    if (worker->IsCaller())
        worker->ThreadStop();
}

void CKTThreadPool::DeleteRetired() {
    for (;;) {
        CKTThreadWorker* worker;
        {
            CKTGuard hold(m_poolLock);
            CKTThreadWorker** link = &m_retired;
            while (*link != nullptr && ((*link)->m_pins != 0 || (*link)->IsCaller()))
                link = &(*link)->m_nextRetired;
            worker = *link;
            if (worker == nullptr)
                return;
            *link = worker->m_nextRetired;
        }
        delete worker;
    }
}

CKTThreadWorker* CKTThreadPool::Worker(unsigned int slot, int& result) {
    if (m_workers[slot] != nullptr)
        return m_workers[slot];
    CKTString name;
    name.Append("%s_%d", m_name != nullptr ? m_name : "", static_cast<int>(slot));
    CKTThreadWorker* worker = new CKTThreadWorker(0, name.GetBuffer(), m_stackSize, m_priority);
    if (worker == nullptr || worker->IsRunning() == 0) {
        result = worker == nullptr ? KT_NO_MEMORY : KT_ERROR;
        delete worker;
        return nullptr;
    }
    worker->m_pooled = true;
    m_workers[slot] = worker;
    return worker;
}

int CKTThreadPool::AttachTo(unsigned int slot, CKTObject* obj, KTWorkerHandler fn) {
    int result = KT_OK;
    CKTThreadWorker* worker = Worker(slot, result);
    return worker != nullptr ? worker->Insert(obj, fn) : result;
}

// ---- CKTThreadPoolEx ----

CKTThreadPoolEx::CKTThreadPoolEx(unsigned int count, const char* name, unsigned long long stackSize,
                                 int priority)
    : CKTThreadPool(count, name, stackSize, priority) {}

CKTThreadPoolEx::~CKTThreadPoolEx() = default;

int CKTThreadPoolEx::Attach(CKTObject* obj, KTWorkerHandler fn) {
    if (obj == nullptr || fn == nullptr)
        return KT_ARGUMENT;
    if (m_count == 0)
        return KT_BAD_STATE;
    DeleteRetired();
    int result = KT_OK;
    {
        CKTGuard hold(m_poolLock);
        bool attached = false;
        const unsigned int slot = ChooseSlotEx(obj, fn, attached);
        if (!attached)
            result = slot != kNoSlot ? AttachTo(slot, obj, fn) : KT_ERROR;
    }
    if (result == KT_NO_MEMORY)
        KTFault("src/core/KTBase/KTThread", "CKTThreadWorker::Attach", 798);
    return result;
}

/// The first worker without pairs, else the first empty slot, else the worker with the fewest pairs.
unsigned int CKTThreadPoolEx::ChooseSlotEx(CKTObject* obj, KTWorkerHandler fn, bool& attached) {
    unsigned int empty = kNoSlot;
    unsigned int least = kNoSlot;
    unsigned int leastCount = 0;
    for (unsigned int slot = 0; slot < m_count; ++slot) {
        unsigned int count = 0;
        if (m_workers[slot] == nullptr) {
            empty = empty == kNoSlot ? slot : empty;
            continue;
        }
        attached = m_workers[slot]->Check(count, obj, fn);
        if (attached || count == 0)
            return slot;
        if (least == kNoSlot || count < leastCount) {
            least = slot;
            leastCount = count;
        }
    }
    return empty != kNoSlot ? empty : least;
}

int CKTThreadPoolEx::Detach(CKTObject* obj, KTWorkerHandler fn) {
    return DetachPair(obj, fn, false);
}
