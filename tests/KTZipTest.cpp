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

int Expand(CKTString& out, const std::string& data, unsigned int maxOut = 0) {
    return KTGZIPDataUncompressAll(out, data.data(), static_cast<unsigned int>(data.size()),
                                   maxOut);
}

int ExpandSmall(CKTString& out, const std::string& data) {
    return KTGZIPDataUncompress(out, data.data(), static_cast<unsigned int>(data.size()));
}

int ExpandZlib(CKTString& out, const std::string& data) {
    return KTZIPDataUncompress(out, data.data(), static_cast<unsigned int>(data.size()));
}

/// What the gzip program makes of a file; nothing where there is none.
std::string Gunzip(const std::string& path) {
    const std::string result = path + ".expanded";
    const int code = std::system(("gzip -dc < \"" + path + "\" > \"" + result + "\"").c_str());
    return code == 0 ? TestFolder::Get(result) : "";
}

}  // namespace

TEST(ZipData, ChecksumContinues) {
    EXPECT_EQ(KTZIPDataChecksum(KTZIPDataChecksum(1, "Wiki", 4), "pedia", 5), 0x11E60398u);
    EXPECT_EQ(KTZIPDataChecksum(7, nullptr, 0), 1u);
}

TEST(ZipData, AppendsAndReturnsTheInputsLength) {
    CKTString packed("<"), plain("<");
    EXPECT_EQ(KTZIPDataCompress(packed, "abc", -1), 3);
    EXPECT_EQ(Text(packed), "<" + kAbc);
    EXPECT_EQ(KTZIPDataCompress(packed, "abcd", 3), 3);
    EXPECT_EQ(Text(packed), "<" + kAbc + kAbc);
    EXPECT_EQ(ExpandZlib(plain, kAbc), 11);
    EXPECT_EQ(ExpandZlib(plain, kAbc + "more behind its end"), 30);
    EXPECT_EQ(Text(plain), "<abcabc");
    EXPECT_EQ(KTZIPDataCompress(plain, nullptr, 3), -4);
    EXPECT_EQ(KTZIPDataUncompress(plain, nullptr, 3), 0);
    EXPECT_EQ(KTZIPDataUncompress(plain, "x", 0), 0);
    EXPECT_EQ(Text(plain), "<abcabc");
}

TEST(ZipData, ReturnsWhatItTookAtAnySize) {
    for (const std::size_t size : {0, 1, 127, 128, 129, 1000000}) {
        // Both compress to next to nothing and to about a third.
        for (const std::string& text : {std::string(size, 'a'), Lines(size)}) {
            CKTString packed, plain;
            EXPECT_EQ(KTZIPDataCompress(packed, text.data(), static_cast<int>(size)),
                      static_cast<int>(size));
            EXPECT_EQ(ExpandZlib(plain, Text(packed)), static_cast<int>(packed.GetLength()));
            EXPECT_EQ(Text(plain), text) << size;
        }
    }
}

TEST(ZipData, StopsAtCorruptDataAndAtAFullString) {
    CKTString packed, plain("<"), cut, small(300, 0), tiny(8, 0);
    const std::string text = Lines(2000);
    ASSERT_EQ(KTZIPDataCompress(packed, text.data(), 2000), 2000);
    std::string bytes = Text(packed);
    EXPECT_EQ(ExpandZlib(plain, kNote), -15);
    EXPECT_EQ(Text(plain), "<");
    EXPECT_EQ(ExpandZlib(cut, bytes.substr(0, bytes.size() / 2)),
              static_cast<int>(bytes.size() / 2));
    EXPECT_EQ(Text(cut), text.substr(0, cut.GetLength()));
    bytes.back() ^= 1;  // of the checksum
    EXPECT_EQ(ExpandZlib(plain, bytes), -15);
    EXPECT_EQ(Text(plain), "<" + text.substr(0, plain.GetLength() - 1));
    EXPECT_EQ(plain.GetBuffer()[plain.GetLength()], 0);
    packed.Empty(false);
    ASSERT_EQ(KTZIPDataCompress(packed, std::string(2000, 'a').data(), 2000), 2000);
    EXPECT_EQ(ExpandZlib(small, Text(packed)), -6);
    EXPECT_EQ(Text(small), std::string(small.GetLength(), 'a'));
    EXPECT_EQ(KTZIPDataCompress(tiny, "abc", 3), -6);
    EXPECT_EQ(KTGZIPDataCompress(tiny, "abc", 3), -6);
}

TEST(GzipData, ExpandsWhatTheProgramWrote) {
    CKTString out("old");
    EXPECT_EQ(ExpandSmall(out, kNote), 15);
    EXPECT_EQ(Text(out), "gzip made this\n");
    EXPECT_EQ(ExpandSmall(out, k1024), 1024);
    EXPECT_EQ(Text(out), std::string(1024, 'a'));
    EXPECT_EQ(ExpandSmall(out, k1025), -15);
    EXPECT_EQ(Text(out), "");
    EXPECT_EQ(ExpandSmall(out, kNothing), 0);
    EXPECT_EQ(ExpandSmall(out, kAbc), -15);
    EXPECT_EQ(ExpandSmall(out, ""), -15);
    EXPECT_EQ(ExpandSmall(out, kNote.substr(0, kNote.size() - 1)), -15);
    out = "old";
    EXPECT_EQ(KTGZIPDataUncompress(out, nullptr, 5), -4);
    EXPECT_EQ(out.Size(), 0u);
    CKTString small(8, 0);
    EXPECT_EQ(ExpandSmall(small, kNote), 0);  // no room for any of it
}

TEST(GzipData, ExpandsAllMembersUpToTheCallersLimit) {
    CKTString out("old");
    EXPECT_EQ(Expand(out, k1025), 1025);
    EXPECT_EQ(Expand(out, kNote + kNothing + k1024 + kAbc), 15 + 1024 + 3);
    EXPECT_EQ(Text(out), "gzip made this\n" + std::string(1024, 'a') + "abc");
    EXPECT_EQ(Expand(out, kNothing, 1), 0);
    EXPECT_EQ(Expand(out, kNote, 15), 15);
    const std::string members = kNote + k1024;
    const struct {
        std::string data;
        unsigned int maxOut;
        int result;
    } cases[] = {
        {members, 1038, -8},
        {members, 14, -8},
        {members.substr(0, members.size() - 1), 0, -15},
        {members.substr(0, kNote.size() + 5), 0, -15},
        {members + "tail", 0, -15},
        {kNote.substr(0, 4), 0, -15},
        {"plain text", 0, -15},
        {"", 0, -15},
    };
    for (const auto& one : cases) {
        out = "old";
        EXPECT_EQ(Expand(out, one.data, one.maxOut), one.result);
        EXPECT_EQ(Text(out), "");
    }
    EXPECT_EQ(KTGZIPDataUncompressAll(out, nullptr, 5, 0), -4);
    CKTString small(1000, 0);
    EXPECT_EQ(Expand(small, k1024), -6);
    EXPECT_EQ(Text(small), "");
}

TEST(GzipData, CompressesOverTheStartOfTheString) {
    const std::string text = Lines(3000000);
    CKTString out, back;
    EXPECT_EQ(KTGZIPDataCompress(out, text.data(), 3000000), 0);
    EXPECT_EQ(Expand(back, Text(out)), 3000000);
    EXPECT_EQ(Text(back), text);
    CKTString abc, longer("old bytes");
    EXPECT_EQ(KTGZIPDataCompress(abc, "abc", 0xFFFFFFFFu), 0);
    EXPECT_EQ(ExpandSmall(back, Text(abc)), 3);
    EXPECT_EQ(Text(back), "abc");
    // The length grows by the size, as if the data had been appended; nothing stray shows.
    EXPECT_EQ(KTGZIPDataCompress(longer, "abc", 3), 0);
    EXPECT_EQ(Text(longer), Text(abc) + std::string(9, '\0'));
    EXPECT_EQ(KTGZIPDataCompress(longer, nullptr, 3), -4);
}

TEST(GzipData, TakesItsInputFromTheStringItChanges) {
    const std::string text = Lines(500);
    CKTString own(text.c_str()), packed;
    EXPECT_EQ(KTZIPDataCompress(own, own.GetBuffer(), 500), 500);
    const unsigned int size = own.GetLength() - 500;
    EXPECT_EQ(KTZIPDataUncompress(own, own.GetBuffer() + 500, size), static_cast<int>(size));
    EXPECT_EQ(Text(own).substr(own.GetLength() - 500), text);
    own = text.c_str();
    EXPECT_EQ(KTGZIPDataCompress(packed, text.data(), 500), 0);
    EXPECT_EQ(KTGZIPDataCompress(own, own.GetBuffer(), 500), 0);
    EXPECT_EQ(Text(own).substr(0, packed.GetLength()), Text(packed));
    EXPECT_EQ(KTGZIPDataUncompress(own, own.GetBuffer(), packed.GetLength()), 500);
    EXPECT_EQ(KTGZIPDataUncompressAll(packed, packed.GetBuffer(), packed.GetLength(), 0), 500);
    EXPECT_EQ(Text(packed), text);
}

TEST(ZipData, MutantsEndInStatedCodes) {
    std::mt19937 random(1);
    CKTString zlibData, gzipData;
    const std::string text = Lines(700);
    ASSERT_EQ(KTZIPDataCompress(zlibData, text.data(), 700), 700);
    ASSERT_EQ(KTGZIPDataCompress(gzipData, text.data(), 700), 0);
    for (int i = 0; i < 4000; ++i) {
        std::string mutant = Text(i % 2 != 0 ? zlibData : gzipData);
        for (unsigned int changes = 1 + random() % 3; changes != 0; --changes)
            mutant[random() % mutant.size()] ^= static_cast<char>(1 << random() % 8);
        if (random() % 4 == 0)
            mutant.resize(1 + random() % mutant.size());
        // To the byte, for the address sanitizer.
        const std::vector<char> data(mutant.begin(), mutant.end());
        const unsigned int len = static_cast<unsigned int>(data.size());
        CKTString a, b, c;
        const int appended = KTZIPDataUncompress(a, data.data(), len);
        ASSERT_TRUE(appended == static_cast<int>(len) || appended == -15) << appended;
        const int small = KTGZIPDataUncompress(b, data.data(), len);
        ASSERT_TRUE(small == static_cast<int>(b.GetLength()) || small == -15);
        const int all = KTGZIPDataUncompressAll(c, data.data(), len, 100000);
        ASSERT_TRUE(all == static_cast<int>(c.GetLength()) || all == -8 || all == -15);
    }
}

TEST(ZipFile, PlainFilesGoToGzipFilesAndBack) {
    TestFolder folder;
    const std::string plain = folder / "plain", packed = folder / "\xC3\xA4.gz",
                      back = folder / "back";
    TestFolder::Put(packed, kNote);
    const bool hasProgram = Gunzip(packed) == "gzip made this\n";
    for (const std::size_t size : {0, 1, 4096, 4127, 4128, 4129, 8256, 300000}) {
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
    const std::string plain = folder / "plain", packed = folder / "packed", back = folder / "back",
                      missing = folder / "missing", nowhere = folder / "no/file";
    TestFolder::Put(plain, Lines(10000));
    EXPECT_EQ(KTZIPFileCompress(nullptr, packed.c_str()), -4);
    EXPECT_EQ(KTZIPFileCompress(plain.c_str(), ""), -4);
    EXPECT_EQ(KTZIPFileCompress(missing.c_str(), packed.c_str()), -11);
    EXPECT_FALSE(std::filesystem::exists(packed));
    EXPECT_EQ(KTZIPFileCompress(plain.c_str(), nowhere.c_str()), -1);
    EXPECT_EQ(KTZIPFileCompress(plain.c_str(), packed.c_str()), 0);
    EXPECT_EQ(KTZIPFileUncompress("", back.c_str()), -4);
    EXPECT_EQ(KTZIPFileUncompress(missing.c_str(), back.c_str()), -11);
    EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), nowhere.c_str()), -11);
    std::string bytes = TestFolder::Get(packed);
    bytes[bytes.size() - 6] ^= 1;  // of the checksum
    TestFolder::Put(packed, bytes);
    EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), back.c_str()), -1);
    TestFolder::Put(packed, kNote.substr(0, kNote.size() - 9));
    EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), back.c_str()), 0);
    EXPECT_EQ(TestFolder::Get(back), "gzip made this\n");
    if (std::filesystem::is_character_file("/dev/full")) {
        EXPECT_EQ(KTZIPFileCompress(plain.c_str(), "/dev/full"), -1);
        TestFolder::Put(packed, kNote);
        EXPECT_EQ(KTZIPFileUncompress(packed.c_str(), "/dev/full"), -1);
    }
}

TEST(ZipFile, HandlesReadAndWriteOneWay) {
    TestFolder folder;
    const std::string path = folder / "\xC3\xA4.gz";
    char buffer[100] = "";
    EXPECT_EQ(KTZIPFileOpen(path.c_str(), "rb"), nullptr);
    EXPECT_EQ(KTZIPFileOpen(path.c_str(), "w+"), nullptr);
    EXPECT_EQ(KTZIPFileOpen(nullptr, "rb"), nullptr);
    void* file = KTZIPFileOpen(path.c_str(), "wb9");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(KTZIPFileWrite(file, "abc", 3), 3);
    EXPECT_EQ(KTZIPFileWrite(file, "abc", 0), 0);
    EXPECT_EQ(KTZIPFileWrite(file, nullptr, 3), -4);
    EXPECT_EQ(KTZIPFileWrite(file, "abc", 0x80000000u), -4);
    EXPECT_EQ(KTZIPFileRead(file, buffer, 3), -1);
    EXPECT_EQ(KTZIPFileWrite(file, "def", 3), 3);
    EXPECT_EQ(KTZIPFileClose(file), 0);
    file = KTZIPFileOpen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(KTZIPFileWrite(file, "abc", 3), -1);
    EXPECT_EQ(KTZIPFileRead(file, buffer, 4), 4);
    EXPECT_EQ(KTZIPFileRead(file, buffer + 4, 4), 2);
    EXPECT_EQ(KTZIPFileRead(file, buffer, 4), 0);
    EXPECT_STREQ(buffer, "abcdef");
    EXPECT_EQ(KTZIPFileClose(file), 0);
    TestFolder::Put(path, kNote.substr(0, kNote.size() - 9));
    file = KTZIPFileOpen(path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(KTZIPFileRead(file, buffer, 100), 15);
    EXPECT_EQ(KTZIPFileClose(file), -7);  // cut in the middle of its member
    EXPECT_EQ(KTZIPFileClose(nullptr), -5);
    EXPECT_EQ(KTZIPFileRead(nullptr, buffer, 4), -5);
    EXPECT_EQ(KTZIPFileWrite(nullptr, buffer, 4), -5);
}
