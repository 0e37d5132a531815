// The recorder: owns the parts and starts and stops them in order.
#ifndef KTRECORDER_RECORDER_H
#define KTRECORDER_RECORDER_H

#include <KTBase/KTLock.h>
#include <KTBase/KTThreadPool.h>
#include <KTBase/KTTimer.h>

#include <memory>
#include <vector>

#include "CameraClient.h"
#include "Cameras.h"
#include "Console.h"
#include "Finder.h"
#include "Options.h"
#include "PageServer.h"
#include "Status.h"
#include "Writer.h"

/// Threads: the pool's workers run the clients and the finder; the writer writes; a timer's thread
/// shows progress; the page has a thread of its own. Between them stand the cameras, each with its
/// lock, and the console.
class Recorder : public CKTObject {
public:
    Recorder(const Options& options, Console& console);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder() override;

    /// False when something cannot be had, which has been said then. Stop is wanted all the same.
    bool Start();
    /// Whether the time is over, or no camera is left to be recorded.
    bool IsDone();
    /// Ends the connections, writes what waits, and closes the files.
    void Stop();
    RecorderStatus GetStatus();

private:
    void AddCamera(const CKTUrl& url);
    bool StartFinder();
    int OnSecond(CKTObject* sender, unsigned int cmd, void* p0, void* p1);

    const Options& m_options;
    Console& m_console;
    const unsigned long long m_startMs;
    unsigned long long m_tickMs;
    Cameras m_cameras;
    CKTMutex m_lock;  // guards the clients: the finder adds some, too
    std::vector<std::unique_ptr<CameraClient>> m_clients;
    Finder m_finder;
    CKTThreadPoolEx m_pool;
    Writer m_writer;
    PageServer m_page;
    IKTTimer* m_timer = nullptr;
};

#endif
