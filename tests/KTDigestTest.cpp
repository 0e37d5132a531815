#include "KTBase/KTDigest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"

namespace {

std::string Decoded(const char* text, unsigned int trimZeros) {
    unsigned char* data = nullptr;
    unsigned int length = 0;
    EXPECT_EQ(KTBASE64Decode(&data, &length, text, trimZeros), 1);
    EXPECT_EQ(data[length], 0);
    std::string result(reinterpret_cast<char*>(data), length);
    ZMKFree(data);
    return result;
}

}  // namespace

TEST(Base64, FollowsThePublishedVectorsBothWays) {
    // RFC 4648, section 10; the last two by hand, to meet every alphabet end and a high byte.
    const struct {
        std::string data;
        const char* text;
    } cases[] = {{"f", "Zg=="},         {"fo", "Zm8="},
                 {"foo", "Zm9v"},       {"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
                 {"\xFF", "/w=="},      {std::string("\xFB\xEF\xBE\0\x10\x83", 6), "++++ABCD"}};
    for (const auto& one : cases) {
        CKTString text;
        const auto* data = reinterpret_cast<const unsigned char*>(one.data.data());
        EXPECT_EQ(KTBASE64EncodeSTR(text, data, static_cast<unsigned int>(one.data.size())), 1);
        EXPECT_STREQ(text.GetBuffer(), one.text);
        EXPECT_EQ(Decoded(one.text, 0), one.data);
    }
}

TEST(Base64, DecodesLooseTextsTheWayStoredOnesNeed) {
    // An incomplete last group is dropped; '=' ends the text; the fourth character alone decides on
    // the third byte; '=' in front counts as zero, and so does a byte outside the alphabet.
    const char* cases[][2] = {{"TWF", ""},
                              {"TWFuT", "Man"},
                              {"TQ==TWFu", "M"},
                              {"TW=u", "M\x2E"},
                              {"=WFuTWFu", "\x01\x61\x6E"},
                              {"T!Fu", "L\x01\x6E"},
                              {"zz\xFF\x42", "\xCF\x30\x01"}};
    for (const auto& one : cases)
        EXPECT_EQ(Decoded(one[0], 0), one[1]) << one[0];
}

TEST(Base64, TrimsZeroBytesFromTheEndOnly) {
    EXPECT_EQ(Decoded("AEEAAA==", 0), std::string("\0A\0\0", 4));
    EXPECT_EQ(Decoded("AEEAAA==", 1), std::string("\0A", 2));
    EXPECT_EQ(Decoded("AAAA", 1), "");
    CKTString out("x");
    EXPECT_EQ(KTBASE64DecodeSTR(out, "QUEAAA==", 0), 1);  // always trims
    EXPECT_STREQ(out.GetBuffer(), "xAA");
    EXPECT_EQ(out.GetLength(), 3u);
}

TEST(Base64, DecodesIntoTheCallersBufferAndNoFurther) {
    char dst[] = "TWFuTQ==";
    unsigned char* bytes = reinterpret_cast<unsigned char*>(dst);
    EXPECT_EQ(KTBASE64DecodeExt(bytes, dst, 0), 4);  // in place
    EXPECT_EQ(std::memcmp(dst, "ManM\0Q==", 8), 0);
    EXPECT_EQ(KTBASE64DecodeExt2(bytes, 2, "eHl6", 0), 2);  // cut, without a terminator
    EXPECT_STREQ(dst, "xynM");
}

TEST(Base64, AnswersMissingArgumentsAndFullStrings) {
    const unsigned char byte = 0;
    char* encoded = nullptr;
    unsigned int length = 0;
    CKTString out(4, 0);
    EXPECT_EQ(KTBASE64Encode(&encoded, &length, &byte, 0), 0);
    EXPECT_EQ(KTBASE64DecodeExt2(nullptr, 1, "TWFu", 0), -1);
    EXPECT_EQ(KTBASE64DecodeSTR(out, nullptr, 0) + KTBASE64DecodeSTR(out, "TWFuTWFu", 0), 0);
}
