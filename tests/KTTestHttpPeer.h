// A scripted server on loopback, answers that a client must read in any pieces, and the faults that
// it must survive at every byte.
#ifndef KTBASE_TESTS_KTTESTHTTPPEER_H
#define KTBASE_TESTS_KTTESTHTTPPEER_H

#include <KTBase/KTSocket.h>
#include <KTBase/KTTime.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

constexpr unsigned int kKTTestLongMs = 20000;

class KTTestHttpPeer {
public:
    /// Runs for each connection, one after the other; number counts them from 0.
    typedef std::function<void(CKTSocketTCP& connection, unsigned int number)> Script;

    explicit KTTestHttpPeer(Script script) : m_address("127.0.0.1"), m_script(script) {
        m_listening = CKTSocket::TCPOpen(&m_address);
        CKTSocket::Listen(m_listening, 16);
        CKTSocket::EnableBlock(m_listening, true);
        m_thread = std::thread([this] { Serve(); });
    }
    ~KTTestHttpPeer() {
        m_stop = true;
        CKTSocketTCP wake;
        EXPECT_EQ(wake.OpenSock("127.0.0.1", m_address.GetPort(), true), 0);
        m_thread.join();
        CKTSocket::CloseSock(m_listening);
    }
    std::string Url(const std::string& path = "/", const std::string& before = "http://") const {
        return before + "127.0.0.1:" + std::to_string(m_address.GetPort()) + path;
    }

    /// Head and body of one request; what has come when the client hangs up.
    static std::string ReadRequest(CKTSocketTCP& connection) {
        std::string text;
        char byte;
        while (!IsWhole(text) && connection.Recv(&byte, 1, kKTTestLongMs) == 1)
            text += byte;
        return text;
    }
    static void Send(CKTSocketTCP& connection, const std::string& text) {
        connection.Send(text.data(), static_cast<int>(text.size()), kKTTestLongMs);
    }
    static void AwaitRequest(CKTSocketTCP& connection) {
        CKTSocketSET set;
        set.Select(connection.GetHandle(), true, false);
        EXPECT_EQ(set.Wait(kKTTestLongMs), 1);
    }
    static void AwaitEnd(CKTSocketTCP& connection) {
        char byte;
        while (connection.Recv(&byte, 1, kKTTestLongMs) == 1) {
        }
    }

private:
    static bool IsWhole(const std::string& text) {
        const std::size_t end = text.find("\r\n\r\n");
        const std::size_t length = text.find("Content-Length: ");
        if (end == std::string::npos)
            return false;
        return length == std::string::npos ||
               text.size() >= end + 4 + std::stoul(text.substr(length + 16));
    }
    void Serve() {
        for (unsigned int number = 0;; ++number) {
            CKTSocketTCP connection;
            if (connection.Accept(m_listening) != 0 || m_stop)
                return;
            m_script(connection, number);
        }
    }

    CKTSocketAddress m_address;
    Script m_script;
    unsigned long long m_listening;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

struct KTTestAnswer {
    const char* method;
    std::string text;
    int code;
    std::string body;
};

inline const KTTestAnswer kKTTestAnswers[] = {
    // RFC 9110, 3.9
    {"GET",
     "HTTP/1.1 200 OK\r\nDate: Mon, 27 Jul 2009 12:28:53 GMT\r\nServer: Apache\r\n"
     "Last-Modified: Wed, 22 Jul 2009 19:15:56 GMT\r\nETag: \"34aa387-d-1568eb00\"\r\n"
     "Accept-Ranges: bytes\r\nContent-Length: 51\r\nVary: Accept-Encoding\r\n"
     "Content-Type: text/plain\r\n\r\nHello World! My content includes a trailing CRLF.\r\n",
     200, "Hello World! My content includes a trailing CRLF.\r\n"},
    {"PUT",
     "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nContent-Length: 7\r\n\r\n"
     "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
     "4;name=value\r\nWiki\r\n00B\r\npedia in\r\nc\r\n0\r\n\r\n",
     200, "Wikipedia in\r\nc"},
    {"HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 51\r\n\r\n", 200, ""},
    {"GET", "HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: chunked\r\n\r\n", 304, ""},
    {"GET", "HTTP/1.1 204 No Content\r\nContent-Length: 4\r\n\r\n", 204, ""},
    {"GET", "HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n\r\n", 404, ""},
    {"GET", "HTTP/1.0 200 OK\r\nServer: no length\r\n\r\n", 200, ""},
    {"GET", "HTTP/1.1 200\r\nContent-Length: 4\r\n\r\n", -1, ""},
};

/// Serves the answer whose number the path is.
inline void KTTestServeAnswer(CKTSocketTCP& connection, unsigned int) {
    const std::string request = KTTestHttpPeer::ReadRequest(connection);
    KTTestHttpPeer::Send(connection, kKTTestAnswers[request[request.find('/') + 1] - '0'].text);
    KTTestHttpPeer::AwaitEnd(connection);
}

/// Runs exchange(url, timeoutMs), which returns a status code or less than 0, against a server that
/// fails at every byte of its answer, and each time once more against one that does not.
template <typename Exchange>
void KTTestSurvivesFaults(Exchange exchange) {
    enum { Close, Reset, Stall, Trickle };
    constexpr unsigned int kShortMs = 10;
    const std::string answer =
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n";
    std::atomic<int> fault{0};
    std::atomic<std::size_t> position{0};
    KTTestHttpPeer peer([&](CKTSocketTCP& connection, unsigned int number) {
        if (number % 2 == 1 || fault != Reset)
            KTTestHttpPeer::ReadRequest(connection);
        else
            KTTestHttpPeer::AwaitRequest(connection);  // closing with bytes unread resets
        if (number % 2 == 1) {
            KTTestHttpPeer::Send(connection, answer);
            KTTestHttpPeer::AwaitEnd(connection);
            return;
        }
        KTTestHttpPeer::Send(connection, answer.substr(0, position));
        if (fault == Stall)
            KTTestHttpPeer::AwaitEnd(connection);
        for (std::size_t i = position; fault == Trickle && i < answer.size(); ++i) {
            KTSleepMS(1);
            if (connection.Send(answer.data() + i, 1, kKTTestLongMs) != 1)
                return;
        }
        if (fault == Trickle)
            KTTestHttpPeer::AwaitEnd(connection);
    });
    unsigned int late = 0;
    for (const int kind : {Close, Reset, Stall, Trickle}) {
        fault = kind;
        for (std::size_t i = 0; i < answer.size(); ++i) {
            position = i;
            const unsigned long long startMs = CKTTime::GetTimeMS();
            const int result = exchange(peer.Url(), kind < Stall ? kKTTestLongMs : kShortMs);
            late += CKTTime::GetTimeMS() - startMs > 900;
            EXPECT_TRUE(result < 0 || (kind == Trickle && result == 200)) << kind << " " << i;
            ASSERT_EQ(exchange(peer.Url(), kKTTestLongMs), 200) << kind << " " << i;
        }
    }
    // A machine under load may be late now and then.
    EXPECT_LT(late, answer.size() / 4);
}

#endif
