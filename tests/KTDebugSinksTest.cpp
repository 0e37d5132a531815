#include <KTBase/KTDebug.h>
#include <KTBase/KTLock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "KTTestFolder.h"
#include "KTTestLoad.h"

namespace {

// What a stream was given.
struct Seen {
    std::string text;
    int calls = 0;
    void (*inside)(Seen&) = nullptr;

    static int Take(void* context, CKTObject* debug, unsigned int cmd, void* text, void* length) {
        Seen& seen = *static_cast<Seen*>(context);
        EXPECT_NE(debug, nullptr);
        EXPECT_EQ(cmd, 1000u);
        seen.text.append(static_cast<const char*>(text),
                         *static_cast<const unsigned long long*>(length));
        ++seen.calls;
        if (seen.inside != nullptr)
            seen.inside(seen);
        return 0;
    }
};

// Text goes to the sinks alone, as it is.
class DebugSinks : public testing::Test {
protected:
    DebugSinks() {
        KTDBG_EnablePrint(4, 7);
        EXPECT_EQ(KTDBGInitialize(), 1);
    }
    ~DebugSinks() override {
        EXPECT_EQ(KTDBGInvalidate(), 0);
        KTDBG_EnablePrint(7, 7);
    }
    std::string Path(const char* name) { return m_folder / name; }
    static std::string Read(const std::string& path) { return TestFolder::Get(path); }
    TestFolder m_folder;
};

}  // namespace

TEST(DebugSinksWithout, AreRefusedAndCounted) {
    Seen seen;
    EXPECT_EQ(KTDBGAttachFile(nullptr), -7);
    EXPECT_EQ(KTDBGDetachFile("x"), -7);
    EXPECT_EQ(KTDBGAttachStream(nullptr, nullptr), -7);
    EXPECT_EQ(KTDBGDetachStream(&seen, Seen::Take), -7);
    EXPECT_EQ(KTDBGInvalidate(), 0);
    EXPECT_EQ(KTDBGInitialize(), 1);
    EXPECT_EQ(KTDBGInitialize(), 2);
    EXPECT_EQ(KTDBGInvalidate(), 1);
    EXPECT_EQ(KTDBGAttachStream(&seen, Seen::Take), 0);
    EXPECT_EQ(KTDBGInvalidate(), 0);  // forgets the stream too
    KTDBGOutput("nobody\n", 7);
    EXPECT_EQ(seen.calls, 0);
}

TEST_F(DebugSinks, AFileGetsEveryByteFromItsAttachmentToItsDetachment) {
    const std::string path = Path("log.txt");
    KTDBGOutput("before\n", 7);
    EXPECT_EQ(KTDBGAttachFile(nullptr), -4);
    EXPECT_EQ(KTDBGAttachFile(""), -4);
    EXPECT_EQ(KTDBGAttachFile(Path("no/such/folder/log").c_str()), -11);
    EXPECT_EQ(KTDBGAttachFile(path.c_str()), 0);
    KTDBGOutput("one\n", 4);
    EXPECT_EQ(KTDBGAttachFile(path.c_str()), 0);  // neither emptied nor written twice
    KTDBGOutput("a\0b\r\n", 5);
    EXPECT_EQ(KTDBGDetachFile(Path("other").c_str()), -11);
    EXPECT_EQ(KTDBGDetachFile(nullptr), -4);
    EXPECT_EQ(KTDBGDetachFile(path.c_str()), 0);
    KTDBGOutput("after\n", 6);
    EXPECT_EQ(Read(path), std::string("one\na\0b\r\n", 9));
}

TEST_F(DebugSinks, TheDebugThreadWritesWhatWaitsWithoutBeingAsked) {
    const std::string path = Path("log.txt");
    ASSERT_EQ(KTDBGAttachFile(path.c_str()), 0);
    KTDBGOutput("soon\n", 5);
    while (Read(path) != "soon\n")
        std::this_thread::yield();
    KTDBGOutput("again\n", 6);
    while (Read(path) != "soon\nagain\n")
        std::this_thread::yield();
}

TEST_F(DebugSinks, AStreamGetsTextAndLengthUntilItIsDetached) {
    Seen seen;
    EXPECT_EQ(KTDBGAttachStream(&seen, nullptr), -4);
    EXPECT_EQ(KTDBGAttachStream(nullptr, Seen::Take), -4);
    EXPECT_EQ(KTDBGAttachStream(&seen, Seen::Take), 0);
    EXPECT_EQ(KTDBGAttachStream(&seen, Seen::Take), 0);
    KTDBGOutput("x\0y", 3);
    EXPECT_EQ(KTDBGDetachStream(&seen, Seen::Take), 0);
    EXPECT_EQ(KTDBGDetachStream(&seen, Seen::Take), -1);
    KTDBGOutput("late", 4);
    EXPECT_EQ(seen.text, std::string("x\0y", 3));
    EXPECT_EQ(seen.calls, 1);
}

TEST_F(DebugSinks, WhatAStreamPrintsReachesFilesButNoStream) {
    const std::string path = Path("log.txt");
    ASSERT_EQ(KTDBGAttachFile(path.c_str()), 0);
    Seen seen;
    seen.inside = [](Seen&) { KTDBGOutput("nested\n", 7); };
    ASSERT_EQ(KTDBGAttachStream(&seen, Seen::Take), 0);
    KTDBGOutput("outer\n", 6);
    EXPECT_EQ(KTDBGDetachFile(path.c_str()), 0);
    EXPECT_EQ(seen.text, "outer\n");
    EXPECT_EQ(Read(path), "nested\nouter\n");
}

TEST_F(DebugSinks, AStreamMayDetachItselfAndEndTheSinks) {
    const std::string path = Path("log.txt");
    ASSERT_EQ(KTDBGAttachFile(path.c_str()), 0);
    Seen once;
    once.inside = [](Seen& self) { EXPECT_EQ(KTDBGDetachStream(&self, Seen::Take), 0); };
    ASSERT_EQ(KTDBGAttachStream(&once, Seen::Take), 0);
    KTDBGOutput("1", 1);
    KTDBGOutput("2", 1);
    EXPECT_EQ(once.calls, 1);

    Seen ending;
    ending.inside = [](Seen&) { EXPECT_EQ(KTDBGInvalidate(), 0); };
    ASSERT_EQ(KTDBGAttachStream(&ending, Seen::Take), 0);
    KTDBGOutput("3", 1);
    EXPECT_EQ(Read(path), "123");  // written out and closed
    KTDBGOutput("4", 1);
    EXPECT_EQ(ending.calls, 1);
    EXPECT_EQ(KTDBGInitialize(), 1);
}

TEST_F(DebugSinks, LinesOfTwoThreadsStayWholeAndInOrderWhileFilesComeAndGo) {
    const unsigned int lines = KTTestLoad(20000);
    const std::string path = Path("all.txt");
    ASSERT_EQ(KTDBGAttachFile(path.c_str()), 0);
    std::atomic<int> writing{2};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (unsigned int i = 0; i < lines; ++i)
                KTDBGPrintf("%c%u\n", 'a' + t, i);
            --writing;
        });
    }
    const std::string other = Path("part.txt");
    while (writing > 0) {
        EXPECT_EQ(KTDBGAttachFile(other.c_str()), 0);
        EXPECT_EQ(KTDBGDetachFile(other.c_str()), 0);
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(KTDBGDetachFile(path.c_str()), 0);
    std::ifstream file(path, std::ios::binary);
    unsigned int next[2] = {0, 0};
    for (std::string line; std::getline(file, line);) {
        ASSERT_FALSE(line.empty());
        ASSERT_EQ(line.substr(1), std::to_string(next[line[0] - 'a']++));
    }
    EXPECT_EQ(next[0], lines);
    EXPECT_EQ(next[1], lines);
}
