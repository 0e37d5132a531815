#include <gtest/gtest.h>

#include <KTBase/KTDigest.h>

#include <string>
#include <vector>

#include "Access.h"
#include "Discovery.h"
#include "Film.h"
#include "KTTestBytes.h"
#include "KTTestFrame.h"
#include "Server.h"
#include "Stream.h"

namespace {

/// Hexadecimal digits; a blank is a start code of three bytes, a dot one of four.
std::vector<unsigned char> StreamOf(const std::string& text) {
    std::string hex;
    for (const char c : text)
        hex += c == ' ' ? "000001" : c == '.' ? "00000001" : std::string(1, c);
    const std::string bytes = Unhex(hex);
    return {bytes.begin(), bytes.end()};
}

std::string Md5(const std::string& text) {
    char digits[33];
    return KTMD5Data(Bytes(text), static_cast<unsigned int>(text.size()), digits);
}

/// The nonce of a fresh challenge.
std::string NonceOf(const Access& access, unsigned long long nowMs) {
    const std::string begin = "Digest realm=\"Gate 1\", nonce=\"";
    CKTHTTPCommand reply;
    access.Challenge(reply, nowMs);
    const std::string challenge = reply.GetAuthenDigestWWW();
    EXPECT_EQ(challenge.substr(0, begin.size()), begin);
    return challenge.substr(begin.size(), challenge.size() - begin.size() - 1);
}

/// An answer as RFC 2617 has it without qop.
std::string Answer(const std::string& nonce, const std::string& password, const std::string& uri) {
    const std::string response =
        Md5(Md5("eve:Gate 1:" + password) + ":" + nonce + ":" + Md5("GET:" + uri));
    return "Digest username=\"eve\", realm=\"Gate 1\", nonce=\"" + nonce + "\", uri=\"" + uri +
           "\", response=\"" + response + "\"";
}

/// Whether text is the pattern, in which each "*" stands for anything.
bool Matches(const std::string& text, const std::string& pattern) {
    const std::size_t star = pattern.find('*');
    if (star == std::string::npos)
        return text == pattern;
    bool found = false;
    if (text.compare(0, star, pattern, 0, star) == 0)
        for (std::size_t at = star; at <= text.size() && !found; ++at)
            found = Matches(text.substr(at), pattern.substr(star + 1));
    return found;
}

/// A camera of which every step is taken by the test, and one peer of it.
class Camera : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_server.Listen(0)); }

    /// A frame whose bytes all are its number. Returns it with its header.
    std::string Show(unsigned char number, bool isKey, unsigned int bytes) {
        const Packet packet =
            TestFrame(isKey ? 1 : 0, 1, std::string(bytes, static_cast<char>(number)));
        CKTTime now;
        packet->FrameSetTime(now);
        m_server.Show(packet.get());
        return std::string(packet->GetData(), packet->GetData() + bytes + 20);
    }

    void Ask(const std::string& text) {
        const CKTUrl url(m_server.GetUrl().c_str());
        m_peer.Close();
        ASSERT_EQ(m_peer.OpenSockEx(url.GetIP(), url.GetPort(), false, 1000), 0);
        ASSERT_EQ(m_peer.Send(text.data(), static_cast<int>(text.size()), 1000),
                  static_cast<int>(text.size()));
    }

    void Turn() {
        CKTSocketSET set;
        m_server.Select(set);
        set.Wait(10);
        m_server.Poll(set);
    }

    /// What comes until the connection ends or `until` has come.
    std::string Take(const std::string& until) {
        std::string text;
        std::vector<char> block(1 << 20);
        for (int turn = 0; turn < 1000; ++turn) {
            Turn();
            int count = 0;
            while ((count = m_peer.OnRecv(nullptr, block.data(), 1 << 20)) > 0)
                text.append(block.data(), static_cast<std::size_t>(count));
            if (count < 0 || (!until.empty() && text.find(until) != std::string::npos))
                return text;
        }
        return "no end of: " + text.substr(0, 1000);
    }

    Server m_server{{"Gate 1", false, 640, 360, 12.5},
                    Access(Access::kBasic, "eve", "s3cret", "Gate 1")};
    CKTSocketTCP m_peer;
};

const std::string kAuthen = "Authorization: Basic ZXZlOnMzY3JldA==\r\n";

}  // namespace

TEST(CameraParts, CutsAFilmIntoWholeFramesWithLongStartCodes) {
    // A slice before the key frame; filler data and an end of stream behind a frame; padding.
    const std::string sets = "674d001eda050412 68cc ";
    Film film;
    ASSERT_EQ(CutFilm(StreamOf(" 61888d68 " + sets + "65888568.0cff80 61888d680000.0b"), film),
              nullptr);
    EXPECT_EQ(film.bytes, StreamOf(".61888d68.674d001eda050412.68cc.65888568.0cff80.61888d68.0b"));
    ASSERT_EQ(film.pictures.size(), 2u);
    EXPECT_TRUE(film.pictures[0].isKey);
    EXPECT_FALSE(film.pictures[1].isKey);
    EXPECT_EQ(film.pictures[0].begin, 8u);
    EXPECT_EQ(film.pictures[1].begin, 41u);
    EXPECT_EQ(film.pictures[1].length, 13u);

    EXPECT_STREQ(CutFilm(StreamOf(" " + sets + "61888d68"), film = Film()),
                 "it holds no key frame");
}

TEST(CameraParts, PlaysOnScheduleWithTimesThatRiseForEver) {
    std::vector<unsigned char> stream;
    ASSERT_EQ(ReadFile(KTBASE_MEDIA_DIR "/h265-main10-854x482.h265", stream), nullptr);
    Film film;
    ASSERT_EQ(CutFilm(stream, film), nullptr);
    EXPECT_TRUE(film.pictures[11].width == 854 && film.pictures[11].height == 482);
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

TEST(CameraParts, ChecksDigest) {
    const Access access(Access::kDigest, "eve", "s3cret", "Gate 1");
    const unsigned long long now = 1000000;
    const std::string nonce = NonceOf(access, now);
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

    std::string forged = nonce;
    forged[0] = forged[0] == '0' ? '1' : '0';  // a later time under an old seal
    const std::string others[] = {
        Answer(nonce, "S3cret", "/stream?a=1"),
        Answer(forged, "s3cret", "/stream?a=1"),
        Answer("", "s3cret", "/stream?a=1"),
        Answer(NonceOf(Access(Access::kDigest, "eve", "s3cret", "Gate 1"), now), "s3cret",
               "/stream?a=1"),
        right + ", uri=\"/raw\"",
        right.substr(0, right.size() - 1),
        right.substr(0, right.size() - 2) + "\"",
        "Digest =",
        "Basic ZXZlOnMzY3JldA==",
    };
    for (const std::string& answer : others)
        EXPECT_FALSE(allows(answer, now)) << answer;
}

TEST(CameraParts, ChecksBasic) {
    const Access access(Access::kBoth, "eve", "s3:cret", "Gate 1");
    CKTHTTPCommand reply;
    access.Challenge(reply, 0);
    EXPECT_STREQ(reply.GetAuthenWWW(), "Basic realm=\"Gate 1\"");
    EXPECT_NE(reply.GetAuthenDigestWWW(), nullptr);
    const auto allows = [&](const char* answer) { return access.Allows(answer, "GET", "/", 0); };
    // By base64 of GNU coreutils: eve:s3:cret; eve:s3, eve:s3:cret0 and eve.
    EXPECT_TRUE(allows("Basic ZXZlOnMzOmNyZXQ=") && allows("bASIC ZXZlOnMzOmNyZXQ="));
    EXPECT_FALSE(allows("Basic ZXZlOnMz") || allows("Basic ZXZlOnMzOmNyZXQw") ||
                 allows("Basic ZXZl") || allows("Basic"));
}

TEST_F(Camera, AnswersEveryKindOfRequest) {
    Show(7, true, 5);
    const struct {
        std::string request;
        std::string reply;  // in order, with "*" for anything between
    } cases[] = {
        {"HEAD /snapshot HTTP/1.1\r\n" + kAuthen + "\r\n",
         "HTTP/1.1 200 OK\r\n*Content-Length: 5\r\n\r\n"},
        {"GET http://camera/describe?x HTTP/1.0\r\n" + kAuthen + "\r\n",
         "HTTP/1.1 200 OK\r\n*text/xml\r\nContent-Length: *\r\n\r\n<camera name=\"Gate 1\" "
         "codec=\"H264\" width=\"640\" height=\"360\" fps=\"12.5\" url=\"" +
             m_server.GetUrl() + "stream\"*"},
        {"HEAD /stream HTTP/1.1\r\n" + kAuthen + "\r\n",
         "HTTP/1.1 200 OK\r\n*Content-Type: multipart/mixed; boundary=ktframe\r\n\r\n"},
        {"GET / HTTP/1.1\r\n" + kAuthen + "\r\n", "HTTP/1.1 404 Not Found\r\n*"},
        {"POST /stream HTTP/1.1\r\n" + kAuthen + "Content-Length: 9\r\n\r\nGET / HTT",
         "HTTP/1.1 405 Method Not Allowed\r\n*Allow: GET, HEAD\r\n*"},
        {"GET /describe RTSP/1.0\r\n" + kAuthen + "\r\n", "HTTP/1.1 400 Bad Request\r\n*"},
        {std::string(40000, 'a'), "HTTP/1.1 400 Bad Request\r\n*"},
        // Three on one connection, the last of which ends it.
        {"GET / HTTP/1.1\r\nConnection: keep-alive\r\n\r\nHEAD / HTTP/1.1\r\nConnection: "
         "keep-alive\r\n\r\nGET /snapshot HTTP/1.1\r\n" +
             kAuthen + "\r\n",
         "HTTP/1.1 401 Unauthorized\r\n*keep-alive\r\n*WWW-Authenticate: Basic realm=\"Gate 1\"\r\n"
         "*raw and /snapshot.\nHTTP/1.1 401 *\r\n\r\nHTTP/1.1 200 OK\r\n*Connection: close\r\n"
         "*Content-Type: video/h264\r\nContent-Length: 5\r\n\r\n\7\7\7\7\7"},
    };
    for (const auto& c : cases) {
        Ask(c.request);
        const std::string reply = Take("");
        EXPECT_TRUE(Matches(reply, c.reply)) << c.request.substr(0, 200) << reply;
    }
}

TEST_F(Camera, ASlowPeerLosesFramesUpToTheNextKeyFrame) {
    constexpr unsigned int kBytes = 1 << 20;
    Show(1, true, 10);
    Ask("GET /raw HTTP/1.1\r\n" + kAuthen + "\r\n");
    const std::string head = Take("\r\n\r\n");
    EXPECT_TRUE(Matches(head, "HTTP/1.1 200 *video/h264\r\n\r\n")) << head;
    Show(2, false, kBytes);  // before its first key frame: not sent
    for (unsigned char number = 3; number < 53; ++number) {
        Show(number, number == 3, kBytes);
        Turn();
    }
    std::string rest = Take(std::string(3, '\5'));
    Show(60, false, 10);  // there is room again, but it cannot be decoded
    Show(61, true, 10);
    Show(62, false, 10);
    rest += Take(std::string(10, 62));

    std::string expected;  // all frames up to the first lost one, and those from the key frame on
    unsigned char number = 3;
    for (; expected.size() + kBytes <= rest.size(); ++number)
        expected.append(kBytes, static_cast<char>(number));
    EXPECT_GT(number, 10);
    EXPECT_LT(number, 53);
    expected += std::string(10, 61) + std::string(10, 62);
    EXPECT_TRUE(rest == expected) << rest.size();
}

TEST_F(Camera, FramesTheStreamInParts) {
    Ask("GET /stream HTTP/1.1\r\n" + kAuthen + "\r\n");
    Take("boundary=ktframe\r\n\r\n");
    const std::string key = Show(7, true, 100000), next = Show(8, false, 6);
    const std::string part =
        "--ktframe\r\nContent-Type: application/octet-stream\r\nContent-Length: ";
    EXPECT_TRUE(Take(std::string(6, '\10')) ==
                part + "100020\r\n\r\n" + key + part + "26\r\n\r\n" + next);
}

TEST(CameraParts, AnswersDiscoveryAndNothingElse) {
    CKTSocketUDP asker;
    ASSERT_EQ(asker.Bind("127.0.0.1"), 0);
    ASSERT_EQ(asker.Open(nullptr, 0), 0);
    CKTSocketAddress camera("127.0.0.1");  // the group itself cannot be heard under Wine
    camera.SetPort(asker.GetLocal()->GetPort() ^ 1);
    Discovery discovery("http://127.0.0.1:80/", "Gate 1");
    ASSERT_TRUE(discovery.Open("239.255.80.1", camera.GetPort()));
    const CKTString questions[] = {"ktdiscover 2", CKTString(std::string(2000, 'x').c_str()),
                                   "ktdiscover 1"};
    for (const CKTString& question : questions) {
        asker.Send(&question, &camera);
        ASSERT_GT(asker.OnSend(nullptr), 0);
        CKTSocketSET set;
        discovery.Select(set);
        set.Wait(5000);
        discovery.Poll(set);
    }
    char answer[100] = {};
    EXPECT_EQ(asker.Recv(answer, 99, 5000), 38);
    EXPECT_STREQ(answer, "ktcamera 1 http://127.0.0.1:80/ Gate 1");
}
