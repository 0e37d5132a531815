#include "KTBase/KTPacket.h"

#include <cstdint>
#include <functional>

#include "KTBase/KTDebug.h"
#include "KTBase/KTMemPool.h"
#include "KTBase/KTString.h"
#include "KTLibrary.h"
#include "os/KTOsSync.h"

/// The pool and its statistics, which a debugger shows. Guarded by the packet pool lock.
class CPacketPool : public IKTBaseOBJ {
public:
    explicit CPacketPool(unsigned long long number) : origin(number) {}

    void Count(unsigned int size) {
        ++inUse;
        if (inUse > peak)
            peak = inUse;
        if (size > largest)
            largest = size;
        const unsigned int kilobytes = size / 1024;
        ++grants[kilobytes < kSizes ? kilobytes : kSizes - 1];
    }

    static constexpr unsigned int kSizes = 264;

    unsigned int grants[kSizes] = {};  // packets so far by buffer size in KB, the last for larger
    unsigned int inUse = 0;            // packets acquired and not yet released
    unsigned int peak = 0;
    unsigned int largest = 0;         // bytes
    const unsigned long long origin;  // tells this pool from earlier ones, never 0
    IKTMemPoolFix memory{"PacketPool"};
};

/// The live packets with a buffer from the heap, ordered by address: a search tree that is also a
/// heap by a hash of the address, so that it stays flat in whatever order packets come. The packets
/// carry its links: entering takes no memory, and an empty set holds none. Guarded by the packet
/// pool lock.
class KTPacketSet {
public:
    void Insert(CPacket* packet);
    /// A packet that is not in the set is ignored.
    void Remove(CPacket* packet);
    void Sum(unsigned int& count, unsigned long long& bytes) const { Sum(m_root, count, bytes); }

private:
    static std::uint64_t Rank(const CPacket* packet) {
        std::uint64_t hash = reinterpret_cast<std::uintptr_t>(packet) * 0x9E3779B97F4A7C15u;
        hash ^= hash >> 32;
        return hash * 0x9E3779B97F4A7C15u;
    }
    static bool Below(const CPacket* a, const CPacket* b) {
        return std::less<const CPacket*>()(a, b);
    }
    static void Sum(const CPacket* root, unsigned int& count, unsigned long long& bytes);

    CPacket* m_root = nullptr;
};

namespace {

KTPacketSet g_live;
unsigned long long g_pools = 0;  // created so far

constexpr unsigned int kAlignment = 1024;  // of buffers from the heap, bytes

}  // namespace

CPacketPool* CPacket::s_pool = nullptr;
KTOsFastLock& CPacket::s_poolmutex = g_packetPoolLock;
KTOsFastLock& CPacket::s_refmutex = g_packetReferenceLock;

// ---- live set ----

void KTPacketSet::Insert(CPacket* packet) {
    const std::uint64_t rank = Rank(packet);
    CPacket** at = &m_root;
    while (*at != nullptr && Rank(*at) > rank)
        at = Below(packet, *at) ? &(*at)->m_less : &(*at)->m_more;
    // The packet takes this place; what stood here is split among its two sides.
    CPacket* rest = *at;
    *at = packet;
    CPacket** less = &packet->m_less;
    CPacket** more = &packet->m_more;
    while (rest != nullptr) {
        if (Below(rest, packet)) {
            *less = rest;
            less = &rest->m_more;
            rest = *less;
        } else {
            *more = rest;
            more = &rest->m_less;
            rest = *more;
        }
    }
    *less = *more = nullptr;
}

void KTPacketSet::Remove(CPacket* packet) {
    CPacket** at = &m_root;
    while (*at != nullptr && *at != packet)
        at = Below(packet, *at) ? &(*at)->m_less : &(*at)->m_more;
    if (*at == nullptr)
        return;
    CPacket* less = packet->m_less;
    CPacket* more = packet->m_more;
    while (less != nullptr && more != nullptr) {
        if (Rank(less) > Rank(more)) {
            *at = less;
            at = &less->m_more;
            less = *at;
        } else {
            *at = more;
            at = &more->m_less;
            more = *at;
        }
    }
    *at = less != nullptr ? less : more;
}

void KTPacketSet::Sum(const CPacket* root, unsigned int& count, unsigned long long& bytes) {
    for (; root != nullptr; root = root->m_more) {
        Sum(root->m_less, count, bytes);
        ++count;
        bytes += static_cast<unsigned long long>(root->m_size) + kAlignment;
    }
}

// ---- pool and life ----

CPacket::CPacket(unsigned int tag)
    : m_data(nullptr),
      m_size(0),
      m_length(0),
      m_user(),
      m_magic(0),
      m_tag(tag),
      m_handle(0),
      m_origin(0),
      m_less(nullptr),
      m_more(nullptr) {}

CPacket::~CPacket() = default;

int CPacket::CreatePool(unsigned int pages, unsigned int shift, unsigned int kind) {
    KTOsFastGuard hold(s_poolmutex);
    if (s_pool != nullptr)
        return KT_BAD_STATE;
    if (kind != 0)
        return KT_UNSUPPORTED;
    CPacketPool* pool = new CPacketPool(g_pools + 1);
    if (pool == nullptr)
        return KT_UNSUPPORTED;
    const int result = pool->memory.Create(pages, shift);
    if (result != KT_OK) {
        delete pool;
        return result;
    }
    ++g_pools;
    s_pool = pool;
    return KT_OK;
}

int CPacket::DeletePool() {
    KTOsFastGuard hold(s_poolmutex);
    delete s_pool;
    s_pool = nullptr;
    return KT_OK;
}

CPacket* CPacket::Acquire(unsigned int size, unsigned int tag) {
    CPacket* packet = new CPacket(tag);
    if (packet != nullptr && !packet->TakeBuffer(size)) {
        delete packet;
        packet = nullptr;
    }
    return packet;
}

int CPacket::AddRef() {
    KTOsFastGuard hold(s_refmutex);
    return ++m_ref;
}

int CPacket::Release() {
    {
        KTOsFastGuard hold(s_refmutex);
        if (m_ref == 0)
            return 0;
        if (--m_ref != 0)
            return m_ref;
    }
    Release(this);
    return 0;
}

int CPacket::GetRef() {
    KTOsFastGuard hold(s_refmutex);
    return m_ref;
}

void CPacket::Release(CPacket* packet) {
    packet->GiveBuffer();
    delete packet;
}

bool CPacket::TakeBuffer(unsigned int size) {
    KTOsFastGuard hold(s_poolmutex);
    if (s_pool == nullptr)
        return TakeHeapBuffer(size);
    if (size != 0) {
        m_size = size;
        if (s_pool->memory.CreateBuffer(m_handle, m_data, m_size) != KT_OK)
            return false;
    }
    m_origin = s_pool->origin;
    s_pool->Count(m_size);
    return true;
}

bool CPacket::TakeHeapBuffer(unsigned int size) {
    if (size == 0)
        return true;
    const unsigned long long rounded =
        ((size - 1) & ~static_cast<unsigned long long>(kAlignment - 1)) + kAlignment;
    if (rounded > 0xFFFFFFFFu)
        return false;
    unsigned char* block = ZMKMalloc(static_cast<std::size_t>(rounded) + kAlignment);
    if (block == nullptr)
        return false;
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(block);
    m_data = block + (kAlignment - start % kAlignment);
    m_size = static_cast<unsigned int>(rounded);
    m_handle = start;
    g_live.Insert(this);
    return true;
}

void CPacket::GiveBuffer() {
    KTOsFastGuard hold(s_poolmutex);
    if (m_origin == 0) {
        // From the heap it came, whether there is a pool by now or not.
        g_live.Remove(this);
        ZMKFree(reinterpret_cast<void*>(static_cast<std::uintptr_t>(m_handle)));
    } else if (s_pool != nullptr && s_pool->origin == m_origin) {
        s_pool->memory.DeleteBuffer(m_handle, m_data);
        --s_pool->inUse;
    }
}

void CPacket::DumpPackets(CKTString* out) {
    unsigned int count = 0;
    unsigned long long bytes = 0;
    {
        KTOsFastGuard hold(s_poolmutex);
        g_live.Sum(count, bytes);
    }
    CKTString line;
    line.Append("Packets==========> num = %d, size = %lld\n", count, bytes);
    if (line.IsEmpty())
        return;
    if (out != nullptr)
        *out += line;
    KTPrintf("%s\n", line.GetBuffer());
}
