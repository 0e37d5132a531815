#include "KTBase/KTPacket.h"

namespace {

constexpr unsigned int kMost = 0xFFFFFFFFu;

// Bytes that a packet counts for.
unsigned int Bytes(const CPacket& packet) {
    const unsigned long long bytes = packet.FrameGetLength() + 20ull;
    return bytes < kMost ? static_cast<unsigned int>(bytes) : kMost;
}

}  // namespace

CKTPacketList::CKTPacketList(unsigned int maxVideo, unsigned int maxData)
    : m_dataSize(0), m_videoNum(0), m_maxVideo(maxVideo != 0 ? maxVideo : 32), m_maxData(maxData) {}

CKTPacketList::~CKTPacketList() {
    CKTPacketList::Clear();
}

void CKTPacketList::SetMaxVideoFrameNum(unsigned int maxVideo) {
    m_maxVideo = maxVideo;
}

void CKTPacketList::SetMaxDataSize(unsigned int maxData) {
    m_maxData = maxData;
}

unsigned int CKTPacketList::GetSize() const {
    return m_dataSize;
}

unsigned int CKTPacketList::GetVideoFrameNum() const {
    return m_videoNum;
}

int CKTPacketList::IsFull() const {
    return (m_maxVideo != 0 && m_videoNum >= m_maxVideo) ||
                   (m_maxData != 0 && m_dataSize >= m_maxData)
               ? 1
               : 0;
}

int CKTPacketList::PutPacket(CPacket* packet, int tail) {
    if (packet == nullptr)
        return KT_ARGUMENT;
    ZHTIME time = 0;
    packet->FrameGetTime(&time, nullptr);
    if (time == 0)
        return KT_ARGUMENT;
    if ((tail != 0 ? AddTail(packet) : AddHead(packet)) == nullptr)
        return KT_NO_MEMORY;
    Enter(*packet);
    return KT_OK;
}

CPacket* CKTPacketList::GetPacket(int tail) {
    CPacket* packet = nullptr;
    if ((tail != 0 ? RemoveTail(packet) : RemoveHead(packet)) != KT_OK)
        return nullptr;
    Leave(*packet);
    return packet;
}

void CKTPacketList::Clear() {
    RemoveAll();
    m_dataSize = 0;
    m_videoNum = 0;
}

int CKTPacketList::MoveTo(CKTPacketList* other) {
    if (other == nullptr)
        return KT_ERROR;
    if (other == this)
        return 0;
    int moved = 0;
    while (CPacket* packet = GetPacket(0)) {
        if (other->PutPacket(packet, 1) == KT_OK)
            ++moved;
        else
            packet->Release();
    }
    return moved;
}

void CKTPacketList::OnDataFree(CPacket*& packet) {
    Leave(*packet);
    packet->Release();
}

bool CKTPacketList::Counts(const CPacket& packet) const {
    return packet.FrameIsVideo() || packet.FrameIsPicture() || packet.FrameIsSmart() ||
           packet.FrameIsCurrC();
}

void CKTPacketList::Enter(const CPacket& packet) {
    const unsigned int bytes = Bytes(packet);
    m_dataSize = bytes < kMost - m_dataSize ? m_dataSize + bytes : kMost;
    if (Counts(packet))
        ++m_videoNum;
}

// A frame may have been edited while it was queued: the totals stop at 0, and what it left in them
// is gone when the list is empty.
void CKTPacketList::Leave(const CPacket& packet) {
    const unsigned int bytes = Bytes(packet);
    m_dataSize = bytes < m_dataSize ? m_dataSize - bytes : 0;
    if (m_videoNum != 0 && Counts(packet))
        --m_videoNum;
    if (IsEmpty())
        m_dataSize = m_videoNum = 0;
}

CKTPacketListEx::CKTPacketListEx(unsigned int maxVideo, unsigned int maxData)
    : CKTPacketList(maxVideo, maxData) {}

CKTPacketListEx::~CKTPacketListEx() {
    CKTPacketListEx::Clear();
}

bool CKTPacketListEx::Counts(const CPacket& packet) const {
    return packet.FrameIsVideo() || packet.FrameIsPicture();
}
