#include <algorithm>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTHttp.h"
#include "KTBase/KTTime.h"
#include "KTHttpAnswer.h"
#include "KTHttpText.h"

namespace {

constexpr unsigned long long kUnitUs = 5000;  // of a time-out
constexpr unsigned int kReadMs = 5000;
constexpr unsigned int kFullMs = 10;
constexpr int kIncomplete = 1;  // besides the codes

}  // namespace

CKTHTTPSocket::CKTHTTPSocket() : m_sentHead(false) {}

CKTHTTPSocket::~CKTHTTPSocket() = default;

CKTHTTPCommand* CKTHTTPSocket::GetRequest() {
    return &m_request;
}

CKTHTTPCommand* CKTHTTPSocket::GetResponse() {
    return &m_response;
}

int CKTHTTPSocket::Commit(const char* method, const char* url, CKTString* content,
                          unsigned int timeout) {
    if (method == nullptr || content == nullptr)
        return KT_ERROR;
    if (m_target != url)
        m_target.Parse(url);
    if (m_target.IsEmpty())
        return KT_ERROR;
    m_request.SetMethod(method);
    m_request.SetProtocol(m_target.GetProtocol());
    m_request.SetHost(m_target.GetHost());
    m_request.SetURI(m_target.GetPath());
    if (m_request.GetMethod() == nullptr || m_request.GetProtocol() == nullptr ||
        m_request.GetHost() == nullptr || m_request.GetURI() == nullptr)
        return KT_ERROR;
    const int result = Exchange(content, timeout);
    Close();
    return result == KT_OK ? m_response.GetCode() : KT_ERROR;
}

int CKTHTTPSocket::Exchange(CKTString* content, unsigned int timeout) {
    if (Open(m_target.GetIP(), m_target.GetPort()) != KT_OK ||
        SendRequ(&m_request, content, timeout) != KT_OK)
        return KT_ERROR;
    GetRecvBuf()->Empty(false);
    m_response.Reset();
    content->Empty(false);
    return RecvResp(&m_response, content, timeout);
}

int CKTHTTPSocket::SendRequ(CKTHTTPCommand* request, CKTString* content, unsigned int timeoutMs) {
    if (!IsValid() || request == nullptr || content == nullptr)
        return KT_ERROR;
    CKTString& head = *GetSendBuf();
    head.Empty(false);
    if (request->BuildRequest(&head, content) != KT_OK)
        return KT_ERROR;
    const char* method = request->GetMethod();
    m_sentHead = method != nullptr && std::strcmp(method, "HEAD") == 0;
    return SendAll(head, timeoutMs) && SendAll(*content, timeoutMs) ? KT_OK : KT_ERROR;
}

bool CKTHTTPSocket::SendAll(const CKTString& data, unsigned int timeoutMs) {
    const int length = static_cast<int>(data.GetLength());
    return length == 0 || Send(data.GetBuffer(), length, timeoutMs) == length;
}

int CKTHTTPSocket::RecvResp(CKTHTTPCommand* response, CKTString* content, unsigned int timeout) {
    if (!IsValid() || response == nullptr || content == nullptr)
        return KT_ERROR;
    if (response->IsCompleted())
        return KT_OK;
    CKTString& received = *GetRecvBuf();
    const unsigned long long deadlineUs = CKTTime::GetTimeUS() + timeout * kUnitUs;
    for (;;) {
        const unsigned long long nowUs = CKTTime::GetTimeUS();
        if (nowUs > deadlineUs) {
            KTFault(kKTHttpSource, "CKTHTTPSocket::RecvResp", 1093);
            return KT_ERROR;
        }
        const unsigned long long leftMs = (deadlineUs - nowUs) / 1000 + 1;
        const unsigned int space = received.GetSpace();
        if (space == 0) {  // nothing that fits can become of it any more
            KTSleepMS(static_cast<unsigned int>(std::min<unsigned long long>(leftMs, kFullMs)));
            continue;
        }
        const int count =
            Recv(received.GetBuffer() + received.GetLength(), static_cast<int>(space),
                 static_cast<unsigned int>(std::min<unsigned long long>(leftMs, kReadMs)));
        if (count < 0)
            return KT_ERROR;
        if (count == 0)
            continue;
        received.Add(count);
        const int result = Consume(*response, *content);
        if (result != kIncomplete)
            return result;
    }
}

/// Takes head and body off the receive buffer. Returns 0 when they are there, kIncomplete, or -1.
int CKTHTTPSocket::Consume(CKTHTTPCommand& response, CKTString& content) {
    CKTString& received = *GetRecvBuf();
    while (response.GetCode() == 0) {
        const int head =
            response.ParseResponse(received.GetBuffer(), static_cast<int>(received.GetLength()));
        if (head < 1)
            return kIncomplete;
        received.Flush(head);
        if (KTHttpIsInterim(response.GetCode()))
            response.Reset();
    }
    if (response.IsCompleted() || !KTHttpMayHaveBody(m_sentHead, response.GetCode()))
        return KT_OK;
    const int body = response.ParseContent(received.GetBuffer(),
                                           static_cast<int>(received.GetLength()), &content);
    if (body < 0)
        return KT_ERROR;
    if (body > 0)
        received.Flush(body);
    return response.IsCompleted() ? KT_OK : kIncomplete;
}
