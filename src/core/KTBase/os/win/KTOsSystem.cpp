#include "os/KTOsSystem.h"

#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "KTLibrary.h"

unsigned int KTOsProcessorCount() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors < 1 ? 1 : info.dwNumberOfProcessors;
}

void KTOsDebuggerWrite(const char* text) {
    OutputDebugStringA(text);
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID processEnds) {
    // At process exit the other threads are already dead, perhaps inside our locks: touch nothing.
    if (reason == DLL_PROCESS_DETACH && processEnds == nullptr)
        KTLibraryClose();
    return TRUE;
}
