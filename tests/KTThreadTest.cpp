#include <KTBase/KTString.h>
#include <KTBase/KTThread.h>
#include <KTBase/KTTime.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#if defined(__linux__)
#include <sys/resource.h>
#endif

#include "KTTestLoad.h"
#include "KTTestPrint.h"

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

TEST(Thread, HandlesMessagesInPostingOrderAndItsStopLast) {
    Worker worker;
    EXPECT_EQ(worker.ThreadStart(), 0);
    EXPECT_EQ(worker.KTPostMessage(7, nullptr, nullptr, 0), 0);
    ASSERT_EQ(worker.holding.Wait(kLongMs), 0);
    CKTMessageT copied;
    CKTMessageT* owned = &copied;
    EXPECT_EQ(worker.GetMessage(owned, 0), -2);
    EXPECT_EQ(owned, nullptr);
    worker.KTPostMessage(40, nullptr, nullptr, 77);
    worker.KTPostMessage(41, nullptr, nullptr, 0);
    for (unsigned int cmd = 10; cmd < 15; ++cmd)
        EXPECT_EQ(worker.PostMessage(cmd, nullptr, nullptr, 0), 0);
    // Another thread may take messages, too.
    ASSERT_EQ(worker.KTGetMessage(owned, 0), 0);
    EXPECT_EQ(owned->TimeStamp(), 77u);
    delete owned;
    EXPECT_EQ(worker.KTGetMessage(copied, 0), 0);
    EXPECT_EQ(copied.Command(), 41u);
    EXPECT_LE(static_cast<unsigned int>(CKTTime::GetTimeMS()) - copied.TimeStamp(), kLongMs);

    EXPECT_NE(worker.IsRunning(), 0);
    std::thread stopper([&] { EXPECT_EQ(worker.ThreadStop(), 0); });
    while (worker.IsRunning() != 0)
        std::this_thread::yield();
    EXPECT_EQ(worker.GetMessageCount(), 6u);
    EXPECT_FALSE(worker.closed);
    worker.go.Set();
    stopper.join();
    EXPECT_EQ(worker.handled, (std::vector<unsigned int>{10, 11, 12, 13, 14}));
    EXPECT_EQ(worker.ThreadStop(), 0);
}

TEST(Thread, CancelsWhatABodyThatEndedByItselfDidNotTake) {
    Worker worker;
    worker.ThreadStart();
    for (unsigned int cmd : {7u, 9u, 20u, 21u})
        EXPECT_EQ(worker.KTPostMessage(cmd, nullptr, nullptr, 0), 0);
    worker.go.Set();
    while (!worker.closed)
        std::this_thread::yield();
    EXPECT_NE(LineOf(worker).find("    Idle"), std::string::npos);
    EXPECT_EQ(worker.ThreadStop(), 0);
    EXPECT_EQ(worker.handled.size(), 0u);
    EXPECT_EQ(worker.cancelled, 2u);
    EXPECT_EQ(worker.GetMessageCount(), 0u);
}

TEST(Thread, RefusesAPostUnlessItStartsOrRuns) {
    Worker worker;
    testing::internal::CaptureStdout();
    EXPECT_EQ(worker.KTPostMessage(8, nullptr, nullptr, 0), -7);
    EXPECT_EQ(worker.PostMessage(8, nullptr, nullptr, 0), -7);
    EXPECT_EQ(KTTestPrinted(),
              "CKTThread::KTPostMessage(604)--------->Invalid state.\n"
              "CKTThread::PostMessageW(615)--------->Invalid state.\n");
    EXPECT_EQ(worker.GetMessageCount(), 0u);
}

TEST(Thread, StartsOnceAndItsStopReturnsWhenTheThreadHasLeftTheObject) {
    for (unsigned int i = 0; i < KTTestLoad(300); ++i) {
        Worker worker;
        for (unsigned int run = 1; run <= 2; ++run) {
            worker.closed = false;
            EXPECT_EQ(worker.ThreadStart(), 0);
            EXPECT_EQ(worker.ThreadStart(), 0);
            EXPECT_EQ(worker.ThreadStop(), 0);
            EXPECT_TRUE(worker.closed);
            EXPECT_EQ(worker.runs, run);
        }
    }
}

TEST(Thread, MayStopItselfButNotStartItselfAnewMeanwhile) {
    struct Stopping : CKTThread {
        ~Stopping() override { ThreadStop(); }
        unsigned int OnThread() override {
            stopped = ThreadStop();
            running = IsRunning();
            restarted = ThreadStart();
            done.Set();
            return 0;
        }
        int stopped = 1, running = 1, restarted = 1;
        CKTEvent done;
    } thread;
    EXPECT_EQ(thread.ThreadStart(), 0);
    EXPECT_EQ(thread.done.Wait(kLongMs), 0);
    EXPECT_EQ(thread.stopped, 0);
    EXPECT_EQ(thread.running, 0);
    EXPECT_EQ(thread.restarted, -1);
    EXPECT_EQ(thread.ThreadStart(), 0);  // waits for the old run, then starts
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
    const std::string all = Table(-1);
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 2 + 129 + 1) << all;
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
    std::atomic<unsigned int> ran{0};
    unsigned long id = 0;
    void* handle = CKTThread::KTThreadCreate(
        [](void* arg) -> unsigned long {
            *static_cast<std::atomic<unsigned int>*>(arg) = CKTThread::GetCurrentThreadID();
            return 0;
        },
        &ran, 64 * 1024, 30, id);
    ASSERT_NE(handle, reinterpret_cast<void*>(-1));
    while (ran == 0)
        std::this_thread::yield();
    EXPECT_EQ(ran, id);
    EXPECT_EQ(CKTThread::KTThreadDestroy(handle), 0);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(CKTThread::KTThreadDestroy(handle), -5);
    handle = CKTThread::KTThreadCreate([](void*) -> unsigned long { return 0; }, nullptr, ~0ull / 2,
                                       30, id);  // no such stack
    EXPECT_EQ(handle, reinterpret_cast<void*>(-1));
    EXPECT_EQ(CKTThread::KTThreadDestroy(handle), 0);
}

#if defined(__linux__)
TEST(BareThread, PrioritiesBecomeFiveSteps) {
    const int cases[][2] = {{10, -10}, {11, -5}, {20, -5}, {21, 0},
                            {30, 0},   {31, 5},  {40, 5},  {41, 10}};
    for (const auto& [priority, wanted] : cases) {
        Worker worker("", priority);
        worker.ThreadStart();
        const int nice = getpriority(PRIO_PROCESS, worker.GetThreadID());
        // The system may refuse to raise one.
        EXPECT_TRUE(nice == wanted || (wanted < 0 && nice == 0)) << priority << ": " << nice;
    }
}
#endif

TEST(Message, IsDeletedByItsLastRelease) {
    IKTMessage* message = new IKTMessage;
    EXPECT_EQ(message->SetParam(2, message), -10);
    EXPECT_EQ(message->GetParam(-1), nullptr);
    EXPECT_EQ(message->AddRef(), 2);
    EXPECT_EQ(message->Release(), 1);
    EXPECT_EQ(message->GetRef(), 1);
    EXPECT_EQ(message->Release(), 0);  // one left behind would fail this program
}
