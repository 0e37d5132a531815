#include "KTBase/KTDebug.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KTBase/KTTime.h"
#include "KTHeap.h"
#include "KTLibrary.h"

namespace {

std::string g_debugger;

class Debug : public testing::Test {
protected:
    void SetUp() override {
        KTDBG_SetLevelMask(0x3F, ~0u);
        KTDBG_EnablePrint(7, ~0u);
    }

    // What print writes, the same to standard output and the debugger, with the time masked.
    template <class F>
    std::string Printed(F print) {
        g_debugger.clear();
        KTDebuggerHook([](const char* text) { g_debugger += text; });
        testing::internal::CaptureStdout();
        result = print();
        std::string out = testing::internal::GetCapturedStdout();
        KTDebuggerHook(nullptr);
        EXPECT_EQ(out, g_debugger);
        const std::size_t bracket = out.find("m[") + 1;
        if (bracket == 0)
            return out;
        time = out.substr(bracket + 1, 12);
        return out.replace(bracket + 1, 12, "hh:mm:ss.mmm");
    }

    int result = 0;
    std::string time;
};

TEST_F(Debug, PutsColourTimeModuleAndLevelBeforeTheText) {
    const struct {
        int module, level;
        const char* line;
    } kCases[] = {
        {0, 0, "\x1b[0m[hh:mm:ss.mmm][00:DEF]\x1b[0m x\n"},
        {7, 1, "\x1b[0;32m[hh:mm:ss.mmm][07:INFO]\x1b[0m x\n"},
        {345, 3, "\x1b[0;35m[hh:mm:ss.mmm][345:DBG]\x1b[0m x\n"},
        {-1, 4, "\x1b[1;35m[hh:mm:ss.mmm][-1:WARN]\x1b[0m x\n"},
        {0, 5, "\x1b[1;31m[hh:mm:ss.mmm][00:ERR]\x1b[0m x\n"},
        {0, -1, "\x1b[0m[hh:mm:ss.mmm][00:DEF]\x1b[0m x\n"},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(Printed([&] { return DBG_Output(c.module, c.level, "x", 0); }), c.line);
    // Level 32 goes by bit 0 and has neither name nor colour.
    const std::string bare = Printed([] { return DBG_Printf(3, 32, "%s", "x"); });
    EXPECT_EQ(bare.substr(0, 1) + bare.substr(13), "[][03:]\x1b[0m x\n");
}

TEST_F(Debug, ShowsLocalTime) {
    static char zone[] = "TZ=JST-9";  // the environment keeps the pointer
    putenv(zone);
    tzset();
    EXPECT_EQ(Printed([] { return KTPrintf("%d%c", 5, 'x'); }),
              "\x1b[0m[hh:mm:ss.mmm][00:NOTE]\x1b[0m 5x\n");
    CKTTime now(true);
    now.FillCurrentTime(false);
    EXPECT_LE((now.GetHour() + 24 - std::stoul(time)) % 24, 1u) << time;
}

TEST_F(Debug, IndentsLaterLinesByTheWholePrefix) {
    // "\x1b[1;35m" + "[hh:mm:ss.mmm]" + "[03:WARN]" + "\x1b[0m" + " " are 35 bytes.
    const std::string prefix = "\x1b[1;35m[hh:mm:ss.mmm][03:WARN]\x1b[0m ", in(35, ' ');
    const struct {
        const char* text;
        std::string lines;
    } kCases[] = {
        {"a\nb", "a\n" + in + "b\n"},
        {"a\r\nb\r\n", "a\r\n" + in + "b\r\n"},
        {"a\n\rb\r", "a\n\r" + in + "b\r"},
        {"a\n\nb", "a\n" + in + "\n" + in + "b\n"},
        {"\r\ra", "\r" + in + "\r" + in + "a\n"},
        {"\n\r\n", "\n\r" + in + "\n"},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(Printed([&] { return DBG_Output(3, 4, c.text, 0); }), prefix + c.lines);
    EXPECT_EQ(Printed([] { return DBG_Output(3, 4, "a\nb", 2); }), prefix + "a\n");
}

TEST_F(Debug, DropsWhatIsFilteredAndNothingElse) {
    EXPECT_EQ(Printed([] { return KTDBG_Printf(-1, "x") + KTDBG_Output(6, "x", 1); }), "");
    EXPECT_EQ(Printed([] { return KTDBGOutput(nullptr, 3) + KTDBGOutput("", 0); }), "");
    DBG_ModuleDisable(64 + 5);
    EXPECT_EQ(Printed([] { return DBG_Printf(5, 1, "x"); }), "");
    EXPECT_NE(Printed([] { return DBG_Output(5, 1, "x", 0); }), "");
    DBG_ModuleEnable(5);
    EXPECT_EQ(DBG_LevelEnable(6), -1);
    EXPECT_EQ(KTDBG_SetLevelMask(0xF0F4, 0xFF), 0xF4u);
    EXPECT_EQ(KTDBG_EnablePrint(0, 6), 1u);  // decorated, but for nobody
    EXPECT_EQ(Printed([] { return KTPrintf("x"); }), "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(KTDBG_EnablePrint(4, 4), 5u);  // files and streams only
    EXPECT_EQ(Printed([] { return KTPrintf("x"); }), "");
    EXPECT_GT(result, 30);
}

TEST_F(Debug, WritesUndecoratedTextAsItStands) {
    KTDBG_EnablePrint(6, 7);
    const char unterminated[] = {'a', '\n', 'b'};
    EXPECT_EQ(Printed([&] { return KTDBG_Output(1, unterminated, 3); }), "a\nb");
    EXPECT_EQ(result, 3);
    EXPECT_EQ(Printed([] { return KTDBG_Output(1, "a\nb", 0); }), "a\nb");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Printed([] { return KTDBG_Output(1, "ab\0c", 4); }), "ab");
    EXPECT_EQ(result, 4);
}

TEST_F(Debug, NeverCutsAMessageUnlessMemoryIsOut) {
    const std::string prefix = "\x1b[0m[hh:mm:ss.mmm][00:NOTE]\x1b[0m ";  // 32 bytes
    for (std::size_t length : {989, 990, 991, 1023, 1024, 300000}) {
        const std::string text(length, 'x');
        EXPECT_EQ(Printed([&] { return KTPrintf("%s", text.c_str()); }), prefix + text + "\n");
        EXPECT_EQ(result, static_cast<int>(length) + 33);
    }
    const std::string text(300000, 'x');
    KTHeapFailAt(1, UINT_MAX);
    EXPECT_EQ(Printed([] { return KTPrintf("no memory"); }), prefix + "no memory\n");
    const std::string cut = Printed([&] { return KTPrintf("%s", text.c_str()); });
    const std::string bare = Printed([&] { return KTDBGOutput(text.c_str(), 0); });
    KTHeapFailAt(0);
    EXPECT_EQ(cut, text.substr(0, 1023));
    EXPECT_EQ(bare, text);
}

TEST_F(Debug, KeepsMessagesWholeAndLosesNoSettingAmongThreads) {
    testing::internal::CaptureStdout();
    std::atomic<unsigned int> lost{0};
    std::vector<std::thread> threads;
    for (unsigned int level = 0; level < 4; ++level)
        threads.emplace_back([level, &lost] {
            for (int i = 0; i < 50000; ++i) {
                DBG_LevelEnable(level);
                lost += ~KTDBG_SetLevelMask(0, 0) >> level & 1;
                if (i % 1000 == 0)
                    KTDBG_Printf(static_cast<int>(level), "first\nlast");
                DBG_LevelDisable(level);
                lost += KTDBG_SetLevelMask(0, 0) >> level & 1;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    std::istringstream out(testing::internal::GetCapturedStdout());
    int lines = 0;
    for (std::string line; std::getline(out, line); ++lines)
        EXPECT_EQ(line.substr(line.rfind(' ') + 1), lines % 2 == 0 ? "first" : "last");
    EXPECT_EQ(lines, 400);
    EXPECT_EQ(lost, 0u);
}

}  // namespace
