#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "KTBase/KTHttp.h"
#include "KTTestPeers.h"

namespace {

constexpr unsigned int kLongMs = 10000;

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string Text(CKTString& text) {
    return text.GetLength() == 0 ? "" : std::string(text.GetBuffer(), text.GetLength());
}

/// The servers of tests/peers/http.
class HttpPeer : public testing::Test {
protected:
    void SetUp() override {
        if (peers.IsEmpty())
            GTEST_SKIP() << "no HTTP servers: ctest starts them";
    }
    std::string Url(const std::string& server, const std::string& path,
                    const std::string& credentials = "") const {
        return (server == "https" ? "https://" : "http://") + credentials +
               "127.0.0.1:" + std::to_string(peers[server]) + path;
    }
    int Get(const std::string& url) {
        return session->Commit("GET", url.c_str(), nullptr, 0, nullptr, kLongMs);
    }
    std::string Body() { return Text(*session->GetResponse()->GetContent()); }

    /// One exchange on the open connection, which stays open. Returns the code, or -1.
    int Exchange(const char* uri, CKTString& body) {
        CKTHTTPCommand& request = *session->GetRequest();
        CKTHTTPCommand& response = *session->GetResponse();
        request.Reset();
        response.Reset();
        body.Empty(false);
        request.SetMethod("GET");
        request.SetProtocol("HTTP/1.1");
        request.SetHost("localhost");
        request.SetURI(uri);
        request.SetKeepalive(true);
        request.SetAcceptEncoding("gzip");
        if (session->SendRequ(nullptr) != 0)
            return -1;
        while (response.GetCode() == 0 || !response.IsCompleted()) {
            if (session->Polling(kLongMs) < 1)
                return -1;
            while (!response.IsCompleted()) {
                const int taken = session->RecvRequContent(&response, body);
                if (taken < 0)
                    return -1;
                if (taken == 0)
                    break;
            }
        }
        return response.GetCode();
    }

    const KTTestPeers peers{std::getenv("KTBASE_HTTP_PEERS")};
    const std::shared_ptr<CKTHTTPSession> session{CKTHTTPSession::Acquire(),
                                                  [](CKTHTTPSession* last) { last->Release(); }};
};

TEST_F(HttpPeer, KeepsOneConnectionForManyRequests) {
    const std::string text = Contents(peers.Path("files/text"));
    session->GetResponse()->SetInflate(true, 2000000);
    ASSERT_EQ(session->Open("127.0.0.1", peers["nginx"]), 0);
    const unsigned long long handle = session->GetHandle();
    CKTString body;
    for (const char* uri : {"/chunked/text", "/gzip/text", "/text"}) {
        ASSERT_EQ(Exchange(uri, body), 200) << uri;
        EXPECT_EQ(Text(body) == text, true) << uri;  // too much to print
        EXPECT_EQ(session->GetResponse()->IsGZip(), std::string(uri) == "/gzip/text");
    }
    for (int i = 0; i < 1000; ++i) {
        const char* uri = i % 3 == 0 ? "/chunked/hello" : i % 3 == 1 ? "/gzip/hello" : "/hello";
        ASSERT_EQ(Exchange(uri, body), 200) << i;
        ASSERT_EQ(Text(body), "hello\n") << i << uri;
        ASSERT_EQ(Exchange("/unchanged", body), 304) << i;
    }
    EXPECT_EQ(session->GetHandle(), handle);
    EXPECT_TRUE(session->IsValid());
}

TEST_F(HttpPeer, CommitsToServersAsTheyAnswer) {
    const std::string text = Contents(peers.Path("files/text"));
    const struct {
        const char *method, *server, *path;
        int code;
        std::string body;
    } cases[] = {
        {"GET", "nginx", "/hello", 200, "hello\n"},    {"GET", "nginx", "/text", 200, text},
        {"GET", "nginx", "/chunked/text", 200, text},  {"HEAD", "nginx", "/text", 200, ""},
        {"HEAD", "nginx", "/chunked/text", 200, ""},   {"GET", "nginx", "/unchanged", 304, ""},
        {"GET", "lighttpd", "/hello", 200, "hello\n"}, {"GET", "lighttpd", "/text", 200, text},
    };
    for (const auto& c : cases) {
        const std::string url = Url(c.server, c.path);
        EXPECT_EQ(session->Commit(c.method, url.c_str(), nullptr, 0, nullptr, kLongMs), 0) << url;
        EXPECT_EQ(session->GetResponse()->GetCode(), c.code) << url;
        EXPECT_EQ(Body() == c.body, true) << c.method << url << Body().size();
        EXPECT_FALSE(session->IsValid());
    }
    EXPECT_EQ(Get(Url("nginx", "/none")), 0);
    EXPECT_EQ(session->GetResponse()->GetCode(), 404);

    CKTHTTPSocket socket;
    CKTString content;
    EXPECT_EQ(socket.Commit("GET", Url("nginx", "/chunked/text").c_str(), &content, 2000), 200);
    EXPECT_EQ(Text(content) == text, true);
}

TEST_F(HttpPeer, LogsInWhereItCan) {
    const struct {
        const char *server, *path, *credentials;
        bool full;
        int result;
        const char* body;
    } cases[] = {
        {"nginx", "/basic/hello", "", false, -16, nullptr},
        {"nginx", "/basic/hello", "user:secret@", false, 0, "hello\n"},
        {"nginx", "/basic/hello", "user:wrong@", false, -16, nullptr},
        // The answer counts: one request refused, one retry.
        {"digest", "/a", "user:secret@", false, 0, "2 "},
        {"digest", "/a?b=c", "user:secret@", false, 0, "2 "},
        {"digest", "/close/a", "user:secret@", false, 0, "2 "},
        {"digest", "/old/a", "user:secret@", false, 0, "2 "},
        {"digest", "/a", "user:wrong@", false, -16, "2 "},
        {"digest", "/b", "user:secret@", true, 0, "2 "},
        {"digest", "/b", "user:wrong@", true, -16, "2 "},
        // Other parameters between realm and nonce, and a qop.
        {"lighttpd", "/md5", "user:secret@", false, -16, nullptr},
        {"lighttpd", "/sha", "user:secret@", false, -16, nullptr},
        {"lighttpd", "/md5", "user:secret@", true, 0, "hello\n"},
        {"lighttpd", "/sha", "user:secret@", true, 0, "hello\n"},
        {"lighttpd", "/sha", "user:wrong@", true, -16, nullptr},
    };
    for (const auto& c : cases) {
        const std::string url = Url(c.server, c.path, c.credentials);
        session->SetDigestFull(c.full);
        EXPECT_EQ(Get(url), c.result) << url << c.full;
        EXPECT_EQ(session->GetResponse()->GetCode(), c.result == 0 ? 200 : 401) << url << c.full;
        if (c.body != nullptr) {
            EXPECT_EQ(Body(), c.body) << url << c.full;
        }
    }
    EXPECT_EQ(session->Commit("POST", Url("digest", "/post", "user:secret@").c_str(), "content", 0,
                              "text/plain", kLongMs),
              0);
    EXPECT_EQ(Body(), "2 content");
}

TEST_F(HttpPeer, VerifiesTheCertificateOfHttps) {
    const std::string url = Url("https", "/basic/hello", "user:secret@");
    const std::string ca = peers.Path("server.pem");
    session->SetVerify("wrong.test", ca.c_str());
    EXPECT_EQ(Get(url), -1);
    session->SetVerify(nullptr, nullptr);  // the system does not know the server's authority
    EXPECT_EQ(Get(url), -1);
    session->SetVerify(nullptr, ca.c_str());
    for (int round = 0; round < 2; ++round) {  // TLS again after the connection was closed
        EXPECT_EQ(Get(url), 0);
        EXPECT_EQ(Body(), "hello\n");
    }
}

// What gst-rtsp-server 1.22, its session time-out set to 90 s, and gst-launch with rtspsrc said to
// each other from OPTIONS to TEARDOWN, in turn; recorded by a proxy.
TEST(Rtsp, ReadsARecordedDialogue) {
    const char* const expected =
        "1 OPTIONS /camera/1 | | \n1 200 | | \n"
        "2 DESCRIBE /camera/1 | | \n2 200 | | application/sdp 355\n"
        "3 SETUP /camera/1/stream=0 | |RTP/AVP;unicast;client_port=52572-52573 \n"
        "3 200 |4QbT9bm4F71_HqGQ 90|RTP/AVP;unicast;client_port=52572-52573;"
        "server_port=33294-33295;ssrc=E21DC59B;mode=\"PLAY\" \n"
        "4 PLAY /camera/1/ npt=now-|4QbT9bm4F71_HqGQ 60| \n"
        "4 200 npt=now-|4QbT9bm4F71_HqGQ 90| \n"
        "5 PAUSE /camera/1/ |4QbT9bm4F71_HqGQ 60| \n5 200 |4QbT9bm4F71_HqGQ 90| \n"
        "6 TEARDOWN /camera/1/ |4QbT9bm4F71_HqGQ 60| \n6 200 |4QbT9bm4F71_HqGQ 90| \n";
    const std::string dialogue = Contents(KTBASE_PEERS_DIR "/rtsp.capture");
    const std::size_t host = std::strlen("rtsp://127.0.0.1:28555");
    const auto text = [](const char* field) { return field != nullptr ? field : ""; };
    std::string seen;
    bool request = true;
    for (std::size_t at = 0; at < dialogue.size(); request = !request) {
        CKTHTTPCommand message;
        CKTString body;
        const int left = static_cast<int>(dialogue.size() - at);
        const int taken = request ? message.RecvRequest(&dialogue[at], left, &body)
                                  : message.RecvResponse(&dialogue[at], left, &body);
        ASSERT_TRUE(taken > 0 && message.IsCompleted()) << seen;
        at += taken;
        seen += std::to_string(message.GetSN()) + " ";
        seen += request ? std::string(message.GetMethod()) + " " + (message.GetURI() + host)
                        : std::to_string(message.GetCode());
        seen += std::string(" ") + text(message.GetRange()) + "|";
        if (message.GetSessionID() != nullptr)
            seen += message.GetSessionID() + (" " + std::to_string(message.GetTimeout()));
        else
            seen += " ";
        seen += std::string("|") + text(message.GetTransport()) + " ";
        seen += text(message.GetContentType());
        seen += (body.GetLength() != 0 ? " " + std::to_string(body.GetLength()) : "") + "\n";
    }
    EXPECT_EQ(seen, expected);
}

}  // namespace
