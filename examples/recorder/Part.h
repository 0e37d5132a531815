// A part of a camera's stream, checked and made a packet.
#ifndef KTRECORDER_PART_H
#define KTRECORDER_PART_H

class CKTString;
class CPacket;

/// Most bytes of a part, its frame header included.
constexpr unsigned int kMostPartBytes = 8 << 20;

/// The frame that a part holds: a frame header of 20 bytes and as many bytes as it says of H.264 or
/// H.265 video, beginning with a start code of four bytes. The packet is the caller's.
/// Null with the reason in why; null without a reason when the packet pool has no room.
CPacket* PacketOfPart(const CKTString& part, const char*& why);

#endif
