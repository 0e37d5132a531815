#include "Finder.h"

#include <utility>

#include "Text.h"

namespace {

constexpr unsigned int kBeatMs = 2000;
constexpr unsigned int kAnswerBytes = 1024;  // what is longer is cut, and no answer of ours
constexpr int kAnswersInTurn = 64;

}  // namespace

bool ReadAnswer(const CKTString& datagram, CKTUrl& url) {
    constexpr char kBegin[] = "ktcamera 1 ";
    constexpr std::size_t kBeginBytes = sizeof(kBegin) - 1;
    const std::string text(datagram.IsEmpty() ? "" : datagram.GetBuffer());
    if (text.compare(0, kBeginBytes, kBegin) != 0)
        return false;
    const std::string target = text.substr(kBeginBytes, text.find(' ', kBeginBytes) - kBeginBytes);
    // Credentials are the user's affair, not the network's.
    return IsPrintable(target) && url.Setup(target.c_str()) == KT_OK && url.GetPort() != 0 &&
           CKTString::IsEqual(url.GetProtocol(), "http") != 0 && url.GetUsername() == nullptr;
}

Finder::Finder(Found found) : m_found(std::move(found)) {}

bool Finder::Open(const char* group, unsigned short port) {
    // The local address chooses the interface that a multicast datagram leaves by.
    return m_group.FromString(group) == KT_OK && m_group.SetPort(port) == KT_OK &&
           m_socket.Bind("127.0.0.1") == KT_OK && m_socket.Open(nullptr, 0) == KT_OK;
}

int Finder::OnPoll(CKTMessageT* msg, unsigned int, unsigned int&) {
    if (msg != nullptr) {  // just attached: the first question
        m_beat.Setup(1);
        return 0;
    }
    if (m_beat.Check(0, false)) {
        m_beat.Setup(kBeatMs);
        const CKTString question("ktdiscover 1");
        m_socket.Send(&question, &m_group);
        m_socket.OnSend(nullptr);
    }
    for (int i = 0; i < kAnswersInTurn; ++i) {
        CKTSocketMSG answer;
        answer.AllocBuffer(kAnswerBytes);
        if (m_socket.OnRecv(nullptr, &answer) < 1)
            break;
        CKTUrl url;
        if (ReadAnswer(answer, url))
            m_found(url);
    }
    return 0;
}
