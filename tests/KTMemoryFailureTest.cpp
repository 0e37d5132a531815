// Lets the nth allocation fail, for every n, and sees that each family answers and goes on.
#include <KTBase/KTString.h>
#include <KTBase/KTThread.h>
#include <gtest/gtest.h>

#include <string>

#include "KTHeap.h"
#include "KTLibrary.h"

namespace {

class Taker : public CKTThread {
public:
    ~Taker() override { ThreadStop(); }

protected:
    unsigned int OnThread() override {
        CKTMessageT message;
        while (GetMessage(message, KT_INFINITE) == 0 && message.Command() != 1) {
        }
        return 0;
    }
};

std::string g_debuggerText;

}  // namespace

class MemoryFailure : public testing::Test {
protected:
    MemoryFailure() {
        KTLibraryGet();
        testing::internal::CaptureStdout();
    }
    ~MemoryFailure() override {
        KTHeapFailAt(0);
        testing::internal::GetCapturedStdout();
    }
};

TEST_F(MemoryFailure, AnObjectOrABlockIsNull) {
    KTHeapFailAt(1, 6);
    EXPECT_EQ(new CKTObject, nullptr);
    EXPECT_EQ(new (std::nothrow) CKTObject, nullptr);
    EXPECT_EQ(new CKTObject[3], nullptr);
    EXPECT_EQ(ZMKMalloc(10), nullptr);
    EXPECT_EQ(ZMKCalloc(10, 10), nullptr);
    EXPECT_EQ(ZMKRealloc(nullptr, 10), nullptr);
}

TEST_F(MemoryFailure, AFailedReallocLeavesTheOldBlockUnaccounted) {
    void* block = ZMKMalloc(10);
    KTHeapFailAt(1);
    EXPECT_EQ(ZMKRealloc(block, 20), nullptr);
    ZMKFree(block);  // still the caller's; the tables are empty again at the end of the program
}

TEST_F(MemoryFailure, ALockOrEventWithoutItsHandleAnswersNo) {
    KTHeapFailAt(1, 2);
    CKTMutex mutex;
    CKTEvent event;
    EXPECT_EQ(mutex.Enter(KT_INFINITE), 0);
    EXPECT_EQ(mutex.Leave(), 0);
    { CKTGuard hold(mutex); }
    EXPECT_EQ(event.Set(), 0);
    EXPECT_EQ(event.Reset(), 0);
    EXPECT_EQ(event.Check(), 0);
    EXPECT_EQ(event.Wait(KT_INFINITE), -1);
    CKTEvent copy(event);
    EXPECT_EQ(copy.Wait(0), -1);
}

TEST_F(MemoryFailure, AThreadStartsPostsAndStopsOrSaysNo) {
    int refusedStarts = 0, refusedPosts = 0;
    for (unsigned int nth = 1; nth < 40; ++nth) {
        Taker thread;
        KTHeapFailAt(nth);
        const int started = thread.ThreadStart();
        ASSERT_TRUE(started == 0 || started == -1);
        refusedStarts += started != 0;
        for (int i = 0; i < 30; ++i) {
            const int posted = thread.KTPostMessage(20, nullptr, nullptr, 0);
            ASSERT_TRUE(posted == 0 || posted == -6 || (posted == -7 && started != 0)) << posted;
            refusedPosts += posted == -6;
        }
        EXPECT_EQ(thread.ThreadStop(), 0);
        KTHeapFailAt(0);
    }
    EXPECT_GT(refusedStarts, 0);
    EXPECT_GT(refusedPosts, 0);
}

TEST_F(MemoryFailure, AThreadIsStoppedThoughTheStopMessageFailsAtFirst) {
    Taker thread;
    ASSERT_EQ(thread.ThreadStart(), 0);
    KTHeapFailAt(1, 3);
    EXPECT_EQ(thread.ThreadStop(), 0);
}

TEST_F(MemoryFailure, AThreadMadeWithoutMemoryStillEnds) {
    for (unsigned int nth = 1; nth < 12; ++nth) {
        KTHeapFailAt(nth);
        Taker* thread = new Taker;
        KTHeapFailAt(0);
        if (thread == nullptr)
            continue;
        CKTString line;
        thread->Dump(line);
        thread->ThreadStart();
        thread->ThreadStop();
        delete thread;
    }
}

TEST(Debugger, SeesWhatTheMemoryDumpPrints) {
    KTDebuggerHook([](const char* text) { g_debuggerText += text; });
    testing::internal::CaptureStdout();
    KTMemoryDump(true);
    KTDebuggerHook(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), g_debuggerText);
    EXPECT_EQ(g_debuggerText.find("===========================Memory====="), 0u);
}
