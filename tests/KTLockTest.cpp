#include <KTBase/KTLock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
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

}  // namespace

TEST(Mutex, OnlyItsOwnerEntersAgainAndLeavesAsOften) {
    CKTMutex mutex;
    EXPECT_EQ(mutex.Enter(0), 1);
    EXPECT_EQ(mutex.Enter(KT_INFINITE), 1);
    EXPECT_EQ(OnOtherThread([](CKTMutex& m) { return m.Leave(); }, mutex), 0);
    EXPECT_NE(mutex.Leave(), 0);
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(OnOtherThread([](CKTMutex& m) { return m.Enter(30); }, mutex), 0);
    // Wine's clocks may differ by a tick.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(28));
    EXPECT_NE(mutex.Leave(), 0);
    EXPECT_EQ(OnOtherThread(TryEnter, mutex), 1);
    EXPECT_EQ(mutex.Leave(), 0);
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
}

TEST(Mutex, CopiesShareOneLock) {
    auto first = std::make_unique<CKTMutex>();
    CKTMutex second(*first), third;
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

TEST(Event, ReleasesThoseWhoWaitWhateverFollowsTheSet) {
    for (const bool autoReset : {true, false}) {
        CKTEvent event(autoReset);
        std::atomic<int> ready{0}, released{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 2; ++i) {
            waiters.emplace_back([&] {
                ++ready;
                released += event.Wait(20000) == 0;
            });
        }
        // The waiters report that they are about to wait; a short rest then lets them reach the
        // wait. Too short a rest only makes the test easier to pass, never fails it.
        while (ready < 2)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        event.Set();
        if (autoReset)
            event.Set();
        else
            event.Reset();
        for (std::thread& waiter : waiters)
            waiter.join();
        EXPECT_EQ(released, 2);
        EXPECT_EQ(event.Check(), 0);
    }
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
    CKTEvent event(true), taken(true);
    const int rounds = static_cast<int>(KTTestLoad(1000));
    std::thread consumer([&] {
        for (int got = 0; got < rounds;) {
            if (event.Wait(static_cast<unsigned int>(got % 2)) == 0) {
                ++got;
                taken.Set();
            }
        }
    });
    for (int i = 0; i < rounds; ++i) {
        // Meets the end of the consumer's wait now and then.
        std::this_thread::sleep_for(std::chrono::microseconds(850 + i % 200));
        event.Set();
        EXPECT_EQ(taken.Wait(20000), 0);
    }
    consumer.join();
    EXPECT_EQ(event.Check(), 0);
}
