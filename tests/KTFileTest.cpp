#include <KTBase/KTFile.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <set>

#include "KTTestFolder.h"

namespace {

std::string ReadAll(IKWFile& file) {
    char buffer[64];
    const int count = file.Read(buffer, sizeof(buffer));
    return count < 0 ? "code " + std::to_string(count) : std::string(buffer, count);
}

std::set<std::string> Walk(const std::string& directory, const char* pattern) {
    std::set<std::string> names;
    IKWFileFind find;
    EXPECT_EQ(find.Open(directory.c_str(), pattern), 0);
    for (; find.Next() == 0; names.insert(find.GetName()))
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::u8path(find.GetPath())));
    EXPECT_EQ(find.Next(), -11);
    EXPECT_EQ(find.GetName(), nullptr);
    return names;
}

}  // namespace

TEST(File, ModesDecideWhatIsMadeKeptReadAndWritten) {
    const struct {
        const char* mode;
        int openMissing;       // result of opening a missing file
        const char* readBack;  // what a read gives in a file of "old", or its code
        const char* after;     // the file after writing "NEW" there
    } kCases[] = {
        {"r", -11, "old", "old"},      {"rb", -11, "old", "old"}, {"r+", -11, "old", "oldNEW"},
        {"w", 0, "code -1", "NEW"},    {"w+", 0, "", "NEW"},      {"wb+", 0, "", "NEW"},
        {"a", 0, "code -1", "oldNEW"}, {"a+b", 0, "", "oldNEW"},
    };
    TestFolder folder;
    const std::string path = folder / "file";
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.mode);
        std::filesystem::remove(path);
        EXPECT_EQ(IKWFile().Open(path.c_str(), c.mode), c.openMissing);
        EXPECT_EQ(std::filesystem::exists(path), c.openMissing == 0);
        TestFolder::Put(path, "old");
        IKWFile file;
        EXPECT_EQ(file.Open(path.c_str(), c.mode), 0);
        EXPECT_EQ(ReadAll(file), c.readBack);
        EXPECT_EQ(file.Write("NEW", 3), c.mode[0] == 'r' && c.mode[1] != '+' ? -1 : 3);
        EXPECT_EQ(file.Close(), 0);
        EXPECT_EQ(TestFolder::Get(path), c.after);
    }
}

TEST(File, PositionsAre64BitsWideAndGapsReadAsZeroes) {
    TestFolder folder;
    const std::string path = folder / "seek";
    IKWFile file;
    ASSERT_EQ(file.Open(path.c_str(), "w+"), 0);
    EXPECT_EQ(file.Seek(5000000000, KW_SEEK_BEGIN), 5000000000);
    EXPECT_EQ(file.Seek(-4999999997, KW_SEEK_CURRENT), 3);
    EXPECT_EQ(file.Seek(-4, KW_SEEK_CURRENT), -4);
    EXPECT_EQ(file.Seek(0, 3), -10);
    EXPECT_EQ(file.Tell(), 3);
    EXPECT_EQ(file.Write("\n", 1), 1);  // stays one byte
    EXPECT_EQ(file.Commit(), 0);
    EXPECT_EQ(file.GetSize(), 4);
    EXPECT_EQ(file.Seek(-4, KW_SEEK_END), 0);
    EXPECT_EQ(ReadAll(file), std::string("\0\0\0\n", 4));
    file.Close();
    ASSERT_EQ(file.Open(path.c_str(), "a+"), 0);
    EXPECT_EQ(file.Tell(), 4);
    EXPECT_EQ(file.Seek(0, KW_SEEK_BEGIN), 0);
    EXPECT_EQ(file.Write("y", 1), 1);  // at the end, wherever the position was
    EXPECT_EQ(file.Tell(), 5);
    EXPECT_EQ(TestFolder::Get(path), std::string("\0\0\0\ny", 5));
}

TEST(File, FailuresHaveTheirCodesAndAnOpenFileStays) {
    TestFolder folder;
    const std::string path = folder / "file", below = path + "/x";
    TestFolder::Put(path, "old");
    IKWFile file;
    char byte = 0;
    EXPECT_EQ(file.Open(below.c_str(), "r"), -11);
    EXPECT_EQ(file.Open((folder / "").c_str(), "r"), -1);
    for (const char* mode : {"", "x", "rt", "rw"})
        EXPECT_EQ(file.Open(path.c_str(), mode), -10) << mode;
    EXPECT_EQ(file.Read(&byte, 1), -7);
    ASSERT_EQ(file.Open(path.c_str(), "r"), 0);
    EXPECT_EQ(file.Open(path.c_str(), "w"), -7);
    EXPECT_EQ(file.Read(&byte, 0x80000000u), -4);
    EXPECT_EQ(ReadAll(file), "old");
    if (std::filesystem::is_character_file("/dev/full")) {
        IKWFile full;
        ASSERT_EQ(full.Open("/dev/full", "r+"), 0);
        EXPECT_EQ(full.Write("x", 1), -8);
    }
}

TEST(FileInfo, TellsSizeKindAndTimesAndForgetsThemOnFailure) {
    namespace fs = std::filesystem;
    TestFolder folder;
    const std::string path = folder / "file";
    TestFolder::Put(path, "12345");
    IKWFileInfo info;
    EXPECT_EQ(info.Query(path.c_str()), 0);
    EXPECT_TRUE(info.Exists() && !info.IsDirectory());
    EXPECT_EQ(info.GetSize(), 5u);
    EXPECT_NEAR(info.GetModifyTime().GetTime(), std::time(nullptr), 30);
    const auto written = fs::last_write_time(path);
    // A year that the packed time cannot hold must not turn up as another one.
    for (const int years : {-40, 50}) {
        fs::last_write_time(path, written + std::chrono::hours(24 * 365 * years));
        EXPECT_EQ(info.Query(path.c_str()), 0);
        EXPECT_TRUE(info.GetModifyTime().IsEmpty());
    }
    EXPECT_EQ(info.Query((folder / "").c_str()), 0);
    EXPECT_TRUE(info.IsDirectory() && info.GetSize() == 0);
    EXPECT_EQ(info.Query((folder / "missing").c_str()), -11);
    EXPECT_TRUE(!info.Exists() && !info.IsDirectory() && info.GetModifyTime().IsEmpty());
}

TEST(FileFind, PatternsSelectByTheWholeName) {
    using Names = std::set<std::string>;
    TestFolder folder;
    const Names all = {"a.log", "a.log.1", "ab.log", "b.txt", "noext", "\xC3\xA4.log"};
    for (const std::string& name : all)
        TestFolder::Put(folder / name, "");
    std::filesystem::create_directory(folder / "dir.log");
    const struct {
        const char* pattern;
        Names names;
    } kCases[] = {
        {nullptr, {"a.log", "a.log.1", "ab.log", "b.txt", "dir.log", "noext", "\xC3\xA4.log"}},
        {"*.log", {"a.log", "ab.log", "dir.log", "\xC3\xA4.log"}},
        {"?.log", {"a.log", "\xC3\xA4.log"}},  // one character, two bytes
        {"*o*g*1", {"a.log.1"}},
        {"a.log*", {"a.log", "a.log.1"}},
        {"a.lo", {}},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(Walk(folder / "", c.pattern), c.names) << (c.pattern ? c.pattern : "null");
    // Trying every way to share the name among the stars would not end.
    const std::string name(200, 'a');
    TestFolder::Put(folder / name, "");
    EXPECT_EQ(Walk(folder / "", "*a*a*a*a*a*a*a*a*a*a*a*a*a*a*b"), Names());
}

TEST(FileFind, EntriesCarryTheirPathAndInfo) {
    TestFolder folder;
    TestFolder::Put(folder / "one", "123");
    IKWFileFind find;
    EXPECT_EQ(find.Open((folder / "one").c_str(), "*"), -11);
    EXPECT_EQ(find.Next(), -7);
    ASSERT_EQ(find.Open((folder / "").c_str(), "o*"), 0);
    ASSERT_EQ(find.Next(), 0);
    EXPECT_EQ(find.GetPath(), (folder / "") + "one");
    EXPECT_EQ(find.GetInfo().GetSize(), 3u);
    // Its own name is a pattern that the walk may start anew with.
    ASSERT_EQ(find.Open((folder / "").c_str(), find.GetName()), 0);
    EXPECT_EQ(find.Next(), 0);
    EXPECT_EQ(find.Next(), -11);
    EXPECT_FALSE(find.GetInfo().Exists());
}

TEST(FileNames, Utf8NamesAreMadeRenamedFoundAndDeleted) {
    TestFolder folder;
    const std::string parent = folder / "\xE6\x97\xA5", deep = parent + "/\xC3\xA4/x";
    EXPECT_EQ(KWFileMakeDirectory(deep.c_str()), 0);
    EXPECT_EQ(KWFileMakeDirectory(deep.c_str()), 0);
    EXPECT_EQ(Walk(parent, "?"), std::set<std::string>{"\xC3\xA4"});
    const std::string from = deep + "/1", to = deep + "/2";
    TestFolder::Put(from, "new");
    TestFolder::Put(to, "old");
    EXPECT_EQ(KWFileMakeDirectory(from.c_str()), -1);
    EXPECT_EQ(KWFileRename(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(KWFileRename(from.c_str(), to.c_str()), -11);
    EXPECT_EQ(TestFolder::Get(to), "new");
    EXPECT_EQ(KWFileDelete(deep.c_str()), -1);  // not empty
    EXPECT_EQ(KWFileDelete(to.c_str()), 0);
    EXPECT_EQ(KWFileDelete(to.c_str()), -11);
    EXPECT_EQ(KWFileDelete(deep.c_str()), 0);
    EXPECT_EQ(Walk(parent + "/\xC3\xA4", nullptr), std::set<std::string>());
}

TEST(FileNames, FixedDrivesAreDirectoriesEachEndedByANul) {
    CKTString roots("before");
    const int count = KWFileFindFixed(roots);
    ASSERT_GT(count, 0);
    const char* at = roots.GetBuffer() + 6;
    for (int i = 0; i < count; ++i, at += std::strlen(at) + 1)
        EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::u8path(at))) << at;
    EXPECT_EQ(at, roots.GetBuffer() + roots.GetLength());
}
