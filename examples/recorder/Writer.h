// The thread that writes: it alone touches the disk, so a slow one holds up no camera.
#ifndef KTRECORDER_WRITER_H
#define KTRECORDER_WRITER_H

#include <KTBase/KTThread.h>

#include <map>
#include <memory>
#include <string>

#include "Cameras.h"
#include "Console.h"
#include "Recording.h"

/// Takes the frames out of all cameras' queues. ThreadStop returns when everything that waited is
/// written and the files are closed.
class Writer : public CKTThread {
public:
    /// startMs: reading of CKTTime::GetTimeMS that recorded seconds count from; limit: their
    /// number, 0 for no end.
    Writer(Cameras& cameras, Console& console, const std::string& folder,
           unsigned long long startMs, unsigned int limit);
    ~Writer() override;

protected:
    unsigned int OnThread() override;

private:
    bool WriteSome(Camera& camera);
    void WriteFrame(Camera& camera, CPacket& packet);
    void Close(Camera& camera);
    void Stop(Camera& camera, const char* why);

    Cameras& m_cameras;
    Console& m_console;
    const std::string m_folder;
    const unsigned long long m_startMs;
    const unsigned int m_lastSecond;
    std::map<Camera*, std::unique_ptr<Recording>> m_recordings;  // the thread's alone
};

#endif
