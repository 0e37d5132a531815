#include "Status.h"

const char* StateText(CameraState state) {
    switch (state) {
        case CameraState::kConnecting:
            return "connecting";
        case CameraState::kRecording:
            return "recording";
        case CameraState::kWaiting:
            return "waiting";
        case CameraState::kStopped:
            return "stopped";
    }
    return "";
}

CameraStatus TotalOf(const RecorderStatus& status) {
    CameraStatus total;
    for (const CameraStatus& camera : status.cameras) {
        total.frames += camera.frames;
        total.keyFrames += camera.keyFrames;
        total.bytes += camera.bytes;
        total.seconds += camera.seconds;
        total.drops += camera.drops;
        total.badParts += camera.badParts;
        total.losses += camera.losses;
        total.queue += camera.queue;
        total.queueLimit += camera.queueLimit;
        total.fps += camera.fps;
        total.bytesPerSecond += camera.bytesPerSecond;
    }
    return total;
}

void ChooseWindow(RecorderStatus& status) {
    constexpr unsigned int kHour = 3600;
    status.windowFirst = 0;
    status.windowCount = kHour;
    if (status.limit != 0 && status.limit <= kHour) {
        status.windowCount = status.limit;
    } else if (status.elapsed >= kHour) {
        status.windowFirst = status.elapsed + 1 - kHour;
    } else {
        for (const unsigned int seconds : {60u, 300u, 900u, kHour}) {
            status.windowCount = seconds;
            if (status.elapsed < seconds)
                break;
        }
    }
}
