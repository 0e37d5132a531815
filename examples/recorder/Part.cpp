#include "Part.h"

#include <KTBase/KTPacket.h>
#include <KTBase/KTString.h>

#include <cstring>

namespace {

constexpr unsigned int kHeaderBytes = 20;
constexpr unsigned char kStartCode[] = {0, 0, 0, 1};
constexpr unsigned char kFrameMarker[] = {0, 0, 1};  // the first bytes of a header

/// Null, or what is wrong with the frame. Everything here was written by somebody else.
const char* WhyBad(const CPacket& frame, unsigned int partBytes) {
    if (std::memcmp(frame.GetData(), kFrameMarker, sizeof(kFrameMarker)) != 0)
        return "no frame header";
    if (frame.FrameGetLength() != partBytes - kHeaderBytes)
        return "the header's length is not the frame's";
    if (!frame.FrameIsVideo() || !(frame.FrameIsH264() || frame.FrameIsH265()))
        return "neither H.264 nor H.265 video";
    ZHTIME time = 0;
    frame.FrameGetTime(&time, nullptr);
    if (CKTTime::IsNull(&time))
        return "a frame without a time";
    if (std::memcmp(frame.FrameGetData(), kStartCode, sizeof(kStartCode)) != 0)
        return "no start code of four bytes";
    return nullptr;
}

}  // namespace

CPacket* PacketOfPart(const CKTString& part, const char*& why) {
    const unsigned int bytes = part.GetLength();
    why = nullptr;
    if (bytes < kHeaderBytes + sizeof(kStartCode))
        why = "too short for a frame";
    else if (bytes > kMostPartBytes)
        why = "too long for a frame";
    CPacket* const packet = why == nullptr ? CPacket::Acquire(bytes, 0) : nullptr;
    if (packet == nullptr)
        return nullptr;
    std::memcpy(packet->GetData(), part.GetBuffer(), bytes);
    packet->SetLength(bytes);
    why = WhyBad(*packet, bytes);
    if (why == nullptr)
        return packet;
    packet->Release();
    return nullptr;
}
