#include "os/KTOsSystem.h"

#include "KTLibrary.h"
#include "os/KTOsNet.h"  // brings windows.h, after the socket headers as those want it

unsigned int KTOsProcessorCount() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors < 1 ? 1 : info.dwNumberOfProcessors;
}

void KTOsDebuggerWrite(const char* text) {
    OutputDebugStringA(text);
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID processEnds) {
    if (reason == DLL_PROCESS_ATTACH)
        KTOsNetOpen();
    // At process exit the other threads are already dead, perhaps inside our locks: touch nothing.
    if (reason == DLL_PROCESS_DETACH && processEnds == nullptr)
        KTLibraryClose();
    return TRUE;
}
