// The system's part of the program that loads and unloads the library.
#ifndef KTBASE_TESTS_UNLOAD_HOST_H
#define KTBASE_TESTS_UNLOAD_HOST_H

struct HostCounts {
    unsigned int threads = 0;  // of this process
    unsigned int handles = 0;  // or descriptors
    bool unloaded = false;     // the library is not in the process, or stays there by design
};

HostCounts HostCount();
/// Loads the module, runs its round, unloads it. Returns what the round returned, or -1.
int HostRunRound(const char* module, const char* logFile);

#endif
