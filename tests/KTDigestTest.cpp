#include "KTBase/KTDigest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
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

unsigned int Size(const std::string& text) {
    return static_cast<unsigned int>(text.size());
}

/// Bytes 1, 2, 3...
std::string Counting(unsigned int len) {
    std::string bytes;
    while (bytes.size() < len)
        bytes += static_cast<char>(bytes.size() + 1);
    return bytes;
}

std::string Sha1(const std::string& message) {
    unsigned char digest[20];
    EXPECT_EQ(KTSHA1(Bytes(message), static_cast<int>(message.size()), digest), 1);
    return std::string(digest, digest + 20);
}

/// Packed bytes and room lie in blocks of exactly their size, for the address sanitizer.
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

TEST(Base64, MutatedTextsStayWithinTheirBuffers) {
    std::mt19937 random(1);
    for (int i = 0; i < 3000; ++i) {
        std::string text;
        for (unsigned int left = random() % 50; left != 0; --left)
            text += random() % 4 != 0 ? static_cast<char>('A' + random() % 26)
                                      : static_cast<char>(random() % 255 + 1);
        if (random() % 2 != 0)
            text += "==";
        // To the byte, for the address sanitizer.
        const std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);
        std::vector<unsigned char> dst(text.size() / 4 * 3 + 1);
        const int size = KTBASE64DecodeExt(dst.data(), exact.data(), 0);
        ASSERT_GE(size, 0);
        ASSERT_LT(size, static_cast<int>(dst.size()));
        ASSERT_EQ(KTBASE64DecodeExt2(dst.data(), 7, exact.data(), 0), std::min(size, 7));
    }
}

TEST(Md5, FollowsThePublishedVectors) {
    // RFC 1321, A.5; the rows of 'a', whose last block is just full or just not, from md5sum.
    const struct {
        std::string data;
        const char* digest;
    } cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
    };
    for (const auto& one : cases) {
        char text[34] = "";
        text[33] = 'x';
        EXPECT_EQ(KTMD5Data(Bytes(one.data), Size(one.data), text), text);
        EXPECT_STREQ(text, one.digest);
        EXPECT_EQ(text[33], 'x');
        unsigned char raw[16];
        EXPECT_EQ(KTMD5Encode(Bytes(one.data), Size(one.data), raw), 1);
        EXPECT_EQ(std::string(raw, raw + 16), Unhex(one.digest));
    }
    char untouched[33] = "x";
    EXPECT_EQ(KTMD5Data(nullptr, 0, untouched), nullptr);
    EXPECT_STREQ(untouched, "x");
}

TEST(Sha1, IsTheStandardUpTo55BytesOfTheLastBlock) {
    // RFC 3174, 7.3, but for its vector of 56 bytes; bytes 1, 2, 3... from sha1sum.
    std::string tens;
    for (int i = 0; i < 10; ++i)
        tens += "0123456701234567012345670123456701234567012345670123456701234567";
    EXPECT_EQ(Sha1("abc"), Unhex("a9993e364706816aba3e25717850c26c9cd0d89d"));
    EXPECT_EQ(Sha1(std::string(1000000, 'a')), Unhex("34aa973cd4c4daa4f61eeb2bdbad27316534016f"));
    EXPECT_EQ(Sha1(tens), Unhex("dea356a2cddd90c7a7ecedc5ebb563934f460452"));
    EXPECT_EQ(Sha1(Counting(55)), Unhex("f511a618d9d339ea3f92a30bf53d86a1bc4287d1"));
    EXPECT_EQ(Sha1(Counting(119)), Unhex("d8a2ebfbaa1064a4fb4d81844d4bfadf512fcd31"));
    const char* empty = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
    EXPECT_EQ(Sha1(""), Unhex(empty));
    unsigned char digest[20];
    EXPECT_EQ(KTSHA1(nullptr, 5, digest), 1);
    EXPECT_EQ(std::string(digest, digest + 20), Unhex(empty));
    EXPECT_EQ(KTSHA1(digest, -1, digest), 1);
    EXPECT_EQ(std::string(digest, digest + 20), Unhex(empty));
}

TEST(Sha1, AddsNoBlockForThePaddingFrom56BytesOn) {
    // Bytes 1, 2, 3... in a block padded by hand, put through the compression of RFC 3174 by a
    // program that shares nothing with this one.
    const char* digests[] = {
        "bb634863dfb9b4299bbf25cc3642007fd6f901f2", "75c2fc8b527bd9e125a89c12871bb81ad6546c70",
        "c2ea3a665ad78a03e5055f4b50c8a9b1bf1afc03", "c17330b69f99b3d89a450bfe9c0b73e5977cbb4e",
        "1f6ccb74b604b2e34abaa1444e34c0c17e1aa9f1", "a0e9ac7d433599133cf73ffa6f808f5eff520184",
        "8dd825232961aeba71ff9b056d54dca918bdfb6e", "23af041c85fa62ad5f85acc68d7f737ab2d380af",
        "92cb89df62d900b350d93e4225ca6f081d547a28",
    };
    for (unsigned int len = 56; len <= 64; ++len)
        EXPECT_EQ(Sha1(Counting(len)), Unhex(digests[len - 56])) << len;
    // The length lies over these bytes, so they do not count.
    EXPECT_EQ(Sha1(Counting(60) + "abc"), Sha1(Counting(60) + "xyz"));
}

TEST(Sha256, FollowsThePublishedVectorAndRefusesNoData) {
    unsigned char digest[32];
    EXPECT_EQ(KTSHA256(Bytes("abc"), 3, digest), 1);  // FIPS 180-4
    EXPECT_EQ(std::string(digest, digest + 32),
              Unhex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(KTSHA256(digest, 0, digest), 0);
    EXPECT_EQ(KTSHA256(nullptr, 3, digest), 0);
}

TEST(Hmac, FollowsThePublishedVectorsAndTheDigestsOwnPadding) {
    const struct {
        std::string key, data;
        const char* digest;
    } cases[] = {
        // RFC 2202, 3: cases 1, 2, 3 and 7.
        {std::string(20, '\x0B'), "Hi There", "b617318655057264e28bc0b6fb378c8ef146be00"},
        {"Jefe", "what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {std::string(20, '\xAA'), std::string(50, '\xDD'),
         "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {std::string(80, '\xAA'),
         "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
         "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
        // An inner message, and a key to be replaced, of 56 bytes and more in the last block; made
        // as the digests above.
        {"key", Counting(60), "f581070d5e13669b6e177575b0a47d6dced426c2"},
        {Counting(120), "msg", "2150aa7b29a1f9ea1e462a46453896d3b963f38d"},
    };
    for (const auto& one : cases) {
        unsigned char digest[20];
        EXPECT_EQ(KTHMAC_SHA1(one.data.data(), static_cast<int>(one.data.size()), Bytes(one.key),
                              static_cast<int>(one.key.size()), digest),
                  1);
        EXPECT_EQ(std::string(digest, digest + 20), Unhex(one.digest)) << one.data;
    }
    unsigned char digest[20];
    EXPECT_EQ(KTHMAC_SHA1("x", 1, nullptr, 0, digest), 0);
}

TEST(TextKey, AppendsThe28CharactersOfStoredKeys) {
    // From openssl dgst -hmac; the last, of 60 bytes, as the digests above.
    const std::string sixty(60, 'x'), longKey(70, 'k');
    const char* cases[][3] = {
        {"camera-01", "secret", "Tie0TLbh+LQTDTwA7GvBLjrvoKMA"},
        {"camera-01", nullptr, "pJ5481iP9pVVXWjfE4LMNuB1VtEA"},
        {"", nullptr, "XhdZpd22AoKsChP5deYii/mGFA8A"},
        {sixty.c_str(), longKey.c_str(), "8q7sw4g0up0fEv7zv6ho27Llfy8A"},
    };
    for (const auto& one : cases) {
        CKTString out("id:");
        EXPECT_TRUE(KTCreateTextKey(out, one[0], one[1]));
        EXPECT_EQ(std::string(out.GetBuffer()), std::string("id:") + one[2]);
    }
    CKTString out;
    EXPECT_FALSE(KTCreateTextKey(out, nullptr, "secret"));
}

TEST(Aes, FollowsThePublishedVectorsBothWays) {
    const std::string key =
        Unhex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    const std::string plain = Unhex("00112233445566778899aabbccddeeff");
    const struct {
        unsigned int keyBits;
        const char* cipher;
    } cases[] = {
        // FIPS-197, appendix C
        {128, "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {192, "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {256, "8ea2b7ca516745bfeafc49904b496089"},
    };
    for (const auto& one : cases) {
        CKTString out("x"), back;
        EXPECT_EQ(KTAESEncrypt(out, Bytes(plain), 16, Bytes(key), one.keyBits), 16);
        EXPECT_EQ(Text(out), "x" + Unhex(one.cipher));
        EXPECT_EQ(KTAESDecrypt(back, Bytes(Text(out)) + 1, 16, Bytes(key), one.keyBits), 16);
        EXPECT_EQ(Text(back), plain);
    }
}

TEST(Aes, ChainsBlocksFromARepeatedByte) {
    // SP 800-38A, F.2.1 and F.2.5. The vector's IV is put into the first block of the plain text,
    // together with the byte that the call repeats.
    const std::string vectorIv = Unhex("000102030405060708090a0b0c0d0e0f");
    const std::string plain = Unhex(
        "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
        "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const struct {
        unsigned int keyBits;
        const char *key, *cipher;
    } cases[] = {
        {128, "2b7e151628aed2a6abf7158809cf4f3c",
         "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
         "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7"},
        {256, "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
         "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
         "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"},
    };
    for (const auto& one : cases) {
        for (const char ivByte : {'\0', '\x7F', '\xFF'}) {
            std::string data = plain;
            for (int i = 0; i < 16; ++i)
                data[i] = static_cast<char>(data[i] ^ vectorIv[i] ^ ivByte);
            const std::string key = Unhex(one.key);
            CKTString out, back;
            EXPECT_EQ(KTAESEncryptCBC(out, Bytes(data), 64, Bytes(key), one.keyBits, ivByte), 64);
            EXPECT_EQ(Text(out), Unhex(one.cipher));
            EXPECT_EQ(KTAESDecryptCBC(back, Bytes(Text(out)), 64, Bytes(key), one.keyBits, ivByte),
                      64);
            EXPECT_EQ(Text(back), data);
        }
    }
}

TEST(Aes, FillsTheLastBlockWithZeroes) {
    const std::string key(16, 'k'), part(17, 'p'), full = part + std::string(15, '\0');
    CKTString cut, whole, chained, back;
    EXPECT_EQ(KTAESEncrypt(cut, Bytes(part), 17, Bytes(key), 128), 32);
    EXPECT_EQ(KTAESEncrypt(whole, Bytes(full), 32, Bytes(key), 128), 32);
    EXPECT_EQ(Text(cut), Text(whole));
    EXPECT_EQ(KTAESEncryptCBC(chained, Bytes(part), 17, Bytes(key), 128, 1), 32);
    EXPECT_EQ(KTAESDecryptCBC(back, Bytes(Text(chained)), 32, Bytes(key), 128, 1), 32);
    EXPECT_EQ(Text(back), full);
    cut.Empty(true), whole.Empty(true);
    EXPECT_EQ(KTAESDecrypt(cut, Bytes(part), 17, Bytes(key), 128), 32);
    EXPECT_EQ(KTAESDecrypt(whole, Bytes(full), 32, Bytes(key), 128), 32);
    EXPECT_EQ(Text(cut), Text(whole));
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
    CKTString out;
    EXPECT_EQ(KTAESEncryptMD5(out, Bytes(data), 20, nullptr, 0, 64), -4);
    EXPECT_EQ(KTAESDecryptMD5(out, Bytes(data), 0, "abc", 0, 64), -4);
    EXPECT_EQ(KTAESEncryptMD5(out, Bytes(data), 20, "abc", 0, 64), -10);
    EXPECT_EQ(out.GetLength(), 0u);
}

TEST(Aes, CountsBlocksThatItCouldNotMakeOrStore) {
    const std::string key(32, 'k'), data(40, 'd');
    CKTString refused("x"), small(40, 0);
    EXPECT_EQ(KTAESEncryptCBC(refused, Bytes(data), 17, Bytes(key), 129, 1), 32);
    EXPECT_EQ(Text(refused), "x" + std::string(32, '\0'));
    small = "keep";
    EXPECT_EQ(KTAESEncrypt(small, Bytes(data), 40, Bytes(key), 128), 48);
    EXPECT_EQ(Text(small), "keep");
    EXPECT_EQ(KTAESEncrypt(small, nullptr, 40, Bytes(key), 128), -4);
    EXPECT_EQ(KTAESEncrypt(small, Bytes(data), 40, nullptr, 128), -4);
    EXPECT_EQ(KTAESEncrypt(small, Bytes(data), 0, Bytes(key), 128), -4);
    EXPECT_EQ(KTAESEncrypt(small, Bytes(data), 0xFFFFFFFFu, Bytes(key), 128), -4);
    // Data and key in the string that grows and moves.
    CKTString own((key + data).c_str()), expected;
    EXPECT_EQ(KTAESEncrypt(expected, Bytes(data), 40, Bytes(key), 256), 48);
    const unsigned char* inside = reinterpret_cast<unsigned char*>(own.GetBuffer());
    EXPECT_EQ(KTAESEncrypt(own, inside + 32, 40, inside, 256), 48);
    EXPECT_EQ(Text(own), key + data + Text(expected));
}

TEST(Packbits, EncodesAsOtherProgramsDecode) {
    std::string row(300, '\x55');
    row += "\1\2\2\3\3\3\4\4\4\4\5";
    const struct {
        std::string row;
        const char *ours, *theirs;
    } cases[] = {
        // The example of Apple's technical note TN1023; libtiff 4.5.0 writes the same.
        {Unhex("AAAAAA80002AAAAAAAAA80002A22AAAAAAAAAAAAAAAAAAAA"),
         "FEAA0280002AFDAA0380002A22F7AA", "FEAA0280002AFDAA0380002A22F7AA"},
        // Two equal bytes are a run to libtiff 4.5.0, which decodes ours as well.
        {row, "81558155D55502010202FE03FD040005", "81558155D5550001FF02FE03FD040005"},
        {std::string(5, 'a'), "FC61", "FC61"},
        {std::string(130, 'a'), "8161016161", "8161FF61"},
        {std::string("ab"), "016162", "8080016162"},
    };
    for (const auto& one : cases) {
        unsigned char packed[400];
        const int size = KTPackbits(Bytes(one.row), packed, static_cast<int>(one.row.size()));
        EXPECT_EQ(std::string(packed, packed + size), Unhex(one.ours));
        EXPECT_EQ(Unpacked(Unhex(one.ours), 400), one.row);
        EXPECT_EQ(Unpacked(Unhex(one.theirs), 400), one.row);
    }
    unsigned char byte = 0;
    EXPECT_EQ(KTPackbits(&byte, &byte, 0), 0);
    EXPECT_EQ(KTPackbits(nullptr, &byte, 1), 0);
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
        {"02616263", 9, "abc", ""},  // its three bytes are all that is left behind the count
        {"006103", 9, "a", ""},
        {"0061FE", 9, "a", ""},
        {"80", 9, "", ""},
    };
    for (const auto& one : cases) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(Unpacked(Unhex(one.packed), one.room), one.row) << one.packed;
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), one.told) << one.packed;
    }
    unsigned char byte = 'x';
    testing::internal::CaptureStdout();
    EXPECT_EQ(KTUnpackbits(Bytes(std::string("\0a", 2)), 2, &byte, -1), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(byte, 'x');
}

TEST(Packbits, StaysWithinItsWorstCaseAndItsBuffers) {
    std::mt19937 random(1);
    testing::internal::CaptureStdout();  // most of the mutants do not fit
    for (int i = 0; i < 3000; ++i) {
        const std::size_t len = 1 + random() % 600, values = 1 + random() % 3;
        std::string row;
        while (row.size() < len)
            row += static_cast<char>(random() % values * 77);
        std::vector<unsigned char> packed(len + (len + 127) / 128);
        const int size = KTPackbits(Bytes(row), packed.data(), static_cast<int>(len));
        std::string mutant(packed.begin(), packed.begin() + size);
        ASSERT_EQ(Unpacked(mutant, len), row);
        mutant[random() % mutant.size()] = static_cast<char>(random());
        mutant.resize(1 + random() % mutant.size());
        ASSERT_NE(Unpacked(mutant, len), "negative");
    }
    std::fflush(stdout);
    testing::internal::GetCapturedStdout();
}
