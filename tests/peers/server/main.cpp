// A small HTTP server on one thread, for clients of another maker. Prints "port N" at its start and
// what is left of memory at its end.
//   /hello   "hello"; so does what is not named here
//   /basic   the same for "user" with "secret"
//   /big     8 MB: the numbers from 0 in lines of 8 bytes
//   /echo    the body of the request, in chunks when it came in chunks
//   /quit    ends the program after its answer
#include <KTBase/KTHttp.h>

#include <cstdio>
#include <cstring>
#include <list>

namespace {

class Connection {
public:
    explicit Connection(unsigned long long listening)
        : m_session(CKTHTTPSession::Acquire()), m_open(m_session->Accept(listening) == 0) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { m_session->Release(); }

    bool IsOpen() const { return m_open; }
    bool IsQuit() const { return m_quit; }
    void Select(CKTSocketSET& set) {
        set.Select(m_session->GetHandle(), !m_answering, m_session->IsSending());
    }
    /// Moves what can be moved now. False at the end of the connection.
    bool Serve() {
        if (m_session->Polling(0) < 0) {
            if (m_answering)
                std::printf("broken off\n");
            return false;
        }
        if (!m_answering && !Receive())
            return false;
        return !m_answering || Feed();
    }

private:
    bool Receive() {
        CKTHTTPCommand& request = *m_session->GetRequest();
        // Polling parses what it has read itself, not what came along with the request before.
        m_session->RecvRequ(nullptr);
        m_chunked = m_chunked || request.IsChunked();  // the last chunk takes the flag away
        while (request.GetCode() > 0 && !request.IsCompleted()) {
            const int taken = m_session->RecvRequContent(&request, m_body);
            if (taken < 0)
                return false;
            if (taken == 0)
                break;
        }
        if (!request.IsCompleted() && m_session->GetRecvBuf()->GetSpace() == 0)
            return false;  // a head or a chunk larger than the buffer never ends
        if (request.IsCompleted()) {
            Answer(request);
        } else if (request.GetCode() > 0 && !m_continued) {
            const CKTString interim("HTTP/1.1 100 Continue\r\n\r\n");
            m_session->Send(&interim);
            m_continued = true;
        }
        return true;
    }

    void Answer(CKTHTTPCommand& request) {
        CKTHTTPCommand& response = *m_session->GetResponse();
        const char* uri = request.GetCode() > 0 ? request.GetURI() : "";
        int code = request.GetCode() > 0 ? 200 : 400;
        if (std::strcmp(uri, "/big") == 0) {
            m_body.AllocBuffer(8 << 20);
            for (unsigned int i = 0; i < 1 << 20; ++i)
                m_body.Append("%07u\n", i);
        } else if (std::strcmp(uri, "/echo") == 0) {
            response.SetChunked(m_chunked);
        } else if (std::strcmp(uri, "/basic") == 0 && !IsUser(request.GetAuthen())) {
            code = 401;
            response.SetAuthenWWW("Basic realm=\"Area\"");
            m_body = "who?\n";
        } else {
            m_quit = std::strcmp(uri, "/quit") == 0;
            m_body = "hello\n";
        }
        response.SetProtocol("HTTP/1.1");
        response.SetCode(code);
        response.SetKeepalive(request.IsKeepAlive());
        response.SetContentLen(m_chunked ? 0 : m_body.GetLength());
        m_session->SendResp(nullptr);
        m_answering = true;
    }

    static bool IsUser(const char* authorization) {
        CKTHTTPAuthen given;
        return given.ParseRequest(authorization) == 0 &&
               CKTString::IsEqual(given.GetUser(), "user") &&
               CKTString::IsEqual(given.GetPassword(), "secret");
    }

    bool Feed() {
        CKTHTTPCommand& response = *m_session->GetResponse();
        const unsigned int left = m_body.GetLength() - m_sent;
        if (left != 0) {
            m_sent += m_session->SendRespContent(&response, m_body.GetBuffer() + m_sent, left);
            return true;
        }
        if (response.IsChunked() && m_session->GetSendBuf()->GetSpace() >= 8) {
            const CKTString blank("\r\n");
            m_session->SendRespContent(&response, nullptr, 0);
            m_session->Send(&blank);
        }
        if (m_session->IsSending())
            return true;
        const bool again = response.IsKeepAlive();
        m_session->GetRequest()->Reset();
        response.Reset();
        m_body.Empty(true);
        m_sent = 0;
        m_answering = m_continued = m_chunked = false;
        return again;
    }

    CKTHTTPSession* m_session;
    CKTString m_body;
    unsigned int m_sent = 0;
    bool m_open, m_answering = false, m_continued = false, m_chunked = false, m_quit = false;
};

void Run() {
    CKTSocketAddress address("127.0.0.1");
    const unsigned long long listening = CKTSocket::TCPOpen(&address);
    CKTSocket::Listen(listening, 16);
    std::printf("port %u\n", address.GetPort());
    std::list<Connection> connections;
    for (bool quit = false; !quit;) {
        std::fflush(stdout);
        CKTSocketSET set;
        set.Select(listening, true, false);
        for (Connection& connection : connections)
            connection.Select(set);
        set.Wait(1000);
        if (set.CheckRecv(listening)) {
            connections.emplace_back(listening);
            if (!connections.back().IsOpen())
                connections.pop_back();
        }
        connections.remove_if([&](Connection& connection) {
            const bool ends = !connection.Serve();
            quit = quit || (ends && connection.IsQuit());
            return ends;
        });
    }
    CKTSocket::CloseSock(listening);
}

}  // namespace

int main() {
    Run();
    KTMemoryDump(true);
    return 0;
}
