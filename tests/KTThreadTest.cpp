#include <KTBase/KTDebug.h>
#include <KTBase/KTString.h>
#include <KTBase/KTThread.h>
#include <KTBase/KTTime.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "KTTestLoad.h"

namespace {

constexpr unsigned int kLongMs = 20000;  // fails a test that would hang

// Takes messages until told to stop; command 7 holds it until go is set, 9 ends the body.
class Worker : public CKTThread {
public:
    explicit Worker(const char* name = nullptr, int priority = 30) : CKTThread(name, 0, priority) {}
    ~Worker() override { ThreadStop(); }

    CKTEvent holding{true};
    CKTEvent go{true};
    std::vector<unsigned int> handled;
    std::atomic<unsigned int> handledCount{0};
    std::atomic<unsigned int> cancelled{0};
    std::atomic<unsigned int> runs{0};
    std::atomic<bool> closed{false};

protected:
    unsigned int OnThread() override {
        ++runs;
        CKTMessageT message;
        while (GetMessage(message, kLongMs) == 0 && message.Command() != 1 &&
               message.Command() != 9) {
            if (message.Command() == 7) {
                holding.Set();
                go.Wait(kLongMs);
                continue;
            }
            handled.push_back(message.Command());
            ++handledCount;
        }
        return 5;
    }
    int OnMessageCancel(CKTMessageT* msg) override {
        if (msg->Command() != 1)
            ++cancelled;
        return CKTThread::OnMessageCancel(msg);
    }
    int OnThreadClose() override {
        const int result = CKTThread::OnThreadClose();
        std::this_thread::yield();
        closed = true;
        return result;
    }
};

// Runs what it is given, on itself.
class Once : public CKTThread {
public:
    explicit Once(int (*body)(Once&)) : m_body(body) {}
    ~Once() override { ThreadStop(); }
    int result = 12345;
    CKTEvent done;

protected:
    unsigned int OnThread() override {
        result = m_body(*this);
        done.Set();
        return 0;
    }

private:
    int (*m_body)(Once&);
};

std::string LineOf(CKTThread& thread) {
    CKTString text;
    thread.Dump(text);
    return text.GetBuffer();
}

std::string Table(int index) {
    testing::internal::CaptureStdout();  // THDDump prints the table too
    CKTString text;
    CKTThread::THDDump(text, index);
    testing::internal::GetCapturedStdout();
    return text.GetBuffer();
}

int SlotOf(CKTThread& thread) {
    return std::stoi(LineOf(thread));
}

}  // namespace

TEST(Thread, HandlesMessagesInPostingOrderAndEndsAtTheStop) {
    Worker worker("order");
    EXPECT_EQ(worker.ThreadStart(), 0);
    for (unsigned int cmd = 10; cmd < 20; ++cmd)
        EXPECT_EQ(worker.KTPostMessage(cmd, nullptr, nullptr, 0), 0);
    EXPECT_NE(worker.IsRunning(), 0);
    EXPECT_EQ(worker.PostMessage(7, nullptr, nullptr, 0), 0);
    EXPECT_EQ(worker.holding.Wait(kLongMs), 0);
    worker.go.Set();
    EXPECT_EQ(worker.ThreadStop(), 0);
    EXPECT_EQ(worker.IsRunning(), 0);
    EXPECT_EQ(worker.handled, (std::vector<unsigned int>{10, 11, 12, 13, 14, 15, 16, 17, 18, 19}));
    EXPECT_EQ(worker.ThreadStop(), 0);
}

TEST(Thread, WhatTheBodyDidNotTakeIsCancelled) {
    Worker worker;
    worker.ThreadStart();
    for (unsigned int cmd : {7u, 9u, 20u, 21u})
        EXPECT_EQ(worker.KTPostMessage(cmd, nullptr, nullptr, 0), 0);
    worker.go.Set();
    worker.ThreadStop();
    EXPECT_EQ(worker.handled.size(), 0u);
    EXPECT_EQ(worker.cancelled, 2u);
    EXPECT_EQ(worker.GetMessageCount(), 0u);
}

TEST(Thread, AStopIsOneMessageAtTheTail) {
    Worker worker;
    worker.ThreadStart();
    worker.KTPostMessage(7, nullptr, nullptr, 0);
    ASSERT_EQ(worker.holding.Wait(kLongMs), 0);
    worker.KTPostMessage(20, nullptr, nullptr, 0);
    std::thread stopper([&] { worker.ThreadStop(); });
    while (worker.IsRunning() != 0)
        std::this_thread::yield();
    EXPECT_EQ(worker.GetMessageCount(), 2u);
    EXPECT_FALSE(worker.closed);
    worker.go.Set();
    stopper.join();
    EXPECT_EQ(worker.handled, std::vector<unsigned int>{20});
}

TEST(Thread, RefusesAPostUnlessItStartsOrRuns) {
    Worker worker;
    testing::internal::CaptureStdout();
    EXPECT_EQ(worker.KTPostMessage(8, nullptr, nullptr, 0), -7);
    EXPECT_EQ(worker.PostMessage(8, nullptr, nullptr, 0), -7);
    const std::string faults = testing::internal::GetCapturedStdout();
    EXPECT_NE(faults.find("CKTThread::KTPostMessage(604)--------->Invalid state.\n"),
              std::string::npos)
        << faults;
    EXPECT_NE(faults.find("CKTThread::PostMessageW(615)--------->Invalid state.\n"),
              std::string::npos)
        << faults;
    EXPECT_EQ(worker.GetMessageCount(), 0u);
}

TEST(Thread, GivesMessagesToWhoeverTakesThem) {
    Once thread([](Once& self) {
        CKTMessageT* owned = nullptr;
        CKTMessageT copied;
        int wrong = self.GetMessage(owned, 0) == -2 && owned == nullptr ? 0 : 1;
        self.KTPostMessage(40, &self, &owned, 77);
        self.KTPostMessage(41, nullptr, nullptr, 0);
        wrong += self.KTGetMessage(owned, 0) != 0;
        wrong += owned->Command() != 40 || owned->Param0() != &self || owned->Param1() != &owned ||
                 owned->TimeStamp() != 77;
        delete owned;
        wrong += self.KTGetMessage(copied, 0) != 0 || copied.Command() != 41;
        wrong += static_cast<unsigned int>(CKTTime::GetTimeMS()) - copied.TimeStamp() > kLongMs;
        return wrong;
    });
    thread.ThreadStart();
    EXPECT_EQ(thread.done.Wait(kLongMs), 0);
    EXPECT_EQ(thread.result, 0);
}

TEST(Thread, StartsOnceAndCanBeStartedAgain) {
    Worker worker;
    EXPECT_EQ(worker.GetThreadID(), 0u);
    for (unsigned int run = 1; run <= 3; ++run) {
        EXPECT_EQ(worker.ThreadStart(), 0);
        EXPECT_EQ(worker.ThreadStart(), 0);
        EXPECT_EQ(worker.KTPostMessage(7, nullptr, nullptr, 0), 0);
        ASSERT_EQ(worker.holding.Wait(kLongMs), 0);
        EXPECT_EQ(worker.runs, run);
        EXPECT_NE(worker.GetThreadID(), 0u);
        EXPECT_NE(worker.GetThreadID(), CKTThread::GetCurrentThreadID());
        worker.go.Set();
        worker.ThreadStop();
    }
}

TEST(Thread, StopReturnsOnlyWhenTheThreadHasLeftTheObject) {
    for (unsigned int i = 0; i < KTTestLoad(300); ++i) {
        Worker worker;
        worker.ThreadStart();
        worker.ThreadStop();
        EXPECT_TRUE(worker.closed);
    }
}

TEST(Thread, MayStopItselfButNotStartItselfAnewMeanwhile) {
    Once stopping([](Once& self) {
        const int stopped = self.ThreadStop();
        return stopped == 0 && self.IsRunning() == 0 ? self.ThreadStart() : 1;
    });
    EXPECT_EQ(stopping.ThreadStart(), 0);
    EXPECT_EQ(stopping.done.Wait(kLongMs), 0);
    EXPECT_EQ(stopping.result, -1);
    EXPECT_EQ(stopping.ThreadStart(), 0);  // waits for the old run, then starts
    EXPECT_EQ(stopping.ThreadStop(), 0);
}

TEST(Thread, ABodyThatEndsByItselfLeavesTheStateIdle) {
    Once thread([](Once&) { return 3; });
    thread.ThreadStart();
    EXPECT_EQ(thread.done.Wait(kLongMs), 0);
    thread.ThreadStop();
    EXPECT_NE(LineOf(thread).find("    Idle"), std::string::npos);
}

TEST(Thread, TakesEveryMessageOfManyPosters) {
    Worker worker;
    worker.ThreadStart();
    const unsigned int perThread = KTTestLoad(25000);
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&] {
            for (unsigned int i = 0; i < perThread; ++i)
                EXPECT_EQ(worker.KTPostMessage(100 + i, nullptr, nullptr, 1), 0);
        });
    }
    for (std::thread& poster : posters)
        poster.join();
    worker.KTPostMessage(7, nullptr, nullptr, 0);
    ASSERT_EQ(worker.holding.Wait(kLongMs), 0);
    EXPECT_EQ(worker.handledCount, 4 * perThread);
    worker.go.Set();
}

TEST(Thread, SurvivesStartersStoppersAndPostersRacing) {
    const unsigned int cycles = KTTestLoad(1000, 20000);
    Worker worker;
    std::atomic<bool> over{false};
    std::vector<std::thread> others;
    for (int t = 0; t < 2; ++t) {
        others.emplace_back([&] {
            while (!over) {
                worker.ThreadStop();
                std::this_thread::yield();
            }
        });
    }
    others.emplace_back([&] {
        while (!over) {
            if (worker.IsRunning() != 0)
                worker.KTPostMessage(8, nullptr, nullptr, 0);
            std::this_thread::yield();
        }
    });
    testing::internal::CaptureStdout();  // posts refused meanwhile are reported
    while (worker.runs < cycles)
        ASSERT_EQ(worker.ThreadStart(), 0);
    over = true;
    for (std::thread& other : others)
        other.join();
    testing::internal::GetCapturedStdout();
    worker.ThreadStop();
    EXPECT_EQ(worker.GetMessageCount(), 0u);
    EXPECT_NE(LineOf(worker).find("    Idle"), std::string::npos);
}

TEST(ThreadTable, ALineHasSlotNameStatePriorityStackAndIdentifier) {
    Worker idle("recorder", 12);
    char expected[200];
    std::snprintf(expected, sizeof(expected),
                  "%4d                   recorder      Idle    12      0      0\n", SlotOf(idle));
    EXPECT_EQ(LineOf(idle), expected);

    Worker unnamed("");
    std::snprintf(expected, sizeof(expected), "Thread_%p", static_cast<void*>(&unnamed));
    EXPECT_NE(LineOf(unnamed).find(expected), std::string::npos);

    idle.ThreadStart();
    idle.KTPostMessage(7, nullptr, nullptr, 0);
    ASSERT_EQ(idle.holding.Wait(kLongMs), 0);
    std::snprintf(expected, sizeof(expected), "      Run    12      0  %5x\n", idle.GetThreadID());
    EXPECT_NE(LineOf(idle).find(expected), std::string::npos) << LineOf(idle);
    idle.go.Set();
}

TEST(ThreadTable, GrowsBy128AndStartsAfreshWhenTheLastIsGone) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < 129; ++i) {
        workers.emplace_back(new Worker);
        EXPECT_EQ(SlotOf(*workers.back()), i);
    }
    for (auto& worker : workers)
        EXPECT_EQ(worker->ThreadStart(), 0);
    const std::string all = Table(-1);
    EXPECT_EQ(all.find("Dump All Threads, Total Number = 129\n"
                       "  ID                       Name     State  Prio  Stack    TID\n"
                       "   0"),
              0u)
        << all;
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 2 + 129 + 1);
    const std::string one = Table(128);
    EXPECT_NE(one.find("\n 128  "), std::string::npos) << one;
    EXPECT_EQ(std::count(one.begin(), one.end(), '\n'), 2 + 1 + 1);
    workers.erase(workers.begin() + 5);
    EXPECT_EQ(Table(5),
              "Dump All Threads, Total Number = 128\n"
              "  ID                       Name     State  Prio  Stack    TID\n\n");
    workers.emplace_back(new Worker);
    EXPECT_EQ(SlotOf(*workers.back()), 5);  // the first free one
    workers.clear();
    Worker fresh;
    EXPECT_EQ(SlotOf(fresh), 0);
}

TEST(BareThread, RunsItsFunctionAndIsClosedByItsHandle) {
    struct Shared {
        CKTEvent ran;
        unsigned int id = 0;
    } shared;
    unsigned long id = 0;
    void* handle = CKTThread::KTThreadCreate(
        [](void* arg) -> unsigned long {
            static_cast<Shared*>(arg)->id = CKTThread::GetCurrentThreadID();
            static_cast<Shared*>(arg)->ran.Set();
            return 0;
        },
        &shared, 64 * 1024, 30, id);
    ASSERT_NE(handle, reinterpret_cast<void*>(-1));
    EXPECT_EQ(shared.ran.Wait(kLongMs), 0);
    EXPECT_EQ(shared.id, id);
    EXPECT_EQ(CKTThread::KTThreadDestroy(handle), 0);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(CKTThread::KTThreadDestroy(handle), -5);
    handle = CKTThread::KTThreadCreate([](void*) -> unsigned long { return 0; }, nullptr, ~0ull / 2,
                                       30, id);  // no such stack
    EXPECT_EQ(handle, reinterpret_cast<void*>(-1));
    EXPECT_EQ(CKTThread::KTThreadDestroy(handle), 0);
}

// Linux shows a thread's nice value as field 19 of its stat line; elsewhere there is no such file.
TEST(BareThread, PrioritiesBecomeFiveSteps) {
    struct Case {
        int priority;
        int nice;
    };
    for (const Case& c : {Case{10, -10}, Case{11, -5}, Case{20, -5}, Case{21, 0}, Case{30, 0},
                          Case{31, 5}, Case{40, 5}, Case{41, 10}}) {
        Worker worker("", c.priority);
        worker.ThreadStart();
        std::ifstream stat("/proc/self/task/" + std::to_string(worker.GetThreadID()) + "/stat");
        std::string line;
        if (!std::getline(stat, line))
            GTEST_SKIP() << "no /proc here";
        line.erase(0, line.rfind(')') + 2);
        for (int field = 3; field < 19; ++field)
            line.erase(0, line.find(' ') + 1);
        const int nice = std::stoi(line);
        EXPECT_TRUE(nice == c.nice || (c.nice < 0 && nice == 0)) << c.priority << ": " << nice;
    }
}

TEST(Message, IsDeletedByItsLastRelease) {
    struct Flagged : IKTMessage {
        explicit Flagged(bool& g) : gone(g) {}
        ~Flagged() override { gone = true; }
        bool& gone;
    };
    bool gone = false;
    int param = 0;
    IKTMessage* message = new Flagged(gone);
    EXPECT_EQ(message->Setup(9, nullptr, &param, nullptr), 0);
    EXPECT_EQ(message->SetParam(2, &param), -10);
    EXPECT_EQ(message->SetParam(1, &gone), 0);
    EXPECT_EQ(message->GetParam(0), &param);
    EXPECT_EQ(message->GetParam(1), &gone);
    EXPECT_EQ(message->GetParam(-1), nullptr);
    EXPECT_EQ(message->AddRef(), 2);
    EXPECT_EQ(message->Release(), 1);
    EXPECT_FALSE(gone);
    EXPECT_EQ(message->Release(), 0);
    EXPECT_TRUE(gone);
}

TEST(Message, ARecordCopiesItsStateItsUrlAndItsParameters) {
    int param = 0;
    CKTMsg record;
    EXPECT_EQ(record.SetUrl("no url"), -4);
    EXPECT_EQ(record.SetUrl("rtsp://u:p@10.0.0.1/live"), 0);
    record.SetState(3);
    record.SetError(-2);
    record.SetParam1(&param);
    CKTMsg copy;
    copy = record;
    CKTUrl url;
    copy.GetUrl(url);
    EXPECT_STREQ(url.GetURLFull(), "rtsp://u:p@10.0.0.1/live");
    EXPECT_EQ(copy.GetState(), 8u);
    EXPECT_EQ(copy.GetError(), -2);
    EXPECT_EQ(copy.GetParam1(), &param);
}
