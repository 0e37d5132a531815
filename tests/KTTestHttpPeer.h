// A scripted HTTP server on loopback; answers that a client must read in any pieces, and faults that
// it must survive at every byte.
#ifndef KTBASE_TESTS_KTTESTHTTPPEER_H
#define KTBASE_TESTS_KTTESTHTTPPEER_H

#include <KTBase/KTSocket.h>
#include <KTBase/KTTime.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

constexpr unsigned int kKTTestLongMs = 20000;

class KTTestHttpPeer {
public:
    /// Runs for each connection, one after the other, and uses the calls below.
    typedef std::function<void(KTTestHttpPeer& peer)> Script;

    explicit KTTestHttpPeer(Script script) : address("127.0.0.1"), m_script(script) {
        m_listening = CKTSocket::TCPOpen(&address);
        CKTSocket::Listen(m_listening, 16);
        CKTSocket::EnableBlock(m_listening, true);
        m_thread = std::thread([this] {
            for (; connection.Accept(m_listening) == 0 && !m_stop; connection.Close()) {
                ++number;
                m_script(*this);
            }
        });
    }
    ~KTTestHttpPeer() {
        m_stop = true;
        CKTSocketTCP wake;
        EXPECT_EQ(wake.OpenSock("127.0.0.1", address.GetPort(), true), 0);
        m_thread.join();
        CKTSocket::CloseSock(m_listening);
    }
    std::string Url(const std::string& path, const std::string& before = "http://") const {
        return before + "127.0.0.1:" + std::to_string(address.GetPort()) + path;
    }
    std::vector<std::string> Requests() {
        std::lock_guard<std::mutex> hold(m_lock);
        return m_requests;
    }

    /// Reads and notes a request, if one comes, and sends text.
    void Answer(const std::string& text) {
        std::string request;
        char bytes[4096];
        int count;
        while (!IsWhole(request) &&
               (count = connection.Recv(bytes, sizeof(bytes), kKTTestLongMs)) > 0)
            request.append(bytes, count);
        {
            std::lock_guard<std::mutex> hold(m_lock);
            if (!request.empty())
                m_requests.push_back(request);
        }
        Send(text);
    }
    bool Send(const std::string& text) {
        const int length = static_cast<int>(text.size());
        return connection.Send(text.data(), length, kKTTestLongMs) == length;
    }
    void AwaitEnd() {
        char byte;
        while (connection.Recv(&byte, 1, kKTTestLongMs) == 1) {
        }
    }

    CKTSocketAddress address;
    CKTSocketTCP connection;
    std::atomic<unsigned int> number{0};  // of the connection, from 1

private:
    static bool IsWhole(const std::string& text) {
        const std::size_t end = text.find("\r\n\r\n"), length = text.find("Content-Length: ");
        if (end == std::string::npos)
            return false;
        if (text.find("chunked") < end)
            return text.find("\r\n0\r\n", end) != std::string::npos;
        return length > end || text.size() >= end + 4 + std::stoul(text.substr(length + 16));
    }

    Script m_script;
    unsigned long long m_listening;
    std::atomic<bool> m_stop{false};
    std::mutex m_lock;
    std::vector<std::string> m_requests;
    std::thread m_thread;
};

const struct {
    const char* method;
    std::string text;
    int code;
    const char* body;
} kKTTestAnswers[] = {
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

/// A client that reads first bytes, then rest bytes at a time, whatever has arrived.
template <typename Client>
class KTTestPieces : public Client {
public:
    using Client::OnRecv;
    int OnRecv(fd_set* ready, char* buffer, int size) override {
        return Count(Client::OnRecv(ready, buffer, size < first ? size : first));
    }
    int Recv(char* buffer, int size, unsigned int timeoutMs) override {
        return Count(Client::Recv(buffer, size < first ? size : first, timeoutMs));
    }
    int first = 100000;
    int rest = 100000;

private:
    int Count(int count) {
        if (count > 0)
            first = first > count ? first - count : rest;
        return count;
    }
};

/// Has the client read each answer byte by byte and in every two parts. exchange(method, url, body)
/// returns the code.
template <typename Client, typename Exchange>
void KTTestReadsInPieces(Client& client, Exchange exchange) {
    for (const auto& answer : kKTTestAnswers) {
        KTTestHttpPeer peer([&](KTTestHttpPeer& peer) { peer.Answer(answer.text); });
        for (int split = 0; split <= static_cast<int>(answer.text.size()); ++split) {
            client.first = split == 0 ? 1 : split;
            client.rest = split == 0 ? 1 : 100000;
            std::string body;
            ASSERT_EQ(exchange(answer.method, peer.Url("/"), body), answer.code)
                << answer.text << " at " << split;
            EXPECT_EQ(body, answer.body) << split;
            EXPECT_FALSE(client.IsValid());
        }
    }
}

/// Runs exchange(url, timeoutMs), which returns a status code or less than 0, against a server that
/// fails at every byte of its answer, and each time once more against one that does not.
template <typename Exchange>
void KTTestSurvivesFaults(Exchange exchange) {
    enum { Closes, Resets, Stalls, Trickles };
    constexpr unsigned int kShortMs = 10;
    const std::string answer =
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n";
    std::atomic<int> fault{0};
    std::atomic<std::size_t> position{0};
    KTTestHttpPeer peer([&](KTTestHttpPeer& peer) {
        const bool good = peer.number % 2 == 0;
        char byte;
        if (!good && fault == Resets && peer.connection.Recv(&byte, 1, kKTTestLongMs) == 1)
            peer.Send(answer.substr(0, position));  // closing with bytes unread resets
        else
            peer.Answer(good ? answer : answer.substr(0, position));
        for (std::size_t i = position; !good && fault == Trickles && i < answer.size(); ++i) {
            KTSleepMS(1);
            if (!peer.Send(answer.substr(i, 1)))
                return;
        }
        if (!good && fault >= Stalls)
            peer.AwaitEnd();
    });
    unsigned int late = 0;
    for (const int kind : {Closes, Resets, Stalls, Trickles}) {
        fault = kind;
        for (position = 0; position < answer.size(); ++position) {
            SCOPED_TRACE(testing::Message() << "fault " << kind << " at " << position);
            const unsigned long long startMs = CKTTime::GetTimeMS();
            const int result = exchange(peer.Url("/"), kind < Stalls ? kKTTestLongMs : kShortMs);
            late += CKTTime::GetTimeMS() - startMs > 900;
            EXPECT_TRUE(result < 0 || (kind == Trickles && result == 200)) << result;
            ASSERT_EQ(exchange(peer.Url("/"), kKTTestLongMs), 200);
        }
    }
    EXPECT_LT(late, answer.size() / 4);  // a loaded machine is late now and then
}

#endif
