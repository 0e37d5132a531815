// Threads with a name, a life cycle and a message queue, and the table of all of them.
#ifndef KTBASE_KTTHREAD_H
#define KTBASE_KTTHREAD_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTList.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTMessage.h"
#include "KTBase/KTObject.h"

class CKTString;

// The Windows headers define these as macros: behind them a call reaches the A or W form.
#pragma push_macro("GetMessage")
#pragma push_macro("PostMessage")
#undef GetMessage
#undef PostMessage

/// A thread with its own first-in-first-out queue of messages. A derived class supplies the body,
/// which takes messages until it is given command 1 ("stop").
///
/// States: 0 "Idle", 1 "Start" (ThreadStart called), 2 "Run" (on the new thread), 3 "Stop" (asked to
/// end), and 0 again after the body has returned; it can then be started again.
///
/// Every concrete class's destructor calls ThreadStop first: when ~CKTThread runs, the derived part
/// that the body uses is already gone. For the same reason a constructor that starts its thread does
/// so in its last statement. ThreadStop called on the thread itself does not wait, so a thread does
/// not destroy its own object while its body runs.
///
/// Any thread may call the public members.
class KTBASE_API CKTThread : public CKTObject {
public:
    CKTThread();
    /// name: null or empty for "Thread_%p" of this object; the system shows its first characters too.
    /// stackSize: bytes, 0 for the system's default; Linux reserves at least 1 MiB.
    /// priority: 10 or less highest, 11-20 above normal, 21-30 normal, 31-40 below normal, above 40
    /// lowest. On Linux these are nice values -10, -5, 0, 5 and 10; where the system refuses one, the
    /// thread runs without it.
    CKTThread(const char* name, unsigned long long stackSize, int priority);
    CKTThread(const CKTThread&) = delete;
    CKTThread& operator=(const CKTThread&) = delete;
    ~CKTThread() override;

    /// Non-zero in the states Start and Run.
    virtual int IsRunning();

    /// Starts the thread; waits for the end of a run that is stopping. What an earlier run left in
    /// the queue is cancelled. Returns 0 when it runs or ran already; -1 when no thread could be
    /// made, and when a thread that was asked to stop calls this on itself.
    int ThreadStart();
    /// Asks the body to end with command 1 at the tail of the queue, and waits until the thread has
    /// left it: nothing of this object is used by the thread any more. Called on the thread itself it
    /// only asks. Returns 0.
    int ThreadStop();

    /// Appends a message to the queue; never blocks, however long the queue is. time: milliseconds of
    /// CKTTime::GetTimeMS cut to 32 bits, 0 for now. Nothing is owned of what p0 and p1 point at.
    /// Returns 0, -7 when the thread is not in state Start or Run (reported as a fault), -6 without
    /// memory.
    int KTPostMessage(unsigned int cmd, void* p0, void* p1, unsigned int time);
    int PostMessageW(unsigned int cmd, void* p0, void* p1, unsigned int time);
    int PostMessageA(unsigned int cmd, void* p0, void* p1, unsigned int time) {
        return PostMessageW(cmd, p0, p1, time);
    }
    int PostMessage(unsigned int cmd, void* p0, void* p1, unsigned int time) {
        return PostMessageW(cmd, p0, p1, time);
    }

    /// Takes the oldest message, waiting up to timeoutMS (KT_INFINITE: without end). The caller
    /// deletes it. Returns 0, or -2 and a null msg.
    int GetMessageW(CKTMessageT*& msg, unsigned int timeoutMS);
    int GetMessageA(CKTMessageT*& msg, unsigned int timeoutMS) {
        return GetMessageW(msg, timeoutMS);
    }
    int GetMessage(CKTMessageT*& msg, unsigned int timeoutMS) {
        return GetMessageW(msg, timeoutMS);
    }
    int KTGetMessage(CKTMessageT*& msg, unsigned int timeoutMS);
    /// The same, copied into msg. msg is left alone on -2.
    int GetMessageW(CKTMessageT& msg, unsigned int timeoutMS);
    int GetMessageA(CKTMessageT& msg, unsigned int timeoutMS) {
        return GetMessageW(msg, timeoutMS);
    }
    int GetMessage(CKTMessageT& msg, unsigned int timeoutMS) { return GetMessageW(msg, timeoutMS); }
    int KTGetMessage(CKTMessageT& msg, unsigned int timeoutMS);
    unsigned int GetMessageCount();

    /// The system's identifier of the thread; 0 before it first runs.
    unsigned int GetThreadID();
    static unsigned int GetCurrentThreadID();

    /// Appends this thread's line of the table.
    void Dump(CKTString& out);
    /// Writes the table of all live threads to the debug output; the argument is not used.
    static void THDDump(int);
    /// The same for all threads (index below 0) or the one in slot index; clears out, leaves the text
    /// there too.
    static void THDDump(CKTString& out, int index);

    /// Starts fn(arg) on a bare thread outside the table. stackSize and priority as above. Returns a
    /// handle for KTThreadDestroy, or (void*)-1.
    static void* KTThreadCreate(unsigned long (*fn)(void*), void* arg, unsigned long long stackSize,
                                int priority, unsigned long& threadId);
    /// Closes the handle, not the thread, and sets it to null. Returns 0, or -5 for a null handle.
    static int KTThreadDestroy(void*& handle);

protected:
    /// Disposes of a message that will never be handled. The base deletes it and returns 0.
    virtual int OnMessageCancel(CKTMessageT* msg);
    /// Runs first on the new thread. An override calls the base first: it enters state Run.
    virtual int OnThreadStart();
    /// Cancels every queued message, those posted meanwhile too.
    virtual int OnThreadStop();
    /// Runs last on the thread. An override calls the base last: it enters state Idle.
    virtual int OnThreadClose();
    /// The body. Returns the thread's exit code.
    virtual unsigned int OnThread() = 0;

    /// Posts whatever the state is. Returns 0, -6 without memory, or the queue's refusal.
    int OnPostMessage(unsigned int cmd, void* p0, void* p1, unsigned int time);

private:
    static unsigned long ThreadProc(void* thread);
    static unsigned int THDInsert(CKTThread* thread);
    static int THDRemove(CKTThread* thread);
    static void AppendTable(CKTString& out, int index);
    void AppendLine(CKTString& out);

    int Post(unsigned int cmd, void* p0, void* p1, unsigned int time, const char* function,
             int line);
    bool IsCaller() const;
    bool HasLeft() const;
    void RequestStop();
    void* PinHandle();
    void AwaitStep(void* pinned);

    char* m_name;
    unsigned long long m_stackSize;
    int m_priority;
    CKTMutex m_stateLock;  // guards the state, the identifier, the handle and what stands below it
    unsigned int m_state;
    CKTEvent m_wake;  // never set: waits of 10 ms where there is no thread to wait for
    void* m_handle;   // of the thread that runs or ran last; null before and once stopped
    unsigned int m_threadId;
    CKTQueue m_queue;  // owned CKTMessageT*; its lock is taken after the state lock
    unsigned int m_slot;
    unsigned int m_run;  // counts starts, so that a late stopper leaves a new run alone
    bool m_starting;     // a run was begun, its handle is not stored yet
    bool m_stopPosted;   // the stop message of this run is in the queue, or was taken
    bool m_hasLock;      // false when memory was out: nothing here is guarded, so none may run

    static CKTMutex& s_THDMutex;  // guards the three below; taken before a thread's state lock
    static CKTThread** s_THDObj;
    static unsigned int s_THDSlot;
    static unsigned int s_THDNum;
};

#pragma pop_macro("PostMessage")
#pragma pop_macro("GetMessage")

#endif
