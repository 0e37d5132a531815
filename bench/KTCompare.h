// Times two sides of a comparison in turn, so that a busy machine slows both.
#ifndef KTBASE_BENCH_KTCOMPARE_H
#define KTBASE_BENCH_KTCOMPARE_H

#include <benchmark/benchmark.h>

#include <chrono>

/// Runs ours() and rival() once a round; each does `items` units of work. Register the benchmark
/// with UseManualTime: its time is ours for a round. Counters: "ours_ns" and "rival_ns" for one
/// unit, and "ratio", rival / ours: above 1 we are faster.
template <typename Ours, typename Rival>
void KTCompare(benchmark::State& state, double items, Ours ours, Rival rival) {
    using Clock = std::chrono::steady_clock;
    std::chrono::duration<double> oursTotal(0), rivalTotal(0);
    for (auto _ : state) {
        const auto start = Clock::now();
        ours();
        const auto between = Clock::now();
        rival();
        rivalTotal += Clock::now() - between;
        const std::chrono::duration<double> time = between - start;
        oursTotal += time;
        state.SetIterationTime(time.count());
    }
    const double units = items * static_cast<double>(state.iterations());
    state.counters["ours_ns"] = oursTotal.count() / units * 1e9;
    state.counters["rival_ns"] = rivalTotal.count() / units * 1e9;
    state.counters["ratio"] = rivalTotal / oursTotal;
}

#endif
