#include "Page.h"

#include <KTBase/KTJson.h>

#include <algorithm>

#include "PageParts.h"
#include "Text.h"

namespace {

constexpr unsigned int kPageBytes = 64 << 10;  // a usual page: room taken at once
constexpr unsigned int kChartSeconds = 60;
constexpr unsigned int kChartHeight = 100;
constexpr unsigned int kTimeHeight = 24;

std::string RateText(double bytesPerSecond) {
    const double bits = bytesPerSecond * 8;
    char text[32];
    if (bits < 999.5e3)
        std::snprintf(text, sizeof(text), "%.0f kbit/s", bits / 1e3);
    else
        std::snprintf(text, sizeof(text), "%.2f Mbit/s", bits / 1e6);
    return text;
}

/// A sign beside the word, for those who cannot tell the colours apart.
const char* StateSign(CameraState state) {
    switch (state) {
        case CameraState::kConnecting:
            return "&#8230;";  // ellipsis
        case CameraState::kRecording:
            return "&#9679;";  // circle
        case CameraState::kWaiting:
            return "&#8635;";  // round arrow
        case CameraState::kStopped:
            return "&#9632;";  // square
    }
    return "";
}

std::string WhyText(const CameraStatus& camera) {
    char next[40] = "";
    if (camera.state == CameraState::kWaiting)
        std::snprintf(next, sizeof(next), "; next try in %g s", camera.restMs / 1000.0);
    return camera.detail + next;
}

void AppendFigure(CKTString& out, const char* name, const std::string& value, bool alarm) {
    out.Append("<div><dt>%s</dt><dd%s>%s</dd></div>", name, alarm ? " class=\"alarm\"" : "",
               value.c_str());
}

// ---- charts ----

/// Bytes of each second of the last minute, the newest on the right, as one outline of columns.
void AppendRateChart(const CameraStatus& camera, CKTString& out) {
    double most = 1;
    for (const Second& second : camera.lately)
        most = std::max(most, second.bytes);
    out.Append(
        "<div><div class=\"caption soft\"><span>data rate, last minute</span><span>peak %s</span>"
        "</div><svg class=\"rate\" viewBox=\"0 0 %u %u\" preserveAspectRatio=\"none\" role=\"img\" "
        "aria-label=\"data rate of the last minute, peak %s\"><path d=\"",
        RateText(most).c_str(), kChartSeconds, kChartHeight, RateText(most).c_str());
    const std::size_t count = std::min<std::size_t>(camera.lately.size(), kChartSeconds);
    for (std::size_t i = 0; i < count; ++i) {
        const Second& second = camera.lately[camera.lately.size() - count + i];
        const double height = second.bytes / most * (kChartHeight - 6);
        out.Append("M%zu.1 %uv-%.1fh.8v%.1fz", kChartSeconds - count + i, kChartHeight, height,
                   height);
    }
    out.AppendSTR("\"/></svg></div>", 0);
}

/// Full height where something was recorded, a low bar where nothing was, nothing for what is still
/// to come: the shapes tell it without the colours.
void AppendTimeline(const RecorderStatus& status, const CameraStatus& camera, CKTString& out) {
    const unsigned int first = status.windowFirst;
    const unsigned int past =
        std::min(status.elapsed - std::min(first, status.elapsed), status.windowCount);
    unsigned int recorded = 0;
    unsigned int missing = past;  // the second that runs is not missing yet
    for (const Run& run : camera.runs) {
        recorded += run.count;
        missing -=
            std::min(run.first - first + run.count, past) - std::min(run.first - first, past);
    }
    out.Append(
        "<div><div class=\"caption soft\"><span>timeline</span><span>"
        "<span class=\"key there\"></span>%u s recorded<span class=\"key gap\"></span>%u s missing"
        "</span></div>"
        "<svg class=\"time\" viewBox=\"0 0 %u %u\" preserveAspectRatio=\"none\" role=\"img\" "
        "aria-label=\"%u seconds recorded in %zu pieces, %u seconds missing\">"
        "<rect class=\"gap\" y=\"%u\" width=\"%u\" height=\"%u\"/>",
        recorded, missing, status.windowCount, kTimeHeight, recorded, camera.runs.size(), missing,
        kTimeHeight * 3 / 4, past, kTimeHeight / 4);
    for (const Run& run : camera.runs)
        out.Append("<rect class=\"there\" x=\"%u\" width=\"%u\" height=\"%u\"/>", run.first - first,
                   run.count, kTimeHeight);
    out.Append(
        "</svg><div class=\"ticks soft\"><span>%s</span><span>%s</span><span>%s</span></div>"
        "</div>",
        ClockText(first).c_str(), ClockText(first + status.windowCount / 2).c_str(),
        ClockText(first + status.windowCount).c_str());
}

// ---- cameras ----

void AppendCamera(const RecorderStatus& status, const CameraStatus& camera, CKTString& out) {
    const char* const state = StateText(camera.state);
    out.Append(
        "<article><div class=\"head\"><div><h2>%s</h2><p class=\"soft\">%s</p></div>"
        "<span class=\"state %s\">%s %s</span></div>",
        EscapeHtml(camera.title).c_str(), EscapeHtml(camera.format).c_str(), state,
        StateSign(camera.state), state);
    if (!camera.detail.empty())
        out.Append("<p class=\"why %s\">%s</p>", state, EscapeHtml(WhyText(camera)).c_str());
    char fps[16];
    std::snprintf(fps, sizeof(fps), "%.1f", camera.fps);
    out.AppendSTR("<dl>", 0);
    AppendFigure(out, "frames/s", fps, false);
    AppendFigure(out, "data rate", RateText(camera.bytesPerSecond), false);
    AppendFigure(out, "recorded", BytesText(camera.bytes), false);
    AppendFigure(out, "frames", std::to_string(camera.frames), false);
    AppendFigure(out, "key frames", std::to_string(camera.keyFrames), false);
    AppendFigure(out, "queue",
                 std::to_string(camera.queue) + " of " + std::to_string(camera.queueLimit),
                 camera.queue * 2 > camera.queueLimit);
    AppendFigure(out, "dropped", std::to_string(camera.drops), camera.drops != 0);
    AppendFigure(out, "losses", std::to_string(camera.losses), camera.losses != 0);
    AppendFigure(out, "bad parts", std::to_string(camera.badParts), camera.badParts != 0);
    out.AppendSTR("</dl>", 0);
    AppendRateChart(camera, out);
    AppendTimeline(status, camera, out);
    out.Append("<p class=\"soft\">%s%s%s</p></article>\n", EscapeHtml(camera.url).c_str(),
               camera.file.empty() ? "" : " &#8594; ", EscapeHtml(camera.file).c_str());
}

void AppendTop(const RecorderStatus& status, CKTString& out) {
    out.Append("<div class=\"top\"><h1>Recorder</h1><p class=\"soft\">%s%s%s into %s</p></div>\n",
               ClockText(status.elapsed).c_str(), status.limit != 0 ? " of " : "",
               status.limit != 0 ? ClockText(status.limit).c_str() : "",
               EscapeHtml(status.folder).c_str());
    if (status.limit != 0)
        out.Append("<progress max=\"%u\" value=\"%u\" aria-label=\"time recorded\"></progress>\n",
                   status.limit, std::min(status.elapsed, status.limit));
    const CameraStatus total = TotalOf(status);
    unsigned int recording = 0;
    for (const CameraStatus& camera : status.cameras)
        recording += camera.state == CameraState::kRecording ? 1 : 0;
    char fps[16];
    std::snprintf(fps, sizeof(fps), "%.0f", total.fps);
    out.AppendSTR("<dl class=\"total\">", 0);
    AppendFigure(out, "cameras recording",
                 std::to_string(recording) + " of " + std::to_string(status.cameras.size()),
                 recording != status.cameras.size());
    AppendFigure(out, "frames/s", fps, false);
    AppendFigure(out, "data rate", RateText(total.bytesPerSecond), false);
    AppendFigure(out, "recorded", BytesText(total.bytes), false);
    AppendFigure(out, "frames", std::to_string(total.frames), false);
    AppendFigure(out, "dropped", std::to_string(total.drops), total.drops != 0);
    out.AppendSTR("</dl>\n", 0);
}

bool AppendCameraJson(const CameraStatus& camera, IKTJsonNode& list) {
    IKTJsonNode node;
    node.Set("name", camera.name.c_str());
    node.Set("title", camera.title.c_str());
    node.Set("url", camera.url.c_str());
    node.Set("state", StateText(camera.state));
    node.Set("detail", camera.detail.c_str());
    node.Set("format", camera.format.c_str());
    node.Set("file", camera.file.c_str());
    node.Set("files", camera.files);
    node.Set("frames", camera.frames);
    node.Set("keyFrames", camera.keyFrames);
    node.Set("bytes", camera.bytes);
    node.Set("seconds", camera.seconds);
    node.Set("drops", camera.drops);
    node.Set("badParts", camera.badParts);
    node.Set("losses", camera.losses);
    node.Set("queue", camera.queue);
    node.Set("queueLimit", camera.queueLimit);
    node.Set("fps", camera.fps);
    node.Set("bytesPerSecond", camera.bytesPerSecond);
    IKTJsonNode runs;
    runs.MakeArray();
    for (const Run& run : camera.runs) {
        IKTJsonNode item;
        item.Append(run.first);
        item.Append(run.count);
        runs.Append(item);
    }
    return node.Set("recorded", runs) == KT_OK && list.Append(node) == KT_OK;
}

}  // namespace

void AppendLive(const RecorderStatus& status, CKTString& out) {
    out.AllocBuffer(kPageBytes);
    AppendTop(status, out);
    if (status.cameras.empty())
        out.AppendSTR("<p class=\"empty\">No camera has answered yet.</p>", 0);
    out.AppendSTR("<section class=\"cameras\" aria-label=\"cameras\">\n", 0);
    for (const CameraStatus& camera : status.cameras)
        AppendCamera(status, camera, out);
    out.AppendSTR("</section>", 0);
}

void AppendPage(const RecorderStatus& status, CKTString& out) {
    out.AppendSTR(
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        // Nothing is loaded from anywhere else.
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
        "style-src 'unsafe-inline'; script-src 'unsafe-inline'; connect-src 'self'; "
        "img-src data:\">\n"
        "<noscript><meta http-equiv=\"refresh\" content=\"5\"></noscript>\n"
        "<link rel=\"icon\" href=\"data:,\"><title>Recorder</title>\n<style>",
        0);
    out.AppendSTR(kPageStyle, 0);
    out.AppendSTR(
        "</style></head>\n<body><p id=\"away\" role=\"status\">The recorder does not answer: "
        "these are its last figures.</p>\n<main id=\"live\">\n",
        0);
    AppendLive(status, out);
    out.AppendSTR("\n</main><script>", 0);
    out.AppendSTR(kPageScript, 0);
    out.AppendSTR("</script></body></html>\n", 0);
}

bool AppendJson(const RecorderStatus& status, CKTString& out) {
    IKTJsonNode cameras;
    bool complete = cameras.MakeArray() == KT_OK;
    for (const CameraStatus& camera : status.cameras)
        complete = AppendCameraJson(camera, cameras) && complete;
    IKTJsonNode root;
    root.Set("folder", status.folder.c_str());
    root.Set("elapsed", status.elapsed);
    root.Set("limit", status.limit);
    root.Set("windowFirst", status.windowFirst);
    root.Set("windowCount", status.windowCount);
    return root.Set("cameras", cameras) == KT_OK && complete && root.ToString(out, true) == KT_OK;
}
