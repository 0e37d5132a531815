#include "Client.h"

#include <algorithm>

namespace {

constexpr unsigned int kQueueFrames = 64;
constexpr unsigned int kQueueBytes = 8 << 20;
constexpr unsigned int kHeaderBytes = 20;
/// For a request to arrive, and for a peer that takes nothing.
constexpr unsigned int kPatienceMs = 10000;

}  // namespace

Client::Client(CKTHTTPSession* session) : m_session(session), m_queue(kQueueFrames, kQueueBytes) {
    m_session->TimeoutSet(kPatienceMs);
}

Client::~Client() {
    SetFrame(nullptr, 0);
    m_session->Release();  // the last reference: closes the connection
}

std::string Client::GetPeerText() {
    CKTString text;
    m_session->GetPeer()->ToString(text, true);
    return text.IsEmpty() ? "?" : text.GetBuffer();
}

// ---- what to send ----

void Client::Begin(CKTHTTPCommand& head, bool keep) {
    m_busy = true;
    m_keep = keep;
    head.SetProtocol("HTTP/1.1");
    head.SetKeepalive(keep);
    m_session->SendResp(&head);
    m_session->TimeoutUpdate();
}

void Client::Reply(CKTHTTPCommand& head, const std::string& body, bool keep) {
    Begin(head, keep);
    m_text = body;
    m_textSent = 0;
}

void Client::Reply(CKTHTTPCommand& head, CPacket* frame, bool keep) {
    Begin(head, keep);
    frame->AddRef();
    SetFrame(frame, kHeaderBytes);
}

void Client::Watch(CKTHTTPCommand& head, bool framed) {
    Begin(head, false);
    m_watching = true;
    m_framed = framed;
}

void Client::Put(CPacket* frame) {
    if (!m_watching)
        return;
    if (frame == nullptr || m_queue.IsFull() != 0)
        m_waitsForKey = true;
    else if (frame->FrameIsKey())
        m_waitsForKey = false;
    if (!m_waitsForKey) {
        frame->AddRef();
        if (m_queue.PutPacket(frame, 1) == KT_OK)
            return;
        frame->Release();
        m_waitsForKey = true;
    }
    if (m_sentFrames != 0)  // before the first key frame nothing is missed
        ++m_lostFrames;
}

// ---- sending ----

void Client::SetFrame(CPacket* frame, unsigned int begin) {
    if (m_frame != nullptr)
        m_frame->Release();
    m_frame = frame;
    m_frameSent = begin;
}

bool Client::HasMore() const {
    return m_textSent < m_text.size() || m_frame != nullptr || m_queue.GetVideoFrameNum() != 0;
}

/// The next frame of the queue. False when there is none.
bool Client::TakeNext() {
    CPacket* const frame = m_queue.GetPacket(0);
    if (frame == nullptr)
        return false;
    m_textSent = 0;
    m_text.clear();
    if (m_framed)
        m_text =
            "--ktframe\r\nContent-Type: application/octet-stream\r\n"
            "Content-Length: " +
            std::to_string(frame->FrameGetSize()) + "\r\n\r\n";
    SetFrame(frame, m_framed ? 0 : kHeaderBytes);
    ++m_sentFrames;
    return true;
}

/// Moves what is to be sent into the send buffer as far as there is room.
void Client::Fill() {
    CKTString& buffer = *m_session->GetSendBuf();
    for (;;) {
        // One byte stays free: a string that is filled to the brim grows.
        if (buffer.GetSpace() < 2)
            return;
        const std::size_t room = buffer.GetSpace() - 1;
        if (m_textSent < m_text.size()) {
            const std::size_t count = std::min(room, m_text.size() - m_textSent);
            buffer.AppendDAT(reinterpret_cast<const unsigned char*>(m_text.data()) + m_textSent,
                             static_cast<unsigned int>(count));
            m_textSent += count;
        } else if (m_frame != nullptr) {
            const unsigned int left = m_frame->FrameGetSize() - m_frameSent;
            const unsigned int count = static_cast<unsigned int>(std::min<std::size_t>(room, left));
            buffer.AppendDAT(m_frame->GetData() + m_frameSent, count);
            m_frameSent += count;
            if (count == left)
                SetFrame(nullptr, 0);
        } else if (!TakeNext()) {
            return;
        }
    }
}

// ---- the loop's part ----

void Client::Select(CKTSocketSET& set) {
    // A full buffer would be ready for reading again and again, and nothing is read into it.
    const bool hasRoom = m_session->GetRecvBuf()->GetSpace() != 0;
    set.Select(m_session->GetHandle(), hasRoom, m_session->IsSending() || HasMore());
}

bool Client::Poll(const CKTSocketSET& set) {
    const unsigned long long handle = m_session->GetHandle();
    if (set.CheckRecv(handle) || set.CheckSend(handle) || set.CheckError(handle)) {
        Fill();
        const unsigned int before = m_session->GetSendBuf()->GetLength();
        if (m_session->Polling(0) < 0)
            return false;
        if (m_session->GetSendBuf()->GetLength() < before)
            m_session->TimeoutUpdate();
    }
    if (m_busy && !m_keep)  // nothing that is still said will be answered
        m_session->GetRecvBuf()->Empty(false);
    const bool drained = !m_session->IsSending() && !HasMore();
    if (m_watching && drained)
        m_session->TimeoutUpdate();
    if (m_busy && drained && !m_watching) {
        if (!m_keep)
            return false;
        Finish();
    }
    return !m_session->TimeoutCheck();
}

/// Makes ready for the next request, which may be there already.
void Client::Finish() {
    m_busy = false;
    m_text.clear();
    m_textSent = 0;
    m_session->GetRequest()->Reset();
    m_session->RecvRequ(nullptr);
    m_session->TimeoutUpdate();
}

CKTHTTPCommand* Client::GetRequest() {
    CKTHTTPCommand* const request = m_session->GetRequest();
    if (m_busy)
        return nullptr;
    if (request->GetCode() == 0 && m_session->GetRecvBuf()->GetSpace() == 0)
        request->SetCode(KT_ERROR);  // a head that is larger than the buffer never ends
    return request->GetCode() != 0 ? request : nullptr;
}
