#include "KTBase/KTPacket.h"

#include <cstring>

#include "KTBase/KTDebug.h"
#include "os/KTOsClock.h"

namespace {

// The frame header: offsets in bytes, fields little-endian like the systems we run on.
constexpr unsigned int kMarker = 2;
constexpr unsigned int kType = 3;
constexpr unsigned int kLength = 4;
constexpr unsigned int kTime = 8;
constexpr unsigned int kMS = 12;
constexpr unsigned int kCodec = 14;
constexpr unsigned int kRate = 15;   // also channel number and object type
constexpr unsigned int kWidth = 16;  // also sample rate
constexpr unsigned int kHeight = 18;
constexpr unsigned int kHeaderBytes = 20;

constexpr unsigned char kTypeBase = 0xE0;

constexpr unsigned char kNoBuffer = 255;

// Codecs. Those from kH264Flags on have flags in their low bits: 0 and 1 the PB number, 2 has VI.
constexpr unsigned char kH264 = 1;
constexpr unsigned char kH265 = 2;
constexpr unsigned char kPicture = 3;
constexpr unsigned char kSmart = 10;
constexpr unsigned char kCurrC = 11;
constexpr unsigned char kVideoAndPicture = 14;
constexpr unsigned char kPOS = 15;
constexpr unsigned char kH264Flags = 16;
constexpr unsigned char kH265Flags = 32;
constexpr unsigned char kLastFlags = 47;

template <typename T>
T Get(const unsigned char* header, unsigned int at) {
    T value = 0;
    if (header != nullptr)
        std::memcpy(&value, header + at, sizeof(value));
    return value;
}

template <typename T>
void Set(unsigned char* header, unsigned int at, T value) {
    if (header != nullptr)
        std::memcpy(header + at, &value, sizeof(value));
}

bool IsBetween(unsigned int value, unsigned int first, unsigned int last) {
    return value >= first && value <= last;
}

bool IsSmartType(unsigned char type) {
    return type == 7 || type == 8;
}

}  // namespace

unsigned char* CPacket::Header() const {
    return m_size >= kHeaderBytes ? m_data : nullptr;
}

void CPacket::Dump() {
    const unsigned char* header = Header();
    if (header == nullptr)
        return;
    unsigned char payload[16] = {};
    const unsigned int rest = m_size - kHeaderBytes;
    std::memcpy(payload, header + kHeaderBytes, rest < sizeof(payload) ? rest : sizeof(payload));
    ZHTIME word = Get<ZHTIME>(header, kTime);
    const CKTTime at(&word, 0);
    KTPrintf(
        "Frame(%04d-%02d-%02d %02d:%02d:%02d.%03u), codec = %d, type = %d, fps = %.3f, len = %d, "
        "size = 0x%08x, (%02x %02x %02x %02x-%02x %02x %02x %02x) -----(%02x %02x %02x %02x %02x "
        "%02x %02x %02x)\n",
        at.GetYear(), at.GetMonth(), at.GetDay(), at.GetHour(), at.GetMinute(), at.GetSecond(),
        FrameGetMS(), FrameGetCodec(), FrameGetType(), FrameGetFPS(), FrameGetLength(), m_size,
        payload[0], payload[1], payload[2], payload[3], payload[4], payload[5], payload[6],
        payload[7], payload[8], payload[9], payload[10], payload[11], payload[12], payload[13],
        payload[14], payload[15]);
}

// ---- user values ----

unsigned int CPacket::GetUserData(unsigned int index) const {
    return index < 4 ? m_user[index] : 0;
}

void CPacket::SetUserData(unsigned int index, unsigned int value) {
    if (index < 4)
        m_user[index] = value;
}

unsigned char CPacket::FrameGetRecType() const {
    return reinterpret_cast<const unsigned char*>(m_user)[0];
}

void CPacket::FrameSetRecType(unsigned char type) {
    reinterpret_cast<unsigned char*>(m_user)[0] = type;
}

unsigned char CPacket::FrameGetEvent() const {
    return reinterpret_cast<const unsigned char*>(m_user)[1];
}

void CPacket::FrameSetEvent(unsigned char event) {
    reinterpret_cast<unsigned char*>(m_user)[1] = event;
}

unsigned char CPacket::FrameGetEventSource(int n) const {
    return reinterpret_cast<const unsigned char*>(m_user)[n == 0 ? 2 : 3];
}

void CPacket::FrameSetEventSource(int n, unsigned char source) {
    reinterpret_cast<unsigned char*>(m_user)[n == 0 ? 2 : 3] = source;
}

// ---- frame header ----

void CPacket::FrameInit() {
    if (unsigned char* header = Header())
        std::memset(header, 0, kHeaderBytes);
}

unsigned char* CPacket::FrameGetData() const {
    unsigned char* header = Header();
    return header != nullptr ? header + kHeaderBytes : nullptr;
}

unsigned int CPacket::FrameGetSize() const {
    return Header() != nullptr ? FrameGetLength() + kHeaderBytes : 0;
}

unsigned int CPacket::FrameGetLength() const {
    return Get<unsigned int>(Header(), kLength);
}

void CPacket::FrameSetLength(unsigned int length) {
    Set(Header(), kLength, length);
}

unsigned char CPacket::FrameGetType() const {
    const unsigned char* header = Header();
    return header != nullptr ? static_cast<unsigned char>(header[kType] - kTypeBase) : kNoBuffer;
}

void CPacket::FrameSetType(unsigned char type) {
    unsigned char* header = Header();
    if (header == nullptr)
        return;
    Set<unsigned short>(header, 0, 0);
    header[kMarker] = 1;
    header[kType] = static_cast<unsigned char>(type + kTypeBase);
}

unsigned char CPacket::FrameGetCodec() const {
    return Get<unsigned char>(Header(), kCodec);
}

void CPacket::FrameSetCodec(unsigned char codec) {
    Set(Header(), kCodec, codec);
}

double CPacket::FrameGetFPS() const {
    return Get<unsigned char>(Header(), kRate) * 0.25;
}

void CPacket::FrameSetFPS(double fps) {
    // Written so that no number at all counts as 0, too.
    const double positive = fps > 0.0 ? fps : 0.0;
    Set(Header(), kRate, static_cast<unsigned char>((positive < 63.0 ? positive : 63.0) * 4.0));
}

unsigned short CPacket::FrameGetWidth() const {
    return Get<unsigned short>(Header(), kWidth);
}

void CPacket::FrameSetWidth(unsigned short width) {
    Set(Header(), kWidth, width);
}

unsigned short CPacket::FrameGetHeight() const {
    return Get<unsigned short>(Header(), kHeight);
}

void CPacket::FrameSetHeight(unsigned short height) {
    Set(Header(), kHeight, height);
}

unsigned short CPacket::FrameGetFreq() const {
    return Get<unsigned short>(Header(), kWidth);
}

void CPacket::FrameSetFreq(unsigned short freq) {
    Set(Header(), kWidth, freq);
}

unsigned char CPacket::FrameGetChnNum() const {
    return Get<unsigned char>(Header(), kRate);
}

void CPacket::FrameSetChannum(unsigned char channel) {
    Set(Header(), kRate, channel);
}

unsigned char CPacket::FrameGetObjType() const {
    return Get<unsigned char>(Header(), kRate);
}

void CPacket::FrameSetObjType(unsigned char type) {
    Set(Header(), kRate, type);
}

// ---- time ----

ZHTIME* CPacket::FrameGetTime() const {
    unsigned char* header = Header();
    return header != nullptr ? reinterpret_cast<ZHTIME*>(header + kTime) : nullptr;
}

void CPacket::FrameGetTime(ZHTIME* time, unsigned short* ms) const {
    const unsigned char* header = Header();
    if (header == nullptr)
        return;
    if (time != nullptr)
        *time = Get<ZHTIME>(header, kTime);
    if (ms != nullptr)
        *ms = Get<unsigned short>(header, kMS);
}

void CPacket::FrameGetTime(CKTTime* time) const {
    const unsigned char* header = Header();
    if (header == nullptr || time == nullptr)
        return;
    const ZHTIME word = Get<ZHTIME>(header, kTime);
    time->SetTime(&word, FrameGetMS());
}

unsigned short CPacket::FrameGetMS() const {
    return Get<unsigned short>(Header(), kMS);
}

void CPacket::FrameSetTime(ZHTIME* time, unsigned short ms) {
    if (time == nullptr)
        return;
    Set(Header(), kTime, *time);
    Set(Header(), kMS, ms);
}

void CPacket::FrameSetTime(CKTTime& time) {
    ZHTIME word = 0;
    time.GetTime(&word);
    FrameSetTime(&word, static_cast<unsigned short>(time.GetMS()));
}

void CPacket::FrameSetTime(timeval* time) {
    CKTTime converted(time);
    FrameSetTime(converted);
}

unsigned long long CPacket::FrameGetTimeStamp() const {
    const unsigned char* header = Header();
    if (header == nullptr)
        return 0;
    ZHTIME word = Get<ZHTIME>(header, kTime);
    const CKTTime at(&word, 0);
    const long long seconds =
        KTOsLocalToEpoch(static_cast<int>(at.GetYear()), static_cast<int>(at.GetMonth()),
                         static_cast<int>(at.GetDay()), static_cast<int>(at.GetHour()),
                         static_cast<int>(at.GetMinute()), static_cast<int>(at.GetSecond()));
    return seconds >= 0 ? static_cast<unsigned long long>(seconds) * 1000 + FrameGetMS() : 0;
}

// ---- kind of frame ----

bool CPacket::FrameIsVideo() const {
    const unsigned char type = FrameGetType();
    const unsigned char codec = FrameGetCodec();
    return type < 12 && !IsBetween(type, 2, 8) &&
           (FrameIsH264() || FrameIsH265() || codec == kVideoAndPicture);
}

bool CPacket::FrameIsAudio() const {
    const unsigned char codec = FrameGetCodec();
    return !IsSmartType(FrameGetType()) && (IsBetween(codec, 4, 9) || IsBetween(codec, 12, 13));
}

bool CPacket::FrameIsPicture() const {
    const unsigned char codec = FrameGetCodec();
    return codec == kPicture || codec == kVideoAndPicture;
}

bool CPacket::FrameIsSmart() const {
    return FrameGetCodec() == kSmart || IsSmartType(FrameGetType());
}

bool CPacket::FrameIsKey() const {
    const unsigned char type = FrameGetType();
    return type == 1 || type == 4 || type == 11;
}

bool CPacket::FrameIsVI() const {
    return HasCodecFlags() && FrameGetType() == 9;
}

bool CPacket::FrameHasVI() const {
    return HasCodecFlags() && (FrameGetCodec() & 4) != 0;
}

bool CPacket::FrameIsH264() const {
    const unsigned char codec = FrameGetCodec();
    return codec == kH264 || IsBetween(codec, kH264Flags, kH265Flags - 1);
}

bool CPacket::FrameIsH265() const {
    const unsigned char codec = FrameGetCodec();
    return codec == kH265 || IsBetween(codec, kH265Flags, kLastFlags);
}

bool CPacket::FrameIsCurrC() const {
    return FrameGetCodec() == kCurrC;
}

bool CPacket::FrameIsPOS() const {
    return FrameGetCodec() == kPOS;
}

unsigned int CPacket::FrameGetPBNum() const {
    return HasCodecFlags() ? FrameGetCodec() & 3 : 0;
}

bool CPacket::HasCodecFlags() const {
    return IsBetween(FrameGetCodec(), kH264Flags, kLastFlags);
}
