#include <KTBase/KTDebug.h>
#include <KTBase/KTHttp.h>
#include <KTBase/KTZip.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "KTHeap.h"
#include "KTTestBytes.h"
#include "KTTestLoad.h"
#include "KTTestPrint.h"

namespace {

/// One message as it arrives, and what became of it.
struct Fed {
    CKTHTTPCommand command;
    CKTString body;
    std::string left;  // not taken
    int result = 0;    // of the call that failed
    const bool inflate;
    const unsigned int maxOut;

    explicit Fed(bool inflates = false, unsigned int most = 0) : inflate(inflates), maxOut(most) {
        command.SetInflate(inflate, maxOut);
    }

    /// What a call does not take stays in front of what comes next, as in a receive buffer. After a
    /// failure nothing more is read.
    void Take(const std::string& piece, bool request) {
        left += piece;
        for (int count = 1; count > 0 && result == 0 && !left.empty();
             left.erase(0, count > 0 ? count : 0)) {
            // Nothing lies behind it, so the address sanitizer sees any read past its end.
            const std::vector<char> exact(left.begin(), left.end());
            const int size = static_cast<int>(exact.size());
            count = request ? command.RecvRequest(exact.data(), size, &body)
                            : command.RecvResponse(exact.data(), size, &body);
            result = count < 0 ? count : 0;
        }
    }

    std::string Summary() const {
        if (result < 0)
            return std::to_string(result) + " [" + Text(body) + ']';
        const CKTHTTPCommand& c = command;
        std::string text = std::to_string(c.GetCode());
        for (const char* field : {c.GetReason(), c.GetMethod(), c.GetURI(), c.GetProtocol(),
                                  c.GetContentType(), c.GetAuthen()})
            text += ' ' + Or(field);
        text += ' ' + std::to_string(c.GetContentLen()) + (c.IsKeepAlive() ? " keep" : "") +
                (c.IsChunked() ? " chunked" : "") + (c.IsGZip() ? " gzip" : "") +
                (c.IsCompleted() ? " done" : "");
        return text + " [" + Text(body) + "] " + std::to_string(left.size());
    }
};

/// Reads message whole, in every two parts and byte by byte, which makes no difference.
void ReadInPieces(Fed& whole, const std::string& message, bool request) {
    whole.Take(message, request);
    for (std::size_t cut = 1; cut <= message.size(); ++cut) {
        const bool bytes = cut == message.size();
        Fed fed(whole.inflate, whole.maxOut);
        for (std::size_t at = 0, size = bytes ? 1 : cut; at < message.size(); at += size) {
            size = bytes ? 1 : at == 0 ? cut : message.size();
            fed.Take(message.substr(at, size), request);
        }
        ASSERT_EQ(fed.Summary(), whole.Summary()) << message << " at " << cut;
    }
}

// ---- captured from nginx 1.22.1 and curl 7.88.1; long bodies and lines without a meaning here
// are shortened or left out ----

const std::string kGzipHello =
    Unhex("1f8b0800000000000403cb48cdc9c957482bcacf55c84bcfccabd051c82028c20500767e920835000000");
const std::string kGzipHead =
    "HTTP/1.1 200 OK\r\nServer: nginx/1.22.1\r\nContent-Type: text/html\r\n"
    "Transfer-Encoding: chunked\r\nConnection: close\r\nETag: W/\"6b03ee17-35\"\r\n"
    "Content-Encoding: gzip\r\n\r\n";
const std::string kGzip = kGzipHead + "2a\r\n" + kGzipHello + "\r\n0\r\n\r\n";
const std::string kMultipart =
    "HTTP/1.1 200 OK\r\nContent-Type: multipart/mixed;boundary=frame\r\n\r\n";

struct Message {
    bool request;
    std::string bytes;
    const char* summary;
};

const Message kMessages[] = {
    {false,
     "HTTP/1.1 200 OK\r\nServer: nginx/1.22.1\r\nDate: Mon, 23 Nov 2026 07:41:13 GMT\r\n"
     "Content-Type: text/plain\r\nContent-Length: 6\r\nConnection: keep-alive\r\n"
     "ETag: \"6b03ee17-35\"\r\nAccept-Ranges: bytes\r\n\r\nhello\nHTTP/1.1 304",
     "200 OK - - HTTP/1.1 text/plain - 6 keep done [hello\n] 12"},
    {false, kGzip,
     "200 OK - - HTTP/1.1 text/html - 0 gzip done [hello from nginx, hello from nginx, hello "
     "from nginx\n] 2"},
    {true,
     "PUT /up HTTP/1.1\r\nHost: 127.0.0.1:18084\r\nAuthorization: Basic dXNlcjpwYXNz\r\n"
     "Transfer-Encoding: chunked\r\nExpect: 100-continue\r\n\r\nf\r\nchunked by curl\r\n0\r\n\r\n",
     "200 - PUT /up HTTP/1.1 - Basic dXNlcjpwYXNz 0 done [chunked by curl] 2"},
    // By hand, with a part that gzip has written.
    {false,
     kMultipart +
         "--frame\r\nContent-Length: 3\r\n\r\nabc--frame\r\n"
         "Content-Encoding: gzip\r\nContent-Length: 42\r\n\r\n" +
         kGzipHello + "--frame\r\nContent-Length: 1\r\n\r\nd",
     "200 OK - - HTTP/1.1 multipart/mixed;boundary=frame - 0 done [abchello from nginx, hello "
     "from nginx, hello from nginx\nd] 0"},
};

TEST(HttpMessage, ReadsTheSameWholeSplitAndByteByByte) {
    for (const Message& message : kMessages) {
        Fed fed(true);
        ReadInPieces(fed, message.bytes, message.request);
        EXPECT_EQ(fed.Summary(), message.summary);
    }
}

// ---- heads ----

TEST(HttpMessage, TellsAMalformedFirstLineByTheCode) {
    const struct {
        const char* line;
        int asRequest, asResponse;
    } rows[] = {
        {"HTTP/1.1 200", -1, -1},   {"HTTP/1.1 200 ", 200, 200},           {"a  99  O K", 200, 99},
        {"HTTP/1.1 0 OK", 200, -1}, {"HTTP/1.1 -200 OK", 200, -1},         {"HTTP/1.1", -1, -1},
        {"\t \t ", 200, -1},        {"X 99999999999 OK", 200, 2147483647}, {"", -1, -1},
    };
    for (const auto& row : rows) {
        const std::string head = row.line + std::string("\r\nHost: h\r\n\r\n");
        const int length = static_cast<int>(head.size());
        CKTHTTPCommand c, request;
        EXPECT_EQ(c.ParseResponse(head.data(), length - 1) + c.GetCode(), 0);
        EXPECT_EQ(c.ParseResponse(head.data(), length), length) << row.line;
        EXPECT_EQ(c.GetCode(), row.asResponse) << row.line;
        EXPECT_STREQ(c.GetHost(), *row.line != '\0' ? "h" : nullptr);
        EXPECT_EQ(c.ParseRequest(head.data(), length) + !c.IsCompleted(), 0);
        EXPECT_EQ(request.ParseRequest(head.data(), length), length);
        EXPECT_EQ(request.GetCode(), row.asRequest) << row.line;
    }
}

/// Fields that single lines set, after all of them.
std::string Lines(const std::string& lines, CKTHTTPCommand& c) {
    const std::string head = "X / 1\r\n" + lines + "\r\n\r\n";
    EXPECT_EQ(c.ParseRequest(head.data(), static_cast<int>(head.size())),
              static_cast<int>(head.size()));
    return std::to_string(c.GetContentLen()) + (c.IsChunked() ? 'C' : '-') +
           (c.IsKeepAlive() ? 'K' : '-') + (c.IsGZip() ? 'G' : '-') + ' ' +
           std::to_string(c.GetSN()) + ' ' + Or(c.GetSessionID()) + ' ' +
           std::to_string(c.GetTimeout()) + ' ' + Or(c.GetBoundary()) + ' ' + Or(c.GetAccept());
}

TEST(HttpMessage, ReadsLines) {
    const char* const rows[][2] = {
        {"content-length:7\r\nHost:h\r\nAccept:", "7--- 0 - 0 - -"},
        {"Content-Length: 99999999999999999999", "4294967295--- 0 - 0 - -"},
        {"Content-Length: 5\r\nContent-Length: -1\r\nContent-Length:", "5--- 0 - 0 - -"},
        {"Content-Length: \t+12x", "12--- 0 - 0 - -"},
        {"Transfer-Encoding: CHUNKED\r\nContent-Length: 10", "0C-- 0 - 0 - -"},
        {"Content-Length: 10\r\nTransfer-Encoding: chunked", "0C-- 0 - 0 - -"},
        {"Transfer-Encoding: gzip, chunked\r\nContent-Encoding: x-gzip", "0--G 0 - 0 - -"},
        {"Connection: Upgrade", "0-K- 0 - 0 - -"},
        {"Connection: x\r\nConnection:   CLOSE", "0--- 0 - 0 - -"},
        {"Connection: x\r\nConnection:  ", "0--- 0 - 0 - -"},
        {"CSeq: 65539\r\nCSeq: x", "0--- 3 - 0 - -"},
        {"Session: 12345;timeout=5", "0--- 0 12345 20 - -"},
        {"Session: 12345", "0--- 0 12345 60 - -"},
        {"Session: 1; timeout = 90", "0--- 0 1 60 - -"},
        {"session:  a b;timeout=99999999999;x", "0--- 0 a b 65535 - -"},
        {"Content-Type: Multipart/MIXED; a=b; boundary=x\"y; z", "0--- 0 - 0 x\"y; z -"},
        {"Content-Type: multipart/mixed;boundary=x\r\nContent-Type: b", "0--- 0 - 0 - -"},
        {"Accept: a\nCSEQ:   7 \rAccept-X: c\n\r\n accept: d", "0--- 7 - 0 - d"},
        {"Accepted: a\r\nAccep\r\nA\r\nAccept:\r\n:", "0--- 0 - 0 - -"},
    };
    for (const auto& [lines, fields] : rows) {
        CKTHTTPCommand c;
        EXPECT_EQ(Lines(lines, c), fields) << lines;
    }
    CKTHTTPCommand c;
    EXPECT_EQ(Lines(std::string("Accept: a\0b\r\nCSeq: 7", 20), c), "0--- 7 - 0 - a");
    c.Reset();
    testing::internal::CaptureStdout();
    Lines("Session: ", c);
    const std::string fault = KTTestPrinted();
    EXPECT_EQ(fault.find("src/core/KTBase/KTHttp====>(Func = CKTHTTPCommand::ParseLineSessionID"),
              0u);
}

TEST(HttpMessage, KeepsEveryCookieAndChallengeInOrder) {
    CKTHTTPCommand c;
    std::string head = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 40; ++i)
        head += "Set-Cookie: a" + std::to_string(i) + "=1; sid=" + std::to_string(i) + "\r\n";
    head += "WWW-Authenticate: x\r\nwww-authenticate: y\r\n\r\n";
    c.ParseHeadLine("Set-Cookie: old=1");
    EXPECT_STREQ(c.GetSetCookie("old"), "old=1");
    c.ParseResponse(head.data(), static_cast<int>(head.size()));
    EXPECT_EQ(c.GetSetCookie("old"), nullptr);
    EXPECT_STREQ(c.GetSetCookie("sid"), "sid=0");
    EXPECT_STREQ(c.GetSetCookie("a39"), "a39=1; sid=39");
    EXPECT_STREQ(c.GetChallenge(0), "x");
    EXPECT_STREQ(c.GetChallenge(1), c.GetAuthenWWW());
    EXPECT_EQ(c.GetChallenge(2), nullptr);
    c.SetHost(c.GetChallenge(0));  // texts of the object itself
    c.SetHost(c.GetHost());
    c.SetCode(0);
    EXPECT_EQ(c.ParseRequest("A b c\r\n\r\n", 9), 9);  // the texts of the first head are gone
    EXPECT_EQ(Or(c.GetHost()) + Or(c.GetChallenge(0)) + Or(c.GetMethod()), "--A");
    c.Reset();
    EXPECT_EQ(c.GetMethod(), nullptr);
}

class Derived : public CKTHTTPCommand {
public:
    bool ParseLineConnection(const char* line) override {
        calls += '1';
        return CKTHTTPCommand::ParseLineConnection(line);
    }
    bool ParseContentEncoding(const char* line) override {
        calls += '7';
        return ParseLine(mine, line, "X-Mine: ");
    }
    bool ParseOther(const char* line) override {
        calls += line;
        return true;
    }
    ~Derived() override { ZMKFree(mine); }
    std::string calls;
    char* mine = nullptr;
};

TEST(HttpMessage, AsksADerivedCommandAboutEveryLineThatIsNoText) {
    Derived c;
    Lines("Host: h\r\nX-Mine: a\r\nx-mine: b\r\nCSeq: 4\r\nConnection: close\r\nOther", c);
    EXPECT_EQ(c.calls, "171717CSeq: 4117Other");
    EXPECT_STREQ(c.mine, "b");
    EXPECT_EQ(c.GetSN(), 4);
}

TEST(HttpMessage, BuildsHeadsByteForByte) {
    CKTHTTPCommand c;
    CKTString head("<"), body("four");
    EXPECT_EQ(c.BuildRequest(&head, nullptr) + c.BuildResponse(&head, nullptr), -2);
    c.SetProtocol("http");
    c.SetMethod("PUT"), c.SetURI("/u"), c.SetHost("h"), c.SetKeepalive(true);
    c.SetLocation("l"), c.SetAuthen("a"), c.SetAuthenWWW("w"), c.SetAuthenDigestWWW("d");
    c.SetAccept("*/*"), c.SetAcceptEncoding("gzip"), c.SetTransport("t"), c.SetRange("r");
    c.SetCookie("k"), c.SetCached(true), c.SetContentType("y"), c.SetSessionID("7");
    c.SetGZip(true), c.SetAgent("g"), c.SetSN(9), c.SetMIMEVerSion("1"), c.SetContentDesc("x");
    c.SetDisposition("x");
    EXPECT_EQ(c.BuildRequest(&head, &body), 0);
    const std::string lines =
        "Host: h\r\nConnection: keep-alive\r\nLocation: l\r\nAuthorization: a\r\n"
        "WWW-Authenticate: w\r\nWWW-Authenticate: d\r\nAccept: */*\r\nAccept-Encoding: gzip\r\n"
        "Transport: t\r\nRange: r\r\nCookie: k\r\nContent-Type: y\r\n";
    EXPECT_EQ(Text(head), "<PUT /u HTTP/1.1\r\n" + lines +
                              "Session: 7\r\nContent-Length: 4\r\nContent-Encoding: gzip\r\n"
                              "User-Agent: g\r\n\r\n");
    head.Empty(false);
    c.SetChunked(true), c.SetCode(299), c.SetTimeout(30);
    EXPECT_EQ(c.BuildResponse(&head, nullptr), 0);
    EXPECT_EQ(c.GetCode(), 400);
    EXPECT_EQ(Text(head), "http 400 Bad Request\r\n" + lines +
                              "Session: 7; timeout = 30\r\nTransfer-Encoding: chunked\r\n"
                              "User-Agent: g\r\nAccept: */*\r\n\r\n");
}

TEST(HttpMessage, DumpsWithItsLabels) {
    CKTHTTPCommand c;
    CKTString text;
    c.SetCode(-1), c.SetContentLen(3), c.SetCookie("k"), c.SetRange("r"), c.SetSessionID("s");
    EXPECT_EQ(c.ToString(text), 0);
    EXPECT_EQ(Text(text),
              "m_code       = 4294967295\nm_error      = \nm_method     = \nm_protocol   = \n"
              "m_uri        = \nm_host       = \nm_type       = \nm_contendesc       = \n"
              "m_disposition = \nm_mimever       = \nm_len        = 3\nm_location   = \n"
              "m_connection = close\nm_authen     = \nm_cookie\t = k\nm_range      = r\n"
              "m_session    = s\nm_agent      = \n");
}

// ---- bodies ----

TEST(HttpBody, ReadsChunks) {
    const struct {
        const char* data;
        const char* body;  // and what is not taken
    } rows[] = {
        {"5\r\nhello\r\n", "hello|"},
        {"1\r\na\r\n00\r\n\r\n", "a|\r\n"},  // the closing empty line stays
        {" 00000A ;x=\r y\r\n0123456789\r\n", "0123456789|"},
        {"5\r\nhello\rX", "|5\r\nhello\rX"},
        {"5\r\nhelloX\n", "|5\r\nhelloX\n"},
        {"000000001\r\na\r\n", "|000000001\r\na\r\n"},
        {"ffffffff\r\na\r\n", "|ffffffff\r\na\r\n"},
        {"\r\n1\r\na\r\n", "|\r\n1\r\na\r\n"},
        {"1 2\r\na\r\n", "|1 2\r\na\r\n"},
        {"1\r;\r\na\r\n", "|1\r;\r\na\r\n"},
    };
    for (const auto& row : rows) {
        Fed fed;
        fed.command.SetChunked(true), fed.command.SetCode(200);
        fed.Take(row.data, false);
        EXPECT_EQ(Text(fed.body) + '|' + fed.left, row.body) << row.data;
    }
}

TEST(HttpBody, ReadsParts) {
    const std::string first = "--FRAME\r\ncontent-length: 3\r\n\r\nabc";
    const struct {
        std::string parts;
        int result;
        std::size_t left;  // when there was no failure
        std::string body;
    } rows[] = {
        {first + first, 0, 0, "abcabc"},
        {"--frame\r\nContent-Encoding: gzip\r\nContent-Length: 42\r\n\r\n" + kGzipHello, -15, 0,
         ""},
        {first + "--fra", 0, 5, "abc"},
        {first + "\r\n--frame", -15, 0, "abc"},
        {"--frume", -15, 0, ""},
        {"--frame\r\nContent-Length: -1\r\n\r\n", -15, 0, ""},
        {"--frame\r\nContent-Length: 2147483648\r\n\r\n", -15, 0, ""},
        {"--frame\r\nContent-Length: 2147483647\r\n\r\nabc", 0, 42, ""},
        {"--frame\r\nContent-Length:\r\n\r\n5", -15, 0, ""},
        {"--frame\r\n\r\nContent-Length: 1\r\n\r\n", -15, 0, ""},
        {"--frame\r\nContent-Length: 0\r\n\r\n" + first, 0, 0, "abc"},
    };
    for (const auto& row : rows) {
        Fed fed;
        ReadInPieces(fed, kMultipart + row.parts, false);
        EXPECT_EQ(fed.result, row.result) << row.parts;
        EXPECT_EQ(row.result < 0 ? 0 : fed.left.size(), row.left) << row.parts;
        EXPECT_EQ(Text(fed.body), row.body) << row.parts;
    }
}

TEST(HttpBody, ExpandsWholePiecesAndStreams) {
    const std::string zlib = Unhex("789c4b4c4a0600024d0127");  // "abc", by RFC 1950 and 1951
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: ";
    CKTString zeros;  // the output of each piece is far larger than the piece
    KTZIPDataCompress(zeros, std::string(100000, '0').c_str(), -1);
    Fed plain, refused;
    plain.Take(head + "11\r\n\r\n" + zlib, false);
    refused.Take(head + "42\r\n\r\n" + kGzipHello, false);  // no zlib data
    EXPECT_EQ(Text(plain.body) + std::to_string(refused.result), "abc-15");
    const struct {
        std::string data;
        unsigned int maxOut;
        int result;
        std::size_t size;  // of the body
    } rows[] = {
        {zlib, 3, 0, 3},
        {zlib, 2, -15, 2},
        {Text(zeros), 0, 0, 100000},
        {kGzipHello + kGzipHello, 0, 0, 106},
        {kGzipHello + "x", 0, -15, 53},
        {kGzipHello.substr(0, 41), 0, -15, 53},
        {"\x1f\x8b\x08 no", 0, -15, 0},
    };
    for (const auto& row : rows) {
        Fed fed(true, row.maxOut);
        ReadInPieces(fed, head + std::to_string(row.data.size()) + "\r\n\r\n" + row.data, false);
        EXPECT_EQ(fed.result, row.result);
        EXPECT_EQ(fed.body.GetLength(), row.size);
        EXPECT_EQ(fed.command.IsCompleted(), row.result == 0);
    }
    Fed cut(true), part(true);
    cut.Take(kGzipHead + "20\r\n" + kGzipHello.substr(0, 32) + "\r\n0\r\n", false);
    EXPECT_EQ(cut.result + cut.command.IsCompleted(), -15);
    part.Take(kMultipart + "--frame\r\nContent-Encoding: gzip\r\nContent-Length: 32\r\n\r\n" +
                  kGzipHello.substr(0, 32),
              false);
    EXPECT_EQ(part.result, -15);
}

TEST(HttpBody, BuildsWithinTheRoomThereIs) {
    CKTHTTPCommand c;
    CKTString out(0, 0);
    c.SetContentLen(10);
    EXPECT_EQ(c.BuildContent(out, "abc", 0), 0);  // no buffer
    ASSERT_EQ(out.AllocBuffer(6), 6);
    EXPECT_EQ(c.BuildContent(out, "abcdefgh", 0), 6);
    EXPECT_EQ(Text(out) + std::to_string(out.GetSpace()), "abcdef0");
    out.Empty(false);
    EXPECT_EQ(c.BuildContent(out, "123456789", 9), 4);
    c.SetContentLen(1);  // less than was sent
    EXPECT_EQ(c.BuildContent(out, "x", 1), 0);

    c.Reset();
    c.SetChunked(true);
    for (const unsigned int room : {5u, 8u}) {
        out.Init(room);
        EXPECT_EQ(c.BuildContent(out, "abc", 3) + static_cast<int>(out.GetLength()), 0);
    }
    out.Init(21);
    EXPECT_EQ(c.BuildContent(out, "hello", 0), 5);
    EXPECT_EQ(c.BuildContent(out, "0123456789", 0), 3);
    EXPECT_EQ(Text(out), "5\r\nhello\r\n3\r\n012\r\n");
    EXPECT_EQ(c.GetContentLen(), 8u);
    out.Empty(false);
    EXPECT_EQ(c.BuildContent(out, "", 0), 0);
    EXPECT_EQ(Text(out), "0\r\n");
    EXPECT_FALSE(c.IsChunked());

    // A size line of five digits takes one byte more than the room reckoned with.
    const std::string big(80000, 'a');
    for (const bool canGrow : {true, false}) {
        CKTString large(0, 0);
        ASSERT_EQ(large.AllocBuffer(70000), 70000);
        c.SetChunked(true);
        KTHeapFailAt(canGrow ? 0 : 1);
        const int count = c.BuildChunked(large, big.data(), big.size());
        KTHeapFailAt(0);
        EXPECT_EQ(count, canGrow ? 69992 : 69991);
        EXPECT_EQ(Text(large), (canGrow ? "11168\r\n" : "11167\r\n") +
                                   big.substr(0, static_cast<std::size_t>(count)) + "\r\n");
    }
}

// ---- whatever comes ----

TEST(HttpMessage, CutAndBrokenOnesEndInAStatedCode) {
    KTDBG_EnablePrint(0, 2);  // faults of empty session lines
    std::mt19937 random(5);
    for (const auto& [request, seed, summary] : kMessages) {
        for (unsigned int i = 0; i < KTTestLoad(20000) + seed.size(); ++i) {
            std::string text = seed.substr(0, i < seed.size() ? i : seed.size());
            for (unsigned int n = i < seed.size() ? 0 : 1 + random() % 3; n > 0; --n) {
                const std::size_t at = random() % text.size();
                text.replace(at, random() % 4, 1, "\r\n :;-0f\xff"[random() % 10]);
            }
            Fed fed(i % 2 == 0, 1000), whole(fed.inflate);
            const std::size_t cut = random() % (text.size() + 1);
            fed.Take(text.substr(0, cut), request);
            fed.Take(text.substr(cut), request);
            ASSERT_TRUE(fed.result >= 0 || fed.result == -15) << text;
            whole.Take(text, request);
            // A plain body that is expanded by the piece depends on the pieces.
            if (fed.result >= 0 && (fed.inflate || !fed.command.IsGZip())) {
                ASSERT_EQ(fed.Summary(), whole.Summary()) << text;
            }
        }
    }
    KTDBG_EnablePrint(2, 2);
}

TEST(HttpMessage, TakesLinearTimeForMegabytesOfAnything) {
    for (const char* filling : {"a", "\n", "a\r", "\r\na", "A: ", "\r\n", "boundary=", "5;", " "}) {
        std::string text;
        while (text.size() < 4000000 / KTBASE_LOAD_DIVISOR)
            text += filling;
        Fed head, chunked;
        head.Take("HTTP/1.1 200 OK\r\nContent-Type: multipart/mixed;" + text + "\r\n\r\n", false);
        EXPECT_EQ(head.command.GetCode(), 200);
        chunked.command.SetChunked(true), chunked.command.SetCode(200);
        chunked.Take("1\r\na\r\n5;" + text, false);
        EXPECT_EQ(Text(chunked.body), "a");
    }
}

/// call with the nth allocation failing; a list without memory prints that.
template <typename Call>
int WithoutMemory(unsigned int nth, const Call& call) {
    testing::internal::CaptureStdout();
    KTHeapFailAt(nth);
    const int result = call();
    KTHeapFailAt(0);
    testing::internal::GetCapturedStdout();
    return result;
}

TEST(HttpMessage, IsNeverHalfTakenOrHalfBuiltWithoutMemory) {
    const int whole = static_cast<int>(kGzip.size()) - 2;
    int result = 0;
    for (unsigned int nth = 1; result != whole; ++nth) {
        Fed fed(true);
        result = WithoutMemory(
            nth, [&] { return fed.command.RecvResponse(kGzip.data(), whole + 2, &fed.body); });
        ASSERT_TRUE(result == 0 || result == -6 || result == whole) << result;
        EXPECT_EQ(fed.command.GetCode(), result == 0 ? 0 : 200);
    }
    result = -1;
    for (unsigned int nth = 1; result != 0; ++nth) {
        CKTHTTPCommand c;
        CKTString head("<");
        c.SetProtocol("HTTP/1.1"), c.SetHost("a host"), c.SetSessionID("s");
        result = WithoutMemory(nth, [&] { return c.BuildResponse(&head, nullptr); });
        ASSERT_TRUE(result == 0 || (result == -1 && Text(head) == "<")) << Text(head);
    }
    for (unsigned int nth = 2; nth < 5; ++nth) {
        CKTHTTPCommand c;
        const char* const text = "X 200 OK\r\nSet-Cookie: a\r\nSession: b\r\n\r\n";
        EXPECT_EQ(WithoutMemory(nth, [&] { return c.ParseResponse(text, 39); }), 39);
        EXPECT_EQ(Or(c.GetSetCookie("a")) + Or(c.GetSessionID()), nth == 4 ? "a-" : "-b");
    }
}

}  // namespace
