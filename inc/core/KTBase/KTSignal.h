// Signals: lists of member functions that are called in turn, and the callback that adapts a plain
// function to them.
#ifndef KTBASE_KTSIGNAL_H
#define KTBASE_KTSIGNAL_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"

class ISignalNode;

/// Adapts a plain function with a context to the form that signals call.
class KTBASE_API IKTCallback : public CKTObject {
public:
    IKTCallback(void* context, KTCallbackFn fn);

    /// Calls the function; the command then comes before the sender.
    /// Returns its result, or 0 without a function.
    int OnSignal(CKTObject* sender, unsigned int cmd, void* p0, void* p1);

private:
    void* m_context;
    KTCallbackFn m_fn;
};

/// List of connections, each a pair of an object and one of its member functions. Every member may
/// be called from any thread, also while the signal is being emitted.
///
/// The objects stay the caller's. Detach an object before destroying it: once Detach has returned 0
/// the callback does not run and will not be called again. That does not hold for a Detach from
/// inside the callback, nor for the -1 of one that came second while the first still waits.
///
/// Inside a callback (all callbacks of one signal run one at a time, in the thread that emits):
/// - Attach, Detach, Clear, GetCount and Commit of the same signal are allowed; a Detach, also of
///   the callback's own connection, does not wait there.
/// - Do not wait for another thread that detaches this very connection, clears the signal or emits
///   it: that thread waits for the callback.
/// - Do not destroy the signal, and let no exception out.
/// The signal may be destroyed when no other thread is in one of its members.
class KTBASE_API IKTSignal : public CKTObject {
public:
    IKTSignal();  // without limit
    /// limit: connections to stop at, 0 for no limit. It counts places, which come four at a time.
    explicit IKTSignal(unsigned int limit);
    IKTSignal(const IKTSignal&) = delete;
    IKTSignal& operator=(const IKTSignal&) = delete;
    ~IKTSignal() override;

    /// Connects the pair; during an emission it is called there too if its place is still to come.
    /// Returns 0, also when the pair is connected already; -4 when either is null; -6 without
    /// memory; -8 at the limit with no place free. After -8 the signal stays locked for the calling
    /// thread: it can go on using it, while every other thread, one that is emitting included,
    /// waits until it has ended.
    int Attach(CKTObject* object, KTSignalHandler handler);
    /// Connects the callback, which stays the caller's. Codes as above.
    int Attach(IKTCallback* callback);
    /// Disconnects the pair, waiting for its callback if that runs on another thread.
    /// Returns 0; -1 when it is not connected; -4 when either is null.
    int Detach(CKTObject* object, KTSignalHandler handler);
    int Detach(IKTCallback* callback);

    /// Emits: calls every connection in the order of the places. A second thread's Commit waits
    /// until the emission ends. Returns the number of callbacks called.
    int Commit(CKTObject* sender, unsigned int cmd, void* p0, void* p1);

    int Clear();  ///< Disconnects all, each as Detach does. Returns 0.
    unsigned int GetCount();

    static void Test();  ///< Self-check: prints the commands 0, 1 and 2 through KTPrintf.

private:
    struct Call;

    ISignalNode** Find(CKTObject* object, KTSignalHandler handler);
    bool IsRunning(const ISignalNode* node) const;
    void Run(ISignalNode* node, CKTObject* sender, unsigned int cmd, void* p0, void* p1);
    bool Remove(ISignalNode*& place);
    bool Grow();

    CKTMutex m_lock;  // guards all below; not held while a callback runs
    unsigned int m_limit;
    unsigned int m_capacity = 0;
    ISignalNode** m_nodes = nullptr;  // m_capacity places, null where free
    CKTMutex m_emitLock;              // one emission at a time; taken before m_lock
    unsigned int m_emitter = 0;       // thread that emits, 0 for none
    Call* m_current = nullptr;        // innermost running call, on the emitter's stack
};

#endif
