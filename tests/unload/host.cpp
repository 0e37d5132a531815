// Loads the module a hundred times, and counts what a round leaves: host MODULE LOGFILE
#include "host.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

// Threads that have reported their end are still on their way out for a moment.
bool Settles(const HostCounts& expected, HostCounts& now) {
    for (int step = 0; step < 2000; ++step) {
        now = HostCount();
        if (now.threads <= expected.threads && now.handles <= expected.handles && now.unloaded)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    HostCounts first;
    for (int round = 0; round < 100; ++round) {
        const int failed = HostRunRound(argv[1], argv[2]);
        if (failed != 0) {
            std::printf("round %d: step %d failed\n", round, failed);
            return 1;
        }
        HostCounts now;
        if (round < 3) {  // what the system itself sets up once
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            first = HostCount();
        } else if (!Settles(first, now)) {
            std::printf("round %d: %u threads, %u handles, unloaded %d; at first %u and %u\n",
                        round, now.threads, now.handles, now.unloaded, first.threads,
                        first.handles);
            return 1;
        }
    }
    return 0;
}
