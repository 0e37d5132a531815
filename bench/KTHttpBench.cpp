// Reading a response's head, and GETs of 1 KB from nginx on this machine, beside Boost.Beast.
#include <KTBase/KTHttp.h>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../tests/KTTestPeers.h"
#include "KTCompare.h"

namespace {

namespace beast = boost::beast;
namespace http = beast::http;
using Tcp = boost::asio::ip::tcp;

constexpr unsigned int kWaitMs = 10000;

// ---- heads ----

const std::string kHead =
    "HTTP/1.1 200 OK\r\n"
    "Server: nginx/1.22.1\r\n"
    "Date: Mon, 23 Nov 2026 07:26:58 GMT\r\n"
    "Content-Type: text/plain\r\n"
    "Content-Length: 1024\r\n"
    "Last-Modified: Mon, 23 Nov 2026 07:26:56 GMT\r\n"
    "Connection: keep-alive\r\n"
    "ETag: \"6b03eac0-400\"\r\n"
    "Accept-Ranges: bytes\r\n"
    "Set-Cookie: session=0123456789abcdef\r\n"
    "Cache-Control: no-cache\r\n"
    "\r\n";

void ResponseHead(benchmark::State& state) {
    constexpr int kItems = 1000;
    CKTHTTPCommand command;
    KTCompare(
        state, kItems,
        [&] {
            for (int i = 0; i < kItems; ++i) {
                command.Reset();
                if (command.ParseResponse(kHead.data(), static_cast<int>(kHead.size())) < 1 ||
                    command.GetContentLen() != 1024)
                    state.SkipWithError("not parsed");
            }
        },
        [&] {
            for (int i = 0; i < kItems; ++i) {
                http::response_parser<http::string_body> parser;
                boost::system::error_code error;
                parser.put(boost::asio::buffer(kHead), error);
                if (!parser.is_header_done() || parser.content_length().value_or(0) != 1024)
                    state.SkipWithError("not parsed");
            }
        });
}
BENCHMARK(ResponseHead)->UseManualTime()->Unit(benchmark::kMicrosecond);

// ---- exchanges ----

/// The servers of tests/peers/http while it lives.
class Peers {
public:
    Peers() { Run("start"); }
    ~Peers() { Run("stop"); }
    unsigned short Port() const { return KTTestPeers(KTBASE_HTTP_PEERS)["nginx"]; }

private:
    static void Run(const std::string& verb) {
        const std::string command = "'" KTBASE_PEERS "' " + verb + " '" KTBASE_HTTP_PEERS "'";
        if (std::system(command.c_str()) != 0)
            std::fprintf(stderr, "failed: %s\n", command.c_str());
    }
};

class OurClient {
public:
    explicit OurClient(unsigned short port) : m_port(port), m_session(CKTHTTPSession::Acquire()) {}
    OurClient(const OurClient&) = delete;
    OurClient& operator=(const OurClient&) = delete;
    ~OurClient() { m_session->Release(); }

    void Close() { m_session->Close(); }
    bool Get() {
        if (!m_session->IsValid() && m_session->Open("127.0.0.1", m_port) != 0)
            return false;
        CKTHTTPCommand& request = *m_session->GetRequest();
        CKTHTTPCommand& response = *m_session->GetResponse();
        request.Reset();
        response.Reset();
        m_body.Empty(false);
        request.SetMethod("GET");
        request.SetURI("/1k");
        request.SetProtocol("HTTP/1.1");
        request.SetHost("127.0.0.1");
        request.SetKeepalive(true);
        request.SetCached(true);  // the same lines as the rival's
        m_session->SendRequ(nullptr);
        while (response.GetCode() == 0 || !response.IsCompleted()) {
            if (m_session->Polling(kWaitMs) < 1 ||
                m_session->RecvRequContent(&response, m_body) < 0)
                return false;
        }
        return m_body.GetLength() == 1024;
    }

private:
    unsigned short m_port;
    CKTHTTPSession* m_session;
    CKTString m_body;
};

class RivalClient {
public:
    explicit RivalClient(unsigned short port)
        : m_server(boost::asio::ip::address_v4::loopback(), port), m_stream(m_context) {}

    void Close() { m_stream.close(); }
    bool Get() {
        boost::system::error_code error;
        if (!m_stream.socket().is_open()) {
            m_stream.connect(m_server, error);
            m_buffer.clear();
        }
        http::request<http::empty_body> request(http::verb::get, "/1k", 11);
        request.set(http::field::host, "127.0.0.1");
        request.set(http::field::connection, "keep-alive");
        http::write(m_stream, request, error);
        http::response<http::string_body> response;
        http::read(m_stream, m_buffer, response, error);
        return !error && response.body().size() == 1024;
    }

private:
    boost::asio::io_context m_context;
    Tcp::endpoint m_server;
    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer;
};

/// Argument: whether each GET has a connection of its own.
void Get1K(benchmark::State& state) {
    static const Peers peers;
    const unsigned short port = peers.Port();
    if (port == 0)
        return state.SkipWithError("nginx does not start: see what tests/peers/http says");
    const bool fresh = state.range(0) != 0;
    constexpr int kItems = 200;
    OurClient ours(port);
    RivalClient rival(port);
    const auto get = [&](auto& client) {
        for (int i = 0; i < kItems; ++i) {
            if (!client.Get())
                state.SkipWithError("no answer");
            if (fresh)
                client.Close();
        }
    };
    KTCompare(
        state, kItems, [&] { get(ours); }, [&] { get(rival); });
}
BENCHMARK(Get1K)->ArgName("fresh")->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
