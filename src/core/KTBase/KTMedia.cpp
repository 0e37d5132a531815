#include "KTBase/KTMedia.h"

#include <cstring>

#include "KTBase/KTH26X.h"
#include "KTBase/KTPacket.h"

namespace {

constexpr unsigned int kCodeBytes = 4;        // 00 00 00 01
constexpr unsigned int kH264HeaderBytes = 1;  // of a unit
constexpr unsigned int kH265HeaderBytes = 2;
constexpr unsigned int kPacketHeaderBytes = 20;

constexpr unsigned short kH264 = 1;
constexpr unsigned short kH265 = 2;
// The audio codecs that a head is made for without a packet.
constexpr unsigned short kFirstPlainAudio = 4;
constexpr unsigned short kLastPlainAudio = 5;

/// Unit types, nal_unit_type.
enum H264Type : unsigned int { kH264SPS = 7, kH264PPS = 8 };
enum H265Type : unsigned int { kH265VPS = 32, kH265SPS = 33, kH265PPS = 34 };

bool IsVideoKey(const CPacket& packet) {
    return packet.FrameIsVideo() && packet.FrameIsKey();
}

/// Whether a stored set has this body. Its header is not compared.
bool HasBody(const CKTString& set, unsigned int headerBytes, const unsigned char* data,
             unsigned int len) {
    const unsigned int front = kCodeBytes + headerBytes;
    return set.GetLength() > front && set.GetLength() - front == len &&
           std::memcmp(set.GetBuffer() + front, data, len) == 0;
}

/// The stored form of a set. Returns 0 or -6.
int BuildSet(CKTString& out, unsigned int header, unsigned int headerBytes,
             const unsigned char* data, unsigned int len) {
    const unsigned char front[] = {
        0, 0, 0, 1, static_cast<unsigned char>(header), static_cast<unsigned char>(header >> 8)};
    if (out.AppendDAT(front, kCodeBytes + headerBytes) < 0 || out.AppendDAT(data, len) < 0)
        return KT_NO_MEMORY;
    return KT_OK;
}

/// Puts a built set in the place of another. Returns 0 or -6.
int ReplaceSet(CKTString& set, const CKTString& built) {
    // Room first, and the byte that strings grow early by: one that cannot grow loses its content.
    const unsigned int room = built.GetLength() + 1;
    if (set.Size() <= room && set.AllocBuffer(room) < 0)
        return KT_NO_MEMORY;
    set = built;
    return KT_OK;
}

/// Stores a set that needs no decoding. Returns 0 or -6.
int StoreSet(CKTString& set, unsigned int header, unsigned int headerBytes,
             const unsigned char* data, unsigned int len) {
    if (HasBody(set, headerBytes, data, len))
        return KT_OK;
    CKTString built;  // apart: data may lie in set
    const int result = BuildSet(built, header, headerBytes, data, len);
    return result == KT_OK ? ReplaceSet(set, built) : result;
}

int CopySet(CKTString& out, const CKTString& set) {
    out = set;
    return out.GetLength() == set.GetLength() ? KT_OK : KT_NO_MEMORY;
}

/// Hands each unit of the payload to SetNAL, which passes over all but parameter sets.
/// Returns 0 or -6.
int TakeUnits(CKTVideoHead& head, const CPacket& packet, unsigned int headerBytes) {
    const unsigned char* unit = packet.FrameGetData();
    const unsigned int capacity = packet.GetSize() - kPacketHeaderBytes;
    unsigned int rest = packet.FrameGetLength();
    if (rest > capacity)
        rest = capacity;
    const unsigned int front = kCodeBytes + headerBytes;
    while (rest > front) {
        const int next = H26XFindNextNal(unit, rest);
        const unsigned int length = next < 0 ? rest : static_cast<unsigned int>(next);
        if (length > front) {
            unsigned int header = unit[kCodeBytes];
            if (headerBytes == kH265HeaderBytes)
                header |= static_cast<unsigned int>(unit[kCodeBytes + 1]) << 8;
            if (head.SetNAL(header, unit + front, length - front) == KT_NO_MEMORY)
                return KT_NO_MEMORY;
        }
        unit += length;
        rest -= length;
    }
    return KT_OK;
}

/// What GetData and GetLength do. out null: only the length.
unsigned int JoinSets(unsigned char* out, unsigned int flags, const CKTString& sps,
                      const CKTString& pps, const CKTString* vps) {
    const struct {
        const CKTString* set;
        unsigned int without;
    } sets[] = {
        {&sps, CKTVideoHead::kNoSPS}, {&pps, CKTVideoHead::kNoPPS}, {vps, CKTVideoHead::kNoVPS}};
    unsigned int total = 0;
    for (const auto& each : sets) {
        if (each.set == nullptr || each.set->IsEmpty() || (flags & each.without) != 0)
            continue;
        if (out != nullptr)
            std::memcpy(out + total, each.set->GetBuffer(), each.set->GetLength());
        total += each.set->GetLength();
    }
    return total;
}

/// The head's copy as its own class; null when there is no head or memory is out.
template <class Head>
Head* CloneOf(const Head* head) {
    return head != nullptr ? static_cast<Head*>(head->Clone()) : nullptr;
}

template <class Head>
void ReleaseHead(Head*& head) {
    if (head != nullptr)
        head->Release();
    head = nullptr;
}

/// Returns 0 or -6.
template <class Head>
int ReplaceHead(Head*& held, Head* head) {
    if (head == held)
        return KT_OK;
    Head* const copy = CloneOf(head);
    if (head != nullptr && copy == nullptr)
        return KT_NO_MEMORY;
    ReleaseHead(held);
    held = copy;
    return KT_OK;
}

template <class Head>
void FollowPacket(Head*& held, CPacket* packet) {
    if (held != nullptr && !held->Check(packet))
        ReleaseHead(held);
    if (held == nullptr)
        held = Head::CreateHead(packet);
}

}  // namespace

// ---- CKTMediaHead ----

CKTMediaHead::~CKTMediaHead() = default;

int CKTMediaHead::Release() {
    delete this;
    return KT_OK;
}

bool CKTMediaHead::IsVideo() const {
    return false;
}

bool CKTMediaHead::IsAudio() const {
    return false;
}

bool CKTMediaHead::IsH264() const {
    return false;
}

bool CKTMediaHead::IsH265() const {
    return false;
}

bool CKTMediaHead::Check(CPacket*) const {
    return false;
}

bool CKTMediaHead::Check(CKTMediaHead*) const {
    return false;
}

bool CKTMediaHead::SetCodec(unsigned short codec) {
    m_codec = codec;
    return true;
}

// ---- CKTAudioHead ----

CKTAudioHead::CKTAudioHead(unsigned short codec) {
    m_codec = codec;
}

CKTAudioHead::~CKTAudioHead() = default;

CKTAudioHead* CKTAudioHead::CreateHead(CPacket* packet) {
    if (packet == nullptr || !packet->FrameIsAudio())
        return nullptr;
    CKTAudioHead* const head = new CKTAudioHead(kFirstPlainAudio);
    if (head != nullptr && head->Setup(packet) != KT_OK) {
        head->Release();
        return nullptr;
    }
    return head;
}

CKTAudioHead* CKTAudioHead::CreateHead(unsigned short codec, unsigned short channels,
                                       unsigned int freq) {
    if (codec < kFirstPlainAudio || codec > kLastPlainAudio)
        return nullptr;
    CKTAudioHead* const head = new CKTAudioHead(codec);
    if (head != nullptr) {
        head->m_channels = channels;
        head->m_freq = freq;
    }
    return head;
}

bool CKTAudioHead::IsAudio() const {
    return true;
}

bool CKTAudioHead::Check(CPacket* packet) const {
    return packet != nullptr && packet->FrameIsAudio() && packet->FrameGetCodec() == m_codec;
}

bool CKTAudioHead::Check(CKTMediaHead* other) const {
    if (other == nullptr || !other->IsAudio())
        return false;
    const CKTAudioHead* const audio = static_cast<const CKTAudioHead*>(other);
    return audio->m_codec == m_codec && audio->m_freq == m_freq && audio->m_channels == m_channels;
}

CKTMediaHead* CKTAudioHead::Clone() const {
    CKTAudioHead* const copy = new CKTAudioHead(m_codec);
    if (copy != nullptr) {
        copy->m_channels = m_channels;
        copy->m_freq = m_freq;
    }
    return copy;
}

int CKTAudioHead::Setup(CPacket* packet) {
    if (packet == nullptr)
        return KT_ARGUMENT;
    if (!packet->FrameIsAudio())
        return KT_UNSUPPORTED;
    m_codec = packet->FrameGetCodec();
    m_channels = 1;
    m_freq = packet->FrameGetFreq();
    return KT_OK;
}

// ---- CKTVideoHead ----

CKTVideoHead::~CKTVideoHead() = default;

CKTVideoHead* CKTVideoHead::CreateHead(CPacket* packet) {
    if (packet == nullptr || !IsVideoKey(*packet))
        return nullptr;
    CKTVideoHead* head = nullptr;
    if (packet->FrameIsH264())
        head = new CKTH264Head;
    else if (packet->FrameIsH265())
        head = new CKTH265Head;
    if (head != nullptr && head->Setup(packet) != KT_OK) {
        head->Release();
        return nullptr;
    }
    return head;
}

bool CKTVideoHead::IsVideo() const {
    return true;
}

bool CKTVideoHead::IsSameFrame(CPacket* packet, unsigned short codec) const {
    return packet != nullptr && IsVideoKey(*packet) && packet->FrameGetCodec() == codec &&
           packet->FrameGetWidth() == m_width && packet->FrameGetHeight() == m_height;
}

bool CKTVideoHead::IsSameFormat(const CKTVideoHead& other) const {
    return other.m_width == m_width && other.m_height == m_height && other.m_profile == m_profile;
}

void CKTVideoHead::CopyFormat(const CKTVideoHead& other) {
    m_codec = other.m_codec;
    m_width = other.m_width;
    m_height = other.m_height;
    m_profile = other.m_profile;
}

// ---- CKTH264Head ----

CKTH264Head::CKTH264Head() {
    m_codec = kH264;
}

CKTH264Head::~CKTH264Head() = default;

int CKTH264Head::FindNextNal(const unsigned char* buf, unsigned int len) {
    return H26XFindNextNal(buf, len);
}

bool CKTH264Head::IsH264() const {
    return true;
}

bool CKTH264Head::Check(CPacket* packet) const {
    return IsSameFrame(packet, GetCodec());
}

bool CKTH264Head::Check(CKTMediaHead* other) const {
    return other != nullptr && other->IsH264() &&
           IsSameFormat(*static_cast<const CKTVideoHead*>(other));
}

CKTMediaHead* CKTH264Head::Clone() const {
    CKTH264Head* const copy = new CKTH264Head;
    if (copy == nullptr)
        return nullptr;
    copy->CopyFormat(*this);
    if (GetSPS(copy->m_sps) != KT_OK || GetPPS(copy->m_pps) != KT_OK) {
        copy->Release();
        return nullptr;
    }
    return copy;
}

int CKTH264Head::Setup(CPacket* packet) {
    if (packet == nullptr)
        return KT_ARGUMENT;
    if (!IsVideoKey(*packet) || !packet->FrameIsH264())
        return KT_UNSUPPORTED;
    m_codec = packet->FrameGetCodec();
    return TakeUnits(*this, *packet, kH264HeaderBytes);
}

int CKTH264Head::SetNAL(unsigned int header, const unsigned char* data, unsigned int len) {
    if (data == nullptr || len == 0)
        return KT_ARGUMENT;
    switch (header & 31) {
        case kH264SPS:
            return SetSPS(header, data, len);
        case kH264PPS:
            return StoreSet(m_pps, header, kH264HeaderBytes, data, len);
        default:
            return KT_ERROR;
    }
}

int CKTH264Head::GetData(unsigned char* out, unsigned int flags) const {
    if (out == nullptr)
        return KT_ARGUMENT;
    return static_cast<int>(JoinSets(out, flags, m_sps, m_pps, nullptr));
}

unsigned int CKTH264Head::GetLength(unsigned int flags) const {
    return JoinSets(nullptr, flags, m_sps, m_pps, nullptr);
}

bool CKTH264Head::IsValid() const {
    return m_width != 0 && m_height != 0 && !m_sps.IsEmpty() && !m_pps.IsEmpty();
}

unsigned short CKTH264Head::GetCodec() const {
    return m_codec;
}

int CKTH264Head::GetSPS(CKTString& out) const {
    return CopySet(out, m_sps);
}

int CKTH264Head::GetPPS(CKTString& out) const {
    return CopySet(out, m_pps);
}

int CKTH264Head::SetSPS(unsigned int header, const unsigned char* data, unsigned int len) {
    if (m_width != 0 && HasBody(m_sps, kH264HeaderBytes, data, len))
        return KT_OK;
    unsigned int width = 0;
    unsigned int height = 0;
    unsigned int profile = 0;
    if (H264DecodeSPS(data, len, &width, &height, &profile) == 0)
        return KT_MALFORMED;
    CKTString built;  // apart: data may lie in the stored set
    if (BuildSet(built, header, kH264HeaderBytes, data, len) != KT_OK ||
        ReplaceSet(m_sps, built) != KT_OK)
        return KT_NO_MEMORY;
    m_width = static_cast<unsigned short>(width);
    m_height = static_cast<unsigned short>(height);
    m_profile = profile;
    return KT_OK;
}

// ---- CKTH265Head ----

CKTH265Head::CKTH265Head() {
    m_codec = kH265;
}

CKTH265Head::~CKTH265Head() = default;

int CKTH265Head::FindNextNal(const unsigned char* buf, unsigned int len) {
    return H26XFindNextNal(buf, len);
}

bool CKTH265Head::IsH265() const {
    return true;
}

bool CKTH265Head::Check(CPacket* packet) const {
    return IsSameFrame(packet, GetCodec());
}

bool CKTH265Head::Check(CKTMediaHead* other) const {
    // By the codec's number and not by the class: callers tell streams with flags (32-47) from
    // plain ones by this answer.
    return other != nullptr && other->IsVideo() && other->GetCodec() == kH265 &&
           IsSameFormat(*static_cast<const CKTVideoHead*>(other));
}

CKTMediaHead* CKTH265Head::Clone() const {
    CKTH265Head* const copy = new CKTH265Head;
    if (copy == nullptr)
        return nullptr;
    copy->CopyFormat(*this);
    if (GetSPS(copy->m_sps) != KT_OK || GetPPS(copy->m_pps) != KT_OK ||
        GetVPS(copy->m_vps) != KT_OK) {
        copy->Release();
        return nullptr;
    }
    return copy;
}

int CKTH265Head::Setup(CPacket* packet) {
    if (packet == nullptr)
        return KT_ARGUMENT;
    if (!IsVideoKey(*packet) || !packet->FrameIsH265())
        return KT_UNSUPPORTED;
    m_codec = packet->FrameGetCodec();
    return TakeUnits(*this, *packet, kH265HeaderBytes);
}

int CKTH265Head::SetNAL(unsigned int header, const unsigned char* data, unsigned int len) {
    if (data == nullptr || len == 0)
        return KT_ARGUMENT;
    switch (header >> 1 & 63) {
        case kH265SPS:
            return SetSPS(header, data, len);
        case kH265PPS:
            return StoreSet(m_pps, header, kH265HeaderBytes, data, len);
        case kH265VPS:
            return StoreSet(m_vps, header, kH265HeaderBytes, data, len);
        default:
            return KT_ERROR;
    }
}

int CKTH265Head::GetData(unsigned char* out, unsigned int flags) const {
    if (out == nullptr)
        return KT_ARGUMENT;
    return static_cast<int>(JoinSets(out, flags, m_sps, m_pps, &m_vps));
}

unsigned int CKTH265Head::GetLength(unsigned int flags) const {
    return JoinSets(nullptr, flags, m_sps, m_pps, &m_vps);
}

bool CKTH265Head::IsValid() const {
    return m_width != 0 && m_height != 0 && !m_sps.IsEmpty() && !m_pps.IsEmpty() &&
           !m_vps.IsEmpty();
}

unsigned short CKTH265Head::GetCodec() const {
    return m_codec;
}

int CKTH265Head::GetSPS(CKTString& out) const {
    return CopySet(out, m_sps);
}

int CKTH265Head::GetPPS(CKTString& out) const {
    return CopySet(out, m_pps);
}

int CKTH265Head::GetVPS(CKTString& out) const {
    return CopySet(out, m_vps);
}

int CKTH265Head::SetSPS(unsigned int header, const unsigned char* data, unsigned int len) {
    if (m_width != 0 && HasBody(m_sps, kH265HeaderBytes, data, len))
        return KT_OK;
    unsigned int width = 0;
    unsigned int height = 0;
    if (H265DecodeSPS(data, static_cast<int>(len), &width, &height, nullptr) == 0)
        return KT_MALFORMED;
    CKTString built;  // apart: data may lie in the stored set
    if (BuildSet(built, header, kH265HeaderBytes, data, len) != KT_OK ||
        ReplaceSet(m_sps, built) != KT_OK)
        return KT_NO_MEMORY;
    m_width = static_cast<unsigned short>(width);
    m_height = static_cast<unsigned short>(height);
    return KT_OK;
}

// ---- CKTMediaDesc ----

CKTMediaDesc::CKTMediaDesc(unsigned int kind) : m_kind(kind) {}

CKTMediaDesc::~CKTMediaDesc() {
    Reset();
}

CKTMediaDesc* CKTMediaDesc::Create(unsigned int kind) {
    return new CKTMediaDesc(kind);
}

int CKTMediaDesc::Release() {
    delete this;
    return KT_OK;
}

CKTMediaDesc* CKTMediaDesc::Clone() const {
    CKTMediaDesc* const copy = Create(m_kind);
    if (copy == nullptr)
        return nullptr;
    if (copy->SetVideoHead(m_video) != KT_OK || copy->SetAudioHead(m_audio) != KT_OK) {
        copy->Release();
        return nullptr;
    }
    copy->m_start = m_start;
    copy->m_durationMs = m_durationMs;
    return copy;
}

void CKTMediaDesc::Reset() {
    ReleaseHead(m_video);
    ReleaseHead(m_audio);
}

int CKTMediaDesc::Setup(CPacket* packet) {
    if (packet == nullptr)
        return KT_ARGUMENT;
    if (IsVideoKey(*packet))
        FollowPacket(m_video, packet);
    else if (packet->FrameIsAudio())
        FollowPacket(m_audio, packet);
    return KT_OK;
}

int CKTMediaDesc::SetupAudio(unsigned short codec, unsigned short channels, unsigned int freq) {
    ReleaseHead(m_audio);
    m_audio = CKTAudioHead::CreateHead(codec, channels, freq);
    return KT_OK;
}

int CKTMediaDesc::SetVideoHead(CKTVideoHead* head) {
    return ReplaceHead(m_video, head);
}

int CKTMediaDesc::SetAudioHead(CKTAudioHead* head) {
    return ReplaceHead(m_audio, head);
}

int CKTMediaDesc::SetTimeS(CKTTime* start) {
    if (start == nullptr)
        return KT_ARGUMENT;
    m_start.clone(start);
    return KT_OK;
}

int CKTMediaDesc::SetTimeE(CKTTime* end) {
    if (end == nullptr)
        return KT_ARGUMENT;
    if (m_start.IsEmpty())
        return KT_BAD_STATE;
    const long long milliseconds = (*end - m_start) * 1000 + static_cast<long long>(end->GetMS()) -
                                   static_cast<long long>(m_start.GetMS());
    m_durationMs = milliseconds > 0 ? static_cast<unsigned long long>(milliseconds) : 0;
    return KT_OK;
}

unsigned long long CKTMediaDesc::GetSeconds() const {
    return m_durationMs / 1000 + (m_durationMs % 1000 != 0 ? 1 : 0);
}
