#include "Film.h"

#include <KTBase/KTH26X.h>
#include <KTBase/KTMedia.h>

#include <climits>
#include <cstring>

#include "Stream.h"

namespace {

constexpr unsigned char kKeyFrame = 1;  // frame types of a packet
constexpr unsigned char kFrame = 0;
constexpr unsigned char kH264 = 1;  // codecs of a packet
constexpr unsigned char kH265 = 2;
constexpr unsigned int kHeaderBytes = 20;
constexpr unsigned long long kMostLateUs = 1000000;

/// The picture as a packet that still lacks its time and rate; null when memory is out.
PacketRef Wrap(const Film& film, const Picture& picture) {
    if (picture.length > UINT_MAX - kHeaderBytes)
        return nullptr;
    PacketRef packet(CPacket::Acquire(picture.length + kHeaderBytes, 0));
    if (packet == nullptr)
        return nullptr;
    packet->FrameInit();
    packet->FrameSetType(picture.isKey ? kKeyFrame : kFrame);
    packet->FrameSetCodec(film.h265 ? kH265 : kH264);
    packet->FrameSetWidth(picture.width);
    packet->FrameSetHeight(picture.height);
    packet->FrameSetLength(picture.length);
    std::memcpy(packet->FrameGetData(), film.bytes.data() + picture.begin, picture.length);
    packet->SetLength(packet->FrameGetSize());
    return packet;
}

/// The size as a media head has it, for receivers compare the two. picture keeps its size when
/// it holds no parameter set.
void TakeSize(const Film& film, Picture& picture) {
    const PacketRef packet = Wrap(film, picture);
    if (packet == nullptr)
        return;
    CKTVideoHead* const head = CKTVideoHead::CreateHead(packet.get());
    if (head == nullptr)
        return;
    if (head->GetWidth() != 0) {
        picture.width = static_cast<unsigned short>(head->GetWidth());
        picture.height = static_cast<unsigned short>(head->GetHeight());
    }
    head->Release();
}

unsigned int BeginOf(const Stream& stream, const Frame& frame) {
    const Unit& unit = stream.units[frame.firstUnit];
    return unit.begin - unit.codeBytes;
}

unsigned int EndOf(const Stream& stream, const Frame& frame) {
    const Unit& unit = stream.units[frame.lastUnit];
    return unit.begin + unit.length;
}

}  // namespace

const char* CutFilm(const std::vector<unsigned char>& stream, Film& out) {
    const unsigned int size = static_cast<unsigned int>(stream.size());
    Stream units;
    if (const char* const why = ReadStream(stream.data(), size, units))
        return why;
    // The first call measures.
    const long long length = H26XNormalise(stream.data(), size, nullptr, 0);
    if (length < 0 || length > UINT_MAX)
        return "larger than 4 GB once its start codes have four bytes";
    out.bytes.resize(static_cast<std::size_t>(length));
    H26XNormalise(stream.data(), size, out.bytes.data(), static_cast<unsigned int>(length));

    units = Stream();
    if (const char* const why =
            ReadStream(out.bytes.data(), static_cast<unsigned int>(length), units))
        return why;
    out.h265 = units.h265;
    Picture picture;
    for (const Frame& frame : units.frames) {
        if (out.pictures.empty() && !frame.isKey)  // nobody could begin with it
            continue;
        picture.begin = BeginOf(units, frame);
        picture.length = EndOf(units, frame) - picture.begin;
        picture.isKey = frame.isKey;
        if (picture.isKey)
            TakeSize(out, picture);
        out.pictures.push_back(picture);
    }
    return out.pictures.empty() ? "it holds no key frame" : nullptr;
}

Player::Player(const Film& film, double fps)
    : m_film(film),
      m_fps(fps),
      m_startUs(CKTTime::GetTimeUS()),
      m_startMs(CKTTime(false).GetTicks()) {}

// Each time is reckoned from the start: rounding does not add up.
unsigned long long Player::DueUs() const {
    return m_startUs + m_haltUs +
           static_cast<unsigned long long>(static_cast<double>(m_count) * 1e6 / m_fps);
}

PacketRef Player::Next(unsigned long long nowUs) {
    if (nowUs > DueUs() + kMostLateUs)
        m_haltUs += nowUs - DueUs();
    // Not the wall clock: it may be set back, but the times of a stream have to rise.
    const unsigned long long stampMs = m_startMs + (DueUs() - m_startUs) / 1000;
    PacketRef packet = Wrap(m_film, m_film.pictures[m_count % m_film.pictures.size()]);
    ++m_count;
    if (packet == nullptr)
        return nullptr;
    CKTTime time(true);
    time.SetTime(static_cast<long long>(stampMs / 1000));
    time.SetMS(static_cast<unsigned short>(stampMs % 1000));
    packet->FrameSetTime(time);
    packet->FrameSetFPS(m_fps);
    return packet;
}
