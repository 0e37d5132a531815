// One number per build says how much of a stress test's full count runs.
#ifndef KTBASE_TESTS_KTTESTLOAD_H
#define KTBASE_TESTS_KTTESTLOAD_H

#include <cstdlib>

/// full: the count on a release build; soak: the count when KTBASE_SOAK is set (0: the same).
inline unsigned int KTTestLoad(unsigned int full, unsigned int soak = 0) {
    if (soak != 0 && std::getenv("KTBASE_SOAK") != nullptr)
        full = soak;
    return full / KTBASE_LOAD_DIVISOR > 0 ? full / KTBASE_LOAD_DIVISOR : 1;
}

#endif
