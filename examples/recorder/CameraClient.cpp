#include "CameraClient.h"

#include <KTBase/KTXml.h>

#include <algorithm>
#include <memory>

#include "Part.h"
#include "Text.h"

namespace {

constexpr unsigned int kPollMs =
    20;  // longest wait of one step: other cameras may share the thread
constexpr unsigned int kAnswerMs = 10000;  // longest silence of a camera
constexpr unsigned int kFirstRestMs = 500;
constexpr unsigned int kLongestRestMs = 8000;

constexpr unsigned int kFirstBufferBytes = 256 << 10;
constexpr unsigned int kMostBufferBytes = kMostPartBytes + 4096;  // a part with its head
constexpr unsigned int kMostDescriptionBytes = 16 << 10;
constexpr unsigned int kNameBytes = 80;

/// An attribute's text. The tree keeps it as it is written; element text is decoded, so it goes
/// through an element.
std::string Attribute(const CKTXmlNode& node, const char* name, unsigned int maxBytes) {
    const CKTXmlAttr* const attribute = node.FindAttr(name);
    if (attribute == nullptr || attribute->GetValue() == nullptr)
        return "";
    CKTString element;
    element.Append("<t>%s</t>", attribute->GetValue());
    const std::unique_ptr<CKTXmlNode> decoded(
        CKTXmlNode::ParseXml(element.GetBuffer(), element.GetLength()));
    return CleanText(decoded != nullptr ? decoded->GetValue() : nullptr, maxBytes);
}

std::string FormatOf(const CKTXmlNode& node) {
    const std::string codec = Attribute(node, "codec", 8);
    const std::string fps = Attribute(node, "fps", 8);
    std::string text = codec == "H264" ? "H.264" : codec == "H265" ? "H.265" : codec;
    text += ", " + Attribute(node, "width", 8) + " \xC3\x97 " + Attribute(node, "height", 8);
    return fps.empty() ? text : text + ", " + fps + " fps";
}

}  // namespace

CameraClient::CameraClient(Camera& camera, Cameras& cameras, Console& console)
    : m_camera(camera),
      m_cameras(cameras),
      m_console(console),
      m_session(CKTHTTPSession::Acquire()),
      m_restMs(kFirstRestMs) {
    // A key frame is larger than the 32 KB that a socket begins with.
    if (m_session != nullptr)
        m_session->GetRecvBuf()->AllocBuffer(kFirstBufferBytes);
}

CameraClient::~CameraClient() {
    if (m_session != nullptr)
        m_session->Release();
}

int CameraClient::OnPoll(CKTMessageT* msg, unsigned int, unsigned int& waitMS) {
    if (msg != nullptr || m_session == nullptr)
        return 0;
    if (m_camera.IsStopped()) {
        Close();
        return 0;
    }
    if (m_step != Step::kRest)
        Listen();
    else if (m_lastWhy.empty() || m_rest.Check(0, false))
        Ask(Step::kDescribe);
    if (m_step != Step::kRest)
        waitMS = 0;  // Polling does the waiting
    return 0;
}

// ---- asking ----

void CameraClient::Ask(Step step) {
    m_step = step;
    m_answered = false;
    Send();
}

/// Opens a connection and puts the request into the send buffer; Polling connects and sends.
void CameraClient::Send() {
    const CKTUrl& url = m_camera.GetUrl();
    const char* const path = m_step == Step::kDescribe ? "/describe" : "/stream";
    Close();
    CKTHTTPCommand& request = *m_session->GetRequest();
    request.Reset();
    request.SetMethod("GET");
    request.SetProtocol("HTTP/1.1");
    request.SetHost(url.GetHost());
    request.SetURI(path);
    if (m_hasChallenge)
        request.SetAuthen(m_authen.GetAuthorization("GET", path));
    if (m_session->Open(url.GetIP(), url.GetPort()) != KT_OK ||
        m_session->SendRequ(nullptr) != KT_OK)
        return Fail("cannot be reached");
    m_session->TimeoutSet(kAnswerMs);
}

void CameraClient::Listen() {
    const int result = m_session->Polling(kPollMs);
    if (result < 0)
        return Fail(m_receives ? "the connection is lost" : "does not answer");
    if (result == 0) {
        if (m_session->TimeoutCheck())
            Fail(m_receives ? "sends no more frames" : "does not answer");
        return;
    }
    m_session->TimeoutUpdate();
    TakeAnswer();
}

// ---- answers ----

void CameraClient::TakeAnswer() {
    const CKTHTTPCommand& response = *m_session->GetResponse();
    const int code = response.GetCode();
    if (code == 0) {  // the head is still to come
        if (m_session->GetRecvBuf()->GetSpace() == 0)
            Fail("answers without end");
    } else if (code == 401) {
        TakeRefusal();
    } else if (code != 200) {
        Fail("answers " + std::to_string(code) + " " + CleanText(response.GetReason(), 40));
    } else if (m_step == Step::kDescribe) {
        TakeDescription();
    } else if (response.GetBoundary() == nullptr) {
        Fail("its stream is not multipart/mixed");
    } else {
        TakeParts();
    }
}

/// 401: asks once more, with the credentials of the URL.
void CameraClient::TakeRefusal() {
    const CKTUrl& url = m_camera.GetUrl();
    const CKTHTTPCommand& response = *m_session->GetResponse();
    if (url.GetUsername() == nullptr)
        return Fail("wants a user and a password: http://USER:PASSWORD@" +
                    std::string(url.GetHost()));
    if (m_answered)
        return Fail("refuses the user or the password");
    // Of several challenges the strongest is kept: Digest before Basic.
    m_authen.Reset();
    m_authen.SetUser(url.GetUsername(), url.GetPassword());
    m_hasChallenge = false;
    for (unsigned int i = 0; response.GetChallenge(i) != nullptr; ++i)
        if (m_authen.ParseChallenge(response.GetChallenge(i)) == KT_OK)
            m_hasChallenge = true;
    if (!m_hasChallenge)
        return Fail("wants an authentication that is neither Basic nor Digest");
    m_answered = true;
    Send();
}

void CameraClient::TakeDescription() {
    CKTHTTPCommand& response = *m_session->GetResponse();
    if (response.GetContentLen() > kMostDescriptionBytes)
        return Fail("its description is too long");
    if (m_session->RecvRequContent(&response, m_content) < 0 ||
        m_content.GetLength() > kMostDescriptionBytes)
        return Fail("its description cannot be read");
    if (!response.IsCompleted())
        return;
    const std::unique_ptr<CKTXmlNode> root(
        CKTXmlNode::ParseXml(m_content.GetBuffer(), m_content.GetLength()));
    if (root == nullptr || CKTString::IsEqual(root->GetName(), "camera") == 0)
        return Fail("its description is none of a camera");
    m_cameras.GiveName(m_camera, Attribute(*root, "name", kNameBytes));
    m_camera.SetFormat(FormatOf(*root));
    m_camera.WaitForKey();
    Ask(Step::kStream);
}

// ---- the stream ----

/// Takes all whole parts off the receive buffer.
void CameraClient::TakeParts() {
    CKTHTTPCommand& response = *m_session->GetResponse();
    CKTString& buffer = *m_session->GetRecvBuf();
    int taken = 0;
    int result = 0;
    do {
        m_content.Empty(false);
        const int left = static_cast<int>(buffer.GetLength()) - taken;
        result = response.ParseContent(buffer.GetBuffer() + taken, left, &m_content);
        if (result > 0 && !TakePart())
            return;
        taken += result > 0 ? result : 0;
    } while (result > 0);
    buffer.Flush(taken);
    if (result < 0) {
        m_camera.CountBadPart();
        Fail("sends something else than a part");
    } else if (!MakeRoom()) {
        m_camera.CountBadPart();
        Fail("sends a part above " + BytesText(kMostPartBytes));
    }
}

/// Queues the frame of one part. False when the part is bad: what follows it is then not to be
/// trusted either, and the connection is closed.
bool CameraClient::TakePart() {
    const char* why = nullptr;
    CPacket* const packet = PacketOfPart(m_content, why);
    if (why != nullptr) {
        m_camera.CountBadPart();
        Fail(std::string("sends a bad part: ") + why);
        return false;
    }
    if (!m_receives) {
        m_receives = true;
        m_restMs = kFirstRestMs;
        m_lastWhy.clear();
        m_camera.SetRecording();
        m_console.Say(kInfo, "%s: recording from %s", m_camera.GetName().c_str(),
                      m_camera.GetUrl().GetURL());
    }
    if (packet == nullptr)
        m_camera.CountDrop();
    else
        m_camera.Put(packet);
    return true;
}

/// A part has to fit into the receive buffer as a whole. False when it is too large for that.
bool CameraClient::MakeRoom() {
    CKTString& buffer = *m_session->GetRecvBuf();
    if (buffer.GetSpace() != 0)
        return true;
    return buffer.Size() < kMostBufferBytes && buffer.AllocBuffer(buffer.Size()) >= 0;
}

// ---- the end of a connection ----

void CameraClient::Close() {
    m_session->Close();
    m_session->GetRecvBuf()->Empty(false);  // Close leaves what was received
    m_session->GetResponse()->Reset();
    m_content.Empty(false);
    m_receives = false;
}

void CameraClient::Fail(const std::string& why) {
    if (m_receives)
        m_camera.CountLoss();
    Close();
    m_step = Step::kRest;
    m_rest.Setup(m_restMs);
    m_camera.SetWaiting(why, m_restMs);
    // A camera that is away for months says so once.
    if (why != m_lastWhy)
        m_console.Say(kWarning, "%s: %s; next try in %g s", m_camera.GetName().c_str(), why.c_str(),
                      m_restMs / 1000.0);
    m_restMs = std::min(m_restMs * 2, kLongestRestMs);
    m_lastWhy = why;
}
