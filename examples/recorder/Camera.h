// One camera as the threads share it: its queue of frames, its counts, and what it is up to.
#ifndef KTRECORDER_CAMERA_H
#define KTRECORDER_CAMERA_H

#include <KTBase/KTLock.h>
#include <KTBase/KTObject.h>
#include <KTBase/KTPacket.h>
#include <KTBase/KTUrl.h>

#include <string>

#include "Status.h"
#include "Timeline.h"

/// The client puts frames in, the writer takes them out, and anybody asks how it goes. Any thread.
class Camera : public IKTBaseOBJ {
public:
    /// wake is set whenever a frame waits; it must outlive the camera.
    Camera(const CKTUrl& url, CKTEvent& wake);

    const CKTUrl& GetUrl() const { return m_url; }  ///< With credentials: not to be shown.
    std::string GetName();
    bool IsStopped();

    // ---- the client's thread ----

    /// Cameras::GiveName calls this, once: files are called by the name.
    void SetName(const std::string& name, const std::string& title);
    bool HasName();
    void SetFormat(const std::string& format);
    void SetRecording();
    void SetWaiting(const std::string& why, unsigned int restMs);
    /// The frames that follow are dropped up to the next key frame: some before them are missing.
    void WaitForKey();
    /// Queues the frame, taking over the caller's reference. While the queue is full, frames are
    /// dropped up to the next key frame: without the ones before them they could not be decoded.
    void Put(CPacket* packet);
    void CountDrop();
    void CountBadPart();
    void CountLoss();

    // ---- the writer's thread ----

    /// The oldest frame, with its reference; null when there is none.
    CPacket* Take();
    void CountRecorded(const CPacket& packet, unsigned int second);
    void AddFile(const std::string& path);
    /// Nothing more of this camera is recorded.
    void Stop(const std::string& why);

    // ---- any thread ----

    /// Closes a second of the rates: called about once a second, elapsedMs after the last call.
    void Tick(unsigned int elapsedMs);
    /// windowCount seconds from windowFirst on are looked at for runs.
    CameraStatus GetStatus(unsigned int windowFirst, unsigned int windowCount);

private:
    const CKTUrl m_url;
    CKTEvent& m_wake;
    CKTMutex m_lock;  // guards all below; nothing else is locked while it is held
    CKTPacketList m_queue;
    bool m_waitsForKey = true;
    bool m_hasName = false;
    CameraStatus m_status;  // without runs, which the timeline knows
    Timeline m_timeline;
    unsigned long long m_framesBefore = 0;  // at the last tick
    unsigned long long m_bytesBefore = 0;
};

#endif
