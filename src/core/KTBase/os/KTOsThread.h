// Threads of the platform.
//
// A handle is a counted block of the raw heap that the running thread shares: {identifier, exit
// code, returned event}. It outlives both the thread and the object that started it.
#ifndef KTBASE_OS_KTOSTHREAD_H
#define KTBASE_OS_KTOSTHREAD_H

/// Starts entry(argument) on a new thread.
/// stackSize: bytes, 0 for the system's default. step: +2 (most urgent) to -2. name may be null.
/// id receives the identifier before the call returns. Null when no thread could be started.
void* KTOsThreadCreate(unsigned long (*entry)(void*), void* argument, unsigned long long stackSize,
                       int step, const char* name, unsigned long& id);
void KTOsThreadShare(void* thread);
/// The thread itself runs on.
void KTOsThreadClose(void* thread);
/// Waits up to timeoutMs (all ones: without end) until entry has returned, or until the thread is
/// gone without returning. Returns KT_OK, KT_TIMEOUT or KT_ERROR.
int KTOsThreadWait(void* thread, unsigned int timeoutMs);

unsigned int KTOsThreadCurrentId();

#endif
