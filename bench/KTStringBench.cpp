// Appending eight bytes at a time, beside std::string.
//
// Every benchmark runs both sides in turn, so that a busy machine slows both. The time shown is
// ours for the whole round; "ours_ns" and "rival_ns" are for one append, "ratio" is rival / ours:
// above 1 we are faster.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <string>

#include "KTBase/KTString.h"

namespace {

typedef std::chrono::duration<double> Seconds;

constexpr char kText[] = "eight by";
constexpr std::size_t kTextBytes = sizeof(kText) - 1;
constexpr std::size_t kRoundBytes = 1 << 18;  // long enough for the clock, whatever the text's size

void Append(CKTString& s) {
    s.AppendSTR(kText, kTextBytes);
}

void Append(std::string& s) {
    s.append(kText, kTextBytes);
}

void Clear(CKTString& s) {
    s.Empty(false);
}

void Clear(std::string& s) {
    s.clear();
}

template <typename String>
void Fill(String& s, std::size_t bytes) {
    for (std::size_t done = 0; done < bytes; done += kTextBytes)
        Append(s);
    benchmark::DoNotOptimize(s);
}

/// New strings, one after the other.
template <typename String>
void FillNew(std::size_t bytes) {
    for (std::size_t done = 0; done < kRoundBytes; done += bytes) {
        String s;
        Fill(s, bytes);
    }
}

/// One string that keeps its buffer.
template <typename String>
void FillAgain(String& s, std::size_t bytes) {
    for (std::size_t done = 0; done < kRoundBytes; done += bytes) {
        Clear(s);
        Fill(s, bytes);
    }
}

template <typename Work>
Seconds TimeOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::steady_clock::now() - start;
}

template <typename Ours, typename Rival>
void Compare(benchmark::State& state, Ours ours, Rival rival) {
    Seconds oursTotal(0), rivalTotal(0);
    for (auto _ : state) {
        const Seconds time = TimeOf(ours);
        oursTotal += time;
        rivalTotal += TimeOf(rival);
        state.SetIterationTime(time.count());
    }
    const double appends = static_cast<double>(state.iterations()) * (kRoundBytes / kTextBytes);
    state.counters["ours_ns"] = oursTotal.count() / appends * 1e9;
    state.counters["rival_ns"] = rivalTotal.count() / appends * 1e9;
    state.counters["ratio"] = rivalTotal / oursTotal;
}

/// Growth and all: ours takes exact steps of 32 bytes, the rival doubles.
void AppendToNewString(benchmark::State& state) {
    const std::size_t bytes = state.range(0);
    Compare(
        state, [bytes] { FillNew<CKTString>(bytes); }, [bytes] { FillNew<std::string>(bytes); });
}
BENCHMARK(AppendToNewString)->Arg(16)->Arg(64)->Arg(512)->Arg(4096)->Arg(1 << 17)->UseManualTime();

/// The append alone.
void AppendToRoomyString(benchmark::State& state) {
    const std::size_t bytes = state.range(0);
    CKTString ours;
    std::string rival;
    Compare(
        state, [&] { FillAgain(ours, bytes); }, [&] { FillAgain(rival, bytes); });
}
BENCHMARK(AppendToRoomyString)->Arg(64)->Arg(512)->Arg(1 << 14)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
