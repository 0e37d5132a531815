// What the library holds once per process: its locks, the sleep event, the way to the debugger.
#ifndef KTBASE_KTLIBRARY_H
#define KTBASE_KTLIBRARY_H

#include "KTBase/KTLock.h"
#include "os/KTOsSync.h"

/// The process-wide locks. Lock order: see docs/architecture.md.
struct KTLibrary {
    CKTMutex state;        // every IKTState and IKTStateRef
    CKTMutex debug;        // the debug object, its files and streams
    CKTMutex threads;      // the thread table
    CKTMutex timers;       // who the timer manager is; nothing is waited for under it
    CKTMutex async;        // who the manager of asynchronous jobs is; likewise
    CKTEvent sleep{true};  // never set: what KTSleepMS waits on
};

/// Usable from the first call on, whatever the order of static initialisers, in statics of a client
/// and in static linking. Made by the first call; never destroyed at process exit, when other
/// libraries' destructors may still use it.
KTLibrary& KTLibraryGet();

/// Called by the platform when the library is unloaded while the process goes on.
void KTLibraryClose();

/// Guards every reference count. Innermost: nothing else is locked while it is held.
extern KTOsFastLock g_referenceLock;

/// The locks of packets, fast ones too: three of them are taken for every frame. Neither is held
/// together with the other. The first guards the packet pool and every buffer that comes and goes,
/// the second the packets' reference counts.
extern KTOsFastLock g_packetPoolLock;
extern KTOsFastLock g_packetReferenceLock;

/// Frees what the accounting tables allocated for themselves; blocks still listed are forgotten.
void KTAccountingClose();

/// Hands text to the debugger, where the system has such a thing.
void KTDebuggerWrite(const char* text);

/// Test hook, not exported: sees what is handed to the debugger. Null removes it.
void KTDebuggerHook(void (*hook)(const char* text));

#endif
