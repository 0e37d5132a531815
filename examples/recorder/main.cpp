// ktrecorder: records the video of cameras.
//
// The way of a frame: a CameraClient takes it off the network and puts it into the queue of its
// Camera; the Writer takes it out and hands it to that camera's Recording, which holds the files.
// Finder brings cameras that nobody named; Progress and PageServer show what the Cameras tell.

#include <KTBase/KTTime.h>

#include <csignal>
#include <cstdio>
#include <new>

#include "Options.h"
#include "Progress.h"
#include "Recorder.h"

namespace {

constexpr int kNotAll = 1;
constexpr int kWrongUsage = 2;

volatile std::sig_atomic_t g_stop = 0;

void OnStop(int number) {
    g_stop = 1;
    std::signal(number, SIG_DFL);  // the next one ends the program at once
}

void SetSignals() {
    std::signal(SIGINT, OnStop);
    std::signal(SIGTERM, OnStop);
    // The next two are errors of one write alone: a reader of our output that has gone, such as a
    // tee that Ctrl-C has ended before us, and a limit of file sizes.
#if defined(SIGPIPE)
    std::signal(SIGPIPE, SIG_IGN);
#endif
#if defined(SIGXFSZ)
    std::signal(SIGXFSZ, SIG_IGN);
#endif
#if defined(SIGHUP)
    // The terminal is gone; under nohup that is no reason to end.
    if (std::signal(SIGHUP, OnStop) == SIG_IGN)
        std::signal(SIGHUP, SIG_IGN);
#endif
}

bool IsRecorded(const CameraStatus& camera) {
    return camera.frames != 0 && camera.state != CameraState::kStopped;
}

/// Returns the exit code.
int Conclude(const RecorderStatus& status, Console& console) {
    CKTString table;
    AppendSummary(status, table);
    if (table.GetLength() != 0)
        console.Say(kInfo, "%.*s", static_cast<int>(table.GetLength() - 1), table.GetBuffer());
    bool all = !status.cameras.empty();
    for (const CameraStatus& camera : status.cameras)
        all = all && IsRecorded(camera);
    return all ? 0 : kNotAll;
}

int Record(const Options& options) {
    Console console;
    if (!options.log.empty() && !console.OpenLog(options.log.c_str())) {
        std::fprintf(stderr, "ktrecorder: %s: the log cannot be written\n", options.log.c_str());
        return kNotAll;
    }
    int result = kNotAll;
    {
        Recorder recorder(options, console);
        if (recorder.Start()) {
            while (g_stop == 0 && !recorder.IsDone())
                KTSleepMS(50);
            recorder.Stop();
            result = Conclude(recorder.GetStatus(), console);
        }
    }
    console.CloseLog();
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Options options;
        const std::string wrong = ReadOptions(argc, argv, options);
        if (!wrong.empty()) {
            std::fprintf(stderr, "ktrecorder: %s\n%sktrecorder --help says more.\n", wrong.c_str(),
                         kUsage);
            return kWrongUsage;
        }
        if (options.help) {
            std::printf("%s%s", kUsage, kHelp);
            return 0;
        }
        SetSignals();
        return Record(options);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "ktrecorder: not enough memory\n");
        return kNotAll;
    }
}
