#include "os/KTOsSystem.h"

#include <unistd.h>

unsigned int KTOsProcessorCount() {
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count < 1 ? 1 : static_cast<unsigned int>(count);
}

void KTOsDebuggerWrite(const char*) {}
