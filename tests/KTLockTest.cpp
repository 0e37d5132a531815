#include <KTBase/KTLock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "KTTestLoad.h"

namespace {

int OnOtherThread(int (*call)(CKTMutex&), CKTMutex& mutex) {
    int result = -1;
    std::thread([&] { result = call(mutex); }).join();
    return result;
}

int TryEnter(CKTMutex& mutex) {
    const int entered = mutex.Enter(0);
    if (entered != 0)
        mutex.Leave();
    return entered;
}

long long MsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

}  // namespace

TEST(Mutex, ItsOwnerEntersAgainAndLeavesAsOften) {
    CKTMutex mutex;
    EXPECT_EQ(mutex.Enter(0), 1);
    EXPECT_EQ(mutex.Enter(KT_INFINITE), 1);
    EXPECT_NE(mutex.Leave(), 0);
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 0);
    EXPECT_NE(mutex.Leave(), 0);
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 1);
    EXPECT_EQ(mutex.Leave(), 0);
}

TEST(Mutex, OnlyItsOwnerLeaves) {
    CKTMutex mutex;
    mutex.Enter(KT_INFINITE);
    EXPECT_EQ(OnOtherThread([](CKTMutex& m) { return m.Leave(); }, mutex), 0);
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 0);
    mutex.Leave();
}

TEST(Mutex, AFiniteWaitEndsWithTheTimeOrWithTheLock) {
    CKTMutex mutex;
    mutex.Enter(KT_INFINITE);
    EXPECT_EQ(OnOtherThread(
                  [](CKTMutex& m) {
                      const auto start = std::chrono::steady_clock::now();
                      const int entered = m.Enter(30);
                      // Wine's clocks may differ by a tick.
                      return entered == 0 && MsSince(start) >= 28 ? 1 : 0;
                  },
                  mutex),
              1);
    std::thread waiter([&] {
        EXPECT_EQ(mutex.Enter(60000), 1);
        mutex.Leave();
    });
    mutex.Leave();
    waiter.join();
}

TEST(Mutex, OneWhoseOwnerDiedIsTakenOverWithAZero) {
    CKTMutex mutex;
    OnOtherThread([](CKTMutex& m) { return m.Enter(0); }, mutex);
    EXPECT_EQ(mutex.Enter(KT_INFINITE), 0);  // told, and owner now
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 0);
    EXPECT_NE(mutex.Leave(), 0);
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 1);

    OnOtherThread([](CKTMutex& m) { return m.Enter(0); }, mutex);
    { CKTGuard hold(mutex); }
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 1);  // the guard released it
    EXPECT_EQ(mutex.Enter(0), 1);
    EXPECT_NE(mutex.Leave(), 0);
}

TEST(Mutex, CopiesShareOneLock) {
    auto first = std::make_unique<CKTMutex>();
    CKTMutex second(*first);
    CKTMutex third;
    third = second;
    third = *&third;
    first->Enter(KT_INFINITE);
    EXPECT_EQ(OnOtherThread(TryEnter, third), 0);
    first->Leave();
    first.reset();
    EXPECT_EQ(OnOtherThread(TryEnter, second), 1);
    EXPECT_EQ(OnOtherThread(TryEnter, third), 1);
}

TEST(Mutex, DestroyedWhileHeldDoesNoHarm) {
    auto held = std::make_unique<CKTMutex>();
    held->Enter(KT_INFINITE);
    held->Enter(KT_INFINITE);
    held.reset();

    auto dead = std::make_unique<CKTMutex>();
    OnOtherThread([](CKTMutex& m) { return m.Enter(0); }, *dead);
    dead.reset();

    CKTMutex after;  // locks made and used later are sound
    EXPECT_EQ(after.Enter(0), 1);
    EXPECT_NE(after.Leave(), 0);
}

TEST(Mutex, KeepsManyThreadsApart) {
    CKTMutex mutex;
    unsigned int count = 0;
    const unsigned int rounds = KTTestLoad(50000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (unsigned int i = 0; i < rounds; ++i) {
                if (t % 2 == 0) {
                    CKTGuard hold(mutex);
                    ++count;
                } else if (mutex.Enter(60000) == 1) {
                    ++count;
                    mutex.Leave();
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, 4 * rounds);
}

TEST(Guard, ReleasesWhenAnExceptionPasses) {
    CKTMutex mutex;
    try {
        CKTGuard hold(mutex);
        throw std::runtime_error("passing");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 1);
}

TEST(Event, AutoResetGivesItsSignalOnceManualResetKeepsIt) {
    CKTEvent manual;
    CKTEvent once(true);
    EXPECT_EQ(once.Wait(0), -2);
    EXPECT_NE(once.Set(), 0);
    EXPECT_NE(once.Set(), 0);  // already set: no second signal
    EXPECT_EQ(once.Check(), 1);
    EXPECT_EQ(once.Check(), 0);
    EXPECT_NE(manual.Set(), 0);
    EXPECT_EQ(manual.Check(), 1);
    EXPECT_EQ(manual.Wait(KT_INFINITE), 0);
    EXPECT_NE(manual.Reset(), 0);
    EXPECT_EQ(manual.Wait(1), -2);
    CKTEvent copy(manual);
    copy.Set();
    EXPECT_EQ(manual.Check(), 1);
}

// The waiters report that they are about to wait; a short rest then lets them reach the wait. Too
// short a rest only makes the test easier to pass, never fails it.
class EventWaiters : public testing::Test {
protected:
    void Start(CKTEvent& event, int count) {
        for (int i = 0; i < count; ++i) {
            m_threads.emplace_back([&] {
                ++m_ready;
                if (event.Wait(20000) == 0)
                    ++m_released;
            });
        }
        while (m_ready < count)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    int Join() {
        for (std::thread& thread : m_threads)
            thread.join();
        return m_released;
    }
    std::vector<std::thread> m_threads;
    std::atomic<int> m_ready{0};
    std::atomic<int> m_released{0};
};

TEST_F(EventWaiters, TwoSetsReleaseTwoWaitersOfAnAutoResetEvent) {
    CKTEvent event(true);
    Start(event, 2);
    event.Set();
    event.Set();
    EXPECT_EQ(Join(), 2);
}

TEST_F(EventWaiters, AreReleasedThoughAResetFollowsTheSetAtOnce) {
    CKTEvent event;
    Start(event, 3);
    event.Set();
    event.Reset();
    EXPECT_EQ(Join(), 3);
    EXPECT_EQ(event.Check(), 0);
}

TEST(Event, ItsWaiterMayDestroyItWhileSetStillRuns) {
    for (unsigned int i = 0; i < KTTestLoad(5000); ++i) {
        CKTEvent* event = new CKTEvent(i % 2 == 0);
        std::thread setter([event] { event->Set(); });
        EXPECT_EQ(event->Wait(KT_INFINITE), 0);
        delete event;
        setter.join();
    }
}

TEST(Event, ASignalIsNeitherLostNorDoubledWhenWaitsRunOut) {
    CKTEvent event(true);
    CKTEvent taken(true);
    const int rounds = static_cast<int>(KTTestLoad(5000));
    std::thread consumer([&] {
        for (int got = 0; got < rounds;) {
            if (event.Wait(static_cast<unsigned int>(got % 2)) == 0) {
                ++got;
                taken.Set();
            }
        }
    });
    for (int i = 0; i < rounds; ++i) {
        event.Set();
        EXPECT_EQ(taken.Wait(20000), 0);
    }
    consumer.join();
    EXPECT_EQ(event.Check(), 0);
}
