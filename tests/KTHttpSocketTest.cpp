#include "KTBase/KTHttp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "KTTestBytes.h"
#include "KTTestHttpPeer.h"
#include "KTTestPrint.h"

namespace {

/// Reads first bytes, then rest bytes at a time, whatever has arrived.
class Pieces : public CKTHTTPSocket {
public:
    using CKTHTTPSocket::RecvResp;
    using CKTHTTPSocket::SendRequ;
    int Recv(char* buffer, int size, unsigned int timeoutMs) override {
        const int count = CKTHTTPSocket::Recv(buffer, std::min(size, first), timeoutMs);
        if (count > 0)
            first = first > count ? first - count : rest;
        return count;
    }
    int first = INT_MAX;
    int rest = INT_MAX;
};

TEST(HttpSocket, ReadsEveryAnswerInAnyPieces) {
    KTTestHttpPeer peer(KTTestServeAnswer);
    Pieces socket;
    int number = 0;
    for (const KTTestAnswer& answer : kKTTestAnswers) {
        const std::string url = peer.Url("/" + std::to_string(number++));
        const int length = static_cast<int>(answer.text.size());
        for (int split = 0; split < length; ++split) {
            socket.first = split == 0 ? 1 : split;
            socket.rest = split == 0 ? 1 : INT_MAX;
            CKTString content("sent");
            ASSERT_EQ(socket.Commit(answer.method, url.c_str(), &content, 4000), answer.code)
                << url << " at " << split;
            EXPECT_EQ(Text(content), answer.body) << url << " at " << split;
            EXPECT_FALSE(socket.IsValid());
        }
    }
}

TEST(HttpSocket, SurvivesAServerThatFailsAtAnyByte) {
    CKTHTTPSocket socket;
    testing::internal::CaptureStdout();  // the deadlines that it reports
    KTTestSurvivesFaults([&](const std::string& url, unsigned int timeoutMs) {
        CKTString content;
        const int result = socket.Commit("GET", url.c_str(), &content, timeoutMs / 5);
        EXPECT_FALSE(socket.IsValid());
        return result == 200 && Text(content) != "ab" ? -100 : result;
    });
    const std::string printed = KTTestPrinted();
    EXPECT_NE(printed.find("CKTHTTPSocket::RecvResp"), std::string::npos);
}

TEST(HttpSocket, SendsHeadAndBodyAndCountsItsTimeInFives) {
    std::string request;
    KTTestHttpPeer peer([&](CKTSocketTCP& connection, unsigned int) {
        request = KTTestHttpPeer::ReadRequest(connection);
        KTTestHttpPeer::AwaitEnd(connection);
    });
    CKTHTTPSocket socket;
    CKTString content("a=1");
    const std::string url = peer.Url("/set?x");
    const unsigned long long startMs = CKTTime::GetTimeMS();
    testing::internal::CaptureStdout();
    EXPECT_EQ(socket.Commit("POST", url.c_str(), &content, 40), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_NEAR(static_cast<double>(CKTTime::GetTimeMS() - startMs), 550, 400);  // 40 x 5 on
    const std::string host = url.substr(7, url.rfind('/') - 7);
    EXPECT_EQ(request, "POST /set?x HTTP/1.1\r\nHost: " + host +
                           "\r\nConnection: close\r\nPragma: no-cache\r\n"
                           "Cache-Control: no-store\r\nContent-Length: 3\r\n\r\na=1");
}

TEST(HttpSocket, RefusesWhatItCannotDo) {
    KTTestHttpPeer peer(KTTestServeAnswer);
    Pieces socket;
    CKTString content;
    const std::string url = peer.Url("/5");
    EXPECT_EQ(socket.Commit(nullptr, url.c_str(), &content, 4000), -1);
    EXPECT_EQ(socket.Commit("GET", url.c_str(), nullptr, 4000), -1);
    EXPECT_EQ(socket.Commit("GET", "no url", &content, 4000), -1);
    EXPECT_EQ(socket.Commit("GET", peer.Url("/5", "https://").c_str(), &content, 4000), -1);
    EXPECT_EQ(socket.SendRequ(socket.GetRequest(), &content, 4000), -1);
    EXPECT_EQ(socket.RecvResp(socket.GetResponse(), &content, 4000), -1);
    EXPECT_EQ(socket.Commit("GET", url.c_str(), &content, 4000), 404);
    EXPECT_EQ(socket.Commit("GET", nullptr, &content, 4000), -1);
}

TEST(HttpSocket, AHeadThatFillsTheBufferEndsInTheDeadline) {
    KTTestHttpPeer peer([&](CKTSocketTCP& connection, unsigned int) {
        KTTestHttpPeer::ReadRequest(connection);
        KTTestHttpPeer::Send(connection, "HTTP/1.1 200 OK\r\nX: " + std::string(40000, 'x'));
        KTTestHttpPeer::AwaitEnd(connection);
    });
    CKTHTTPSocket socket;
    CKTString content;
    testing::internal::CaptureStdout();
    EXPECT_EQ(socket.Commit("GET", peer.Url().c_str(), &content, 20), -1);
    EXPECT_NE(KTTestPrinted().find("CKTHTTPSocket::RecvResp"), std::string::npos);
    EXPECT_FALSE(socket.IsValid());
}

}  // namespace
