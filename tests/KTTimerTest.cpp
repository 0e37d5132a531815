#include <KTBase/KTThread.h>
#include <KTBase/KTTime.h>
#include <KTBase/KTTimer.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "KTTestLoad.h"

namespace {

constexpr unsigned int kLongMs = 20000;

class Owner : public CKTObject {
public:
    int OnTimer(CKTObject* sender, unsigned int cmd, void* p0, void* p1) {
        EXPECT_EQ(cmd, 0u);
        EXPECT_TRUE(p0 == nullptr && p1 == nullptr);
        EXPECT_EQ(++inside, 1);
        ++fired;
        if (callback)
            callback(static_cast<IKTTimer*>(sender));
        --inside;
        once.Set();
        return 0;
    }
    std::function<void(IKTTimer*)> callback;
    std::atomic<int> fired{0};
    std::atomic<int> inside{0};
    CKTEvent once{true};
};

const KTSignalHandler kOnTimer = static_cast<KTSignalHandler>(&Owner::OnTimer);

struct Released {
    void operator()(IKTTimer* timer) const {
        timer->Stop();
        timer->Release();
    }
};
typedef std::unique_ptr<IKTTimer, Released> TimerPtr;

class Timers : public testing::Test {
protected:
    Timers() { EXPECT_EQ(IKTTimer::KTTimerInitialize(), 0); }
    ~Timers() override { EXPECT_EQ(IKTTimer::KTTimerInvalidate(), 0); }
};

}  // namespace

TEST_F(Timers, FireAtOnceOrAfterTheirIntervalAndAsOftenAsAllowed) {
    Owner owner;
    TimerPtr timer(IKTTimer::AcquireTimer());
    EXPECT_EQ(timer->Start(&owner, kOnTimer, 5, 3, true), 0);
    while (owner.fired < 3)  // two firings may leave one signal
        ASSERT_EQ(owner.once.Wait(kLongMs), 0);
    owner.once.Wait(60);  // the last one's
    EXPECT_EQ(owner.once.Wait(60), -2);
    EXPECT_EQ(owner.fired, 3);
    EXPECT_EQ(timer->Start(&owner, kOnTimer, 5, 3, true), -7);  // armed until it is stopped
    EXPECT_EQ(timer->Stop(), 0);
    const unsigned long long start = CKTTime::GetTimeMS();
    EXPECT_EQ(timer->Start(&owner, kOnTimer, 40, 1, false), 0);
    EXPECT_EQ(owner.once.Wait(kLongMs), 0);
    EXPECT_GE(CKTTime::GetTimeMS() - start, 40u);
    EXPECT_EQ(owner.fired, 4);
    timer->Stop();
    timer->Start(&owner, kOnTimer, 0, 0, false);  // a second
    EXPECT_EQ(owner.once.Wait(100), -2);
}

TEST_F(Timers, SixteenCallbacksRunAtOnceTheSeventeenthWhenOneIsDone) {
    CKTEvent go;
    std::atomic<int> running{0};
    CKTEvent entered{true};
    Owner owners[17];
    std::vector<TimerPtr> timers;
    for (Owner& owner : owners) {
        owner.callback = [&](IKTTimer*) {
            ++running;
            entered.Set();
            go.Wait(kLongMs);
        };
        timers.emplace_back(IKTTimer::AcquireTimer());
        EXPECT_EQ(timers.back()->Start(&owner, kOnTimer, 5, 1, true), 0);
    }
    while (running < 16)
        ASSERT_EQ(entered.Wait(kLongMs), 0);
    while (entered.Wait(60) == 0) {  // the last ones count themselves before they signal
    }
    EXPECT_EQ(running, 16);
    go.Set();
    while (running < 17)
        ASSERT_EQ(entered.Wait(kLongMs), 0);
    for (Owner& owner : owners)
        EXPECT_EQ(owner.once.Wait(kLongMs), 0);
}

TEST_F(Timers, StopWaitsForTheCallbackAndNothingComesAfterIt) {
    CKTEvent entered, go;
    Owner owner;
    owner.callback = [&](IKTTimer*) {
        entered.Set();
        go.Wait(kLongMs);
    };
    TimerPtr timer(IKTTimer::AcquireTimer());
    timer->Start(&owner, kOnTimer, 1, 0, true);
    ASSERT_EQ(entered.Wait(kLongMs), 0);
    CKTEvent stopped;
    std::thread stopper([&] {
        EXPECT_EQ(timer->Stop(), 0);
        EXPECT_EQ(owner.inside, 0);
        stopped.Set();
    });
    EXPECT_EQ(stopped.Wait(30), -2);
    go.Set();
    stopper.join();
    EXPECT_EQ(owner.once.Wait(0), 0);
    EXPECT_EQ(owner.once.Wait(60), -2);
}

TEST_F(Timers, MayBeStoppedAndRestartedInTheirOwnCallback) {
    Owner owner;
    owner.callback = [&](IKTTimer* self) {
        EXPECT_EQ(self->Stop(), 0);
        if (owner.fired < 5) {  // with a limit that ends it, then without
            EXPECT_EQ(self->Start(&owner, kOnTimer, 1, owner.fired == 4 ? 0 : 1, true), 0);
        }
    };
    TimerPtr timer(IKTTimer::AcquireTimer());
    timer->Start(&owner, kOnTimer, 1, 1, true);
    while (owner.fired < 5)
        ASSERT_EQ(owner.once.Wait(kLongMs), 0);
    owner.once.Wait(60);  // the last one's signal
    EXPECT_EQ(owner.once.Wait(60), -2);
    EXPECT_EQ(owner.fired, 5);
}

TEST_F(Timers, SurviveStartsAndStopsFromCallbacksAndOutside) {
    const unsigned int count = KTTestLoad(1000);
    std::deque<Owner> owners(count);
    std::vector<TimerPtr> timers;
    std::atomic<unsigned int> fired{0};
    for (unsigned int i = 0; i < count; ++i) {
        timers.emplace_back(IKTTimer::AcquireTimer());
        owners[i].callback = [&fired, i](IKTTimer* self) {
            ++fired;
            if (i % 5 == 0)
                self->Stop();
        };
        EXPECT_EQ(timers[i]->Start(&owners[i], kOnTimer, 1 + i % 20, i % 3, i % 2 == 0), 0);
    }
    std::mt19937 random(7);
    const unsigned int rounds = KTTestLoad(5000);
    for (unsigned int i = 0; i < rounds; ++i) {
        const unsigned int at = random() % count;
        timers[at]->Stop();
        EXPECT_EQ(owners[at].inside, 0);
        EXPECT_EQ(timers[at]->Start(&owners[at], kOnTimer, 1 + random() % 20, 0, true), 0);
    }
    while (fired < count)
        std::this_thread::yield();
}

TEST(TimersRacing, InitialiseAndInvalidateWhileTimersStartAndStop) {
    const unsigned int rounds = KTTestLoad(300);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            Owner owner;
            for (unsigned int i = 0; i < rounds; ++i) {
                EXPECT_EQ(IKTTimer::KTTimerInitialize(), 0);
                IKTTimer* timer = IKTTimer::AcquireTimer();
                ASSERT_NE(timer, nullptr);
                EXPECT_EQ(timer->Start(&owner, kOnTimer, 1, 0, true), 0);
                if (i % 2 == 0) {
                    EXPECT_EQ(owner.once.Wait(kLongMs), 0);
                }
                if (i % 3 == 0) {
                    EXPECT_EQ(IKTTimer::KTTimerInvalidate(), 0);
                }
                EXPECT_EQ(timer->Stop(), 0);
                if (i % 3 != 0) {
                    EXPECT_EQ(IKTTimer::KTTimerInvalidate(), 0);
                }
                timer->Release();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(IKTTimer::KTTimerInvalidate(), 0);  // one too many counts for nothing
    EXPECT_EQ(IKTTimer::AcquireTimer(), nullptr);
    Owner owner;
    IKTTimer::KTTimerInitialize();
    IKTTimer::KTTimerInitialize();
    IKTTimer::KTTimerInvalidate();
    IKTTimer* timer = IKTTimer::AcquireTimer();
    ASSERT_NE(timer, nullptr);
    EXPECT_EQ(timer->Start(&owner, kOnTimer, 5, 1, true), 0);
    IKTTimer::KTTimerInvalidate();  // still started: the manager lets go of it
    EXPECT_EQ(timer->Stop(), 0);
    EXPECT_EQ(timer->Start(&owner, kOnTimer, 5, 0, true), -7);
    EXPECT_EQ(timer->Release(), 0);
}
