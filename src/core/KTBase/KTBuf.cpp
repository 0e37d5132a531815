#include "KTBase/KTBuf.h"

#include <cstdint>
#include <cstring>

#include "KTBase/KTDebug.h"
#include "KTBase/KTPacket.h"

namespace {

constexpr unsigned int kPacketTag = 86;
constexpr unsigned int kMostBits = 31;

/// Whether that many pages exist and can be counted in 32 bits of bytes.
bool IsShape(unsigned long long pagenum, unsigned int pagebit) {
    return pagenum != 0 && pagebit <= kMostBits && pagenum <= 0xFFFFFFFFu >> pagebit;
}

unsigned long long Address(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

/// The first page boundary strictly above p.
char* NextPage(char* p, unsigned int pagebit) {
    const unsigned long long size = 1ull << pagebit;
    return p + (size - Address(p) % size);
}

}  // namespace

CKTPageBuffer::CKTPageBuffer() : m_base(nullptr), m_buffer(nullptr), m_pagebit(0), m_pagenum(0) {}

CKTPageBuffer::~CKTPageBuffer() {
    CKTPageBuffer::Destroy();
}

int CKTPageBuffer::CreatePages(unsigned int pagenum, unsigned int pagebit) {
    Destroy();
    if (!IsShape(pagenum, pagebit))
        return KT_ERROR;
    // One page more than asked for, to align the first.
    m_base = reinterpret_cast<char*>(ZMKMalloc((static_cast<std::size_t>(pagenum) + 1) << pagebit));
    if (m_base == nullptr)
        return KT_ERROR;
    m_buffer = NextPage(m_base, pagebit);
    m_pagebit = pagebit;
    m_pagenum = pagenum;
    return KT_OK;
}

int CKTPageBuffer::CreatePages(char* mem, unsigned int pagenum, unsigned int pagebit) {
    if (mem == nullptr || !IsShape(pagenum, pagebit) || !IsAligned(Address(mem), pagebit))
        return KT_ERROR;
    UseMemory(mem, pagenum, pagebit);
    return KT_OK;
}

int CKTPageBuffer::Create(unsigned int size, unsigned int pagebit) {
    if (size == 0 || pagebit > kMostBits)
        return KT_ERROR;
    return CreatePages(((size - 1) >> pagebit) + 1, pagebit);
}

int CKTPageBuffer::Create(char* mem, unsigned int size, unsigned int pagebit) {
    if (mem == nullptr || size == 0) {
        KTFault("src/core/KTBase/KTBuf", "CKTPageBuffer::Create", 107);
        return KT_ERROR;
    }
    if (pagebit > kMostBits)
        return KT_ERROR;
    char* start = IsAligned(Address(mem), pagebit) ? mem : NextPage(mem, pagebit);
    const unsigned long long skipped = static_cast<unsigned long long>(start - mem);
    if (skipped >= size || (size - skipped) >> pagebit == 0)
        return KT_ERROR;
    UseMemory(start, static_cast<unsigned int>((size - skipped) >> pagebit), pagebit);
    return KT_OK;
}

void CKTPageBuffer::UseMemory(char* start, unsigned int pagenum, unsigned int pagebit) {
    Destroy();
    m_buffer = start;
    m_pagebit = pagebit;
    m_pagenum = pagenum;
}

int CKTPageBuffer::Destroy() {
    ZMKFree(m_base);
    m_base = nullptr;
    m_buffer = nullptr;
    m_pagebit = 0;
    m_pagenum = 0;
    return KT_OK;
}

char* CKTPageBuffer::GetBuffer(unsigned int page) const {
    if (m_buffer == nullptr || page >= m_pagenum)
        return nullptr;
    return m_buffer + (static_cast<std::size_t>(page) << m_pagebit);
}

unsigned int CKTPageBuffer::GetPageNum() const {
    return m_pagenum;
}

unsigned int CKTPageBuffer::GetSize() const {
    return m_pagenum << m_pagebit;
}

void CKTPageBuffer::Clear(unsigned int page, unsigned int count) {
    char* start = GetBuffer(page);
    if (start == nullptr)
        return;
    const unsigned int left = m_pagenum - page;
    const std::size_t pages = count == 0 || count > left ? left : count;
    std::memset(start, 0, pages << m_pagebit);
}

bool CKTPageBuffer::IsAligned(unsigned long long addr) const {
    return IsAligned(addr, m_pagebit);
}

bool CKTPageBuffer::IsAligned(unsigned long long addr, unsigned int pagebit) {
    if (pagebit > 63)
        return addr == 0;
    return addr % (1ull << pagebit) == 0;
}

void CKTPageBuffer::Dump() {
    KTPrintf(
        "CKTPageBuffer::Dump--->base = %p, buffer = %p, pagebit = %d, pagenum = %d, size = %d\n",
        static_cast<void*>(m_base), static_cast<void*>(m_buffer), m_pagebit, m_pagenum, GetSize());
}

CKTPageBufferExt::CKTPageBufferExt() : m_packet(nullptr) {}

CKTPageBufferExt::~CKTPageBufferExt() {
    CKTPageBufferExt::Destroy();
}

int CKTPageBufferExt::Destroy() {
    CKTPageBuffer::Destroy();
    if (m_packet != nullptr)
        m_packet->Release();
    m_packet = nullptr;
    return KT_OK;
}

int CKTPageBufferExt::Create(unsigned int pagenum, unsigned int pagebit, CPacket*& packet) {
    if (!IsShape(pagenum, pagebit))
        return KT_ERROR;
    // What is held would not fit the new page size.
    Destroy();
    m_pagebit = pagebit;
    packet = CPacket::Acquire(pagenum << pagebit, kPacketTag);
    if (packet != nullptr)
        return KT_OK;
    // The class's name stands in the line twice: searches of field logs rely on it.
    KTPrintf("CKTPageBufferExt::%s(%d)-------->Create Packet Error. pagenum = %d, pagebit = %d\n",
             "CKTPageBufferExt::Create", 222, pagenum, pagebit);
    return CKTPageBuffer::CreatePages(pagenum, pagebit);
}

int CKTPageBufferExt::CreatePages(unsigned int pagenum, unsigned int pagebit) {
    Destroy();
    int result = Create(pagenum, pagebit, m_packet);
    if (result != KT_OK)
        return result;
    m_pagenum = pagenum;
    if (m_packet == nullptr)
        return KT_OK;
    m_buffer = reinterpret_cast<char*>(m_packet->GetData());
    if (IsAligned(Address(m_buffer), pagebit))
        return KT_OK;
    // Wherever a packet begins, with a page to spare it holds the pages aligned.
    Destroy();
    result = Create(pagenum + 1, pagebit, m_packet);
    if (result != KT_OK)
        return result;
    m_pagenum = pagenum;
    if (m_packet != nullptr)
        m_buffer = NextPage(reinterpret_cast<char*>(m_packet->GetData()), pagebit);
    return KT_OK;
}

CPacket* CKTPageBufferExt::GetPacket() const {
    return m_packet;
}
