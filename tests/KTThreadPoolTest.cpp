#include <KTBase/KTString.h>
#include <KTBase/KTThreadPool.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KTTestLoad.h"

namespace {

constexpr unsigned int kLongMs = 20000;

// Notes what its handlers are given; hooks run inside them.
class Served : public CKTObject {
public:
    int Serve(CKTMessageT* msg, unsigned int, unsigned int& waitMs) {
        ++inside;
        if (msg == nullptr) {
            if (onPoll)
                onPoll(waitMs);
        } else {
            {
                std::lock_guard<std::mutex> hold(lock);
                commands.push_back(msg->Command());
            }
            if (onMessage)
                onMessage(*msg);
            told.Set();
        }
        --inside;
        return 0;
    }
    int Second(CKTMessageT* msg, unsigned int, unsigned int&) {
        seconds += msg != nullptr && msg->Command() != 2;
        told.Set();
        return 0;
    }
    std::vector<unsigned int> Commands() {
        std::lock_guard<std::mutex> hold(lock);
        return commands;
    }

    std::function<void(unsigned int&)> onPoll;
    std::function<void(CKTMessageT&)> onMessage;
    CKTEvent told{true};
    std::atomic<unsigned int> inside{0}, seconds{0};
    std::mutex lock;
    std::vector<unsigned int> commands;
};

const KTWorkerHandler kServe = static_cast<KTWorkerHandler>(&Served::Serve);
const KTWorkerHandler kSecond = static_cast<KTWorkerHandler>(&Served::Second);

// What the thread table says of the threads whose name contains part.
int ThreadsNamed(const std::string& part) {
    testing::internal::CaptureStdout();
    CKTString table;
    CKTThread::THDDump(table, -1);
    testing::internal::GetCapturedStdout();
    const std::string text = table.GetBuffer();
    int found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size())
        ++found;
    return found;
}

}  // namespace

TEST(Worker, GivesEachHandlerOfAnObjectItsMessagesAndNoOthers) {
    CKTThreadWorker worker(0, nullptr, 0, 30);
    Served one, other;
    int param = 0;
    one.onMessage = [&](CKTMessageT& msg) {
        EXPECT_EQ(msg.Param0(), &one);
        EXPECT_EQ(msg.Param1(), msg.Command() == 2 ? nullptr : &param);
    };
    EXPECT_EQ(worker.Attach(&one, kServe), 0);
    EXPECT_EQ(worker.Attach(&other, kServe), 0);
    EXPECT_EQ(worker.Attach(&one, kSecond), 0);
    EXPECT_EQ(worker.Attach(&one, kServe), -7);
    EXPECT_EQ(worker.GetObjectNum(), 3u);
    EXPECT_EQ(worker.PostWorkerMessage(&one, 50, &param), 0);
    EXPECT_EQ(worker.PostWorkerMessage(&one, 1, &param), -4);  // would stop the worker
    EXPECT_EQ(worker.PostWorkerMessage(&one, 51, &param), 0);
    while (one.seconds < 2)
        ASSERT_EQ(one.told.Wait(kLongMs), 0);
    EXPECT_EQ(worker.Detach(&one, kSecond), 0);
    EXPECT_EQ(worker.Detach(&one, kServe), 0);
    EXPECT_EQ(worker.Detach(&one, kServe), -1);
    EXPECT_EQ(worker.PostWorkerMessage(&one, 50, &param), -11);
    EXPECT_EQ(worker.Detach(&other, kServe), 0);
    EXPECT_EQ(one.Commands(), (std::vector<unsigned int>{2, 2, 50, 51}));  // 2 per attachment
    EXPECT_EQ(other.Commands(), (std::vector<unsigned int>{2}));
}

TEST(Worker, PollsAtThePaceItsHandlersAskFor) {
    CKTThreadWorker worker(0, nullptr, 0, 30);
    Served object;
    std::atomic<unsigned int> polls{0}, offered{0};
    object.onPoll = [&](unsigned int& waitMs) {
        offered = waitMs;
        waitMs = 0;
        ++polls;
    };
    worker.Attach(&object, kServe);
    while (polls < 5000)  // so many rounds of 100 ms would not end in time
        std::this_thread::yield();
    worker.Detach(&object, kServe);
    EXPECT_EQ(offered, 100u);
}

TEST(Worker, DetachWaitsForTheRunningHandlerAndNothingComesAfterIt) {
    CKTThreadWorker worker(0, nullptr, 0, 30);
    Served object;
    CKTEvent go;
    object.onMessage = [&](CKTMessageT&) { go.Wait(kLongMs); };
    worker.Attach(&object, kServe);
    while (object.inside == 0 || object.Commands().empty())
        std::this_thread::yield();
    CKTEvent detached;
    std::thread detacher([&] {
        EXPECT_EQ(worker.Detach(&object, kServe), 0);
        EXPECT_EQ(object.inside, 0u);
        detached.Set();
    });
    while (worker.GetObjectNum() != 0)
        std::this_thread::yield();
    EXPECT_EQ(detached.Check(), 0);
    go.Set();
    detacher.join();
}

TEST(Pool, MakesAWorkerPerSlotThenTakesTheLeastLoaded) {
    CKTThreadPool pool(2, "spread", 0, 30);
    Served objects[5];
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ThreadsNamed("KTTP_spread_"), i < 2 ? i : 2);
        EXPECT_EQ(pool.Attach(&objects[i], kServe), 0);
    }
    EXPECT_EQ(pool.Attach(&objects[3], kServe), -17);
    EXPECT_EQ(pool.GetObjectNum(), 5u);
    EXPECT_EQ(pool.PostPoolMessage(&objects[4], 80, nullptr), 0);
    EXPECT_EQ(pool.PostPoolMessage(&objects[4], 1, nullptr), -4);
    EXPECT_EQ(pool.PostPoolMessage(&pool, 80, nullptr), -11);
    while (objects[4].Commands().size() < 2)
        ASSERT_EQ(objects[4].told.Wait(kLongMs), 0);
    EXPECT_EQ(pool.Detach(&pool, kServe), -11);
    // The first slot holds 0, 2 and 4 by now: with them its worker goes.
    for (int i : {0, 2, 4}) {
        EXPECT_EQ(ThreadsNamed("KTTP_spread_0"), 1) << i;
        EXPECT_EQ(pool.Detach(&objects[i], kServe), 0);
    }
    EXPECT_EQ(ThreadsNamed("KTTP_spread_0"), 0);
    EXPECT_EQ(ThreadsNamed("KTTP_spread_1"), 1);
    EXPECT_EQ(pool.Attach(&objects[0], kServe), 0);
    EXPECT_EQ(ThreadsNamed("KTTP_spread_0"), 1);
    EXPECT_EQ(pool.Clear(), 0);
    EXPECT_EQ(ThreadsNamed("KTTP_spread_"), 0);
}

TEST(Pool, AWorkerThatEmptiesItselfIsDeletedByALaterCall) {
    auto pool = std::make_unique<CKTThreadPool>(0, nullptr, 0, 30);  // one worker, no name
    char name[40];
    std::snprintf(name, sizeof(name), "KTTP_%p_0", static_cast<void*>(pool.get()));
    Served object, later;
    object.onMessage = [&](CKTMessageT&) { EXPECT_EQ(pool->Detach(&object, kServe), 0); };
    EXPECT_EQ(pool->Attach(&object, kServe), 0);
    ASSERT_EQ(object.told.Wait(kLongMs), 0);
    EXPECT_EQ(pool->Attach(&later, kServe), 0);
    EXPECT_EQ(ThreadsNamed(name), 1);  // the new one; the old one is gone
    EXPECT_EQ(pool->Detach(&later, kServe), 0);
    EXPECT_EQ(pool->Attach(&object, kServe), 0);
    ASSERT_EQ(object.told.Wait(kLongMs), 0);
    pool.reset();
    EXPECT_EQ(ThreadsNamed(name), 0);
}

TEST(PoolEx, PrefersAnIdleWorkerAndKeepsItsWorkers) {
    CKTThreadPoolEx pool(2, "ex", 0, 30);
    Served objects[5];
    EXPECT_EQ(pool.Attach(&objects[0], kServe), 0);
    EXPECT_EQ(pool.Attach(&objects[0], kServe), 0);
    EXPECT_EQ(pool.GetObjectNum(), 1u);
    EXPECT_EQ(pool.Detach(&objects[0], kServe), 0);
    EXPECT_EQ(pool.Attach(&objects[1], kServe), 0);
    EXPECT_EQ(ThreadsNamed("KTTP_ex_"), 1);  // the idle one, no new one
    for (int i = 2; i < 5; ++i)
        EXPECT_EQ(pool.Attach(&objects[i], kServe), 0);
    EXPECT_EQ(ThreadsNamed("KTTP_ex_"), 2);
    EXPECT_EQ(pool.Detach(&objects[0], kServe), -11);
    for (int i = 1; i < 5; ++i)
        EXPECT_EQ(pool.Detach(&objects[i], kServe), 0);
    EXPECT_EQ(ThreadsNamed("KTTP_ex_"), 2);
}

// Four threads attach, post and detach their own objects, whose handlers use the pool too.
template <typename Pool>
void Churn() {
    Pool pool(3, "churn", 0, 30);
    const unsigned int rounds = KTTestLoad(2000);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            Served object, inner;
            object.onPoll = [](unsigned int& waitMs) { waitMs = 1; };
            object.onMessage = [&](CKTMessageT& msg) {
                if (msg.Command() == 90) {
                    pool.Attach(&inner, kServe);
                    pool.PostPoolMessage(&inner, 92, nullptr);
                } else if (msg.Command() == 91) {
                    pool.Detach(&inner, kServe);
                }
            };
            for (unsigned int i = 0; i < rounds; ++i) {
                EXPECT_EQ(pool.Attach(&object, kServe), 0);
                EXPECT_EQ(pool.PostPoolMessage(&object, 90 + i % 2, nullptr), 0);
                if (i % 3 == 0)
                    object.told.Wait(kLongMs);
                EXPECT_EQ(pool.Detach(&object, kServe), 0);
                EXPECT_EQ(object.inside, 0u);
            }
            while (pool.Detach(&inner, kServe) == 0) {  // it may be attached more than once
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(pool.GetObjectNum(), 0u);
}

TEST(Pool, IsChurnedByFourThreads) {
    Churn<CKTThreadPool>();
}

TEST(PoolEx, IsChurnedByFourThreads) {
    Churn<CKTThreadPoolEx>();
}
