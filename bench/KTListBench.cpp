// Lists beside std::list, and the queue between two threads beside GLib's GAsyncQueue.
//
// Every benchmark runs both sides in turn, so that a busy machine slows both. The time shown is
// ours for the whole round; "ours_ns" and "rival_ns" are for one item, "ratio" is rival / ours:
// above 1 we are faster.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <chrono>
#include <list>
#include <thread>

#include "KTBase/KTList.h"

namespace {

typedef std::chrono::duration<double> Seconds;

template <typename Work>
Seconds TimeOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::steady_clock::now() - start;
}

template <typename Ours, typename Rival>
void Compare(benchmark::State& state, double items, Ours ours, Rival rival) {
    Seconds oursTotal(0), rivalTotal(0);
    for (auto _ : state) {
        const Seconds time = TimeOf(ours);
        oursTotal += time;
        rivalTotal += TimeOf(rival);
        state.SetIterationTime(time.count());
    }
    const double rounds = static_cast<double>(state.iterations());
    state.counters["ours_ns"] = oursTotal.count() / rounds / items * 1e9;
    state.counters["rival_ns"] = rivalTotal.count() / rounds / items * 1e9;
    state.counters["ratio"] = rivalTotal / oursTotal;
}

int g_value;
void* g_item = &g_value;

// ---- lists ----

// Fills to `count` and empties again: the blocks go back each time.
void FillAndDrainUntyped(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    CKTList ours;
    std::list<void*> rival;
    Compare(
        state, count,
        [&] {
            for (int i = 0; i < count; ++i)
                ours.AddTail(g_item);
            while (!ours.IsEmpty())
                benchmark::DoNotOptimize(ours.RemoveHead());
        },
        [&] {
            for (int i = 0; i < count; ++i)
                rival.push_back(g_item);
            while (!rival.empty()) {
                benchmark::DoNotOptimize(rival.front());
                rival.pop_front();
            }
        });
}
BENCHMARK(FillAndDrainUntyped)->Arg(1)->Arg(10)->Arg(1000)->Arg(100000)->UseManualTime();

// Adds one and removes one, `count` items staying behind.
void AddAndRemoveTyped(benchmark::State& state) {
    constexpr int kPairs = 10000;
    CKTListT<void*> ours;
    std::list<void*> rival;
    for (int i = 0; i < state.range(0); ++i) {
        ours.AddTail(g_item);
        rival.push_back(g_item);
    }
    Compare(
        state, kPairs,
        [&] {
            for (int i = 0; i < kPairs; ++i) {
                ours.AddTail(g_item);
                void* item = nullptr;
                ours.RemoveHead(item);
                benchmark::DoNotOptimize(item);
            }
        },
        [&] {
            for (int i = 0; i < kPairs; ++i) {
                rival.push_back(g_item);
                benchmark::DoNotOptimize(rival.front());
                rival.pop_front();
            }
        });
}
BENCHMARK(AddAndRemoveTyped)->Arg(1)->Arg(1000)->UseManualTime();

// ---- queue ----

struct OurQueue {
    void Put(void* item) { queue.Put(item); }
    void* Get() {
        void* item;
        queue.Get(item, KT_INFINITE);
        return item;
    }
    CKTQueue queue;
};

struct GlibQueue {
    ~GlibQueue() { g_async_queue_unref(queue); }
    void Put(void* item) { g_async_queue_push(queue, item); }
    void* Get() { return g_async_queue_pop(queue); }
    GAsyncQueue* queue = g_async_queue_new();
};

template <typename Queue>
void Stream(int messages) {
    Queue queue;
    std::thread consumer([&] {
        for (int i = 0; i < messages; ++i)
            benchmark::DoNotOptimize(queue.Get());
    });
    for (int i = 0; i < messages; ++i)
        queue.Put(g_item);
    consumer.join();
}

template <typename Queue>
void PingPong(int rounds) {
    Queue there, back;
    std::thread answerer([&] {
        for (int i = 0; i < rounds; ++i)
            back.Put(there.Get());
    });
    for (int i = 0; i < rounds; ++i) {
        there.Put(g_item);
        benchmark::DoNotOptimize(back.Get());
    }
    answerer.join();
}

template <typename Queue>
void OneThread(int pairs) {
    Queue queue;
    for (int i = 0; i < pairs; ++i) {
        queue.Put(g_item);
        benchmark::DoNotOptimize(queue.Get());
    }
}

// One thread puts as fast as it can, the other takes.
void HandOverStream(benchmark::State& state) {
    constexpr int kMessages = 200000;
    Compare(
        state, kMessages, [] { Stream<OurQueue>(kMessages); },
        [] { Stream<GlibQueue>(kMessages); });
}
BENCHMARK(HandOverStream)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

// One message at a time, there and back: each hand-over wakes the other thread.
void HandOverPingPong(benchmark::State& state) {
    constexpr int kRounds = 10000;
    Compare(
        state, kRounds, [] { PingPong<OurQueue>(kRounds); }, [] { PingPong<GlibQueue>(kRounds); });
}
BENCHMARK(HandOverPingPong)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

// The cost of the calls alone.
void PutAndGetInOneThread(benchmark::State& state) {
    constexpr int kPairs = 100000;
    Compare(
        state, kPairs, [] { OneThread<OurQueue>(kPairs); }, [] { OneThread<GlibQueue>(kPairs); });
}
BENCHMARK(PutAndGetInOneThread)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
