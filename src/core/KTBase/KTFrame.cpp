#include "KTBase/KTFrame.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTPacket.h"

namespace {

constexpr unsigned short kMostAlign = 31;
constexpr unsigned long long kMostStride = 0x7FFFFFFF;
constexpr unsigned long long kMostSize = 0xFFFFFFFF;
constexpr unsigned int kPlanes = 3;

/// Lets slot hold one reference to object instead of what it holds; null holds nothing.
template <typename Counted>
void Hold(Counted*& slot, Counted* object) {
    if (object == slot)
        return;
    if (object != nullptr)
        object->AddRef();
    Counted* old = slot;
    slot = object;
    if (old != nullptr)
        old->Release();
}

int CopyPlane(CKTPacketPIC& to, unsigned int plane, const tag_KTFRAME& from) {
    const std::ptrdiff_t pitch = from.stride[plane];
    if (to.GetLines(plane) == 0)
        return KT_OK;
    if (from.plane[plane] == nullptr || pitch == 0)
        return KT_ARGUMENT;
    // Chroma lines may be shorter than half a line of plane 0: nothing is read behind the last one.
    const std::size_t bytes = std::min<long long>(to.GetBytes(plane), std::abs(pitch));
    for (unsigned int line = 0; line < to.GetLines(plane); ++line)
        std::memcpy(to.GetLine(plane, line), from.plane[plane] + pitch * line, bytes);
    return KT_OK;
}

/// copy: a new picture, or null when the result is not 0.
int CopyPicture(const tag_KTFRAME* in, CKTPacketPIC*& copy) {
    copy = nullptr;
    if (in == nullptr || in->format != KTPIXEL_YV12)
        return KT_ARGUMENT;
    unsigned int lineBytes = static_cast<unsigned int>(in->stride[0]);
    CKTPacketPIC* picture =
        CKTPacketPIC::Acquire(in->width, in->height, KTPIXEL_YV12, &lineBytes, 0);
    if (picture == nullptr)
        return KT_NO_MEMORY;
    for (unsigned int plane = 0; plane < kPlanes; ++plane) {
        if (CopyPlane(*picture, plane, *in) != KT_OK) {
            picture->Release();
            return KT_ARGUMENT;
        }
    }
    copy = picture;
    return KT_OK;
}

}  // namespace

// ---- picture ----

CKTPacketPIC::CKTPacketPIC(unsigned short align)
    : m_ref(1),
      m_align(align),
      m_format(KTPIXEL_NONE),
      m_width(0),
      m_height(0),
      m_lines(),
      m_bytes(),
      m_stride(),
      m_plane(),
      m_packet(nullptr) {}

CKTPacketPIC::~CKTPacketPIC() {
    Reset();
}

CKTPacketPIC* CKTPacketPIC::Acquire(unsigned short align) {
    CKTPacketPIC* picture = new CKTPacketPIC(align);
    if (picture == nullptr)
        return nullptr;
    // Memory may have run out for the lock alone.
    if (picture->m_lock.Enter(0) == 0) {
        delete picture;
        return nullptr;
    }
    picture->m_lock.Leave();
    return picture;
}

CKTPacketPIC* CKTPacketPIC::Acquire(unsigned int width, unsigned int height, unsigned short format,
                                    unsigned int* stride, unsigned short align) {
    CKTPacketPIC* picture = Acquire(align);
    if (picture != nullptr && picture->Init(width, height, format, stride, align) != KT_OK) {
        delete picture;
        picture = nullptr;
    }
    return picture;
}

int CKTPacketPIC::AddRef() {
    CKTGuard hold(m_lock);
    return ++m_ref;
}

int CKTPacketPIC::Release() {
    int left;
    {
        CKTGuard hold(m_lock);
        left = --m_ref;
    }
    if (left > 0)
        return left;
    if (left < 0)
        KTFault("src/core/KTBase/KTFrame", "CKTPacketPIC::Release", 59);
    delete this;
    return 0;
}

int CKTPacketPIC::Init(unsigned int width, unsigned int height, unsigned short format,
                       unsigned int* stride, unsigned short align) {
    if (width == m_width && height == m_height && format == m_format && align == m_align)
        return KT_OK;
    const unsigned int lineBytes = stride != nullptr ? *stride : width;
    Reset();
    if (align > kMostAlign)
        return KT_UNSUPPORTED;
    m_align = align;
    m_width = width;
    m_height = height;
    const int result = SetUp(format, lineBytes);
    if (result == KT_OK)
        m_format = format;
    else
        Reset();
    return result;
}

void CKTPacketPIC::Reset() {
    if (m_packet != nullptr)
        m_packet->Release();
    m_packet = nullptr;
    m_format = KTPIXEL_NONE;
    m_width = 0;
    m_height = 0;
    for (unsigned int i = 0; i < kPlanes; ++i) {
        m_lines[i] = 0;
        m_bytes[i] = 0;
        m_stride[i] = 0;
        m_plane[i] = nullptr;
    }
}

unsigned long long CKTPacketPIC::Aligned(unsigned long long bytes) const {
    const unsigned long long mask = (1ull << m_align) - 1;
    return (bytes + mask) & ~mask;
}

bool CKTPacketPIC::TakePacket(unsigned long long size) {
    m_packet = size <= kMostSize ? CPacket::Acquire(static_cast<unsigned int>(size), 0) : nullptr;
    return m_packet != nullptr;
}

int CKTPacketPIC::SetUp(unsigned short format, unsigned int lineBytes) {
    switch (format) {
        case KTPIXEL_RGB24:
            return SetUpPacked(3);
        case KTPIXEL_RGB32:
            return SetUpPacked(4);
        case KTPIXEL_UYVY:
            return SetUpPacked(2);
        case KTPIXEL_YV12:
            return SetUpYV12(lineBytes);
        default:
            return KT_UNSUPPORTED;
    }
}

int CKTPacketPIC::SetUpPacked(unsigned int pixelBytes) {
    if (m_width == 0 || m_height == 0)
        return KT_OK;
    const unsigned long long bytes = static_cast<unsigned long long>(m_width) * pixelBytes;
    const unsigned long long stride = Aligned(bytes);
    // Not times the height: programs know the packet by this size.
    if (stride > kMostStride || !TakePacket(stride * bytes))
        return KT_NO_MEMORY;
    m_bytes[0] = static_cast<unsigned int>(bytes);
    m_stride[0] = static_cast<int>(stride);
    m_plane[0] = m_packet->GetData();
    return KT_OK;
}

int CKTPacketPIC::SetUpYV12(unsigned int lineBytes) {
    if (m_width == 0 || m_height == 0)
        return KT_OK;
    const unsigned long long stride = Aligned(lineBytes);
    const unsigned long long chromaStride = Aligned(lineBytes / 2);
    const unsigned long long luma = stride * m_height;
    const unsigned long long chroma = chromaStride * (m_height / 2);
    if (stride > kMostStride || !TakePacket(luma + 2 * chroma))
        return KT_NO_MEMORY;
    for (unsigned int i = 0; i < kPlanes; ++i) {
        m_lines[i] = i == 0 ? m_height : m_height / 2;
        m_bytes[i] = i == 0 ? lineBytes : lineBytes / 2;
        m_stride[i] = static_cast<int>(i == 0 ? stride : chromaStride);
    }
    m_plane[0] = m_packet->GetData();
    m_plane[1] = m_plane[0] + luma;
    m_plane[2] = m_plane[1] + chroma;
    return KT_OK;
}

unsigned char* CKTPacketPIC::GetLine(unsigned int plane, unsigned int line) const {
    if (GetPlane(plane) == nullptr || line >= m_lines[plane])
        return nullptr;
    const std::ptrdiff_t stride = m_stride[plane];
    if (stride < 1)
        return m_plane[plane] - stride * (m_lines[plane] - line - 1);
    return m_plane[plane] + stride * line;
}

int CKTPacketPIC::SetLine(unsigned int plane, unsigned int line, const unsigned char* src,
                          int srcPitch, unsigned int count) {
    if (src == nullptr || GetLine(plane, line) == nullptr)
        return KT_ARGUMENT;
    const unsigned int lines = std::min(count, m_lines[plane] - line);
    // The source may lie in this picture.
    for (unsigned int i = 0; i < lines; ++i)
        std::memmove(GetLine(plane, line + i), src + static_cast<std::ptrdiff_t>(srcPitch) * i,
                     m_bytes[plane]);
    return KT_OK;
}

unsigned char* CKTPacketPIC::GetPlane(unsigned int plane) const {
    return plane < kPlanes ? m_plane[plane] : nullptr;
}

unsigned int CKTPacketPIC::GetLines(unsigned int plane) const {
    return plane < kPlanes ? m_lines[plane] : 0;
}

unsigned int CKTPacketPIC::GetBytes(unsigned int plane) const {
    return plane < kPlanes ? m_bytes[plane] : 0;
}

int CKTPacketPIC::GetStride(unsigned int plane) const {
    return plane < kPlanes ? m_stride[plane] : 0;
}

// ---- frame ----

CKTFrame::CKTFrame() : m_video(nullptr), m_smart(nullptr), m_picture(nullptr) {}

CKTFrame::~CKTFrame() {
    Clear();
}

int CKTFrame::SetVideo(CPacket* video) {
    Hold(m_video, video);
    return KT_OK;
}

int CKTFrame::SetSmart(CPacket* smart) {
    Hold(m_smart, smart);
    return KT_OK;
}

int CKTFrame::SetPicture(CKTPacketPIC* picture) {
    Hold(m_picture, picture);
    return KT_OK;
}

void CKTFrame::Clear() {
    Hold<CPacket>(m_video, nullptr);
    Hold<CPacket>(m_smart, nullptr);
    Hold<CKTPacketPIC>(m_picture, nullptr);
}

int CKTFrame::GetPicture(tag_KTFRAME* out) const {
    if (out == nullptr)
        return KT_ARGUMENT;
    *out = {};
    if (m_picture == nullptr)
        return KT_EMPTY;
    out->format = m_picture->GetFormat();
    for (unsigned int i = 0; i < kPlanes; ++i) {
        out->plane[i] = m_picture->GetLine(i, 0);
        out->stride[i] = m_picture->GetStride(i);
    }
    out->width = m_picture->GetWidth();
    out->height = m_picture->GetHeight();
    return KT_OK;
}

int CKTFrame::SetPicture(tag_KTFRAME* in) {
    CKTPacketPIC* old = m_picture;
    const int result = CopyPicture(in, m_picture);
    // Held until now: in may point into it.
    if (old != nullptr)
        old->Release();
    return result;
}
