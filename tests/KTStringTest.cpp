#include "KTBase/KTString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "KTBase/KTTime.h"
#include "KTHeap.h"

namespace {

/// The bytes in use; checks the terminator on the way.
std::string Text(const CKTString& s) {
    if (s.GetBuffer() == nullptr)
        return "";
    EXPECT_LT(s.GetLength(), s.Size());
    EXPECT_EQ(s.GetBuffer()[s.GetLength()], 0);
    return {s.GetBuffer(), s.GetLength()};
}

/// A range without terminator in a block of its own, so that a read past it is caught.
struct Range {
    explicit Range(const std::string& text) : bytes(text.begin(), text.end()) {}
    const char* Begin() const { return bytes.data(); }
    const char* End() const { return Begin() + bytes.size(); }
    const char* Last() const { return End() - 1; }
    /// Position in the range; -2 for null.
    int At(const char* p) const { return p == nullptr ? -2 : static_cast<int>(p - Begin()); }
    const std::vector<char> bytes;
};

int AppendTwice(CKTString& s, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int sum = s.Append(&args, format) + s.Append(&args, format);
    va_end(args);
    return sum;
}

}  // namespace

TEST(String, GrowsByItsShiftWithinItsLimit) {
    const struct {
        unsigned short maxCapacity, growShift;
        unsigned int count;
        int result;
        unsigned int size;
    } cases[] = {{0, 5, 31, 31, 32},  {0, 5, 32, 32, 64}, {0, 4, 16, 16, 32}, {0, 0, 31, 31, 32},
                 {20, 0, 19, 19, 20}, {20, 0, 20, -6, 0}, {20, 5, 1, -6, 0},  {64, 5, 63, 63, 64},
                 {64, 5, 64, -6, 0},  {0, 64, 1, -6, 0}};
    for (const auto& one : cases) {
        CKTString s(one.maxCapacity, one.growShift);
        EXPECT_EQ(s.AppendChar('x', one.count), one.result) << one.count;
        EXPECT_EQ(s.Size(), one.size) << one.count;
    }
    CKTString exact("abc");
    EXPECT_EQ(CKTString(exact).Size(), 4u);         // copies grow by exact sizes
    EXPECT_EQ(exact.AllocBuffer(0x80000000u), -1);  // an int could not tell it from a failure
}

TEST(String, RefusesTheByteBeyondItsLimitAndKeepsTheRest) {
    CKTString s(20, 0);
    EXPECT_EQ(s.AppendSTR("0123456789012345678", 0), 19);
    EXPECT_EQ(s.Append("%d", 7), -1);
    EXPECT_EQ(s += s, -1);
    EXPECT_EQ(Text(s.Replace("8", "89")), "0123456789012345678");
    s = "twenty characters !!";
    EXPECT_EQ(Text(s), "");  // assignment empties first
}

TEST(String, TakesItsOwnBytesAsSource) {
    CKTString s("abcdef");
    EXPECT_EQ(s += s, 6);
    EXPECT_EQ(s.AppendSTR(s.GetBuffer() + 2, 3), 3);
    EXPECT_EQ(s.Append("<%s>", s.GetBuffer() + 12), 5);
    s.AllocBuffer(100);
    EXPECT_EQ(s.Append("<%s>", s.GetBuffer() + 15), 7);
    s = s.GetBuffer() + 12;
    EXPECT_EQ(Text(s), "cde<cde><<cde>>");
    s = static_cast<const CKTString&>(s);
    EXPECT_EQ(Text(s.Replace("cde", s.GetBuffer() + 11)), "de>><de>>><<de>>>>");
    EXPECT_EQ(CKTString::Multi2UTF8(s, s.GetBuffer() + 10), 8);
    EXPECT_EQ(Text(s), "<<de>>>>");
}

TEST(String, KeepsItsContentWhenMemoryIsOut) {
    CKTString s("kept"), other("abc"), full;
    full.AppendChar('x', 30);
    char* slot = CKTString::Clone("old", 9);
    KTHeapFailAt(1, 1000);
    EXPECT_EQ(s.AppendSTR("x", 0), -1);
    EXPECT_EQ(full.AppendChar('x', full.GetSpace()), -6);  // grows one step early
    EXPECT_EQ(s.Append("%600d", 1), -1);
    EXPECT_EQ(CKTString::BASE64Decode(s, "TWFu", 4), -1);
    s.Replace("kept", "lost");
    CKTString::Clone(&slot, "new", 0);
    EXPECT_EQ(CKTString("abc").GetLength() + CKTString(other).GetLength(), 0u);
    EXPECT_EQ(CKTString::Multi2UTF8(other, "x"), -1);
    KTHeapFailAt(0);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(Text(s), "kept");
}

TEST(String, FormatsFromArgumentListsOfAnySizeAndKeepsBinaryBytes) {
    for (int width : {1, 510, 511, 5000}) {  // around the size where the second pass begins
        CKTString s;
        EXPECT_EQ(AppendTwice(s, "%c%*d", 0, width, 7), 2 * width + 2);
        CKTString copy(s.Replace(" ", ""));
        EXPECT_EQ(Text(copy), std::string("\0007\0007", 4));
    }
}

TEST(String, TakesInBytesBehindItsEndAndFlushesFromTheFront) {
    CKTString s("ab");
    EXPECT_EQ(s.AllocBuffer(4), 4);
    std::memcpy(s.GetBuffer() + 2, "cdef", 4);
    EXPECT_EQ(s.Add(3), 5);
    EXPECT_EQ(s.Add(2), -1);
    EXPECT_EQ(s.Add(0x7FFFFFFF), -1);
    EXPECT_EQ(s.Flush(3), 2);
    EXPECT_EQ(Text(s), "de");
    EXPECT_EQ(CKTString(s).Flush(2) + s.Flush(-1), 0);
}

TEST(String, ReplacesHeapTextsInTheirSlots) {
    const Range open("abcdef");  // only what the length allows is read
    char* slot = CKTString::Clone(open.Begin(), 6);
    char* first = slot;
    CKTString::Clone(&slot, "abcdefg", 6);  // the same bytes: left alone
    EXPECT_EQ(slot, first);
    CKTString::Clone(&slot, slot + 2, 3);
    EXPECT_STREQ(slot, "cde");
    CKTString::Clone(&slot, nullptr, 3);
    EXPECT_EQ(slot, nullptr);
}

TEST(String, WritesTimesAndDurations) {
    ZHTIME word = 37u << 26 | 2u << 22 | 9u << 17 | 4u << 12 | 5u << 6 | 6u;
    CKTTime time(&word, 7);
    CKTString s;
    EXPECT_EQ(s.AppendTime(&time, 0), 23);
    EXPECT_EQ(s.AppendTime(static_cast<CKTTime*>(nullptr), 0), 0);
    for (unsigned long long ms : {3723004ull, ~0ull}) {
        s.AppendTime(ms, 0);
        s.AppendTime(ms, 1);
    }
    EXPECT_EQ(Text(s),
              "2037/02/09 04:05:06.00701:02:03.0043723.4"
              "5124095576030:25:51.61518446744073709551.615");
}

TEST(String, ReplacesFromTheLeftWithoutOverlap) {
    const char* cases[][4] = {
        {"aaa", "aa", "b", "ba"},    {"aXbX", "X", "--", "a--b--"}, {"XX", "X", "", ""},
        {"abc", "abcd", "x", "abc"}, {"abc", "", "x", "abc"},       {"abab", "ab", "b", "bb"},
        {"a", nullptr, "y", "a"},    {"a", "a", nullptr, "a"},      {"", "a", "b", ""}};
    for (const auto& one : cases)
        EXPECT_EQ(Text(CKTString(one[0]).Replace(one[1], one[2])), one[3]) << one[0];
}

TEST(String, ComparesByTheRulesOfEachCall) {
    const struct {
        const char *own, *other;
        int equalTo, equals, differs;
    } cases[] = {{"abc", "abc", 1, 1, 0}, {"abc", "ab", 0, 0, 1},    {"ab", "abc", 0, 0, 1},
                 {"abc", "", 0, 0, 1},    {"abc", nullptr, 0, 0, 0}, {nullptr, "", 1, 0, 0},
                 {nullptr, "a", 0, 0, 0}};
    for (const auto& one : cases) {
        CKTString s(one.own);
        EXPECT_EQ(s.EqualTo(one.other), one.equalTo);
        EXPECT_EQ(s.EqualTo(CKTString(one.other)), one.equalTo);
        EXPECT_EQ(s == one.other, one.equals);
        EXPECT_EQ(s != one.other, one.differs);
    }
    CKTString s("abc");
    s.Empty(false);
    EXPECT_EQ(s == "", 1);  // unlike one that never had a buffer
    s.AppendSTR("\0x", 2);
    EXPECT_EQ(s.EqualTo("") + (s == ""), 0);
}

TEST(StringRange, FindsWithoutReadingPastTheRange) {
    const Range text("abcabcab");
    const char *b = text.Begin(), *e = text.End();
    const struct {
        const char* pattern;
        int first, last;
    } cases[] = {{"abc", 0, 3},   {"ab", 0, 6},          {"cabc", 2, 2}, {"b", 1, 7},
                 {"abd", -2, -2}, {"abcabcabc", -2, -2}, {"", -2, -2}};
    for (const auto& one : cases) {
        EXPECT_EQ(text.At(CKTString::Find(one.pattern, b, 8)), one.first);
        EXPECT_EQ(text.At(CKTString::ReverseFind(one.pattern, b, 8)), one.last);
        EXPECT_EQ(CKTString::Compare(b, e, one.pattern), one.first == 0 || *one.pattern == 0);
    }
    EXPECT_EQ(text.At(CKTString::Find('b', b + 5, text.Last())), 7);  // last counts
}

TEST(StringRange, ScansForSetsAndTrimsThem) {
    const Range text(" \t\xFF=; ");
    const char *b = text.Begin(), *e = text.End();
    EXPECT_EQ(text.At(CKTString::FindL(b, e, "?\xFF")), 2);
    EXPECT_EQ(text.At(CKTString::FindL(b, e, "?\x7F")), 6);
    EXPECT_EQ(text.At(CKTString::TrimL(b, e, "\t ")), 2);
    EXPECT_EQ(text.At(CKTString::TrimR(b, e, " ;")), 4);
    EXPECT_EQ(CKTString::TrimL(b, e, " \t\xFF=;"), nullptr);
    EXPECT_EQ(CKTString::TrimR(b, e, " \t\xFF=;"), b);

    const Range one("--a--");
    EXPECT_EQ(one.At(CKTString::TrimL(one.Begin(), one.Last(), '-')), 2);
    EXPECT_EQ(one.At(CKTString::TrimR(one.Begin(), one.Last(), '-')), 2);
    EXPECT_EQ(one.At(CKTString::TrimL(one.Begin() + 3, one.Last(), '-')), 5);
    EXPECT_EQ(one.At(CKTString::TrimR(one.Begin(), one.Begin() + 1, '-')), -1);
}

TEST(StringRange, CopiesWithinTheSizeAndTerminates) {
    const struct {
        int size;
        const char *copy, *trimmed;
    } cases[] = {{0, " abc ", "abc"}, {5, " abc", "abc"}, {3, " a", "ab"}, {1, "", ""}};
    for (const auto& one : cases) {
        char copy[] = "xxxxxxx", trimmed[] = "xxxxxxx";
        EXPECT_EQ(CKTString::Copy(copy, " abc ", one.size), static_cast<int>(strlen(one.copy)));
        EXPECT_STREQ(copy, one.copy);
        CKTString::TrimCopy(trimmed, " abc ", one.size);
        EXPECT_STREQ(trimmed, one.trimmed);
    }
}

TEST(String, AnswersNullsNeutrally) {
    const char* none = nullptr;
    CKTString s("kept");
    EXPECT_EQ(s.AppendSTR(none, 3) + s.AppendDAT(nullptr, 3) + s.Append(none, 0), 0);
    EXPECT_EQ(s << static_cast<const CKTString*>(nullptr), -1);
    EXPECT_EQ(AppendTwice(s, none), -2);
    s = none;
    EXPECT_EQ(Text(s), "");
}

TEST(String, AppendsBase64OfARange) {
    CKTString s("=");  // vectors: RFC 4648, section 10
    EXPECT_EQ(CKTString::BASE64Encode(s, "foobar", 4), 8);
    EXPECT_EQ(CKTString::BASE64Encode(s, "foobar", 0), -1);
    const Range open("Zm9vYmFyAA==");
    EXPECT_EQ(CKTString::BASE64Decode(s, open.Begin(), 12), 7);  // the zero byte is kept
    EXPECT_EQ(CKTString::BASE64Decode(s, "Zm9vYmFy", -1), 6);
    EXPECT_EQ(Text(s), std::string("=Zm9vYg==foobar\0foobar", 22));
}

TEST(String, ConvertsTheSystemsCodePageToUtf8) {
#define R "\xEF\xBF\xBD"
    // The Unicode Standard 15.0, tables 3-9 to 3-11: one U+FFFD for each maximal subpart; then a
    // sequence that the end of the text cuts off.
    const char broken[] =
        "\xED\xA0\x80\xED\xBF\xBF\xED\xAF\x41\xF4\x91\x92\x93\xFF\x41\x80\xBF\x42"
        "\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41\xF0\x9F\x98";
    const char repaired[] = R R R R R R R R "A" R R R R R "A" R R "B" R R R R "A" R;
#undef R
    CKTString out;
    CKTString::Multi2UTF8(out, "\xC3\xA9");
    const bool unicode = Text(out) == "\xC3\xA9";
    if (!unicode && Text(out) != "\xC3\x83\xC2\xA9")
        GTEST_SKIP() << "the page is neither UTF-8 nor Windows-1252";
    EXPECT_GT(CKTString::Multi2UTF8(out, unicode ? broken : "\x80"), 0);
    EXPECT_EQ(Text(out), unicode ? repaired : "\xE2\x82\xAC");
}
