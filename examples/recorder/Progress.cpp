#include "Progress.h"

#include <algorithm>

#include "Text.h"

namespace {

constexpr unsigned int kBarCells = 12;

void AppendBar(unsigned int done, unsigned int all, CKTString& out) {
    const unsigned int most = std::min(done, all);
    const unsigned int cells = static_cast<unsigned int>(1ull * kBarCells * most / all);
    out.Append("[");
    out.AppendChar('#', cells);
    out.AppendChar('-', kBarCells - cells);
    out.Append("] %3u %%", static_cast<unsigned int>(100ull * most / all));
}

}  // namespace

void AppendProgress(const RecorderStatus& status, bool withBar, CKTString& out) {
    if (status.limit == 0)
        out.Append("%s", ClockText(status.elapsed).c_str());
    else if (withBar)
        AppendBar(status.elapsed, status.limit, out);
    else
        out.Append("%u of %u s", std::min(status.elapsed, status.limit), status.limit);
    const CameraStatus total = TotalOf(status);
    out.Append("  %llu frames, %llu key  %s  %.1f fps  queue %u  drops %llu", total.frames,
               total.keyFrames, BytesText(total.bytes).c_str(), total.fps, total.queue,
               total.drops);
}

void AppendSummary(const RecorderStatus& status, CKTString& out) {
    out.Append("%-20s %9s %7s %10s %8s %6s %5s %6s  %s\n", "camera", "frames", "key", "bytes",
               "seconds", "drops", "bad", "losses", "file");
    for (const CameraStatus& camera : status.cameras) {
        out.Append("%-20s %9llu %7llu %10s %8llu %6llu %5u %6u  ", camera.name.c_str(),
                   camera.frames, camera.keyFrames, BytesText(camera.bytes).c_str(), camera.seconds,
                   camera.drops, camera.badParts, camera.losses);
        if (camera.files == 0)
            out.Append("none: %s\n",
                       camera.detail.empty() ? "no frame came" : camera.detail.c_str());
        else if (camera.files == 1)
            out.Append("%s\n", camera.file.c_str());
        else
            out.Append("%s and %u before\n", camera.file.c_str(), camera.files - 1);
        if (camera.files != 0 && camera.state == CameraState::kStopped)
            out.Append("%-20s stopped: %s\n", "", camera.detail.c_str());
    }
    if (status.cameras.empty())
        out.Append("no camera was found\n");
}
