// Frames in packets, and owners that release what they hold.
#ifndef KTBASE_TESTS_KTTESTFRAME_H
#define KTBASE_TESTS_KTTESTFRAME_H

#include <KTBase/KTPacket.h>

#include <cstring>
#include <memory>
#include <string>

struct TestReleaser {
    template <class T>
    void operator()(T* object) const {
        object->Release();
    }
};
template <class T>
using Held = std::unique_ptr<T, TestReleaser>;
using Packet = Held<CPacket>;

/// A frame in a packet of the payload's size, without a time; filler stands behind it.
inline Packet TestFrame(int type, int codec, const std::string& payload, int width = 0,
                        int height = 0, char filler = 0x5A) {
    Packet packet(CPacket::Acquire(static_cast<unsigned int>(payload.size()) + 20, 0));
    std::memset(packet->GetData(), filler, packet->GetSize());
    packet->FrameInit();
    packet->FrameSetType(static_cast<unsigned char>(type));
    packet->FrameSetCodec(static_cast<unsigned char>(codec));
    packet->FrameSetWidth(static_cast<unsigned short>(width));
    packet->FrameSetHeight(static_cast<unsigned short>(height));
    packet->FrameSetLength(static_cast<unsigned int>(payload.size()));
    payload.copy(reinterpret_cast<char*>(packet->FrameGetData()), payload.size());
    return packet;
}

#endif
