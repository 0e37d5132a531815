// A worker's messages beside the jobs of a GLib pool of one thread.
#include "KTBase/KTThreadPool.h"

#include <benchmark/benchmark.h>
#include <glib.h>

#include <chrono>

#include "KTBase/KTLock.h"
#include "KTBase/KTMessage.h"
#include "KTCompare.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTurns = 1000;
constexpr int kBurst = 10000;
constexpr unsigned int kCommand = 1000;

/// What both sides' handlers do: count down, and tell when the last one came and at what time.
class Counter : public CKTObject {
public:
    void Expect(int messages) { m_left = messages; }
    void Wait() { m_done.Wait(KT_INFINITE); }
    void Take() {
        if (--m_left > 0)
            return;
        last = Clock::now();
        m_done.Set();
    }
    int OnWorker(CKTMessageT* msg, unsigned int, unsigned int&) {
        if (msg != nullptr && msg->Command() == kCommand)
            Take();
        return 0;
    }

    Clock::time_point last;

private:
    int m_left = 0;  // the handling thread's between Expect and Wait
    CKTEvent m_done{true};
};

class Ours {
public:
    Ours() { m_attached = m_worker.Attach(&counter, kHandler) == KT_OK; }
    ~Ours() { m_worker.Detach(&counter, kHandler); }
    bool Works() const { return m_attached; }
    void Post() { m_worker.PostWorkerMessage(&counter, kCommand, nullptr); }

    Counter counter;

private:
    static constexpr KTWorkerHandler kHandler = static_cast<KTWorkerHandler>(&Counter::OnWorker);
    CKTThreadWorker m_worker{0, "bench", 0, 25};
    bool m_attached = false;
};

class Rival {
public:
    Rival() { m_pool = g_thread_pool_new(Take, nullptr, 1, TRUE, nullptr); }
    ~Rival() {
        if (m_pool != nullptr)
            g_thread_pool_free(m_pool, FALSE, TRUE);
    }
    bool Works() const { return m_pool != nullptr; }
    void Post() { g_thread_pool_push(m_pool, &counter, nullptr); }

    Counter counter;

private:
    static void Take(void* counter, void*) { static_cast<Counter*>(counter)->Take(); }
    GThreadPool* m_pool;
};

template <typename Side>
void PostAndWait(Side& side, int messages) {
    side.counter.Expect(messages);
    for (int i = 0; i < messages; ++i)
        side.Post();
    side.counter.Wait();
}

template <typename Side>
std::chrono::duration<double> Latency(Side& side) {
    std::chrono::duration<double> total(0);
    for (int i = 0; i < kTurns; ++i) {
        const Clock::time_point posted = Clock::now();
        PostAndWait(side, 1);
        total += side.counter.last - posted;
    }
    return total;
}

/// From the post to the handler of a thread that slept, one message at a time.
void PostToHandler(benchmark::State& state) {
    Ours ours;
    Rival rival;
    if (!ours.Works() || !rival.Works())
        return state.SkipWithError("no thread");
    std::chrono::duration<double> oursTotal(0), rivalTotal(0);
    for (auto _ : state) {
        const std::chrono::duration<double> time = Latency(ours);
        rivalTotal += Latency(rival);
        oursTotal += time;
        state.SetIterationTime(time.count());
    }
    const double turns = kTurns * static_cast<double>(state.iterations());
    state.counters["ours_ns"] = oursTotal.count() / turns * 1e9;
    state.counters["rival_ns"] = rivalTotal.count() / turns * 1e9;
    state.counters["ratio"] = rivalTotal / oursTotal;
}
BENCHMARK(PostToHandler)->UseManualTime();

/// Posted as fast as one thread can, until the last one is handled. items_per_second are ours.
void Burst(benchmark::State& state) {
    Ours ours;
    Rival rival;
    if (!ours.Works() || !rival.Works())
        return state.SkipWithError("no thread");
    KTCompare(
        state, kBurst, [&] { PostAndWait(ours, kBurst); }, [&] { PostAndWait(rival, kBurst); });
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(Burst)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
