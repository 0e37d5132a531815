#include "KTBase/KTSignal.h"

#include <cstdint>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "os/KTOsThread.h"

class ISignalNode : public CKTObject {
public:
    ISignalNode(CKTObject* object, KTSignalHandler handler) : m_object(object), m_handler(handler) {
        m_idle.Set();
    }

    CKTEvent m_idle;           // set while the callback does not run
    unsigned char m_flag = 0;  // reserved
    CKTObject* m_object;
    KTSignalHandler m_handler;
};

/// A callback that runs. A callback that emits the signal again makes a chain of these.
struct IKTSignal::Call {
    ISignalNode* node;  // null when the emitting thread has deleted the record meanwhile
    Call* outer;
};

namespace {

constexpr unsigned int kGrowPlaces = 4;

KTSignalHandler CallbackHandler() {
    return static_cast<KTSignalHandler>(&IKTCallback::OnSignal);
}

class SelfCheck : public CKTObject {
public:
    int OnSignal(CKTObject* sender, unsigned int cmd, void*, void*) {
        // Sixteen digits on every system: the C runtimes do not agree on %p.
        return KTPrintf("object = 0x%016llx, cmd = %d\n",
                        static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(sender)),
                        static_cast<int>(cmd));
    }
};

}  // namespace

IKTCallback::IKTCallback(void* context, KTCallbackFn fn) : m_context(context), m_fn(fn) {}

int IKTCallback::OnSignal(CKTObject* sender, unsigned int cmd, void* p0, void* p1) {
    return m_fn != nullptr ? m_fn(m_context, cmd, sender, p0, p1) : 0;
}

IKTSignal::IKTSignal() : IKTSignal(0) {}

IKTSignal::IKTSignal(unsigned int limit) : m_limit(limit) {}

IKTSignal::~IKTSignal() {
    Clear();
}

int IKTSignal::Attach(CKTObject* object, KTSignalHandler handler) {
    if (object == nullptr || handler == nullptr)
        return KT_ARGUMENT;
    CKTGuard hold(m_lock);
    if (Find(object, handler) != nullptr)
        return KT_OK;
    ISignalNode** place = Find(nullptr, nullptr);
    if (place == nullptr && m_limit != 0 && m_capacity >= m_limit) {
        // Wanted: callers rely on a refused signal being closed to every other thread from here on.
        m_lock.Enter(KT_INFINITE);
        return KT_FULL;
    }
    ISignalNode* node = new ISignalNode(object, handler);
    // Without its event a record could not be waited for.
    if (node == nullptr || !node->m_idle.Check() || (place == nullptr && !Grow())) {
        delete node;
        return KT_NO_MEMORY;
    }
    if (place == nullptr)
        place = Find(nullptr, nullptr);
    *place = node;
    return KT_OK;
}

int IKTSignal::Attach(IKTCallback* callback) {
    return Attach(callback, CallbackHandler());
}

int IKTSignal::Detach(CKTObject* object, KTSignalHandler handler) {
    if (object == nullptr || handler == nullptr)
        return KT_ARGUMENT;
    CKTGuard hold(m_lock);
    ISignalNode** place = Find(object, handler);
    if (place == nullptr)
        return KT_ERROR;
    Remove(*place);
    return KT_OK;
}

int IKTSignal::Detach(IKTCallback* callback) {
    return Detach(callback, CallbackHandler());
}

int IKTSignal::Commit(CKTObject* sender, unsigned int cmd, void* p0, void* p1) {
    CKTGuard emit(m_emitLock);
    CKTGuard hold(m_lock);
    const unsigned int outerEmitter = m_emitter;
    m_emitter = KTOsThreadCurrentId();
    int count = 0;
    // Every callback may have changed the array and its length.
    for (unsigned int i = 0; i < m_capacity; ++i) {
        if (m_nodes[i] == nullptr)
            continue;
        ++count;
        Run(m_nodes[i], sender, cmd, p0, p1);
    }
    m_emitter = outerEmitter;
    return count;
}

int IKTSignal::Clear() {
    CKTGuard hold(m_lock);
    unsigned int i = 0;
    while (i < m_capacity) {
        if (m_nodes[i] == nullptr)
            ++i;
        else if (Remove(m_nodes[i]))
            i = 0;  // others may have attached meanwhile, or cleared
    }
    ZMKFree(m_nodes);
    m_nodes = nullptr;
    m_capacity = 0;
    return KT_OK;
}

unsigned int IKTSignal::GetCount() {
    CKTGuard hold(m_lock);
    unsigned int count = 0;
    for (unsigned int i = 0; i < m_capacity; ++i)
        count += m_nodes[i] != nullptr;
    return count;
}

void IKTSignal::Test() {
    SelfCheck object;
    const KTSignalHandler handler = static_cast<KTSignalHandler>(&SelfCheck::OnSignal);
    IKTSignal signal;
    signal.Attach(&object, handler);
    for (unsigned int cmd = 0; cmd < 3; ++cmd)
        signal.Commit(&object, cmd, nullptr, nullptr);
    signal.Detach(&object, handler);
}

/// The place of the pair, or with a null object the first free one; null when there is none.
ISignalNode** IKTSignal::Find(CKTObject* object, KTSignalHandler handler) {
    for (unsigned int i = 0; i < m_capacity; ++i) {
        const ISignalNode* node = m_nodes[i];
        if (node == nullptr ? object == nullptr
                            : node->m_object == object && node->m_handler == handler)
            return &m_nodes[i];
    }
    return nullptr;
}

bool IKTSignal::IsRunning(const ISignalNode* node) const {
    for (const Call* call = m_current; call != nullptr; call = call->outer) {
        if (call->node == node)
            return true;
    }
    return false;
}

/// Calls back with the lock released. The record may be gone afterwards.
void IKTSignal::Run(ISignalNode* node, CKTObject* sender, unsigned int cmd, void* p0, void* p1) {
    Call call = {node, m_current};
    m_current = &call;
    node->m_idle.Reset();
    CKTObject* object = node->m_object;
    const KTSignalHandler handler = node->m_handler;
    m_lock.Leave();
    (object->*handler)(sender, cmd, p0, p1);
    m_lock.Enter(KT_INFINITE);
    m_current = call.outer;
    // An outer call of the same record still runs when this one ran inside it.
    if (call.node != nullptr && !IsRunning(call.node))
        call.node->m_idle.Set();
}

/// Empties the place and deletes its record, waiting with the lock released while the callback runs
/// on another thread. True when it waited: the array may be another one then.
bool IKTSignal::Remove(ISignalNode*& place) {
    ISignalNode* node = place;
    place = nullptr;
    const bool wait = m_emitter != KTOsThreadCurrentId() && IsRunning(node);
    if (wait) {
        m_lock.Leave();
        node->m_idle.Wait(KT_INFINITE);
        // Deleted under the lock only: the emitter sets the event while it holds it.
        m_lock.Enter(KT_INFINITE);
    } else {
        for (Call* call = m_current; call != nullptr; call = call->outer) {
            if (call->node == node)
                call->node = nullptr;
        }
    }
    delete node;
    return wait;
}

bool IKTSignal::Grow() {
    // Not ZMKRealloc: when that fails, the old array drops out of the accounting.
    void* grown = ZMKCalloc(std::size_t{m_capacity} + kGrowPlaces, sizeof(ISignalNode*));
    if (grown == nullptr)
        return false;
    if (m_capacity != 0)
        std::memcpy(grown, m_nodes, m_capacity * sizeof(ISignalNode*));
    ZMKFree(m_nodes);
    m_nodes = static_cast<ISignalNode**>(grown);
    m_capacity += kGrowPlaces;
    return true;
}
