#include "KTBase/KTSsl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "KTBase/KTSocket.h"
#include "KTBase/KTTime.h"
#include "KTTestLoad.h"
#include "KTTestPeers.h"
#include "KTTestPrint.h"

namespace {

constexpr unsigned int kLongMs = 10000;
constexpr unsigned long long kNone = ~0ull;

/// The servers of tests/peers/tls, and the files beside their port list.
class SslPeer : public testing::Test {
protected:
    void SetUp() override {
        if (ports.IsEmpty())
            GTEST_SKIP() << "no TLS servers: ctest starts them";
        socket.SetUseSsl(true);
    }
    /// Whether the server sends a line back reversed.
    static bool Answers(CKTSocketTCP& socket) {
        char got[16] = {};
        if (socket.Send("stressed\n", 9, kLongMs) != 9)
            return false;
        for (int length = 0; length < 9;) {
            const int count = socket.Recv(got + length, 9 - length, kLongMs);
            if (count < 0)
                return false;
            length += count;
        }
        return std::strcmp(got, "desserts\n") == 0;
    }
    const KTTestPeers ports{std::getenv("KTBASE_TLS_PEERS")};
    CKTSocketTCP socket;
};

/// A plain connection on loopback, handed to the layer.
struct Plain {
    Plain() : address("127.0.0.1") {
        listening = CKTSocket::TCPOpen(&address);
        CKTSocket::Listen(listening, 4);
        CKTSocket::EnableBlock(listening, true);
    }
    ~Plain() { CKTSocket::CloseSock(listening); }
    void Connect() {
        ASSERT_EQ(client.OpenSockEx("127.0.0.1", address.GetPort(), false, kLongMs), 0);
        ASSERT_EQ(server.Accept(listening), 0);
    }
    CKTSocketAddress address;
    unsigned long long listening;
    CKTSocketTCP client, server;
};

// ---- without a server ----

TEST(Ssl, PassesPlainBytesWhileSwitchedOff) {
    Plain plain;
    plain.Connect();
    CKTSsl ssl;
    char got[8] = {};
    EXPECT_EQ(ssl.SendData("x", 1, 0), -2);  // no socket
    ssl.SetSocket(static_cast<int>(plain.client.GetHandle()));
    EXPECT_FALSE(ssl.BindSsl());
    EXPECT_EQ(ssl.RecvData(got, sizeof(got), 0), 0);
    EXPECT_EQ(ssl.SendData("plain", 5, 0), 5);
    EXPECT_EQ(plain.server.Recv(got, 8, kLongMs), 5);
    EXPECT_STREQ(got, "plain");
    plain.server.Close();
    while (ssl.RecvData(got, sizeof(got), 0) == 0) {
    }
    EXPECT_EQ(ssl.RecvData(got, sizeof(got), 0), -1);
}

TEST(Ssl, SendsNothingInPlainTextWithoutASession) {
    Plain plain;
    plain.Connect();
    plain.client.SetUseSsl(true);  // late: no handshake has been made
    char byte;
    EXPECT_EQ(plain.client.Send("secret", 6, kLongMs), -13);
    EXPECT_EQ(plain.server.Recv(&byte, 1, 20), 0);
    plain.server.Send("x", 1, kLongMs);
    EXPECT_EQ(plain.client.Recv(&byte, 1, kLongMs), -1);
}

TEST(Ssl, GivesUpOnAPeerThatIsSilentAndStaysWithTls) {
    Plain plain;
    CKTSocketTCP& client = plain.client;
    client.SetUseSsl(true);
    const unsigned long long startUs = CKTTime::GetTimeUS();
    EXPECT_EQ(client.Open("127.0.0.1", plain.address.GetPort()), -1);
    EXPECT_NEAR((CKTTime::GetTimeUS() - startUs) / 1e6, 10, 3);
    EXPECT_FALSE(client.IsValid());
    EXPECT_STREQ(client.GetSslReason(), "the peer is silent");

    // What the failed attempt, and a second one to a peer that hangs up, put on the wire is TLS.
    ASSERT_EQ(plain.server.Accept(plain.listening), 0);
    unsigned char hello[3] = {};
    EXPECT_EQ(plain.server.Recv(reinterpret_cast<char*>(hello), 3, kLongMs), 3);
    EXPECT_EQ(hello[0], 0x16);  // RFC 8446, 5.1: a handshake record
    EXPECT_EQ(hello[1], 0x03);
    plain.server.Close();
    CKTSocket::CloseSock(plain.listening);
    plain.listening = kNone;
    EXPECT_EQ(client.Open("127.0.0.1", plain.address.GetPort()), -1);
    EXPECT_EQ(client.Close(), -1);
}

// ---- with openssl s_server ----

TEST_F(SslPeer, CarriesLargeRecordsBothWaysByteForByte) {
    ASSERT_EQ(socket.Open("127.0.0.1", ports["echo"]), 0) << socket.GetSslReason();
    const unsigned int lines = KTTestLoad(100 * 1024 * 1024 / 16000);
    std::string line(16000, '\n');
    std::string got;
    unsigned int sent = 0, received = 0;
    char buffer[20000];
    const auto fill = [&](unsigned int number) {
        for (std::size_t i = 0; i + 1 < line.size(); ++i)
            line[i] = static_cast<char>(' ' + (number * 31 + i * i * 7 + (i >> 5)) % 90);
    };
    while (received < lines) {
        CKTSocketSET set;
        // The server answers line by line, and reads no more while nobody takes its answers.
        if (sent < lines && !socket.IsSending()) {
            fill(sent++);
            const CKTString piece(line.c_str());
            ASSERT_EQ(socket.Send(&piece), 0);
        }
        ASSERT_EQ(set.Select(socket.GetHandle(), true, socket.IsSending()), 0);
        ASSERT_GE(set.Wait(kLongMs), 1);
        ASSERT_GE(socket.OnSend(nullptr), 0);
        int count;
        while ((count = socket.OnRecv(nullptr, buffer, sizeof(buffer))) > 0)
            got.append(buffer, count);
        ASSERT_EQ(count, 0);
        for (; got.size() >= line.size(); ++received) {
            fill(received);
            ASSERT_TRUE(std::equal(line.rbegin() + 1, line.rend(), got.begin())) << received;
            got.erase(0, line.size());
        }
    }
    EXPECT_EQ(socket.OnRecv(nullptr, buffer, sizeof(buffer)), 0);  // nothing now
    EXPECT_EQ(socket.Close(), 0);
}

TEST_F(SslPeer, HandsOutWhatIsDecryptedAlready) {
    ASSERT_EQ(socket.Open("127.0.0.1", ports["echo"]), 0);
    ASSERT_EQ(socket.Send("abcdef\n", 7, kLongMs), 7);
    char got[4] = {};
    while (socket.Recv(got, 1, kLongMs) == 0) {
    }
    EXPECT_STREQ(got, "f");
    // The rest of the record is inside the layer: no set tells of it, and no wait is needed.
    fd_set none;
    FD_ZERO(&none);
    EXPECT_EQ(socket.OnRecv(&none, got, 2), 2);
    EXPECT_STREQ(got, "ed");
    EXPECT_EQ(socket.Recv(got, 3, 0), 3);
    EXPECT_STREQ(got, "cba");
    CKTSocketTCP moved;
    EXPECT_EQ(socket.MoveTo(&moved), 0);
    while (moved.Recv(got, 1, kLongMs) == 0) {
    }
    EXPECT_TRUE(Answers(moved));
}

TEST_F(SslPeer, ChecksTheCertificateWhenAsked) {
    const std::string ca = ports.Path("ca.pem"), other = ports.Path("client.pem"),
                      none = ports.Path("none.pem");
    const struct {
        const char* open;
        const char* verify;
        const char* caFile;
        const char* reason;  // null: the certificate is fine
    } cases[] = {
        {"127.0.0.1", nullptr, ca.c_str(), nullptr},
        {"127.0.0.1", "127.0.0.1", ca.c_str(), nullptr},
        {"localhost", nullptr, ca.c_str(), nullptr},
        // The server has a certificate for this name only for who asks for the name.
        {"127.0.0.1", "camera.test", ca.c_str(), nullptr},
        {"localhost", "camera.test", ca.c_str(), nullptr},
        {"127.0.0.1", "wrong.test", ca.c_str(), "ostname mismatch"},
        {"127.0.0.1", "127.0.0.2", ca.c_str(), "IP address mismatch"},
        {"127.0.0.1", nullptr, other.c_str(), "unable to get"},
        {"127.0.0.1", nullptr, nullptr, "unable to get"},  // the system does not know our authority
        {"127.0.0.1", nullptr, none.c_str(), ":"},
    };
    for (const auto& c : cases) {
        CKTSocketTCP checked;
        ASSERT_EQ(checked.SetVerify(c.verify, c.caFile), 0);
        for (int round = 0; round < 2; ++round) {  // what is set outlives Close
            checked.SetUseSsl(true);
            EXPECT_EQ(checked.Open(c.open, ports["echo"]), c.reason == nullptr ? 0 : -1)
                << c.open << " " << checked.GetSslReason();
            EXPECT_EQ(Answers(checked), c.reason == nullptr) << c.open;
            EXPECT_NE(std::strstr(checked.GetSslReason(), c.reason == nullptr ? "" : c.reason),
                      nullptr)
                << checked.GetSslReason();
            checked.Close();
        }
    }
    // The target of a move checks from then on, too.
    CKTSocketTCP from, to;
    from.SetVerify("wrong.test", ca.c_str());
    ASSERT_EQ(from.OpenSockEx("127.0.0.1", ports["echo"], false, kLongMs), 0);
    ASSERT_EQ(from.MoveTo(&to), 0);
    to.Close();
    to.SetUseSsl(true);
    EXPECT_EQ(to.Open("127.0.0.1", ports["echo"]), -1);
}

TEST_F(SslPeer, ShowsItsOwnCertificate) {
    const std::string cert = ports.Path("client.pem"), key = ports.Path("client.key"),
                      ca = ports.Path("ca.pem");
    const std::string locked = ports.Path("locked.key"), none = ports.Path("none.pem"),
                      wrong = ports.Path("server.key");
    const struct {
        const char* caFile;
        const char* certFile;
        const char* keyFile;
        bool opens, answers;
        const char* printed;
    } cases[] = {
        {ca.c_str(), cert.c_str(), key.c_str(), true, true, ""},
        {nullptr, cert.c_str(), key.c_str(), true, false, ""},  // two of three: none is shown
        {ca.c_str(), none.c_str(), key.c_str(), false, false,
         "SSL_CTX_load_verify_locations error\n"},
        {ca.c_str(), cert.c_str(), none.c_str(), false, false, "ERROR: no private key found!\n"},
        {ca.c_str(), cert.c_str(), locked.c_str(), false, false, "ERROR: no private key found!\n"},
        {ca.c_str(), cert.c_str(), wrong.c_str(), false, false, "ERROR: no private key found!\n"},
    };
    for (const auto& c : cases) {
        CKTSocketTCP own;
        own.SetUseSsl(true);
        own.SetCertsPathName(c.caFile, c.certFile, c.keyFile);
        testing::internal::CaptureStdout();
        EXPECT_EQ(own.Open("127.0.0.1", ports["mutual"]), c.opens ? 0 : -1) << c.keyFile;
        EXPECT_EQ(KTTestPrinted(), c.printed) << c.keyFile;
        EXPECT_EQ(Answers(own), c.answers) << c.keyFile;
    }
}

TEST_F(SslPeer, RefusesToRenegotiate) {
    // The server asks within the second, and ends a connection that refuses, then itself.
    ASSERT_EQ(socket.Open("127.0.0.1", ports["renegotiate"]), 0) << socket.GetSslReason();
    // It may be reading already, and looks for its commands only once it got something.
    ASSERT_EQ(socket.Send("go\n", 3, kLongMs), 3);
    char buffer[4096];
    int result = 0;
    for (int i = 0; i < 10 && result >= 0; ++i)
        result = socket.Recv(buffer, sizeof(buffer), 1000);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(socket.Close(), 0);
}

TEST_F(SslPeer, CyclesLeaveNothingBehind) {
    for (unsigned int i = KTTestLoad(500); i != 0; --i) {
        socket.SetUseSsl(true);
        ASSERT_EQ(socket.Open("127.0.0.1", ports["echo"]), 0) << socket.GetSslReason();
        ASSERT_TRUE(Answers(socket));
        ASSERT_EQ(socket.Close(), 0);
    }
}

}  // namespace
