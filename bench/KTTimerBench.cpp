// A thousand timers beside libuv's: the processor time they take and how late they are.
#include "KTBase/KTTimer.h"

#include <benchmark/benchmark.h>
#include <uv.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr unsigned int kTimers = 1000;
constexpr unsigned int kRoundMs = 1000;
constexpr int kRounds = 4;

unsigned int IntervalMs(unsigned int timer) {
    return 5 + timer % 96;  // 5 to 100
}

/// What one timer did. Both sides count a period from the last firing, so that a firing's lateness
/// is how far it lies past the one before it and the interval.
class Record : public CKTObject {
public:
    void Begin(unsigned int intervalMs) {
        m_interval = std::chrono::milliseconds(intervalMs);
        m_last = Clock::now();
    }
    void Fire() {
        const Clock::time_point now = Clock::now();
        const Seconds late = now - m_last - m_interval;
        m_last = now;
        ++firings;
        total += late;
        worst = std::max(worst, late);
    }
    int OnTimer(CKTObject*, unsigned int, void*, void*) {
        Fire();
        return 0;
    }

    double firings = 0;
    Seconds total{0}, worst{0};

private:
    Clock::duration m_interval{0};
    Clock::time_point m_last;
};

/// All rounds of one side.
struct Sum {
    void Add(const std::vector<Record>& records) {
        for (const Record& record : records) {
            firings += record.firings;
            late += record.total;
            worst = std::max(worst, record.worst);
        }
    }
    void Report(benchmark::State& state, const std::string& side) const {
        state.counters[side + "_core_percent"] = cpu / wall * 100;
        state.counters[side + "_firings_s"] = firings / wall.count();
        state.counters[side + "_late_us"] = late.count() / firings * 1e6;
        state.counters[side + "_worst_us"] = worst.count() * 1e6;
    }

    Seconds cpu{0}, wall{0};
    double firings = 0;
    Seconds late{0}, worst{0};
};

/// Adds the round's time, and the processor time of all threads in it, to sum.
template <typename Round>
Seconds Measure(Sum& sum, Round round) {
    const std::clock_t cpu = std::clock();
    const Clock::time_point start = Clock::now();
    round();
    const Seconds wall = Clock::now() - start;
    sum.wall += wall;
    sum.cpu += Seconds(static_cast<double>(std::clock() - cpu) / CLOCKS_PER_SEC);
    return wall;
}

/// False when a timer cannot be had or started.
bool RunOurs(std::vector<Record>& records) {
    if (IKTTimer::KTTimerInitialize() != KT_OK)
        return false;
    const KTSignalHandler handler = static_cast<KTSignalHandler>(&Record::OnTimer);
    std::vector<IKTTimer*> timers;
    bool started = true;
    for (unsigned int i = 0; i < kTimers && started; ++i) {
        IKTTimer* timer = IKTTimer::AcquireTimer();
        started = timer != nullptr;
        if (started) {
            timers.push_back(timer);
            records[i].Begin(IntervalMs(i));
            started = timer->Start(&records[i], handler, IntervalMs(i), 0, false) == KT_OK;
        }
    }
    if (started)
        std::this_thread::sleep_for(std::chrono::milliseconds(kRoundMs));
    for (IKTTimer* timer : timers) {
        timer->Stop();
        timer->Release();
    }
    return IKTTimer::KTTimerInvalidate() == KT_OK && started;
}

void FireRival(uv_timer_t* timer) {
    static_cast<Record*>(timer->data)->Fire();
}

void EndRival(uv_timer_t* timer) {
    uv_stop(timer->loop);
}

void CloseRival(uv_handle_t* handle, void*) {
    uv_close(handle, nullptr);
}

bool RunRival(std::vector<Record>& records) {
    uv_loop_t loop;
    if (uv_loop_init(&loop) != 0)
        return false;
    bool started = true;
    std::vector<uv_timer_t> timers(kTimers + 1);
    for (unsigned int i = 0; i < kTimers; ++i) {
        uv_timer_init(&loop, &timers[i]);
        timers[i].data = &records[i];
        uv_update_time(&loop);
        records[i].Begin(IntervalMs(i));
        started &= uv_timer_start(&timers[i], FireRival, IntervalMs(i), IntervalMs(i)) == 0;
    }
    uv_timer_init(&loop, &timers[kTimers]);
    started &= uv_timer_start(&timers[kTimers], EndRival, kRoundMs, 0) == 0;
    if (started)
        uv_run(&loop, UV_RUN_DEFAULT);
    uv_walk(&loop, CloseRival, nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    return uv_loop_close(&loop) == 0 && started;
}

/// Its counters, for each side: share of a core, firings a second, mean and worst lateness; "ratio"
/// is the rival's share by ours, above 1 we take less. Our timers fire on a beat of 5 ms, libuv's
/// each by itself.
void ThousandTimers(benchmark::State& state) {
    Sum ours, rival;
    for (auto _ : state) {
        std::vector<Record> our(kTimers), other(kTimers);
        bool ran = true;
        state.SetIterationTime(Measure(ours, [&] { ran &= RunOurs(our); }).count());
        Measure(rival, [&] { ran &= RunRival(other); });
        if (!ran) {
            state.SkipWithError("timers cannot be started");
            return;
        }
        ours.Add(our);
        rival.Add(other);
    }
    ours.Report(state, "ours");
    rival.Report(state, "rival");
    state.counters["ratio"] = (rival.cpu / rival.wall) / (ours.cpu / ours.wall);
}
BENCHMARK(ThousandTimers)->UseManualTime()->Iterations(kRounds)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
