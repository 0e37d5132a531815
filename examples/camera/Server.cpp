#include "Server.h"

#include <KTBase/KTXml.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

constexpr int kBacklog = 16;
/// A set takes 64 handles, and the listener and the discovery need one each.
constexpr std::size_t kMostClients = KT_SOCKET_SET_LIMIT - 2;

const char* const kVideoType[] = {"video/h264", "video/h265"};

/// A response's head. The library knows no Allow line, which a 405 must have: what a derived
/// command appends here stands in the head with the others.
class Head : public CKTHTTPCommand {
public:
    explicit Head(int code) { SetCode(code); }

    bool BuildHeadLine(CKTString& head) override {
        return CKTHTTPCommand::BuildHeadLine(head) &&
               (GetCode() != 405 || BuildLine(head, "Allow: ", "GET, HEAD"));
    }
};

/// The path of a request's target, without its query: of "/path" and "http://host/path" (RFC 9112,
/// 3.2). Empty when it is none.
std::string PathOf(const char* target) {
    if (std::strncmp(target, "http://", 7) == 0) {
        target = std::strchr(target + 7, '/');
        if (target == nullptr)
            return "/";
    }
    return target[0] == '/' ? std::string(target, std::strcspn(target, "?#")) : "";
}

/// For the terminal: what is no printable ASCII becomes "?".
std::string Printable(std::string text) {
    for (char& c : text)
        if (c < ' ' || c > '~')
            c = '?';
    return text;
}

bool IsOneOf(const std::string& text, std::initializer_list<const char*> all) {
    for (const char* const one : all)
        if (text == one)
            return true;
    return false;
}

}  // namespace

Server::Server(const Description& description, const Access& access)
    : m_description(description), m_access(access) {}

Server::~Server() {
    CKTSocket::CloseSock(m_listener);
}

bool Server::Listen(unsigned short port) {
    CKTSocketAddress address("127.0.0.1");
    address.SetPort(port);
    m_listener = CKTSocket::TCPOpen(&address);
    if (m_listener == KT_NO_SOCKET || CKTSocket::Listen(m_listener, kBacklog) != KT_OK)
        return false;
    m_url = "http://127.0.0.1:" + std::to_string(address.GetPort()) + "/";
    return true;
}

void Server::Show(CPacket* frame) {
    for (Client& client : m_clients)
        client.Put(frame);
    if (frame != nullptr && frame->FrameIsKey()) {
        frame->AddRef();
        m_lastKey.reset(frame);
    }
}

// ---- the loop's part ----

void Server::Select(CKTSocketSET& set) {
    set.Select(m_listener, true, false);
    for (Client& client : m_clients)
        client.Select(set);
}

void Server::Poll(const CKTSocketSET& set) {
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        const bool alive = client->Poll(set);
        if (alive) {
            if (const CKTHTTPCommand* const request = client->GetRequest())
                Answer(*client, *request);
            ++client;
            continue;
        }
        if (client->IsWatching())
            std::printf("%s left: %llu frames sent, %llu lost\n", client->GetPeerText().c_str(),
                        client->GetSentFrames(), client->GetLostFrames());
        client = m_clients.erase(client);
    }
    if (set.CheckRecv(m_listener))
        AcceptClient();
}

void Server::AcceptClient() {
    CKTHTTPSession* const session = CKTHTTPSession::Acquire();
    if (session == nullptr)
        return;
    if (session->Accept(m_listener) != KT_OK) {
        session->Release();
        return;
    }
    m_clients.emplace_back(session);
    if (m_clients.size() <= kMostClients)
        return;
    // One more than there are places: it gets its refusal at once and no turn in the loop.
    Head head(503);
    m_clients.back().Reply(head, "", false);
    session->OnSend(nullptr);
    m_clients.pop_back();
}

// ---- requests ----

/// The code to answer with; path is that of the target when it has one.
int Server::CodeOf(const CKTHTTPCommand& request, std::string& path) const {
    if (request.GetCode() < 0 || request.GetMethod() == nullptr || request.GetURI() == nullptr ||
        request.GetProtocol() == nullptr || std::strncmp(request.GetProtocol(), "HTTP/1.", 7) != 0)
        return 400;
    path = PathOf(request.GetURI());
    if (path.empty())
        return 400;
    if (!m_access.Allows(request.GetAuthen(), request.GetMethod(), request.GetURI(),
                         CKTTime::GetTimeMS()))
        return 401;
    if (!IsOneOf(request.GetMethod(), {"GET", "HEAD"}))
        return 405;
    if (path == "/snapshot" && m_lastKey == nullptr)
        return 503;
    return IsOneOf(path, {"/describe", "/stream", "/raw", "/snapshot"}) ? 200 : 404;
}

void Server::Answer(Client& client, const CKTHTTPCommand& request) {
    std::string path;
    const int code = CodeOf(request, path);
    const bool isHead = request.GetMethod() != nullptr && IsOneOf(request.GetMethod(), {"HEAD"});
    // A request's body is not read, so what follows it cannot be found.
    const bool keep = code != 400 && request.IsKeepAlive() && request.GetContentLen() == 0 &&
                      !request.IsChunked();
    std::printf("%s %s %s: %d\n", client.GetPeerText().c_str(),
                Printable(request.GetMethod() != nullptr ? request.GetMethod() : "-").c_str(),
                Printable(path.empty() ? "-" : path).c_str(), code);
    Head head(code);
    if (code == 200) {
        AnswerPath(client, head, path, isHead, keep);
        return;
    }
    if (code == 401)
        m_access.Challenge(head, CKTTime::GetTimeMS());
    int phrase = code;
    const std::string body = std::to_string(code) + " " + CKTHTTPCommand::GetError(phrase) +
                             "\nHere are " + m_url + "describe, /stream, /raw and /snapshot.\n";
    head.SetContentType("text/plain; charset=utf-8");
    head.SetContentLen(static_cast<unsigned int>(body.size()));
    client.Reply(head, isHead ? "" : body, keep);
}

void Server::AnswerPath(Client& client, CKTHTTPCommand& head, const std::string& path, bool isHead,
                        bool keep) {
    const bool isRaw = path == "/raw";
    if (isRaw || path == "/stream") {
        // Without a length: it ends with the connection.
        head.SetContentType(isRaw ? kVideoType[m_description.h265]
                                  : "multipart/mixed; boundary=ktframe");
        if (isHead)
            client.Reply(head, "", false);
        else
            client.Watch(head, !isRaw);
    } else if (path == "/snapshot") {
        head.SetContentType(kVideoType[m_description.h265]);
        head.SetContentLen(m_lastKey->FrameGetLength());
        if (isHead)
            client.Reply(head, "", keep);
        else
            client.Reply(head, m_lastKey.get(), keep);
    } else {
        const std::string body = DescribeXml();
        head.SetContentType("text/xml");
        head.SetContentLen(static_cast<unsigned int>(body.size()));
        client.Reply(head, isHead ? "" : body, keep);
    }
}

/// <camera name="" codec="" width="" height="" fps="" url=""/>
std::string Server::DescribeXml() const {
    char fps[16];
    std::snprintf(fps, sizeof(fps), "%g", m_description.fps);
    CKTXmlNode camera;
    camera.SetName("camera");
    camera.AddAttr("name", m_description.name.c_str(), true);
    camera.AddAttr("codec", m_description.h265 ? "H265" : "H264", true);
    camera.AddAttr("width", std::to_string(m_description.width).c_str(), true);
    camera.AddAttr("height", std::to_string(m_description.height).c_str(), true);
    camera.AddAttr("fps", fps, true);
    camera.AddAttr("url", (m_url + "stream").c_str(), true);
    CKTString text;
    camera.ToString(text);
    return text.IsEmpty() ? "" : text.GetBuffer();
}
