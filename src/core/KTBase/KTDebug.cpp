#include "KTBase/KTDebug.h"

#include <cstdarg>
#include <cstdio>

void KTFault(const char* source, const char* function, int line) {
    KTPrintf("%s====>(Func = %s, line = %d)\n", source, function, line);
}

int KTPrintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = std::vprintf(format, args);
    va_end(args);
    return length;
}
