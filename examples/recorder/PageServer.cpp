#include "PageServer.h"

#include <string>
#include <utility>

#include "Page.h"

namespace {

constexpr int kNormalPriority = 25;
constexpr int kBacklog = 16;
constexpr std::size_t kMostVisitors = 32;  // a set takes 64 handles
constexpr unsigned int kBeatMs = 100;
constexpr unsigned int kVisitMs = 15000;  // longest silence of a visitor

}  // namespace

PageServer::PageServer(Source source)
    : CKTThread("Page", 0, kNormalPriority), m_source(std::move(source)) {}

PageServer::~PageServer() {
    ThreadStop();
    CKTSocket::CloseSock(m_listener);
}

bool PageServer::Open(unsigned short port) {
    m_address = "127.0.0.1";
    m_address.SetPort(port);
    m_listener = CKTSocket::TCPOpen(&m_address);
    return m_listener != KT_NO_SOCKET && CKTSocket::Listen(m_listener, kBacklog) == KT_OK;
}

unsigned int PageServer::OnThread() {
    CKTSocketSET set;
    while (IsRunning() != 0) {
        set.Clear();
        if (m_visitors.size() < kMostVisitors)
            set.Select(m_listener, true, false);
        for (const std::unique_ptr<Visitor>& visitor : m_visitors)
            set.Select(visitor->session->GetHandle(), !visitor->answered,
                       visitor->session->IsSending());
        set.Wait(kBeatMs);
        Admit();
        std::vector<std::unique_ptr<Visitor>> staying;
        for (std::unique_ptr<Visitor>& visitor : m_visitors) {
            if (Serve(*visitor))
                staying.push_back(std::move(visitor));
            else
                visitor->session->Release();
        }
        m_visitors.swap(staying);
    }
    for (const std::unique_ptr<Visitor>& visitor : m_visitors)
        visitor->session->Release();
    m_visitors.clear();
    return 0;
}

/// Takes the connections that wait, as many as there is room for.
void PageServer::Admit() {
    while (m_visitors.size() < kMostVisitors) {
        CKTHTTPSession* const session = CKTHTTPSession::Acquire();
        if (session == nullptr)
            return;
        if (session->Accept(m_listener) != KT_OK) {
            session->Release();
            return;
        }
        session->TimeoutSet(kVisitMs);
        m_visitors.emplace_back(new Visitor);
        m_visitors.back()->session = session;
    }
}

/// Goes a step further. False when the visitor is to leave.
bool PageServer::Serve(Visitor& visitor) {
    CKTHTTPSession& session = *visitor.session;
    const int result = session.Polling(0);
    if (result < 0)
        return false;
    if (result > 0)
        session.TimeoutUpdate();
    if (!visitor.answered && session.GetRequest()->GetCode() != 0)
        Answer(visitor);
    if (!visitor.answered)
        return !session.TimeoutCheck() && session.GetRecvBuf()->GetSpace() != 0;
    // The send buffer takes as much of the body as it has room for; the next rounds send it.
    const unsigned int left = visitor.body.GetLength() - visitor.sent;
    if (left != 0) {
        const int taken =
            session.SendRespContent(nullptr, visitor.body.GetBuffer() + visitor.sent, left);
        visitor.sent += taken > 0 ? static_cast<unsigned int>(taken) : 0;
    }
    return session.IsSending() && !session.TimeoutCheck();
}

void PageServer::Answer(Visitor& visitor) {
    const char* type = "text/plain; charset=utf-8";
    const int code = MakeBody(*visitor.session->GetRequest(), visitor.body, type);
    if (code != 200) {
        int known = code;
        visitor.body = CKTHTTPCommand::GetError(known);
        visitor.body << "\n";
    }
    CKTHTTPCommand& response = *visitor.session->GetResponse();
    response.SetProtocol("HTTP/1.1");
    response.SetCode(code);
    response.SetKeepalive(false);
    response.SetContentType(type);
    response.SetContentLen(visitor.body.GetLength());
    visitor.session->SendResp(nullptr);
    visitor.answered = true;
}

/// Returns the status code.
int PageServer::MakeBody(const CKTHTTPCommand& request, CKTString& body, const char*& type) {
    if (request.GetCode() < 0)
        return 400;
    if (CKTString::IsEqual(request.GetMethod(), "GET") == 0)
        return 405;
    const std::string uri = request.GetURI() != nullptr ? request.GetURI() : "";
    const std::string path = uri.substr(0, uri.find('?'));
    if (path == "/status.json") {
        type = "application/json";
        return AppendJson(m_source(), body) ? 200 : 500;
    }
    if (path != "/" && path != "/live")
        return 404;
    type = "text/html; charset=utf-8";
    if (path == "/")
        AppendPage(m_source(), body);
    else
        AppendLive(m_source(), body);
    return 200;
}
