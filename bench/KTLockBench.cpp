// Locks and events beside the language's own.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "KTBase/KTLock.h"
#include "KTCompare.h"

namespace {

constexpr int kPairs = 10000;
constexpr int kTurns = 1000;

/// Nobody else wants the lock.
void EnterAndLeave(benchmark::State& state) {
    CKTMutex ours;
    std::recursive_mutex rival;
    KTCompare(
        state, kPairs,
        [&] {
            for (int i = 0; i < kPairs; ++i) {
                ours.Enter(KT_INFINITE);
                ours.Leave();
            }
        },
        [&] {
            for (int i = 0; i < kPairs; ++i) {
                rival.lock();
                rival.unlock();
            }
        });
}
BENCHMARK(EnterAndLeave)->UseManualTime();

void Guard(benchmark::State& state) {
    CKTMutex ours;
    std::recursive_mutex rival;
    KTCompare(
        state, kPairs,
        [&] {
            for (int i = 0; i < kPairs; ++i)
                CKTGuard hold(ours);
        },
        [&] {
            for (int i = 0; i < kPairs; ++i)
                std::lock_guard<std::recursive_mutex> hold(rival);
        });
}
BENCHMARK(Guard)->UseManualTime();

// The rival's auto-reset event, as one writes it with the language's means.
class StdEvent {
public:
    void Set() {
        {
            std::lock_guard<std::mutex> hold(m_lock);
            m_set = true;
        }
        m_wake.notify_one();
    }
    void Wait(unsigned int) {
        std::unique_lock<std::mutex> hold(m_lock);
        m_wake.wait(hold, [this] { return m_set; });
        m_set = false;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_wake;
    bool m_set = false;
};

struct OurEvent : CKTEvent {
    OurEvent() : CKTEvent(true) {}
};

// A second thread that answers each ping with a pong.
template <typename Event>
class Partner {
public:
    Partner() : m_thread([this] { Answer(); }) {}
    ~Partner() {
        m_ends = true;
        m_ping.Set();
        m_thread.join();
    }
    void Play(int turns) {
        for (int i = 0; i < turns; ++i) {
            m_ping.Set();
            m_pong.Wait(KT_INFINITE);
        }
    }

private:
    void Answer() {
        for (;;) {
            m_ping.Wait(KT_INFINITE);
            if (m_ends)
                return;
            m_pong.Set();
        }
    }

    Event m_ping, m_pong;
    std::atomic<bool> m_ends{false};
    std::thread m_thread;  // last: it uses the others
};

/// There and back: two sets and two waits.
void HandOver(benchmark::State& state) {
    Partner<OurEvent> ours;
    Partner<StdEvent> rival;
    KTCompare(
        state, kTurns, [&] { ours.Play(kTurns); }, [&] { rival.Play(kTurns); });
}
BENCHMARK(HandOver)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
