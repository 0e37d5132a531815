// Asynchronous execution: function calls that run on a thread of their own.
#ifndef KTBASE_KTASYNC_H
#define KTBASE_KTASYNC_H

#include "KTBase/KTDefs.h"

// A task is a handle with a private thread that runs one job at a time. Jobs of different tasks run
// in parallel. Any thread may call these functions, jobs included; but a job must not make the last
// KTASYNCExecInvalidate, which waits for it.

/// Starts the manager, "ASYNCExecM", at the first call; each call wants its
/// KTASYNCExecInvalidate. Returns the calls outstanding; -6 without memory or -1 when the thread
/// cannot be started: the call then does not count.
KTBASE_API int KTASYNCExecInitialize();
/// The last one deletes the manager and every task, waiting for running jobs. Returns the calls
/// outstanding.
KTBASE_API int KTASYNCExecInvalidate();

/// Makes a task. priority: the library's scale, of the task's thread. Returns 0; with a null task
/// -7 without a manager, -6 without memory; -4 when task itself is null.
KTBASE_API int KTASYNCExecCreate(void** task, unsigned int priority);

/// Runs fn(context, task, 201, task, context) on the task's thread, named "IASYNCExecTask" and made
/// by the first job. A job waits while the one before it runs, in a slot for one.
/// Returns 0; -5 for a null or unknown task; -4 when context or fn is null; -7 without a manager or
/// when a job already waits; -1 when the job cannot start: the slot is free again.
KTBASE_API int KTASYNCExecCommit(void* task, void* context, KTStreamFn fn);

/// Deletes the task when its jobs have ended: with now before this returns, else, and always on the
/// task's own thread, by the manager later. The handle is invalid from this call on; an unknown task
/// is ignored. Returns 0; -5 for a null task; -7 without a manager; -6 when the request cannot be
/// queued: the task then stays.
KTBASE_API int KTASYNCExecDelete(void* task, bool now);

#endif
