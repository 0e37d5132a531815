// Lists of untyped pointers, and the bounded queue that threads hand work through.
#ifndef KTBASE_KTLIST_H
#define KTBASE_KTLIST_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTListT.h"
#include "KTBase/KTObject.h"

struct KTOsFastLock;

/// List of untyped pointers. Owns its nodes, and with auto-delete (on at first) the items that
/// OnDataFree gets to see. Not synchronised: the owner locks around it.
///
/// Nodes come from blocks of blockSize nodes and stay with the list; when the last item leaves, all
/// blocks go back to the heap. A position is valid until its node is removed; one of another list
/// is the caller's fault. Where no node can be had, two fault lines are printed and the position is
/// null; nothing is added and the list stays usable.
///
/// A derived class that overrides OnDataFree calls RemoveAll() in its own destructor: this class's
/// destructor can no longer reach the override.
class KTBASE_API CKTList : public IKTBaseOBJ {
public:
    CKTList();
    /// blockSize: nodes per block, 0 for 10.
    explicit CKTList(unsigned int blockSize);
    CKTList(const CKTList&) = delete;
    CKTList& operator=(const CKTList&) = delete;
    /// Calls RemoveAll.
    ~CKTList() override;

    void SetAutoDel(bool autoDel);
    bool IsAutoDel();
    bool IsEmpty() const;
    unsigned int GetCount() const;

    /// Each returns the new position.
    void* AddHead(void* item);
    void* AddTail(void* item);
    /// After pos; a null pos appends at the tail.
    void* InsertNext(void* pos, void* item);
    /// Before pos; a null pos adds at the head.
    void* InsertPrev(void* pos, void* item);

    /// Each unlinks a node and hands its item back, not freed: null when there is none.
    void* RemoveHead();
    void* RemoveTail();
    void* RemoveAt(void* pos);
    /// Removes up to n items from the tail and returns how many. Unlike the other removals it
    /// passes each of them to OnDataFree: with auto-delete on they are freed.
    unsigned int RemoveFromTailNum(unsigned int n);
    /// Empties the list, gives all blocks back and passes every item, from the head, to OnDataFree.
    /// What OnDataFree adds meanwhile stays.
    void RemoveAll();

    /// Items; null when there is none.
    void* GetAtHead() const;
    void* GetAtTail() const;
    void* GetAt(void* pos) const;
    /// Replaces the item at pos, without OnDataFree. False for a null pos.
    bool SetAt(void* pos, void* item);

    /// Position of the head.
    void* GetHead() const;
    /// Neighbouring positions; null at the ends and for a null position.
    void* GetNext(void* pos) const;
    void* GetPrev(void* pos) const;

    /// Position of the first node that holds item, or null.
    void* Find(void* item);
    /// Index of the first node that holds item, or -1.
    int GetIDX(void* item) const;
    /// The item at index i, or null when i is out of range.
    void* operator[](int i) const;

protected:
    /// Disposes of an item that leaves through RemoveFromTailNum or RemoveAll; its node is already
    /// gone. Frees it with ZMKFree when auto-delete is on.
    virtual void OnDataFree(void* item);

private:
    friend class CKTQueue;
    typedef KTListChain<void*>::LISTNode LISTNode;

    static LISTNode* ToNode(void* pos);
    static void ReportNoNode();
    LISTNode* NewNode(LISTNode* next, void* item);
    void* FreeNode(LISTNode* node);

    KTListChain<void*> m_chain;
    bool m_autoDel;
};

/// List of library objects. Each item is the address of an IKTBaseOBJ (not of another base of its
/// class), or null.
class KTBASE_API CKTListOBJ : public CKTList {
public:
    CKTListOBJ();
    /// blockSize: nodes per block, 0 for 10.
    explicit CKTListOBJ(unsigned int blockSize);
    ~CKTListOBJ() override;

protected:
    /// Deletes the item, through its virtual destructor, when auto-delete is on.
    void OnDataFree(void* item) override;
};

/// Bounded first-in first-out queue of untyped pointers.
/// Owns its nodes, never its items. Every member may be called from any thread; the queue outlives
/// every call into it.
class KTBASE_API CKTQueue : public IKTBaseOBJ {
public:
    CKTQueue();  // without limit
    /// maxCount: most items held at once, 0 for no limit.
    explicit CKTQueue(unsigned int maxCount);
    CKTQueue(const CKTQueue&) = delete;
    CKTQueue& operator=(const CKTQueue&) = delete;
    ~CKTQueue() override;

    /// Appends item and wakes one waiting Get. Returns 0; KT_FULL (-8) at the limit; KT_NO_MEMORY
    /// (-6). After a failure item stays the caller's.
    int Put(void* item);
    /// Takes the oldest item, waiting up to timeoutMs (KT_INFINITE: without end). A wait that loses
    /// its item to another thread starts afresh, so the whole may take longer. Returns 0, or with a
    /// null item KT_TIMEOUT (-2), or KT_ERROR (-1) when the queue could not be built.
    int Get(void*& item, unsigned int timeoutMs);
    int IsEmpty();
    unsigned int GetCount();

private:
    // A thread that winds up drains its queue with these two.
    friend class CKTThread;
    /// Takes the oldest item; null when the queue is empty.
    void* Unlink();
    /// Whether an item came in since the signal was last taken; takes it. Does not wait.
    bool Poll();

    /// Under m_lock: takes the oldest item, or enters the caller among the waiting.
    bool TakeOrJoin(void*& item);

    unsigned int m_maxCount;
    CKTList m_items;         // guarded by m_lock
    KTOsFastLock* m_lock;    // innermost: only the heap's own lock is taken while it is held
    void* m_ready;           // auto-reset; set only for threads that wait: most Puts find none
    bool m_signalled;        // guarded by m_lock: the signal, while nobody waits for it
    unsigned int m_waiting;  // guarded by m_lock: threads that found nothing and wait
};

#endif
