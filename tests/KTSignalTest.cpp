#include <KTBase/KTSignal.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "KTHeap.h"
#include "KTTestLoad.h"

namespace {

constexpr unsigned int kShortMs = 50;  // long enough for a thread that does not wait to get through

std::atomic<int> g_deadCalls{0};  // calls of destroyed objects

struct Probe : CKTObject {
    ~Probe() override { alive = false; }
    int OnSignal(CKTObject*, unsigned int cmd, void* order, void*) {
        g_deadCalls += !alive;
        ++calls;
        if (order != nullptr)
            *static_cast<std::string*>(order) += name;
        if (body)
            body(cmd);
        return -1;
    }
    std::function<void(unsigned int)> body;
    char name = '?';
    std::atomic<int> calls{0};
    std::atomic<bool> alive{true};
};

class Signal : public testing::Test {
protected:
    int Attach(Probe& probe) { return signal.Attach(&probe, handler); }
    int Detach(Probe& probe) { return signal.Detach(&probe, handler); }
    int Emit(unsigned int cmd, std::string* order = nullptr) {
        return signal.Commit(nullptr, cmd, order, nullptr);
    }
    const KTSignalHandler handler = static_cast<KTSignalHandler>(&Probe::OnSignal);
    IKTSignal signal{5};  // reached when the second four places are in use
};

TEST_F(Signal, RefusesAtItsLimitAndThenShutsOutOtherThreads) {
    Probe probes[9];
    CKTEvent refused, leave, through;
    std::thread first([&] {
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(Attach(probes[i]), 0) << i;
        EXPECT_EQ(Attach(probes[8]), -8);
        EXPECT_EQ(Detach(probes[2]), 0);
        EXPECT_EQ(Attach(probes[8]), 0);  // the freed place serves
        refused.Set();
        leave.Wait(KT_INFINITE);
    });
    refused.Wait(KT_INFINITE);
    std::thread second([&] {
        EXPECT_EQ(signal.GetCount(), 8u);
        through.Set();
    });
    EXPECT_EQ(through.Wait(kShortMs), -2);
    leave.Set();
    first.join();  // its end frees the lock
    second.join();
}

TEST_F(Signal, EmissionSeesWhatCallbacksChange) {
    Probe p[7];
    for (int i = 0; i < 7; ++i)
        p[i].name = static_cast<char>('0' + i);
    for (int i : {0, 0, 1, 2, 3})  // the second time changes nothing
        EXPECT_EQ(Attach(p[i]), 0);
    p[1].body = [&](unsigned int) {
        Detach(p[0]);
        Attach(p[4]);  // place 0 has been passed
        Detach(p[2]);
        Attach(p[5]);  // place 2 is still to come
        Attach(p[6]);  // a new place
        Detach(p[1]);
    };
    std::string order;
    EXPECT_EQ(Emit(1, &order), 5);
    EXPECT_EQ(Emit(2, &order), 4);
    EXPECT_EQ(order, "015364536");
    p[5].body = [&](unsigned int) { signal.Clear(); };
    EXPECT_EQ(Emit(3), 2);
    EXPECT_EQ(Emit(4), 0);
}

TEST_F(Signal, CallbackMayEmitAgainAndDetachItselfInsideOrAfterwards) {
    Probe first, second;
    first.body = [&](unsigned int depth) {
        EXPECT_EQ(depth < 2 ? Emit(depth + 1) - 2 : Detach(first), 0);
    };
    second.body = [&](unsigned int depth) {
        EXPECT_EQ(depth == 0 ? Emit(3) - 1 + Detach(second) : 0, 0);
    };
    Attach(first);
    Attach(second);
    EXPECT_EQ(Emit(0), 2);
    EXPECT_EQ(first.calls * 10 + second.calls, 34);
    EXPECT_EQ(signal.GetCount(), 0u);
}

// The callback runs twice, once inside itself; another thread takes the connection away while only
// the outer call is left.
TEST_F(Signal, DetachFromAnotherThreadWaitsForTheOutermostCall) {
    for (bool clear : {false, true}) {
        CKTEvent returned;
        std::thread other;
        Probe probe;
        probe.body = [&](unsigned int cmd) {
            if (cmd != 0)
                return;
            Emit(1);
            other = std::thread([&] {
                EXPECT_EQ(clear ? signal.Clear() : Detach(probe), 0);
                returned.Set();
            });
            while (signal.GetCount() != 0)
                std::this_thread::yield();
            EXPECT_EQ(Detach(probe), -1);  // the other thread has it
            EXPECT_EQ(Attach(probe), 0);   // a connection of its own
            EXPECT_EQ(returned.Wait(kShortMs), -2);
        };
        Attach(probe);
        EXPECT_EQ(Emit(0), 1);
        other.join();
        EXPECT_EQ(Emit(1), clear ? 0 : 1);
        signal.Clear();
    }
}

TEST_F(Signal, LosesNothingWhileThreadsAttachDetachAndEmit) {
    const unsigned int rounds = KTTestLoad(20000, 500000);
    Probe steady;
    Attach(steady);
    std::atomic<int> failures{0};
    auto emit = [&] {
        for (unsigned int i = 0; i < rounds; ++i)
            failures += Emit(0) < 1;
    };
    auto churn = [&] {
        for (unsigned int i = 0; i < rounds; ++i) {
            auto probe = std::make_unique<Probe>();
            if (i % 3 == 0)  // emits in turn
                probe->body = [&](unsigned int cmd) { cmd == 0 ? Emit(1) : 0; };
            failures += Attach(*probe) != 0;
            failures += Detach(*probe) != 0;
        }
    };
    std::thread threads[] = {std::thread(emit), std::thread(churn), std::thread(churn)};
    emit();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(g_deadCalls, 0);
    EXPECT_GE(steady.calls, static_cast<int>(2 * rounds));
    EXPECT_EQ(signal.GetCount(), 1u);
}

TEST_F(Signal, StaysUsableWhenMemoryRunsOut) {
    Probe probe;
    int result = -6;
    for (unsigned int nth = 1; result != 0; ++nth, signal.Clear()) {
        KTHeapFailAt(nth);
        result = Attach(probe);
        KTHeapFailAt(0);
        ASSERT_EQ(result, nth < 4 ? -6 : 0) << nth;  // the record, its event, the places
        std::thread([&] { EXPECT_EQ(signal.GetCount(), result == 0 ? 1u : 0u); }).join();
        EXPECT_EQ(Attach(probe), 0);
    }
    EXPECT_EQ(Detach(probe), -1);
}

TEST_F(Signal, HandsAPlainFunctionAllThatItWasEmittedWith) {
    std::string seen;
    auto record = [](void* context, unsigned int cmd, void* sender, void* p0, void* p1) {
        *static_cast<std::string*>(context) =
            std::to_string(cmd) + *static_cast<char*>(p0) + *static_cast<char*>(p1);
        return sender == nullptr ? -3 : 3;
    };
    IKTCallback callback(&seen, record);
    char a = 'a', b = 'b';
    EXPECT_EQ(signal.Attach(&callback), 0);
    EXPECT_EQ(signal.Commit(&signal, 7, &a, &b), 1);
    EXPECT_EQ(seen, "7ab");
    EXPECT_EQ(callback.OnSignal(nullptr, 9, &a, &b), -3);
    EXPECT_EQ(signal.Detach(&callback), 0);
}

}  // namespace
