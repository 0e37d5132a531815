#include "Camera.h"

namespace {

// Four seconds of a usual camera. Both limits bound what a stuck disk can make the recorder hold.
constexpr unsigned int kQueueFrames = 120;
constexpr unsigned int kQueueBytes = 16 << 20;

constexpr std::size_t kLatelySeconds = 60;
constexpr std::size_t kRateSeconds = 3;  // that a rate is the mean of

}  // namespace

Camera::Camera(const CKTUrl& url, CKTEvent& wake)
    : m_url(url), m_wake(wake), m_queue(kQueueFrames, kQueueBytes) {
    m_status.name = m_status.title = m_url.GetHost();
    m_status.url = m_url.GetURL();
    m_status.queueLimit = kQueueFrames;
}

std::string Camera::GetName() {
    CKTGuard hold(m_lock);
    return m_status.name;
}

bool Camera::IsStopped() {
    CKTGuard hold(m_lock);
    return m_status.state == CameraState::kStopped;
}

// ---- the client's thread ----

void Camera::SetName(const std::string& name, const std::string& title) {
    CKTGuard hold(m_lock);
    m_status.name = name;
    m_status.title = title;
    m_hasName = true;
}

bool Camera::HasName() {
    CKTGuard hold(m_lock);
    return m_hasName;
}

void Camera::SetFormat(const std::string& format) {
    CKTGuard hold(m_lock);
    m_status.format = format;
}

void Camera::SetRecording() {
    CKTGuard hold(m_lock);
    if (m_status.state == CameraState::kStopped)
        return;
    m_status.state = CameraState::kRecording;
    m_status.detail.clear();
}

void Camera::SetWaiting(const std::string& why, unsigned int restMs) {
    CKTGuard hold(m_lock);
    if (m_status.state == CameraState::kStopped)
        return;
    m_status.state = CameraState::kWaiting;
    m_status.detail = why;
    m_status.restMs = restMs;
}

void Camera::WaitForKey() {
    CKTGuard hold(m_lock);
    m_waitsForKey = true;
}

void Camera::Put(CPacket* packet) {
    {
        CKTGuard hold(m_lock);
        m_waitsForKey = m_queue.IsFull() != 0 || (m_waitsForKey && !packet->FrameIsKey());
        if (!m_waitsForKey && m_queue.PutPacket(packet, 1) == KT_OK) {
            packet = nullptr;
        } else {
            m_waitsForKey = true;
            ++m_status.drops;
        }
    }
    if (packet != nullptr)
        packet->Release();
    else
        m_wake.Set();
}

void Camera::CountDrop() {
    CKTGuard hold(m_lock);
    m_waitsForKey = true;
    ++m_status.drops;
}

void Camera::CountBadPart() {
    CKTGuard hold(m_lock);
    ++m_status.badParts;
}

void Camera::CountLoss() {
    CKTGuard hold(m_lock);
    ++m_status.losses;
}

// ---- the writer's thread ----

CPacket* Camera::Take() {
    CKTGuard hold(m_lock);
    return m_queue.GetPacket(0);
}

void Camera::CountRecorded(const CPacket& packet, unsigned int second) {
    CKTGuard hold(m_lock);
    ++m_status.frames;
    m_status.keyFrames += packet.FrameIsKey() ? 1 : 0;
    m_status.bytes += packet.FrameGetLength();
    m_timeline.Mark(second);
}

void Camera::AddFile(const std::string& path) {
    CKTGuard hold(m_lock);
    m_status.file = path;
    ++m_status.files;
}

void Camera::Stop(const std::string& why) {
    CKTGuard hold(m_lock);
    m_status.state = CameraState::kStopped;
    m_status.detail = why;
}

// ---- any thread ----

void Camera::Tick(unsigned int elapsedMs) {
    CKTGuard hold(m_lock);
    const double perSecond = 1000.0 / (elapsedMs != 0 ? elapsedMs : 1);
    std::vector<Second>& lately = m_status.lately;
    lately.push_back({static_cast<double>(m_status.frames - m_framesBefore) * perSecond,
                      static_cast<double>(m_status.bytes - m_bytesBefore) * perSecond});
    if (lately.size() > kLatelySeconds)
        lately.erase(lately.begin());
    m_framesBefore = m_status.frames;
    m_bytesBefore = m_status.bytes;

    const std::size_t seconds = lately.size() < kRateSeconds ? lately.size() : kRateSeconds;
    Second sum;
    for (std::size_t i = lately.size() - seconds; i < lately.size(); ++i) {
        sum.frames += lately[i].frames;
        sum.bytes += lately[i].bytes;
    }
    m_status.fps = sum.frames / static_cast<double>(seconds);
    m_status.bytesPerSecond = sum.bytes / static_cast<double>(seconds);
}

CameraStatus Camera::GetStatus(unsigned int windowFirst, unsigned int windowCount) {
    CKTGuard hold(m_lock);
    CameraStatus status = m_status;
    status.queue = m_queue.GetVideoFrameNum();
    status.seconds = m_timeline.GetSeconds();
    status.runs = m_timeline.RunsOf(windowFirst, windowCount);
    return status;
}
