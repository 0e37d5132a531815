#include "Discovery.h"

namespace {

constexpr unsigned int kLongestQuestion = 512;

}  // namespace

Discovery::Discovery(const std::string& url, const std::string& name)
    : m_answer(("ktcamera 1 " + url + " " + name).c_str()) {}

bool Discovery::Open(const std::string& group, unsigned short port) {
    // The address bound to says by which interface the group is joined.
    return m_socket.Bind("127.0.0.1") == KT_OK && m_socket.Open(group.c_str(), port) == KT_OK;
}

void Discovery::Select(CKTSocketSET& set) {
    if (m_socket.IsValid())
        set.Select(m_socket.GetHandle(), true, m_socket.IsSending());
}

void Discovery::Poll(const CKTSocketSET& set) {
    if (!m_socket.IsValid())
        return;
    if (set.CheckRecv(m_socket.GetHandle())) {
        CKTSocketMSG question;
        question.AllocBuffer(kLongestQuestion);
        if (m_socket.OnRecv(nullptr, &question) > 0 && question.EqualTo("ktdiscover 1") != 0)
            m_socket.Send(&m_answer, question.GetPeer());
    }
    m_socket.OnSend(nullptr);
}
