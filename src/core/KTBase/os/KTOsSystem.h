// What the platform tells of itself, and its ways out for diagnostic text.
//
// The Windows twin also carries DllMain: it calls KTOsNetOpen when the library is loaded, and
// KTLibraryClose when the library is freed while the process goes on; at process exit it does
// nothing. On POSIX the library stays loaded.
#ifndef KTBASE_OS_KTOSSYSTEM_H
#define KTBASE_OS_KTOSSYSTEM_H

/// Number of processors online, at least 1.
unsigned int KTOsProcessorCount();

/// Shows text in an attached debugger; nothing on a system without such a channel.
void KTOsDebuggerWrite(const char* text);

#endif
