#include "KTBase/KTHttp.h"

#include <gtest/gtest.h>

#include "KTTestBytes.h"
#include "KTTestHttpPeer.h"
#include "KTTestPrint.h"

namespace {

TEST(HttpSocket, ReadsEveryAnswerInAnyPieces) {
    KTTestPieces<CKTHTTPSocket> socket;
    KTTestReadsInPieces(socket, [&](const char* method, const std::string& url, std::string& body) {
        CKTString content("sent");
        const int code = socket.Commit(method, url.c_str(), &content, 4000);
        body = Text(content);
        return code;
    });
}

TEST(HttpSocket, SurvivesAServerThatFailsAtAnyByte) {
    CKTHTTPSocket socket;
    testing::internal::CaptureStdout();
    KTTestSurvivesFaults([&](const std::string& url, unsigned int timeoutMs) {
        CKTString content;
        const int result = socket.Commit("GET", url.c_str(), &content, timeoutMs / 5);
        EXPECT_FALSE(socket.IsValid());
        return result == 200 && Text(content) != "ab" ? -100 : result;
    });
    EXPECT_NE(KTTestPrinted().find("CKTHTTPSocket::RecvResp"), std::string::npos);
}

TEST(HttpSocket, SendsHeadAndBodyAndCountsItsTimeInFives) {
    // The answer's head does not fit the buffer: waiting for its end must not spin either.
    KTTestHttpPeer peer([](KTTestHttpPeer& peer, CKTSocketTCP& connection, unsigned int) {
        peer.Answer(connection, "HTTP/1.1 200 OK\r\nX: " + std::string(40000, 'x'));
        KTTestHttpPeer::AwaitEnd(connection);
    });
    CKTHTTPSocket socket;
    CKTString content("a=1");
    const std::string url = peer.Url("/set?x");
    const unsigned long long startMs = CKTTime::GetTimeMS();
    testing::internal::CaptureStdout();
    EXPECT_EQ(socket.Commit("POST", url.c_str(), &content, 40), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_GE(CKTTime::GetTimeMS() - startMs, 200u);
    EXPECT_EQ(peer.Requests()[0], "POST /set?x HTTP/1.1\r\nHost: " + peer.Url("", "") +
                                      "\r\nConnection: close\r\nPragma: no-cache\r\n"
                                      "Cache-Control: no-store\r\nContent-Length: 3\r\n\r\na=1");
    EXPECT_EQ(socket.Commit(nullptr, url.c_str(), &content, 40), -1);
    EXPECT_EQ(socket.Commit("GET", url.c_str(), nullptr, 40), -1);
    EXPECT_EQ(socket.Commit("GET", nullptr, &content, 40), -1);
    EXPECT_EQ(socket.Commit("GET", peer.Url("/", "https://").c_str(), &content, 40), -1);
    EXPECT_EQ(peer.Requests().size(), 1u);
}

}  // namespace
