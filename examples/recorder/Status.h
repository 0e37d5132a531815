// What is going on, as plain values: made by the recorder, shown by progress line, summary and page.
#ifndef KTRECORDER_STATUS_H
#define KTRECORDER_STATUS_H

#include <string>
#include <vector>

enum class CameraState {
    kConnecting,
    kRecording,
    kWaiting,  // for the next try to connect
    kStopped,  // its recording cannot go on
};

const char* StateText(CameraState state);

/// Successive seconds with recorded frames, counted from the start of the recorder.
struct Run {
    unsigned int first = 0;
    unsigned int count = 0;
};

/// Frames and bytes recorded in one second.
struct Second {
    double frames = 0;
    double bytes = 0;
};

struct CameraStatus {
    std::string name;   // no other camera has it; files are called by it
    std::string title;  // as the camera says it
    std::string url;    // without credentials
    CameraState state = CameraState::kConnecting;
    std::string detail;       // why it waits or has stopped
    unsigned int restMs = 0;  // between the end of a connection and the next try, while it waits
    std::string format;       // "H.264, 640 x 360, 25 fps", once the camera has told it
    std::string file;         // the one written last
    unsigned int files = 0;   // made so far

    unsigned long long frames = 0;  // recorded, key frames included
    unsigned long long keyFrames = 0;
    unsigned long long bytes = 0;
    unsigned long long seconds = 0;  // in which something was recorded
    unsigned long long drops = 0;    // frames that arrived and found no room
    unsigned int badParts = 0;
    unsigned int losses = 0;  // of the connection
    unsigned int queue = 0;   // frames that wait to be written
    unsigned int queueLimit = 0;

    double fps = 0;              // over the last seconds
    double bytesPerSecond = 0;   // the same
    std::vector<Second> lately;  // one entry for each second of the last minute
    std::vector<Run> runs;       // in the window
};

struct RecorderStatus {
    std::string folder;
    unsigned int elapsed = 0;      // seconds since the start
    unsigned int limit = 0;        // seconds to record, 0: no end
    unsigned int windowFirst = 0;  // the seconds that a timeline shows
    unsigned int windowCount = 0;
    std::vector<CameraStatus> cameras;
};

/// Of all cameras together; the texts and lists are left empty.
CameraStatus TotalOf(const RecorderStatus& status);

/// Sets the window: all seconds so far with room to grow, or the last hour; the whole run where
/// that has an end within an hour.
void ChooseWindow(RecorderStatus& status);

#endif
