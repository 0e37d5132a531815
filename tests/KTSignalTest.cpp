#include "KTBase/KTSignal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "KTHeap.h"

namespace {

constexpr unsigned int kShortMs = 50;  // long enough for a thread that does not wait to get through

struct Probe : CKTObject {
    Probe(std::function<void(unsigned int)> act = nullptr) : body(std::move(act)) {}
    ~Probe() override { alive = false; }
    int OnSignal(CKTObject*, unsigned int cmd, void* order, void*) {
        dead += !alive;
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
    static std::atomic<int> dead;  // calls of destroyed objects
};
std::atomic<int> Probe::dead{0};

const KTSignalHandler kHandler = static_cast<KTSignalHandler>(&Probe::OnSignal);

int Emit(IKTSignal& signal, unsigned int cmd, std::string* order = nullptr) {
    return signal.Commit(nullptr, cmd, order, nullptr);
}

TEST(Signal, KeepsEachPairOnceAndReportsUnknownOnes) {
    IKTSignal signal;
    Probe a, b;
    EXPECT_EQ(signal.Attach(nullptr, kHandler), -4);
    EXPECT_EQ(signal.Attach(&a, nullptr), -4);
    EXPECT_EQ(signal.Detach(static_cast<IKTCallback*>(nullptr)), -4);
    EXPECT_EQ(signal.Detach(&a, kHandler), -1);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(signal.Attach(&a, kHandler), 0);
    EXPECT_EQ(signal.Attach(&b, kHandler), 0);
    EXPECT_EQ(Emit(signal, 0), 2);
    EXPECT_EQ(a.calls, 1);
}

TEST(Signal, RefusesAtTheLimitAndThenShutsOutOtherThreads) {
    IKTSignal signal(5);  // reached when the second four places are in use
    Probe probes[9];
    CKTEvent refused, leave, through;
    std::thread first([&] {
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(signal.Attach(&probes[i], kHandler), 0) << i;
        EXPECT_EQ(signal.Attach(&probes[8], kHandler), -8);
        EXPECT_EQ(signal.Detach(&probes[2], kHandler), 0);
        EXPECT_EQ(signal.Attach(&probes[8], kHandler), 0);  // the freed place serves
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

TEST(Signal, EmissionSeesWhatCallbacksChange) {
    IKTSignal signal;
    Probe p[7];
    for (int i = 0; i < 7; ++i)
        p[i].name = static_cast<char>('0' + i);
    for (int i = 0; i < 4; ++i)
        signal.Attach(&p[i], kHandler);
    p[1].body = [&](unsigned int) {
        signal.Detach(&p[0], kHandler);
        signal.Attach(&p[4], kHandler);  // takes the place that was passed already
        signal.Detach(&p[2], kHandler);  // not reached yet
        signal.Detach(&p[1], kHandler);  // itself
    };
    p[3].body = [&](unsigned int cmd) {
        if (cmd == 1)
            for (Probe* late : {&p[2], &p[5], &p[6]})  // places 1, 2 and a new one
                signal.Attach(late, kHandler);
    };
    std::string order;
    EXPECT_EQ(Emit(signal, 1, &order), 4);
    EXPECT_EQ(order, "0136");
    order.clear();
    EXPECT_EQ(Emit(signal, 2, &order), 5);
    EXPECT_EQ(order, "42536");
    p[5].body = [&](unsigned int) { signal.Clear(); };
    EXPECT_EQ(Emit(signal, 3), 3);
    EXPECT_EQ(signal.GetCount(), 0u);
}

TEST(Signal, CallbackMayEmitAgainAndDetachItselfInsideOrAfterwards) {
    IKTSignal signal;
    Probe first, second;
    first.body = [&](unsigned int depth) {
        EXPECT_EQ(depth < 2 ? Emit(signal, depth + 1) - 2 : signal.Detach(&first, kHandler), 0);
    };
    second.body = [&](unsigned int depth) {
        EXPECT_EQ(depth == 0 ? Emit(signal, 3) - 1 + signal.Detach(&second, kHandler) : 0, 0);
    };
    signal.Attach(&first, kHandler);
    signal.Attach(&second, kHandler);
    EXPECT_EQ(Emit(signal, 0), 2);
    EXPECT_EQ(first.calls * 10 + second.calls, 34);
    EXPECT_EQ(signal.GetCount(), 0u);
}

// The callback runs twice, once inside itself; another thread takes the connection away while only
// the outer call is left.
TEST(Signal, DetachFromAnotherThreadWaitsForTheOutermostCall) {
    for (bool clear : {false, true}) {
        IKTSignal signal;
        CKTEvent returned;
        std::thread other;
        Probe probe;
        probe.body = [&](unsigned int cmd) {
            if (cmd != 0)
                return;
            Emit(signal, 1);
            other = std::thread([&] {
                EXPECT_EQ(clear ? signal.Clear() : signal.Detach(&probe, kHandler), 0);
                returned.Set();
            });
            while (signal.GetCount() != 0)
                std::this_thread::yield();
            EXPECT_EQ(signal.Detach(&probe, kHandler), -1);  // the other thread has it
            EXPECT_EQ(signal.Attach(&probe, kHandler), 0);   // a connection of its own
            EXPECT_EQ(signal.GetCount(), 1u);
            EXPECT_EQ(returned.Wait(kShortMs), -2);
        };
        signal.Attach(&probe, kHandler);
        EXPECT_EQ(Emit(signal, 0), 1);
        other.join();
        EXPECT_EQ(Emit(signal, 1), clear ? 0 : 1);
    }
}

TEST(Signal, LosesNothingWhileThreadsAttachDetachAndEmit) {
    constexpr int kRounds = 20000 / KTBASE_LOAD_DIVISOR + 1;
    IKTSignal signal;
    Probe steady;
    signal.Attach(&steady, kHandler);
    std::atomic<int> failures{0};
    Probe::dead = 0;
    auto emit = [&] {
        for (int i = 0; i < kRounds; ++i)
            failures += Emit(signal, 0) < 1;
    };
    auto churn = [&] {
        for (int i = 0; i < kRounds; ++i) {
            auto probe = std::make_unique<Probe>();
            if (i % 3 == 0)  // emits in turn
                probe->body = [&](unsigned int cmd) { cmd == 0 ? Emit(signal, 1) : 0; };
            failures += signal.Attach(probe.get(), kHandler) != 0;
            failures += signal.Detach(probe.get(), kHandler) != 0;
        }
    };
    std::thread threads[] = {std::thread(emit), std::thread(churn), std::thread(churn)};
    emit();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(Probe::dead, 0);
    EXPECT_GE(steady.calls, 2 * kRounds);
    EXPECT_EQ(signal.GetCount(), 1u);
}

TEST(Signal, StaysUsableWhenMemoryRunsOut) {
    Probe probe;
    int result = -6;
    for (unsigned int nth = 1; result == -6; ++nth) {
        IKTSignal signal;
        KTHeapFailAt(nth);
        result = signal.Attach(&probe, kHandler);
        KTHeapFailAt(0);
        EXPECT_TRUE(result == 0 || (result == -6 && nth < 10)) << result;
        std::thread([&] { EXPECT_EQ(signal.GetCount(), result == 0 ? 1u : 0u); }).join();
        EXPECT_EQ(signal.Attach(&probe, kHandler), 0);
    }
}

int Record(void* context, unsigned int cmd, void* sender, void* p0, void* p1) {
    void* args[] = {sender, p0, p1};
    std::memcpy(context, args, sizeof(args));
    return static_cast<int>(cmd);
}

TEST(Callback, HandsOverAllThatTheSignalWasEmittedWith) {
    void* seen[3] = {};
    IKTCallback callback(seen, Record);
    IKTSignal signal;
    EXPECT_EQ(signal.Attach(&callback), 0);
    EXPECT_EQ(signal.Commit(&signal, 7, &seen[1], &seen[2]), 1);
    EXPECT_TRUE(seen[0] == &signal && seen[1] == &seen[1] && seen[2] == &seen[2]);
    EXPECT_EQ(callback.OnSignal(nullptr, 9, nullptr, nullptr), 9);
    EXPECT_EQ(signal.Detach(&callback), 0);
}

}  // namespace
