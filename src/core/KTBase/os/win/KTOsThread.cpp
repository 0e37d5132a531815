#include "os/KTOsThread.h"

#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <openssl/crypto.h>

#include <atomic>
#include <new>

#include "KTBase/KTDefs.h"
#include "KTHeap.h"

namespace {

struct OsThread {
    std::atomic<int> uses{2};  // the creator's and the thread's own
    unsigned long (*entry)(void*) = nullptr;
    void* argument = nullptr;
    HANDLE native = nullptr;
    DWORD id = 0;
    unsigned long exitCode = 0;
    HANDLE returned = nullptr;  // manual-reset; set when entry has returned
    HMODULE module = nullptr;   // this library, kept loaded until the thread has left it
};

void Drop(OsThread* thread) {
    if (thread->uses.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (thread->native != nullptr)
        CloseHandle(thread->native);
    if (thread->returned != nullptr)
        CloseHandle(thread->returned);
    thread->~OsThread();
    KTHeapFree(thread);
}

DWORD WINAPI Run(LPVOID block) {
    OsThread* thread = static_cast<OsThread*>(block);
    const HMODULE module = thread->module;
    thread->exitCode = thread->entry(thread->argument);
    // What OpenSSL keeps per thread: linked into this DLL, it does not hear of a thread's end.
    OPENSSL_thread_stop();
    const DWORD exitCode = thread->exitCode;
    SetEvent(thread->returned);
    Drop(thread);
    if (module != nullptr)
        FreeLibraryAndExitThread(module, exitCode);
    return exitCode;
}

// The system shows a thread's name from Windows 10 on; older ones lack the call.
void SetName(HANDLE native, const char* name) {
    using SetDescription = HRESULT(WINAPI*)(HANDLE, PCWSTR);
    const FARPROC found = GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription");
    wchar_t wide[64] = {};
    if (found != nullptr && MultiByteToWideChar(CP_UTF8, 0, name, -1, wide, 63) > 0)
        reinterpret_cast<SetDescription>(reinterpret_cast<void*>(found))(native, wide);
}

}  // namespace

void* KTOsThreadCreate(unsigned long (*entry)(void*), void* argument, unsigned long long stackSize,
                       int step, const char* name, unsigned long& id) {
    void* block = entry != nullptr ? KTHeapAlloc(sizeof(OsThread)) : nullptr;
    if (block == nullptr)
        return nullptr;
    OsThread* thread = new (block) OsThread;
    thread->entry = entry;
    thread->argument = argument;
    thread->returned = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&Run),
                       &thread->module);
    const HMODULE module = thread->module;
    if (thread->returned != nullptr)
        thread->native =
            CreateThread(nullptr, stackSize, Run, thread, CREATE_SUSPENDED, &thread->id);
    if (thread->native == nullptr) {
        Drop(thread);
        Drop(thread);
        if (module != nullptr)
            FreeLibrary(module);
        return nullptr;
    }
    SetThreadPriority(thread->native, step);
    if (name != nullptr)
        SetName(thread->native, name);
    id = thread->id;
    ResumeThread(thread->native);
    return thread;
}

void KTOsThreadShare(void* handle) {
    if (handle != nullptr)
        static_cast<OsThread*>(handle)->uses.fetch_add(1, std::memory_order_relaxed);
}

void KTOsThreadClose(void* handle) {
    if (handle != nullptr)
        Drop(static_cast<OsThread*>(handle));
}

int KTOsThreadWait(void* handle, unsigned int timeoutMs) {
    if (handle == nullptr)
        return KT_ERROR;
    // At process exit threads end without returning; in DllMain they return but cannot end. So
    // whichever comes first.
    const OsThread* thread = static_cast<OsThread*>(handle);
    const HANDLE either[] = {thread->returned, thread->native};
    switch (WaitForMultipleObjects(2, either, FALSE, timeoutMs)) {
        case WAIT_OBJECT_0:
        case WAIT_OBJECT_0 + 1:
            return KT_OK;
        case WAIT_TIMEOUT:
            return KT_TIMEOUT;
        default:
            return KT_ERROR;
    }
}

unsigned int KTOsThreadCurrentId() {
    return GetCurrentThreadId();
}
