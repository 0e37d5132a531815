#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <tlhelp32.h>

#include "host.h"

HostCounts HostCount() {
    HostCounts counts;
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry = {};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
        counts.threads += entry.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(snapshot);
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    counts.handles = handles;
    counts.unloaded = GetModuleHandleW(L"KTBase.dll") == nullptr;
    return counts;
}

int HostRunRound(const char* module, const char* logFile) {
    const HMODULE loaded = LoadLibraryA(module);
    if (loaded == nullptr)
        return -1;
    void* run = reinterpret_cast<void*>(GetProcAddress(loaded, "RunRound"));
    const int result = run != nullptr ? reinterpret_cast<int (*)(const char*)>(run)(logFile) : -1;
    return FreeLibrary(loaded) ? result : -1;
}
