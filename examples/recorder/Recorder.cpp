#include "Recorder.h"

#include <KTBase/KTFile.h>

#include "Progress.h"

namespace {

// A camera has a worker of its own up to this number; beyond it they share.
constexpr unsigned int kWorkers = 16;
constexpr int kNormalPriority = 25;

// The packet pool: 64 MB in pages of 4 KB. What it cannot hold is dropped and counted.
constexpr unsigned int kPoolPages = 16384;
constexpr unsigned int kPoolShift = 12;

const KTWorkerHandler kClientHandler = static_cast<KTWorkerHandler>(&CameraClient::OnPoll);
const KTWorkerHandler kFinderHandler = static_cast<KTWorkerHandler>(&Finder::OnPoll);

}  // namespace

Recorder::Recorder(const Options& options, Console& console)
    : m_options(options),
      m_console(console),
      m_startMs(CKTTime::GetTimeMS()),
      m_tickMs(m_startMs),
      m_finder([this](const CKTUrl& url) { AddCamera(url); }),
      m_pool(kWorkers, "Cameras", 0, kNormalPriority),
      m_writer(m_cameras, console, options.folder, m_startMs, options.seconds),
      m_page([this] { return GetStatus(); }) {}

Recorder::~Recorder() {
    Stop();
}

bool Recorder::Start() {
    if (KWFileMakeDirectory(m_options.folder.c_str()) != KT_OK) {
        m_console.Say(kError, "%s: the folder cannot be made", m_options.folder.c_str());
        return false;
    }
    if (m_options.page) {
        if (!m_page.Open(m_options.pagePort)) {
            m_console.Say(kError, "port %u: the page cannot be served there", m_options.pagePort);
            return false;
        }
        m_console.Say(kInfo, "page: http://127.0.0.1:%u/", m_page.GetPort());
    }
    // The pool comes before the first packet, and goes behind the last one.
    if (CPacket::CreatePool(kPoolPages, kPoolShift, 0) != KT_OK || m_writer.ThreadStart() != 0 ||
        (m_options.page && m_page.ThreadStart() != 0) || IKTTimer::KTTimerInitialize() != KT_OK) {
        m_console.Say(kError, "not enough memory or threads");
        return false;
    }
    m_timer = IKTTimer::AcquireTimer();
    if (m_timer != nullptr)
        m_timer->Start(this, static_cast<KTSignalHandler>(&Recorder::OnSecond), 1000, 0, false);
    for (const CKTUrl& url : m_options.cameras)
        AddCamera(url);
    return m_options.group.empty() || StartFinder();
}

bool Recorder::StartFinder() {
    if (m_finder.Open(m_options.group.c_str(), m_options.groupPort) &&
        m_pool.Attach(&m_finder, kFinderHandler) == KT_OK)
        return true;
    m_console.Say(kError, "cameras cannot be looked for: no socket on 127.0.0.1");
    return false;
}

/// A URL of a known camera changes nothing.
void Recorder::AddCamera(const CKTUrl& url) {
    Camera* const camera = m_cameras.Add(url);
    if (camera == nullptr)
        return;
    m_console.Say(kInfo, "camera: %s", url.GetURL());
    std::unique_ptr<CameraClient> client(new CameraClient(*camera, m_cameras, m_console));
    CKTGuard hold(m_lock);
    if (client == nullptr || m_pool.Attach(client.get(), kClientHandler) != KT_OK)
        return camera->Stop("not enough memory or threads");
    m_clients.push_back(std::move(client));
}

bool Recorder::IsDone() {
    if (m_options.seconds != 0 && CKTTime::GetTimeMS() >= m_startMs + m_options.seconds * 1000ull)
        return true;
    for (unsigned int i = 0; i < m_cameras.GetCount(); ++i)
        if (!m_cameras.Get(i)->IsStopped())
            return false;
    return m_options.group.empty();
}

void Recorder::Stop() {
    // First those that bring frames: Detach returns when a handler has left and comes no more.
    m_pool.Detach(&m_finder, kFinderHandler);
    for (const std::unique_ptr<CameraClient>& client : m_clients)
        m_pool.Detach(client.get(), kClientHandler);
    m_clients.clear();
    m_writer.ThreadStop();
    m_page.ThreadStop();
    if (m_timer != nullptr) {
        m_timer->Stop();
        if (m_console.IsTerminal())
            OnSecond(nullptr, 0, nullptr, nullptr);  // leave the line as it is at the end
        m_timer->Release();
        m_timer = nullptr;
        IKTTimer::KTTimerInvalidate();
    }
    CPacket::DeletePool();
    m_console.EndProgress();
}

RecorderStatus Recorder::GetStatus() {
    RecorderStatus status;
    status.folder = m_options.folder;
    status.elapsed = static_cast<unsigned int>((CKTTime::GetTimeMS() - m_startMs) / 1000);
    status.limit = m_options.seconds;
    ChooseWindow(status);
    for (unsigned int i = 0; i < m_cameras.GetCount(); ++i)
        status.cameras.push_back(
            m_cameras.Get(i)->GetStatus(status.windowFirst, status.windowCount));
    return status;
}

int Recorder::OnSecond(CKTObject*, unsigned int, void*, void*) {
    const unsigned long long nowMs = CKTTime::GetTimeMS();
    for (unsigned int i = 0; i < m_cameras.GetCount(); ++i)
        m_cameras.Get(i)->Tick(static_cast<unsigned int>(nowMs - m_tickMs));
    m_tickMs = nowMs;
    CKTString line;
    AppendProgress(GetStatus(), m_console.IsTerminal(), line);
    m_console.ShowProgress(line);
    return 0;
}
