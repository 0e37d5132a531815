// Workers: threads that poll the handlers of attached objects; pools spread objects over workers.
#ifndef KTBASE_KTTHREADPOOL_H
#define KTBASE_KTTHREADPOOL_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"
#include "KTBase/KTThread.h"

class CThreadObject;

/// A thread that serves any number of (object, handler) pairs. It calls every handler on a beat with
/// a null message, and hands each object's handlers the messages posted for that object.
///
/// Handlers run one at a time, on the worker's thread and without a lock: they may attach, detach
/// and post. Once Detach has returned 0 the handler does not run and will not be called again; only
/// a Detach from inside a handler does not wait for it. The objects stay the caller's. Messages
/// still queued for an object that has gone are dropped when their turn comes.
///
/// The thread runs from the constructor to the destructor. A derived class's overrides may be called
/// before its own constructor has run; its destructor calls ThreadStop first. Do not destroy a
/// worker from one of its handlers. Any thread may call the public members.
class KTBASE_API CKTThreadWorker : public CKTThread {
public:
    /// Starts the thread. The first argument is not used; the others are CKTThread's.
    CKTThreadWorker(unsigned int reserved, const char* name, unsigned long long stackSize,
                    int priority);
    ~CKTThreadWorker() override;

    /// Adds the pair and posts it command 2, parameter 0 the object.
    /// Returns 0; -4 when either is null; -7 when the pair is attached already; -6 without memory.
    int Attach(CKTObject* obj, KTWorkerHandler fn);
    /// Removes the pair, waiting for its handler if that runs on the worker's thread and the caller
    /// is another. Returns 0; -4 when either is null; -1 when it is not attached.
    int Detach(CKTObject* obj, KTWorkerHandler fn);
    /// Queues a message for obj: parameter 0 is obj, parameter 1 is param. Returns 0; -4 when obj is
    /// null or cmd is 1, the stop request; -11 when obj is not attached here.
    int PostWorkerMessage(CKTObject* obj, unsigned int cmd, void* param);
    unsigned int GetObjectNum();  ///< Attached pairs.
    /// Whether the pair is attached; count receives the attached pairs. False, and count untouched,
    /// when nothing was ever attached.
    bool Check(unsigned int& count, CKTObject* obj, KTWorkerHandler fn);

protected:
    unsigned int OnThread() override;
    /// Hands msg to the handlers of the object in its parameter 0. Returns 0.
    virtual int OnMessage(CKTMessageT& msg);
    /// Calls every handler with a null message. waitMS starts at 100 and is what the handlers leave
    /// in it: the longest sleep before the next round. Returns 0.
    virtual int OnPolling(unsigned int& waitMS);
    /// Detaches every pair. Returns -1.
    int Clear();

private:
    friend class CKTThreadPool;

    CThreadObject** Find(CKTObject* obj, KTWorkerHandler fn);
    CThreadObject** FreePlace();
    int Insert(CKTObject* obj, KTWorkerHandler fn);
    bool Holds(CKTObject* obj);
    bool IsCaller();
    void Call(CThreadObject* entry, CKTMessageT* msg, unsigned int nowMS, unsigned int& waitMS);
    bool Remove(CThreadObject*& place);

    CKTMutex m_entryLock;  // guards all below; taken before the state lock, not held in a handler
    unsigned int m_capacity = 0;
    CThreadObject** m_entries = nullptr;  // m_capacity places, null where free
    CThreadObject* m_current = nullptr;   // its handler runs now, on the worker's thread

    // The pool's, guarded by the pool lock.
    unsigned int m_pins = 0;  // pool calls that use this worker outside the lock
    bool m_pooled = false;    // stands in a slot
    CKTThreadWorker* m_nextRetired = nullptr;
};

/// A fixed number of worker slots. A worker is made when an object is attached, and deleted when its
/// last object is detached. Any thread may call the members, handlers included: a worker that
/// becomes empty in its own handler stops, and is deleted by a later call from another thread.
/// The pool may be destroyed when no other thread is in one of its members.
class KTBASE_API CKTThreadPool : public CKTObject {
public:
    /// count: slots, 0 for 1. The pool is named "KTTP_" and name, or its address where name is null
    /// or empty; its workers that and "_" and their slot. stackSize and priority are the workers'.
    CKTThreadPool(unsigned int count, const char* name, unsigned long long stackSize, int priority);
    CKTThreadPool(const CKTThreadPool&) = delete;
    CKTThreadPool& operator=(const CKTThreadPool&) = delete;
    ~CKTThreadPool() override;

    /// Attaches the pair to a new worker in the first empty slot, or else to the least loaded one.
    /// Slots behind an empty one are not looked at: a pair that is attached there is then attached
    /// a second time, and each Detach ends one of the two.
    /// Returns 0; -4 when either is null; -17 when the pair is attached already; -7 without slots;
    /// -6 without memory; -1 when a worker's thread cannot be started.
    virtual int Attach(CKTObject* obj, KTWorkerHandler fn);
    /// Detaches the pair as its worker does; a worker without a pair left is deleted. Returns 0; -4
    /// when either is null; -7 without slots; -11 when no worker holds the pair.
    virtual int Detach(CKTObject* obj, KTWorkerHandler fn);
    /// As PostWorkerMessage, by the first worker that holds obj. -11 when none does.
    virtual int PostPoolMessage(CKTObject* obj, unsigned int cmd, void* param);
    unsigned int GetObjectNum();  ///< Attached pairs of all workers.
    /// Deletes every worker; each stops its thread first. Returns 0.
    int Clear();

protected:
    /// Takes a worker that holds the pair (any pair of obj when fn is null) out of reach of
    /// deletion; null when there is none. Ended by Unpin.
    CKTThreadWorker* Pin(CKTObject* obj, KTWorkerHandler fn);
    /// deleteEmpty: a worker that nothing is attached to leaves its slot and is deleted.
    void Unpin(CKTThreadWorker* worker, bool deleteEmpty);
    /// The slot's worker, made if the slot is empty. Null with a code when it cannot be.
    CKTThreadWorker* Worker(unsigned int slot, int& result);
    int AttachTo(unsigned int slot, CKTObject* obj, KTWorkerHandler fn);
    int DetachPair(CKTObject* obj, KTWorkerHandler fn, bool deleteEmpty);
    /// Deletes retired workers; the one whose thread calls stays.
    void DeleteRetired();

    CKTMutex m_poolLock;  // taken before a worker's entry lock; nothing is waited for under it
    unsigned int m_count;
    char* m_name;
    unsigned long long m_stackSize;
    int m_priority;
    CKTThreadWorker** m_workers;  // m_count slots, null where empty
    CKTThreadWorker*
        m_retired;  // chain of workers out of their slots that still have to be deleted

private:
    void Retire(CKTThreadWorker* worker);
    unsigned int ChooseSlot(CKTObject* obj, KTWorkerHandler fn, int& result);
};

/// A pool that keeps its workers until Clear, and gives an object to an idle worker before it makes
/// a new one.
class KTBASE_API CKTThreadPoolEx : public CKTThreadPool {
public:
    CKTThreadPoolEx(unsigned int count, const char* name, unsigned long long stackSize,
                    int priority);
    ~CKTThreadPoolEx() override;

    /// Attaches the pair to the first worker without pairs, else to a new one in the first empty
    /// slot, else to the least loaded. Workers behind one without pairs are not looked at, as above.
    /// Returns 0, also when the pair is attached already; -4 when either is null; -7 without slots;
    /// -6 without memory; -1 when no worker can be had.
    int Attach(CKTObject* obj, KTWorkerHandler fn) override;
    /// As the base's, but keeps the worker.
    int Detach(CKTObject* obj, KTWorkerHandler fn) override;

private:
    unsigned int ChooseSlotEx(CKTObject* obj, KTWorkerHandler fn, bool& attached);
};

#endif
