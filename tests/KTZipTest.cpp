#include <KTBase/KTFile.h>
#include <KTBase/KTZip.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "KTTestBytes.h"
#include "KTTestFolder.h"

namespace {

// By gzip 1.12: "gzip made this\n" with name and time, 1024 and 1025 times 'a', nothing.
const std::string kNote =
    Unhex("1f8b0808257d936502036e6f7465004bafca2c50c84d4c495528c9c82ce60200208687a90f000000");
const std::string k1024 = Unhex("1f8b08000000000000034b4c1c05a360148c540000b997557c00040000");
const std::string k1025 = Unhex("1f8b08000000000000034b4c1c05a360148c580000fce0765a01040000");
const std::string kNothing = Unhex("1f8b080000000000000303000000000000000000");
// "abc" in a block of fixed codes, by RFC 1950 and 1951.
const std::string kAbc = Unhex("789c4b4c4a0600024d0127");

/// Text that shrinks, but not to nothing.
std::string Lines(std::size_t len) {
    std::mt19937 random(1);
    std::string text;
    while (text.size() < len)
        text += "line " + std::to_string(random() % 1000) + "\r\n";
    text.resize(len);
    return text;
}

using Call = int (*)(CKTString&, const void*, unsigned int);

int Expand(Call call, CKTString& out, const std::string& data) {
    return call(out, data.data(), static_cast<unsigned int>(data.size()));
}

int ExpandAll(CKTString& out, const void* data, unsigned int len) {
    return KTGZIPDataUncompressAll(out, data, len, 2000000000);
}

/// What the gzip program makes of a file; nothing where there is none.
std::string Gunzip(const std::string& path) {
    const std::string result = path + ".expanded";
    const int code = std::system(("gzip -dc < \"" + path + "\" > \"" + result + "\"").c_str());
    return code == 0 ? TestFolder::Get(result) : "";
}

}  // namespace

TEST(ZipData, AppendsAndReturnsTheInputsLength) {
    CKTString packed("<"), plain("<");
    EXPECT_EQ(KTZIPDataCompress(packed, "abc", -1), 3);
    EXPECT_EQ(Text(packed), "<" + kAbc);
    EXPECT_EQ(Expand(KTZIPDataUncompress, plain, kAbc), 11);
    EXPECT_EQ(Expand(KTZIPDataUncompress, plain, kAbc + "more behind its end"), 30);
    EXPECT_EQ(Text(plain), "<abcabc");
    for (const std::size_t size : {0, 127, 128, 129, 1000000}) {
        // Both compress to next to nothing and to about a third.
        for (const std::string& text : {std::string(size, 'a'), Lines(size)}) {
            packed.Empty(true), plain.Empty(true);
            const int length = static_cast<int>(size);
            EXPECT_EQ(KTZIPDataCompress(packed, text.data(), length), length);
            EXPECT_EQ(Expand(KTZIPDataUncompress, plain, Text(packed)),
                      static_cast<int>(packed.GetLength()));
            EXPECT_EQ(Text(plain), text) << size;
        }
    }
    EXPECT_EQ(KTZIPDataChecksum(KTZIPDataChecksum(1, "Wiki", 4), "pedia", 5), 0x11E60398u);
}

TEST(ZipData, StopsAtCorruptDataAndAtAFullString) {
    CKTString packed, plain("<"), cut, small(300, 0), tiny(8, 0);
    const std::string text = Lines(2000);
    ASSERT_EQ(KTZIPDataCompress(packed, text.data(), 2000), 2000);
    std::string bytes = Text(packed);
    EXPECT_EQ(Expand(KTZIPDataUncompress, plain, kNote), -15);
    EXPECT_EQ(Text(plain), "<");
    EXPECT_EQ(Expand(KTZIPDataUncompress, cut, bytes.substr(0, 200)), 200);
    bytes.back() ^= 1;  // of the checksum
    EXPECT_EQ(Expand(KTZIPDataUncompress, plain, bytes), -15);
    EXPECT_EQ(Text(plain), "<" + text.substr(0, plain.GetLength() - 1));
    EXPECT_EQ(plain.GetBuffer()[plain.GetLength()], 0);
    packed.Empty(false);
    ASSERT_EQ(KTZIPDataCompress(packed, std::string(2000, 'a').data(), 2000), 2000);
    EXPECT_EQ(Expand(KTZIPDataUncompress, small, Text(packed)), -6);
    EXPECT_EQ(KTZIPDataCompress(tiny, "abc", 3), -6);
    EXPECT_EQ(KTGZIPDataCompress(tiny, "abc", 3), -6);
}

TEST(GzipData, ExpandsWhatTheProgramWrote) {
    CKTString out("old"), small(8, 0);
    EXPECT_EQ(Expand(KTGZIPDataUncompress, out, kNote), 15);
    EXPECT_EQ(Text(out), "gzip made this\n");
    EXPECT_EQ(Expand(KTGZIPDataUncompress, out, k1024), 1024);
    EXPECT_EQ(Text(out), std::string(1024, 'a'));
    for (const std::string& data : {k1025, kAbc, kNote.substr(0, 39), std::string()})
        EXPECT_EQ(Expand(KTGZIPDataUncompress, out, data), -15);
    EXPECT_EQ(Text(out), "");
    EXPECT_EQ(Expand(KTGZIPDataUncompress, small, kNote), 0);  // no room for any of it
}

TEST(GzipData, ExpandsAllMembersUpToTheCallersLimit) {
    CKTString out, small(1000, 0);
    EXPECT_EQ(Expand(ExpandAll, out, kNote + kNothing + k1025 + kAbc), 15 + 1025 + 3);
    EXPECT_EQ(Text(out), "gzip made this\n" + std::string(1025, 'a') + "abc");
    EXPECT_EQ(Expand(ExpandAll, small, k1024), -6);
    for (const std::string& bad : {k1025.substr(0, 27), kNote + kNote.substr(0, 5), kNote + "tail",
                                   std::string("plain text"), std::string()}) {
        out = "old";
        EXPECT_EQ(Expand(ExpandAll, out, bad), -15);
        EXPECT_EQ(Text(out), "");
    }
    EXPECT_EQ(KTGZIPDataUncompressAll(out, kNote.data(), 40, 15), 15);
    EXPECT_EQ(KTGZIPDataUncompressAll(out, kNote.data(), 40, 14), -8);
    EXPECT_EQ(Text(out), "");
}

TEST(GzipData, CompressesOverTheStartOfTheString) {
    const std::string text = Lines(3000000);
    CKTString out, back, abc, longer("old bytes");
    EXPECT_EQ(KTGZIPDataCompress(out, text.data(), 3000000), 0);
    EXPECT_EQ(Expand(ExpandAll, back, Text(out)), 3000000);
    EXPECT_EQ(Text(back), text);
    EXPECT_EQ(KTGZIPDataCompress(abc, "abc", 0xFFFFFFFFu), 0);
    EXPECT_EQ(Expand(KTGZIPDataUncompress, back, Text(abc)), 3);
    // The length grows by the size, as if the data had been appended; nothing stray shows.
    EXPECT_EQ(KTGZIPDataCompress(longer, "abc", 3), 0);
    EXPECT_EQ(Text(longer), Text(abc) + std::string(9, '\0'));
}

TEST(GzipData, TakesItsInputFromTheStringItChanges) {
    const std::string text = Lines(500);
    CKTString own(text.c_str());
    EXPECT_EQ(KTZIPDataCompress(own, own.GetBuffer(), 500), 500);
    const unsigned int size = own.GetLength() - 500;
    EXPECT_EQ(KTZIPDataUncompress(own, own.GetBuffer() + 500, size), static_cast<int>(size));
    EXPECT_EQ(KTGZIPDataUncompressAll(own, own.GetBuffer() + 500, size, 0), 500);
    EXPECT_EQ(Text(own), text);
    EXPECT_EQ(KTGZIPDataCompress(own, own.GetBuffer(), 500), 0);
    EXPECT_EQ(KTGZIPDataUncompress(own, own.GetBuffer(), own.GetLength() - 500), 500);
}

TEST(ZipData, MutantsEndInKnownCodes) {
    std::mt19937 random(1);
    CKTString whole[2];
    const std::string text = Lines(700);
    ASSERT_EQ(KTZIPDataCompress(whole[0], text.data(), 700), 700);
    ASSERT_EQ(KTGZIPDataCompress(whole[1], text.data(), 700), 0);
    for (int i = 0; i < 4000; ++i) {
        const std::string bytes = Text(whole[i % 2]);
        std::vector<char> mutant(bytes.begin(), bytes.end());
        for (unsigned int changes = 1 + random() % 3; changes != 0; --changes)
            mutant[random() % mutant.size()] ^= static_cast<char>(1 << random() % 8);
        // To the byte, for the address sanitizer.
        mutant.resize(random() % 4 == 0 ? 1 + random() % mutant.size() : mutant.size());
        const int len = static_cast<int>(mutant.size());
        for (const Call call : {KTZIPDataUncompress, KTGZIPDataUncompress, ExpandAll}) {
            CKTString out;
            const int result = call(out, mutant.data(), mutant.size());
            const int good = call == KTZIPDataUncompress ? len : static_cast<int>(out.GetLength());
            ASSERT_TRUE(result == good || result == -15) << result;
        }
    }
}

TEST(ZipFile, PlainFilesGoToGzipFilesAndBack) {
    TestFolder folder;
    const std::string plain = folder / "a", packed = folder / "\xC3\xA4.gz", back = folder / "b";
    TestFolder::Put(packed, kNote);
    const bool hasProgram = Gunzip(packed) == "gzip made this\n";
    for (const std::size_t size : {0, 4127, 4128, 4129, 300000}) {
        const std::string text = Lines(size);
        TestFolder::Put(plain, text);
        EXPECT_EQ(KTZIPFileCompress(plain.c_str(), packed.c_str()), 0);
        EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), back.c_str()), 0);
        EXPECT_EQ(TestFolder::Get(back), text) << size;
        EXPECT_TRUE(!hasProgram || Gunzip(packed) == text) << size;
    }
}

TEST(ZipFile, FailuresHaveTheirCodes) {
    TestFolder folder;
    const std::string plain = folder / "a", packed = folder / "b", nowhere = folder / "n/o";
    TestFolder::Put(plain, Lines(10000));
    EXPECT_EQ(KTZIPFileCompress(packed.c_str(), packed.c_str()), -11);
    EXPECT_EQ(KTZIPFileCompress(plain.c_str(), nowhere.c_str()), -1);
    EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), plain.c_str()), -11);
    TestFolder::Put(packed, k1024.substr(0, 20) + k1025.substr(20));  // another's checksum
    EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), plain.c_str()), -1);
    EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), nowhere.c_str()), -11);
    TestFolder::Put(packed, kNote.substr(0, kNote.size() - 9));
    EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), plain.c_str()), 0);
    EXPECT_EQ(TestFolder::Get(plain), "gzip made this\n");
    if (std::filesystem::is_character_file("/dev/full")) {
        EXPECT_EQ(KTZIPFileCompress(plain.c_str(), "/dev/full"), -1);
        EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), "/dev/full"), -1);
    }
}

TEST(ZipFile, HandlesReadOrWriteAndTellACutFile) {
    TestFolder folder;
    const std::string path = folder / "file.gz";
    char buffer[100] = "";
    EXPECT_EQ(KTZIPFileOpen(path.c_str(), "w+"), nullptr);
    void* file = KTZIPFileOpen(path.c_str(), "wb9");
    EXPECT_EQ(KTZIPFileWrite(file, "abcdef", 6), 6);
    EXPECT_EQ(KTZIPFileRead(file, buffer, 3), -1);
    EXPECT_EQ(KTZIPFileClose(file), 0);
    const std::string bytes = TestFolder::Get(path);
    TestFolder::Put(path, bytes.substr(0, bytes.size() - 1));
    file = KTZIPFileOpen(path.c_str(), "rb");
    EXPECT_EQ(KTZIPFileWrite(file, "abc", 3), -1);
    EXPECT_EQ(KTZIPFileRead(file, buffer, 100), 6);
    EXPECT_STREQ(buffer, "abcdef");
    EXPECT_EQ(KTZIPFileClose(file), -7);
}
