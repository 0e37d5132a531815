#include "KTBase/KTDigest.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"
#include "KTTestBytes.h"

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

/// Bytes 1, 2, 3...
std::string Counting(unsigned int len) {
    std::string bytes;
    while (bytes.size() < len)
        bytes += static_cast<char>(bytes.size() + 1);
    return bytes;
}

std::string Md5(const std::string& message) {
    char text[33];
    KTMD5Data(Bytes(message), static_cast<unsigned int>(message.size()), text);
    return Unhex(text);
}

std::string Sha1(const std::string& message) {
    unsigned char digest[20];
    KTSHA1(Bytes(message), static_cast<int>(message.size()), digest);
    return std::string(digest, digest + 20);
}

std::string Hmac(const std::string& key, const std::string& message) {
    unsigned char digest[20];
    KTHMAC_SHA1(message.data(), static_cast<int>(message.size()), Bytes(key),
                static_cast<int>(key.size()), digest);
    return std::string(digest, digest + 20);
}

// What is packed and unpacked lies in blocks of exactly the size that it may take, for the address
// sanitizer.

std::string Packed(const std::string& row) {
    std::vector<unsigned char> dst(row.size() + (row.size() + 127) / 128);
    const int size = KTPackbits(Bytes(row), dst.data(), static_cast<int>(row.size()));
    return std::string(dst.begin(), dst.begin() + size);
}

std::string Unpacked(const std::string& packed, std::size_t room) {
    const std::vector<unsigned char> src(packed.begin(), packed.end());
    std::vector<unsigned char> dst(room);
    const int size =
        KTUnpackbits(src.data(), static_cast<int>(src.size()), dst.data(), static_cast<int>(room));
    return size < 0 ? "negative" : std::string(dst.begin(), dst.begin() + size);
}

}  // namespace

TEST(Base64, FollowsThePublishedVectorsBothWays) {
    // RFC 4648, section 10; the last two by hand, to meet every alphabet end and a high byte.
    const struct {
        std::string data;
        const char* text;
    } cases[] = {{"foob", "Zm9vYg=="},
                 {"fooba", "Zm9vYmE="},
                 {"foobar", "Zm9vYmFy"},
                 {"\xFF", "/w=="},
                 {std::string("\xFB\xEF\xBE\0\x10\x83", 6), "++++ABCD"}};
    for (const auto& one : cases) {
        CKTString text;
        const unsigned int length = static_cast<unsigned int>(one.data.size());
        EXPECT_EQ(KTBASE64EncodeSTR(text, Bytes(one.data), length), 1);
        EXPECT_EQ(Text(text), one.text);
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
                              {"zz\xE2\x42", "\xCF\x30\x01"}};
    for (const auto& one : cases)
        EXPECT_EQ(Decoded(one[0], 0), one[1]) << one[0];
}

TEST(Base64, TrimsZeroBytesFromTheEndOnly) {
    EXPECT_EQ(Decoded("AEEAAA==", 0), std::string("\0A\0\0", 4));
    EXPECT_EQ(Decoded("AEEAAA==", 1), std::string("\0A", 2));
    EXPECT_EQ(Decoded("AAAA", 1), "");
    CKTString out("x"), full(4, 0);
    EXPECT_EQ(KTBASE64DecodeSTR(out, "QUEAAA==", 0), 1);  // always trims
    EXPECT_EQ(Text(out), "xAA");
    EXPECT_EQ(KTBASE64DecodeSTR(full, "TWFuTWFu", 0), 0);
}

TEST(Base64, DecodesIntoTheCallersBufferAndNoFurther) {
    char dst[] = "TWFuTQ==";
    unsigned char* bytes = reinterpret_cast<unsigned char*>(dst);
    EXPECT_EQ(KTBASE64DecodeExt(bytes, dst, 0), 4);  // in place
    EXPECT_EQ(std::memcmp(dst, "ManM\0Q==", 8), 0);
    EXPECT_EQ(KTBASE64DecodeExt2(bytes, 2, "eHl6", 0), 2);  // cut, without a terminator
    EXPECT_STREQ(dst, "xynM");
}

TEST(Digest, FollowsThePublishedVectors) {
    const std::string eighty =
        "12345678901234567890123456789012345678901234567890123456789012345678901234567890";
    const std::pair<std::string, const char*> cases[] = {
        // RFC 1321, A.5; 55 and 56 bytes, whose padding just fits and just does not, from md5sum.
        {Md5(eighty), "57edf4a22be3c955ac49da2e2107b67a"},
        {Md5(std::string(55, 'a')), "ef1772b6dff9a122358552954ad0df65"},
        {Md5(std::string(56, 'a')), "3b0c8ac703f828b04c6c197006d17218"},
        // RFC 3174, 7.3.
        {Sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {Sha1(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        // RFC 2202, 3, cases 2 and 6.
        {Hmac("Jefe", "what do ya want for nothing?"), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {Hmac(std::string(80, '\xAA'), "Test Using Larger Than Block-Size Key - Hash Key First"),
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
    };
    for (const auto& [digest, expected] : cases)
        EXPECT_EQ(digest, Unhex(expected));
    unsigned char digest[32];
    EXPECT_EQ(KTSHA256(Bytes("abc"), 3, digest), 1);  // FIPS 180-4
    EXPECT_EQ(std::string(digest, digest + 32),
              Unhex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(KTSHA1(Bytes("abc"), -1, digest), 1);
    EXPECT_EQ(std::string(digest, digest + 20), Sha1(""));
}

TEST(Digest, Sha1PadsWithoutAFurtherBlock) {
    // Padded by hand in one block and put through the compression of RFC 3174 by a program that
    // shares nothing with this one.
    EXPECT_EQ(Sha1(Counting(56)), Unhex("bb634863dfb9b4299bbf25cc3642007fd6f901f2"));
    EXPECT_EQ(Sha1(Counting(60)), Unhex("1f6ccb74b604b2e34abaa1444e34c0c17e1aa9f1"));
    // The length lies over the last bytes, so they do not count.
    EXPECT_EQ(Sha1(Counting(60) + "abc"), Sha1(Counting(63)));
    EXPECT_EQ(Hmac(Counting(120), Counting(60)), Unhex("95125cb2d9bd02aeb102515cf7b3fcc1f0501b5a"));
}

TEST(Digest, TextKeysHave28Characters) {
    CKTString out("id:");  // from openssl dgst -hmac
    EXPECT_TRUE(KTCreateTextKey(out, "camera-01", "secret"));
    EXPECT_TRUE(KTCreateTextKey(out, "camera-01", nullptr));
    EXPECT_EQ(Text(out), "id:Tie0TLbh+LQTDTwA7GvBLjrvoKMApJ5481iP9pVVXWjfE4LMNuB1VtEA");
}

TEST(Aes, FollowsThePublishedVectorsBothWays) {
    const std::string key =
        Unhex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    const std::string plain = Unhex("00112233445566778899aabbccddeeff");
    const std::pair<unsigned int, const char*> cases[] = {
        // FIPS-197, appendix C
        {128, "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {192, "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {256, "8ea2b7ca516745bfeafc49904b496089"}};
    for (const auto& [keyBits, cipher] : cases) {
        CKTString out("x"), back;
        EXPECT_EQ(KTAESEncrypt(out, Bytes(plain), 16, Bytes(key), keyBits), 16);
        EXPECT_EQ(Text(out), "x" + Unhex(cipher));
        EXPECT_EQ(KTAESDecrypt(back, Bytes(Text(out)) + 1, 16, Bytes(key), keyBits), 16);
        EXPECT_EQ(Text(back), plain);
    }
}

TEST(Aes, ChainsBlocksFromARepeatedByte) {
    // SP 800-38A, F.2.1, its first two blocks. The vector's IV is put into the first block of the
    // plain text, together with the byte that the call repeats.
    const std::string key = Unhex("2b7e151628aed2a6abf7158809cf4f3c");
    for (const char ivByte : {'\0', '\xFF'}) {
        std::string data =
            Unhex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
        for (char i = 0; i < 16; ++i)
            data[i] = static_cast<char>(data[i] ^ i ^ ivByte);
        CKTString out, back;
        EXPECT_EQ(KTAESEncryptCBC(out, Bytes(data), 32, Bytes(key), 128, ivByte), 32);
        EXPECT_EQ(Text(out),
                  Unhex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"));
        EXPECT_EQ(KTAESDecryptCBC(back, Bytes(Text(out)), 32, Bytes(key), 128, ivByte), 32);
        EXPECT_EQ(Text(back), data);
    }
}

TEST(Aes, MakesKeysOfText) {
    const std::string data(20, 'd'), digest = "900150983cd24fb0d6963f7d28e17f72";  // MD5 of "abc"
    for (const unsigned int keyBits : {128u, 192u, 256u}) {
        CKTString byText, byKey, back;
        const std::string key = keyBits == 128 ? Unhex(digest) : digest;
        EXPECT_EQ(KTAESEncryptMD5(byText, Bytes(data), 20, "abcd", 3, keyBits), 32);
        EXPECT_EQ(KTAESEncrypt(byKey, Bytes(data), 20, Bytes(key), keyBits), 32);
        EXPECT_EQ(Text(byText), Text(byKey));
        EXPECT_EQ(KTAESDecryptMD5(back, Bytes(Text(byText)), 32, "abc", 0, keyBits), 32);
        EXPECT_EQ(Text(back), data + std::string(12, '\0'));
    }
    CKTString none;
    EXPECT_EQ(KTAESEncryptMD5(none, Bytes(data), 20, "abc", 0, 64), -10);
}

TEST(Aes, CountsBlocksThatItCouldNotMakeOrStore) {
    const std::string key(32, 'k'), data(40, 'd');
    CKTString refused("x"), small(40, 0), expected, own((key + data).c_str());
    EXPECT_EQ(KTAESEncryptCBC(refused, Bytes(data), 17, Bytes(key), 129, 1), 32);
    EXPECT_EQ(Text(refused), "x" + std::string(32, '\0'));
    small = "keep";
    EXPECT_EQ(KTAESEncrypt(small, Bytes(data), 40, Bytes(key), 128), 48);
    EXPECT_EQ(KTAESEncrypt(small, Bytes(data), 0, Bytes(key), 128), -4);
    EXPECT_EQ(KTAESEncrypt(small, Bytes(data), 0xFFFFFFFFu, Bytes(key), 128), -4);
    EXPECT_EQ(Text(small), "keep");
    // Data and key in the string that grows and moves.
    EXPECT_EQ(KTAESEncrypt(expected, Bytes(data), 40, Bytes(key), 256), 48);
    const unsigned char* inside = reinterpret_cast<unsigned char*>(own.GetBuffer());
    EXPECT_EQ(KTAESEncrypt(own, inside + 32, 40, inside, 256), 48);
    EXPECT_EQ(Text(own), key + data + Text(expected));
}

TEST(Packbits, EncodesAsOtherProgramsDecode) {
    // The example of Apple's technical note TN1023; libtiff 4.5.0 writes the same.
    EXPECT_EQ(Packed(Unhex("AAAAAA80002AAAAAAAAA80002A22AAAAAAAAAAAAAAAAAAAA")),
              Unhex("FEAA0280002AFDAA0380002A22F7AA"));
    // Two equal bytes are a run to libtiff 4.5.0, which decodes ours as well.
    const std::string row = std::string(300, '\x55') + "\1\2\2\3\3\3\4\4\4\4\5";
    EXPECT_EQ(Packed(row), Unhex("81558155D55502010202FE03FD040005"));
    EXPECT_EQ(Unpacked(Unhex("81558155D5550001FF02FE03FD040005"), 400), row);
}

TEST(Packbits, CutsAndTellsWhatDoesNotFit) {
    const struct {
        const char* packed;
        std::size_t room;
        const char *row, *told;
    } cases[] = {
        {"02616263", 2, "ab", "unpacked RLE data would overflow row (copy)\n"},
        {"FE610062", 2, "aa",
         "unpacked RLE data would overflow row (run)\n"
         "unpacked RLE data would overflow row (copy)\n"},
        {"0061026263", 9, "a", "not enough RLE data for row\n"},
        {"8002616263FE", 9, "abc", ""},
    };
    for (const auto& one : cases) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Unpacked(Unhex(one.packed), one.room), one.row) << one.packed;
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), one.told) << one.packed;
    }
}

TEST(Packbits, StaysWithinItsWorstCaseAndItsBuffers) {
    std::mt19937 random(1);
    testing::internal::CaptureStdout();  // most of the mutants do not fit
    for (int i = 0; i < 3000; ++i) {
        const std::size_t len = 1 + random() % 600, values = 1 + random() % 3;
        std::string row;
        while (row.size() < len)
            row += static_cast<char>(random() % values * 77);
        std::string mutant = Packed(row);
        ASSERT_EQ(Unpacked(mutant, len), row);
        mutant[random() % mutant.size()] = static_cast<char>(random());
        mutant.resize(1 + random() % mutant.size());
        ASSERT_NE(Unpacked(mutant, len), "negative");
    }
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
}
