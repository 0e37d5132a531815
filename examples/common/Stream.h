// Units, frames and parameter sets of an H.264 or H.265 byte stream (Annex B).
#ifndef KTEXAMPLES_STREAM_H
#define KTEXAMPLES_STREAM_H

#include <vector>

struct Unit {
    unsigned int begin = 0;   // of its header, in bytes from the stream's start
    unsigned int length = 0;  // without start code
    unsigned int codeBytes = 0;
    unsigned int type = 0;
    bool isSlice = false;  // of a picture of the base layer
    bool isKey = false;    // a slice of a picture that decoding can begin with
    int frame = -1;        // that it is a slice of, or -1
};

struct Frame {
    unsigned int firstUnit = 0;  // behind the last one of the frame before
    unsigned int lastUnit = 0;   // its last slice, or what belongs to that one
    bool isKey = false;
};

/// A parameter set, and how often the same bytes come.
struct ParameterSet {
    unsigned int unit = 0;  // where it comes first
    unsigned int times = 0;
};

struct Stream {
    const unsigned char* bytes = nullptr;  // the caller's
    bool h265 = false;
    std::vector<Unit> units;
    std::vector<Frame> frames;
    std::vector<ParameterSet> sets;
    unsigned int keyFrames = 0;

    const unsigned char* At(const Unit& unit) const { return bytes + unit.begin; }
    bool IsSps(const Unit& unit) const { return unit.type == (h265 ? 33u : 7u); }
    bool IsPps(const Unit& unit) const { return unit.type == (h265 ? 34u : 8u); }
    bool IsVps(const Unit& unit) const { return h265 && unit.type == 32; }
};

/// Appends a file's content. Returns null, or why it cannot be read.
const char* ReadFile(const char* path, std::vector<unsigned char>& bytes);

/// Takes a stream apart; out refers to bytes from then on. Returns null, or why it is no stream.
const char* ReadStream(const unsigned char* bytes, unsigned int size, Stream& out);

#endif
