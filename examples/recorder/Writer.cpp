#include "Writer.h"

#include <KTBase/KTTime.h>

#include <algorithm>

namespace {

constexpr unsigned int kBeatMs = 100;      // how soon a stop is seen while nothing comes
constexpr unsigned int kFramesInTurn = 8;  // of one camera before the next one has its turn
constexpr int kNormalPriority = 25;

}  // namespace

Writer::Writer(Cameras& cameras, Console& console, const std::string& folder,
               unsigned long long startMs, unsigned int limit)
    : CKTThread("Writer", 0, kNormalPriority),
      m_cameras(cameras),
      m_console(console),
      m_folder(folder),
      m_startMs(startMs),
      m_lastSecond(limit != 0 ? limit - 1 : ~0u) {}

Writer::~Writer() {
    ThreadStop();
}

unsigned int Writer::OnThread() {
    bool stops = false;
    while (!stops) {
        m_cameras.GetWake().Wait(kBeatMs);
        stops = IsRunning() == 0;  // asked before the queues are emptied for the last time
        bool wrote = true;
        while (wrote) {
            wrote = false;
            for (unsigned int i = 0; i < m_cameras.GetCount(); ++i)
                wrote = WriteSome(*m_cameras.Get(i)) || wrote;
        }
    }
    for (unsigned int i = 0; i < m_cameras.GetCount(); ++i)
        Close(*m_cameras.Get(i));
    return 0;
}

/// False when the camera's queue was empty.
bool Writer::WriteSome(Camera& camera) {
    for (unsigned int i = 0; i < kFramesInTurn; ++i) {
        CPacket* const packet = camera.Take();
        if (packet == nullptr)
            return i != 0;
        if (!camera.IsStopped())
            WriteFrame(camera, *packet);
        packet->Release();
    }
    return true;
}

void Writer::WriteFrame(Camera& camera, CPacket& packet) {
    std::unique_ptr<Recording>& recording = m_recordings[&camera];
    if (recording == nullptr)
        recording.reset(new Recording(m_folder, camera.GetName()));
    const std::string before = recording->GetPath();
    if (const char* const why = recording->Write(packet))
        return Stop(camera, why);
    if (recording->GetPath() != before) {
        camera.AddFile(recording->GetPath());
        m_console.Say(kInfo, "%s: writing %s", camera.GetName().c_str(),
                      recording->GetPath().c_str());
    }
    const unsigned long long second = (CKTTime::GetTimeMS() - m_startMs) / 1000;
    // What still waits when the time is over belongs to the last second.
    camera.CountRecorded(packet, std::min(static_cast<unsigned int>(second), m_lastSecond));
}

void Writer::Close(Camera& camera) {
    const auto place = m_recordings.find(&camera);
    if (place == m_recordings.end() || camera.IsStopped())
        return;
    if (const char* const why = place->second->Close())
        Stop(camera, why);
}

void Writer::Stop(Camera& camera, const char* why) {
    camera.Stop(why);
    m_console.Say(kError, "%s: recording has stopped: %s", camera.GetName().c_str(), why);
}
