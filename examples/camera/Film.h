// What the camera shows: the frames of a file, played in an endless loop.
#ifndef KTCAMERA_FILM_H
#define KTCAMERA_FILM_H

#include <KTBase/KTPacket.h>

#include <memory>
#include <vector>

/// Packets are counted: everyone who needs one for longer holds a reference of his own.
struct PacketReleaser {
    void operator()(CPacket* packet) const { packet->Release(); }
};
typedef std::unique_ptr<CPacket, PacketReleaser> PacketRef;

/// One frame: where its bytes stand in Film::bytes.
struct Picture {
    unsigned int begin = 0;
    unsigned int length = 0;
    bool isKey = false;
    unsigned short width = 0;  // by the last sequence parameter set
    unsigned short height = 0;
};

/// An H.264 or H.265 byte stream, cut into frames; each unit begins with a four-byte start code.
struct Film {
    std::vector<unsigned char> bytes;
    bool h265 = false;
    std::vector<Picture> pictures;  // the first one is a key frame
};

/// Takes a byte stream (Annex B). Returns null, or why it cannot be shown.
const char* CutFilm(const std::vector<unsigned char>& stream, Film& out);

/// Plays a film: the pictures as packets, each at its time by the monotonic clock.
class Player {
public:
    /// film stays the caller's. fps: frames per second, up to 63 as the frame header has it.
    Player(const Film& film, double fps);

    /// When the next frame is due, as CKTTime::GetTimeUS counts.
    unsigned long long DueUs() const;
    /// The next frame. After a halt of more than a second the film goes on from nowUs, rather than
    /// running after its schedule. Null when memory is out; the frame is lost then.
    PacketRef Next(unsigned long long nowUs);

private:
    const Film& m_film;
    const double m_fps;
    unsigned long long m_count = 0;   // frames since the start
    unsigned long long m_haltUs = 0;  // sum of the halts
    const unsigned long long m_startUs;
    const unsigned long long m_startMs;  // the same moment since 1970, UTC
};

#endif
