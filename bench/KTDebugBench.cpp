// Debug output, beside GLib's log of a domain that is off and beside bare formatting.
#define G_LOG_DOMAIN "bench"

#include "KTBase/KTDebug.h"

#include <benchmark/benchmark.h>
#include <glib.h>

#include <cstdio>
#include <ctime>

#include "KTCompare.h"

namespace {

constexpr int kRound = 10000;

/// Rival: g_debug, which asks its writer first.
void DropDisabledLine(benchmark::State& state) {
    DBG_LevelDisable(3);
    KTCompare(
        state, kRound,
        [] {
            for (int i = 0; i < kRound; ++i)
                DBG_Printf(1, 3, "frame %d of %s\n", i, "camera");
        },
        [] {
            for (int i = 0; i < kRound; ++i)
                g_debug("frame %d of %s", i, "camera");
        });
}
BENCHMARK(DropDisabledLine)->UseManualTime();

/// Without console, so that the time is that of formatting and decorating. Rival: the same line by
/// localtime_r and snprintf.
void DecorateLine(benchmark::State& state) {
    KTDBG_EnablePrint(5, 7);
    KTCompare(
        state, kRound,
        [] {
            for (int i = 0; i < kRound; ++i)
                DBG_Printf(1, 2, "frame %d of %s\n", i, "camera");
        },
        [] {
            for (int i = 0; i < kRound; ++i) {
                const std::time_t now = std::time(nullptr);
                tm local;
                localtime_r(&now, &local);
                char line[256];
                std::snprintf(line, sizeof(line),
                              "\x1b[0m[%02d:%02d:%02d.%03d][%02d:%s]\x1b[0m frame %d of %s\n",
                              local.tm_hour, local.tm_min, local.tm_sec, 0, 1, "NOTE", i, "camera");
                benchmark::DoNotOptimize(line);
            }
        });
}
BENCHMARK(DecorateLine)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
