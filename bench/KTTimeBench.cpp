// The clocks and the calendar, beside those of the C and C++ libraries.
#include "KTBase/KTTime.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>

#include "KTCompare.h"

namespace {

constexpr int kRound = 10000;

template <typename Work>
auto Repeat(Work work) {
    return [work] {
        for (int i = 0; i < kRound; ++i)
            work(i);
    };
}

/// Rival: std::chrono::steady_clock.
void ReadMonotonicClock(benchmark::State& state) {
    KTCompare(state, kRound, Repeat([](int) { benchmark::DoNotOptimize(CKTTime::GetTimeUS()); }),
              Repeat([](int) { benchmark::DoNotOptimize(std::chrono::steady_clock::now()); }));
}
BENCHMARK(ReadMonotonicClock)->UseManualTime();

/// Rival: gmtime.
void BreakDownToUtc(benchmark::State& state) {
    CKTTime t(true);
    KTCompare(state, kRound, Repeat([&t](int i) {
                  t.SetTime(1600000000LL + i * 7001LL);
                  benchmark::DoNotOptimize(t);
              }),
              Repeat([](int i) {
                  const std::time_t at = 1600000000 + i * 7001LL;
                  benchmark::DoNotOptimize(std::gmtime(&at));
              }));
}
BENCHMARK(BreakDownToUtc)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
