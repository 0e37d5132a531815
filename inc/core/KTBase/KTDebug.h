// Debug output: one process-wide channel with levels, modules and sinks.
#ifndef KTBASE_KTDEBUG_H
#define KTBASE_KTDEBUG_H

#include "KTBase/KTDefs.h"

/// Reports a fault inside the library: "%s====>(Func = %s, line = %d)\n" at level 2 (NOTE).
/// Field logs are searched by the number: it names the fault, not the line it stands on.
KTBASE_API void KTFault(const char* source, const char* function, int line);

/// Formats and prints at level 2 (NOTE).
KTBASE_API int KTPrintf(const char* format, ...) KTBASE_PRINTF(1, 2);

#endif
