#include "KTLibrary.h"

#include <atomic>
#include <new>

#include "KTBase/KTThread.h"
#include "KTBase/KTTimer.h"
#include "os/KTOsNet.h"
#include "os/KTOsSystem.h"

namespace {

alignas(KTLibrary) unsigned char g_storage[sizeof(KTLibrary)];
std::atomic<KTLibrary*> g_library{nullptr};
KTOsFastLock g_openLock;
std::atomic<void (*)(const char*)> g_debuggerHook{nullptr};

KTLibrary& Open() {
    KTOsFastGuard hold(g_openLock);
    if (g_library.load(std::memory_order_relaxed) == nullptr)
        g_library.store(new (g_storage) KTLibrary, std::memory_order_release);
    return *g_library.load(std::memory_order_relaxed);
}

}  // namespace

KTOsFastLock g_referenceLock;
KTOsFastLock g_packetPoolLock;
KTOsFastLock g_packetReferenceLock;

// Names of locks above, bound before any code runs; the library itself goes through KTLibraryGet.
CKTMutex& CKTThread::s_THDMutex = reinterpret_cast<KTLibrary&>(g_storage).threads;
CKTMutex& IKTTimer::s_timermutex = reinterpret_cast<KTLibrary&>(g_storage).timers;

KTLibrary& KTLibraryGet() {
    KTLibrary* library = g_library.load(std::memory_order_acquire);
    return library != nullptr ? *library : Open();
}

void KTLibraryClose() {
    KTLibrary* library = g_library.exchange(nullptr);
    if (library != nullptr)
        library->~KTLibrary();
    KTOsNetClose();
    KTAccountingClose();
}

void KTDebuggerWrite(const char* text) {
    if (auto hook = g_debuggerHook.load(std::memory_order_acquire))
        hook(text);
    KTOsDebuggerWrite(text);
}

void KTDebuggerHook(void (*hook)(const char* text)) {
    g_debuggerHook = hook;
}
