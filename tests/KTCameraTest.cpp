#include <gtest/gtest.h>

#include <KTBase/KTDigest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Access.h"
#include "Film.h"
#include "Stream.h"

namespace {

/// Bytes of hexadecimal digits; a blank is a start code of three bytes, a dot one of four.
std::vector<unsigned char> Bytes(const std::string& text) {
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == ' ' || text[i] == '.') {
            bytes.insert(bytes.end(), text[i++] == ' ' ? 2 : 3, 0);
            bytes.push_back(1);
            continue;
        }
        bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return bytes;
}

std::vector<unsigned char> Media(const char* name) {
    std::vector<unsigned char> bytes;
    EXPECT_EQ(ReadFile((KTBASE_MEDIA_DIR "/" + std::string(name)).c_str(), bytes), nullptr);
    return bytes;
}

std::string Md5(const std::string& text) {
    char digits[33];
    return KTMD5Data(reinterpret_cast<const unsigned char*>(text.data()),
                     static_cast<unsigned int>(text.size()), digits);
}

/// The nonce of a fresh challenge, which is checked on the way.
std::string NonceOf(const Access& access, unsigned long long nowMs) {
    const std::string begin = "Digest realm=\"Gate 1\", nonce=\"";
    CKTHTTPCommand reply;
    access.Challenge(reply, nowMs);
    const char* const challenge = reply.GetAuthenDigestWWW();
    if (challenge == nullptr || std::strncmp(challenge, begin.c_str(), begin.size()) != 0)
        return "";
    const std::string rest = challenge + begin.size();
    return rest.substr(0, rest.size() - 1);
}

/// An answer as RFC 2617 has it without qop.
std::string Answer(const std::string& nonce, const std::string& password, const std::string& uri) {
    const std::string response =
        Md5(Md5("eve:Gate 1:" + password) + ":" + nonce + ":" + Md5("GET:" + uri));
    return "Digest username=\"eve\", realm=\"Gate 1\", nonce=\"" + nonce + "\", uri=\"" + uri +
           "\", response=\"" + response + "\"";
}

}  // namespace

TEST(Camera, CutsAFilmIntoWholeFramesWithLongStartCodes) {
    // A slice before the key frame; filler data and an end of stream behind a frame; padding.
    const std::string sets = "674d001eda050412 68cc ";
    Film film;
    ASSERT_EQ(CutFilm(Bytes(" 61888d68 " + sets + "65888568.0cff80 61888d680000.0b"), film),
              nullptr);
    EXPECT_EQ(film.bytes, Bytes(".61888d68.674d001eda050412.68cc.65888568.0cff80.61888d68.0b"));
    ASSERT_EQ(film.pictures.size(), 2u);
    EXPECT_TRUE(film.pictures[0].isKey);
    EXPECT_FALSE(film.pictures[1].isKey);
    EXPECT_EQ(film.pictures[0].begin, 8u);
    EXPECT_EQ(film.pictures[1].begin, 41u);
    EXPECT_EQ(film.pictures[1].length, 13u);

    EXPECT_STREQ(CutFilm(Bytes(" " + sets + "61888d68"), film = Film()), "it holds no key frame");
}

TEST(Camera, CutsWhatEncodersMake) {
    // Frames: ffprobe 5.1.9. The four-byte file was written by another program.
    Film film;
    ASSERT_EQ(CutFilm(Media("h264-main-640x360.h264"), film), nullptr);
    EXPECT_EQ(film.bytes, Media("h264-main-640x360-four-byte.h264"));
    EXPECT_EQ(film.pictures.size(), 150u);
    EXPECT_EQ(film.pictures[149].width, 640);

    ASSERT_EQ(CutFilm(Media("h265-main-1280x720.h265"), film = Film()), nullptr);
    ASSERT_EQ(film.pictures.size(), 250u);
    unsigned int keys = 0;
    unsigned int end = 0;
    for (const Picture& picture : film.pictures) {
        keys += picture.isKey;
        EXPECT_EQ(picture.begin, end);
        end = picture.begin + picture.length;
    }
    EXPECT_EQ(keys, 5u);
    EXPECT_EQ(end, film.bytes.size());
    EXPECT_EQ(film.pictures[249].height, 720);
}

TEST(Camera, PlaysOnScheduleWithTimesThatRiseForEver) {
    Film film;
    ASSERT_EQ(CutFilm(Media("h265-main10-854x482.h265"), film), nullptr);
    Player player(film, 60);
    const unsigned long long startUs = player.DueUs();
    unsigned long long last = 0;
    for (int i = 0; i < 6000; ++i) {  // 500 rounds of 12 frames
        const PacketRef packet = player.Next(player.DueUs());
        ASSERT_NE(packet, nullptr);
        CKTTime time(true);
        packet->FrameGetTime(&time);
        EXPECT_GT(time.GetTicks(), last);
        last = time.GetTicks();
        EXPECT_EQ(packet->FrameIsKey(), i % 12 == 0);
    }
    EXPECT_EQ(player.DueUs() - startUs, 100000000u);  // no drift

    player.Next(player.DueUs() + 500000);  // late: the schedule stays
    EXPECT_EQ(player.DueUs() - startUs, 100016666u);
    player.Next(player.DueUs() + 5000000);  // halted: it moves
    EXPECT_EQ(player.DueUs() - startUs, 105033333u);
}

TEST(Camera, ChecksDigest) {
    const Access access(Access::kDigest, "eve", "s3cret", "Gate 1");
    const unsigned long long now = 1000000;
    const std::string nonce = NonceOf(access, now);
    ASSERT_FALSE(nonce.empty());
    EXPECT_NE(NonceOf(access, now), nonce);
    const std::string right = Answer(nonce, "s3cret", "/stream?a=1");
    const auto allows = [&](const std::string& answer, unsigned long long when) {
        return access.Allows(answer.c_str(), "GET", "/stream?a=1", when);
    };
    EXPECT_TRUE(allows(right, now));
    EXPECT_TRUE(allows(right, now + 59999));  // others asked for since leave it alive
    EXPECT_FALSE(allows(right, now + 60000));
    EXPECT_FALSE(access.Allows(right.c_str(), "HEAD", "/stream?a=1", now));
    EXPECT_FALSE(access.Allows(right.c_str(), "GET", "/raw", now));
    EXPECT_FALSE(access.Allows(nullptr, "GET", "/stream?a=1", now));

    std::string forged = nonce;
    forged[0] = forged[0] == '0' ? '1' : '0';  // a later time under an old seal
    const std::string others[] = {
        Answer(nonce, "S3cret", "/stream?a=1"),
        Answer(nonce, "s3cret", "/stream"),
        Answer(forged, "s3cret", "/stream?a=1"),
        Answer("", "s3cret", "/stream?a=1"),
        Answer(NonceOf(Access(Access::kDigest, "eve", "s3cret", "Gate 1"), now), "s3cret",
               "/stream?a=1"),
        right + ", uri=\"/raw\"",
        right.substr(0, right.size() - 1),
        right.substr(0, right.size() - 2) + "\"",
        "Digest ",
        "Digest =",
        "Basic ZXZlOnMzY3JldA==",
    };
    for (const std::string& answer : others)
        EXPECT_FALSE(allows(answer, now)) << answer;
}

TEST(Camera, ChecksBasic) {
    const Access access(Access::kBoth, "eve", "s3:cret", "Gate 1");
    CKTHTTPCommand reply;
    access.Challenge(reply, 0);
    EXPECT_STREQ(reply.GetAuthenWWW(), "Basic realm=\"Gate 1\"");
    EXPECT_NE(reply.GetAuthenDigestWWW(), nullptr);
    const struct {
        const char* answer;  // by base64 of GNU coreutils
        bool allowed;
    } cases[] = {
        {"Basic ZXZlOnMzOmNyZXQ=", true},
        {"bASIC ZXZlOnMzOmNyZXQ=", true},
        {"Basic ZXZlOnMz", false},          // eve:s3
        {"Basic ZXZlOnMzOmNyZXQw", false},  // eve:s3:cret0
        {"Basic ZXZl", false},              // eve
        {"Basic ", false},
        {"Basic", false},
        {"", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(access.Allows(c.answer, "GET", "/", 0), c.allowed) << c.answer;
}
