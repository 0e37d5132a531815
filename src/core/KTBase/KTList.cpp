#include "KTBase/KTList.h"

#include <new>
#include <utility>

#include "KTHeap.h"
#include "os/KTOsSync.h"

namespace {

constexpr unsigned int kDefaultBlockSize = 10;

}  // namespace

// ---- CKTList ----

CKTList::CKTList() : CKTList(0) {}

CKTList::CKTList(unsigned int blockSize)
    : m_chain(blockSize != 0 ? blockSize : kDefaultBlockSize), m_autoDel(true) {}

CKTList::~CKTList() {
    RemoveAll();
}

void CKTList::SetAutoDel(bool autoDel) {
    m_autoDel = autoDel;
}

bool CKTList::IsAutoDel() {
    return m_autoDel;
}

bool CKTList::IsEmpty() const {
    return m_chain.Count() == 0;
}

unsigned int CKTList::GetCount() const {
    return m_chain.Count();
}

void* CKTList::AddHead(void* item) {
    return NewNode(m_chain.Head(), item);
}

void* CKTList::AddTail(void* item) {
    return NewNode(nullptr, item);
}

void* CKTList::InsertNext(void* pos, void* item) {
    return NewNode(pos != nullptr ? ToNode(pos)->next : nullptr, item);
}

void* CKTList::InsertPrev(void* pos, void* item) {
    return NewNode(pos != nullptr ? ToNode(pos) : m_chain.Head(), item);
}

void* CKTList::RemoveHead() {
    return FreeNode(m_chain.Head());
}

void* CKTList::RemoveTail() {
    return FreeNode(m_chain.Tail());
}

void* CKTList::RemoveAt(void* pos) {
    return FreeNode(ToNode(pos));
}

unsigned int CKTList::RemoveFromTailNum(unsigned int n) {
    unsigned int removed = 0;
    while (removed < n && m_chain.Tail() != nullptr) {
        OnDataFree(RemoveTail());
        ++removed;
    }
    return removed;
}

void CKTList::RemoveAll() {
    // Detached first, so that OnDataFree finds a list in order.
    KTListChain<void*> removed(std::move(m_chain));
    for (LISTNode* node = removed.Head(); node != nullptr; node = node->next)
        OnDataFree(node->Item());
}

void* CKTList::GetAtHead() const {
    return GetAt(m_chain.Head());
}

void* CKTList::GetAtTail() const {
    return GetAt(m_chain.Tail());
}

void* CKTList::GetAt(void* pos) const {
    return pos != nullptr ? ToNode(pos)->Item() : nullptr;
}

bool CKTList::SetAt(void* pos, void* item) {
    if (pos == nullptr)
        return false;
    ToNode(pos)->Item() = item;
    return true;
}

void* CKTList::GetHead() const {
    return m_chain.Head();
}

void* CKTList::GetNext(void* pos) const {
    return pos != nullptr ? ToNode(pos)->next : nullptr;
}

void* CKTList::GetPrev(void* pos) const {
    return pos != nullptr ? ToNode(pos)->prev : nullptr;
}

void* CKTList::Find(void* item) {
    return m_chain.Find(item);
}

int CKTList::GetIDX(void* item) const {
    return m_chain.IndexOf(item);
}

void* CKTList::operator[](int i) const {
    return GetAt(m_chain.At(i));
}

void CKTList::OnDataFree(void* item) {
    if (m_autoDel)
        ZMKFree(item);
}

CKTList::LISTNode* CKTList::ToNode(void* pos) {
    return static_cast<LISTNode*>(pos);
}

void CKTList::ReportNoNode() {
    KTFault("src/core/KTBase/KTList", "CKTList::AllocFreeNode", 37);
    KTFault("src/core/KTBase/KTList", "CKTList::NewNode", 78);
}

CKTList::LISTNode* CKTList::NewNode(LISTNode* next, void* item) {
    LISTNode* node = m_chain.Insert(next, item);
    if (node == nullptr)
        ReportNoNode();
    return node;
}

void* CKTList::FreeNode(LISTNode* node) {
    if (node == nullptr)
        return nullptr;
    void* item = node->Item();
    m_chain.Remove(node);
    if (m_chain.Count() == 0)
        RemoveAll();
    return item;
}

// ---- CKTListOBJ ----

CKTListOBJ::CKTListOBJ() = default;

CKTListOBJ::CKTListOBJ(unsigned int blockSize) : CKTList(blockSize) {}

CKTListOBJ::~CKTListOBJ() {
    RemoveAll();
    // What an item's destructor has added meanwhile is no raw memory for the base to free.
    SetAutoDel(false);
}

void CKTListOBJ::OnDataFree(void* item) {
    if (IsAutoDel())
        delete static_cast<IKTBaseOBJ*>(item);
}

// ---- CKTQueue ----

CKTQueue::CKTQueue() : CKTQueue(0) {}

CKTQueue::CKTQueue(unsigned int maxCount)
    : m_maxCount(maxCount), m_ready(KTOsEventCreate(true)), m_signalled(false), m_waiting(0) {
    m_items.SetAutoDel(false);
    void* block = KTHeapAlloc(sizeof(KTOsFastLock));
    m_lock = block != nullptr ? new (block) KTOsFastLock : nullptr;
}

CKTQueue::~CKTQueue() {
    KTOsEventClose(m_ready);
    KTHeapFree(m_lock);
}

int CKTQueue::Put(void* item) {
    if (m_lock == nullptr || m_ready == nullptr)
        return KT_NO_MEMORY;
    bool added = false;
    bool wake = false;
    {
        KTOsFastGuard hold(*m_lock);
        if (m_maxCount != 0 && m_items.GetCount() >= m_maxCount)
            return KT_FULL;
        added = m_items.m_chain.Insert(nullptr, item) != nullptr;
        wake = added && m_waiting > 0;
        if (added && !wake)
            m_signalled = true;
    }
    // After unlocking: the sinks of the debug output may run a user's code.
    if (!added) {
        CKTList::ReportNoNode();
        return KT_NO_MEMORY;
    }
    // Set after unlocking, or the woken thread runs straight into the lock.
    if (wake)
        KTOsEventSet(m_ready);
    return KT_OK;
}

int CKTQueue::Get(void*& item, unsigned int timeoutMs) {
    item = nullptr;
    if (m_lock == nullptr || m_ready == nullptr)
        return KT_ERROR;
    {
        KTOsFastGuard hold(*m_lock);
        if (TakeOrJoin(item))
            return KT_OK;
    }
    bool more = false;
    for (bool taken = false; !taken;) {
        const int result = KTOsEventWait(m_ready, timeoutMs);
        KTOsFastGuard hold(*m_lock);
        --m_waiting;
        if (result != KT_OK)
            return result;
        taken = TakeOrJoin(item);
        more = taken && m_waiting > 0 && !m_items.IsEmpty();
    }
    // Two Puts may have left one signal, and this thread has used it up: the next waiter must not
    // sleep beside an item.
    if (more)
        KTOsEventSet(m_ready);
    return KT_OK;
}

int CKTQueue::IsEmpty() {
    return GetCount() == 0 ? 1 : 0;
}

unsigned int CKTQueue::GetCount() {
    if (m_lock == nullptr)
        return 0;
    KTOsFastGuard hold(*m_lock);
    return m_items.GetCount();
}

void* CKTQueue::Unlink() {
    if (m_lock == nullptr)
        return nullptr;
    KTOsFastGuard hold(*m_lock);
    return m_items.RemoveHead();
}

bool CKTQueue::Poll() {
    if (m_lock == nullptr)
        return false;
    bool signalled = false;
    {
        KTOsFastGuard hold(*m_lock);
        std::swap(signalled, m_signalled);
    }
    // The event itself holds what was meant for a wait that timed out meanwhile.
    return signalled || KTOsEventWait(m_ready, 0) == KT_OK;
}

bool CKTQueue::TakeOrJoin(void*& item) {
    if (!m_items.IsEmpty()) {
        item = m_items.RemoveHead();
        return true;
    }
    m_signalled = false;
    ++m_waiting;
    return false;
}
