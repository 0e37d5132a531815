// Debug output: one process-wide channel with levels, modules and sinks.
#ifndef KTBASE_KTDEBUG_H
#define KTBASE_KTDEBUG_H

#include "KTBase/KTDefs.h"

// Every message has a level: 0 DEF, 1 INFO, 2 NOTE, 3 DBG, 4 WARN, 5 ERR; above that no name. It is
// dropped unless the level mask has bit (level & 31) and the print mask is 2 or more.
//
// A decorated message starts with the level's colour, local time, module, level and the plain
// colour: "[10:11:12.013][03:WARN] ". Its later lines are indented by the bytes of that prefix,
// colours included, and it always ends in a line break. Messages go to standard output and the
// debugger, up to their first NUL, and to the attached files and streams.
// Everything here may be called from any thread; messages of two threads come in any order.
//
// The printing calls return the characters delivered, decoration included: 0 when the message was
// dropped, -1 when the C runtime refuses the format. A message may have any length; only when
// memory is out is a long one printed undecorated, or cut.

/// Reports a fault inside the library: "%s====>(Func = %s, line = %d)\n" at level 2 (NOTE).
/// Field logs are searched by the number: it names the fault, not the line it stands on.
KTBASE_API void KTFault(const char* source, const char* function, int line);

/// Prints length bytes of text, all of it up to its NUL for length 0, as module 0. A negative level
/// counts as 0. Undecorated, length 0 is also what the sinks get and the result.
KTBASE_API int KTDBG_Output(int level, const char* text, unsigned int length);
/// Formats and prints. Tests level and print mask before it formats, and a negative level by its
/// low five bits there: -1 is dropped.
KTBASE_API int KTDBG_Printf(int level, const char* format, ...) KTBASE_PRINTF(2, 3);
/// Both at level 0.
KTBASE_API int KTDBGOutput(const char* text, unsigned int length);
KTBASE_API int KTDBGPrintf(const char* format, ...) KTBASE_PRINTF(1, 2);
/// Formats and prints at level 2 (NOTE).
KTBASE_API int KTPrintf(const char* format, ...) KTBASE_PRINTF(1, 2);

/// The bits of select become those of value. Returns the new mask. At first levels 0 to 5 are on.
KTBASE_API unsigned int KTDBG_SetLevelMask(unsigned int value, unsigned int select);
/// The same on the print mask, at first 7. 1: decorate; 2: standard output and debugger; 4: files
/// and streams.
KTBASE_API unsigned int KTDBG_EnablePrint(unsigned int value, unsigned int select);
/// Stores flag; nothing depends on it. Returns 0.
KTBASE_API int KTDBGEnablePrintf(unsigned int flag);
/// Returns 0, or -1 for a level of 6 or more.
KTBASE_API int DBG_LevelEnable(unsigned int level);
KTBASE_API int DBG_LevelDisable(unsigned int level);
/// Modules count modulo 64; at first all are on. Returns 0.
KTBASE_API int DBG_ModuleEnable(int module);
KTBASE_API int DBG_ModuleDisable(int module);
/// As KTDBG_Output, with a module. Prints for a disabled module too: only DBG_Printf tests it.
KTBASE_API int DBG_Output(int module, int level, const char* text, unsigned int length);
/// As KTDBG_Printf, with a module, which must be enabled.
KTBASE_API int DBG_Printf(int module, int level, const char* format, ...) KTBASE_PRINTF(3, 4);

// ---- files and streams ----
// They exist between the first KTDBGInitialize and the last KTDBGInvalidate. A message reaches them
// in the thread that prints it, under the debug lock: streams first, then files. Files are written
// by a thread of their own, "IKTDebugThread", so a slow disk does not hold up who prints.

/// Each call wants its KTDBGInvalidate. Returns the calls outstanding, or -7 when memory or a thread
/// is wanting: the call then does not count.
KTBASE_API int KTDBGInitialize();
/// The last one writes out and closes every file and forgets the streams. Returns the calls
/// outstanding.
KTBASE_API int KTDBGInvalidate();
/// Creates or empties the file and sends it what is printed from now on, as bytes. A file that
/// cannot keep up loses what waits for it once that is 1 MiB. path is UTF-8; the same path again
/// changes nothing. Returns 0; -7 before KTDBGInitialize; -4 when path is null or empty; -6; or what
/// IKWFile::Open returns.
KTBASE_API int KTDBGAttachFile(const char* path);
/// Writes out and closes the file. Returns 0; -7; -4 when path is null; -11 when it is not attached.
KTBASE_API int KTDBGDetachFile(const char* path);
/// Calls fn(context, the debug object, 1000, text, pointer to its unsigned long long length) for
/// every message; the text is not to be changed. What fn itself prints reaches console and files,
/// but no stream. fn must not wait for a thread that prints. Returns 0, also when the pair is
/// attached already; -7; -4 when either is null; -6.
KTBASE_API int KTDBGAttachStream(void* context, KTStreamFn fn);
/// Afterwards fn does not run and is not called again, unless it detaches itself. Returns 0; -7; -4;
/// -1 when the pair is not attached.
KTBASE_API int KTDBGDetachStream(void* context, KTStreamFn fn);

#endif
