#include "KTBase/KTSpacePool.h"

#include "KTBase/KTDebug.h"
#include "KTBase/KTString.h"

namespace {

void Fault(const char* function, int line) {
    KTFault("src/core/KTBase/KTSpacePool", function, line);
}

unsigned long long BlockSize(unsigned int level) {
    return 1ull << level;
}

bool IsListed(const tag_PBN* node) {
    return node->next != nullptr;
}

void FreeTable(tag_PBA* table, unsigned int levels) {
    for (unsigned int level = 0; table != nullptr && level < levels; ++level)
        ZMKFree(table[level].nodes);
    ZMKFree(table);
}

// Makes the nodes of a level of blockCount blocks, the last of them possibly partial. The space
// begins as one free block for each bit of pages, the largest at the lowest pages.
bool MakeLevel(tag_PBA& blocks, unsigned int level, unsigned int pages,
               unsigned long long blockCount) {
    blocks.level = level;
    blocks.number = static_cast<unsigned int>((blockCount + 1) / 2);
    blocks.nodes = reinterpret_cast<tag_PBN*>(
        ZMKMalloc(static_cast<std::size_t>(blocks.number) * sizeof(tag_PBN)));
    if (blocks.nodes == nullptr)
        return false;
    for (unsigned int pair = 0; pair < blocks.number; ++pair)
        blocks.nodes[pair] = {nullptr, nullptr, 2 * pair};
    const unsigned int end = pages >> level;
    if ((end & 1) != 0) {
        tag_PBN* node = &blocks.nodes[(end - 1) / 2];
        node->next = node->prev = node;
        node->value = end - 1;
        blocks.head = node;
        blocks.count = 1;
    }
    return true;
}

}  // namespace

IKTSpacePool::IKTSpacePool(const char* name)
    : m_name(nullptr), m_pages(0), m_used(0), m_peak(0), m_levels(0), m_table(nullptr) {
    CKTString text(name);
    if (CKTString::IsEmpty(name))
        text.Append("IKTSpacePool-%p", static_cast<void*>(this));
    m_name = text.Clone();
}

IKTSpacePool::~IKTSpacePool() {
    IKTSpacePool::Delete();
    ZMKFree(m_name);
}

int IKTSpacePool::Create(unsigned int pages) {
    const unsigned int levels = Log2X(pages) + 1;
    tag_PBA* table = static_cast<tag_PBA*>(ZMKCalloc(levels, sizeof(tag_PBA)));
    if (table == nullptr)
        return KT_NO_MEMORY;
    unsigned long long blockCount = pages;
    for (unsigned int level = 0; level < levels && BlockSize(level) <= pages; ++level) {
        if (!MakeLevel(table[level], level, pages, blockCount)) {
            FreeTable(table, levels);
            return KT_NO_MEMORY;
        }
        blockCount = (blockCount + 1) / 2;
    }
    m_pages = pages;
    m_used = 0;
    m_levels = levels;
    m_table = table;
    return KT_OK;
}

int IKTSpacePool::Delete() {
    FreeTable(m_table, m_levels);
    m_table = nullptr;
    m_pages = m_used = m_peak = m_levels = 0;
    return KT_OK;
}

unsigned long long IKTSpacePool::PageAlloc(unsigned int count) {
    unsigned int start = 0;
    if (AcquirePages(start, count) != KT_OK)
        return 0;
    return static_cast<unsigned long long>(start) << 32 | count;
}

unsigned long long IKTSpacePool::PageFree(unsigned long long handle) {
    const unsigned int count = static_cast<unsigned int>(handle);
    if (count != 0)
        ReleasePages(static_cast<unsigned int>(handle >> 32), count);
    return 0;
}

unsigned int IKTSpacePool::Log2X(unsigned int v) {
    unsigned int bit = 0;
    while (v >>= 1)
        ++bit;
    return bit;
}

void IKTSpacePool::Dump(CKTString* out, int level) {
    if (out == nullptr)
        return;
    const bool all = level == -1;
    for (unsigned int at = 0; at < m_levels; ++at) {
        const tag_PBA& blocks = m_table[at];
        // The count stands before the number, under headings that say the opposite: scripts that
        // read these tables go by the column.
        if (all)
            out->Append("%5d %10d %10d    %p\n", at, blocks.count, blocks.number,
                        static_cast<void*>(blocks.head));
        else if (level >= 0 && at == static_cast<unsigned int>(level))
            out->Append("%2d %10d %10d    %p\n", at, blocks.count, blocks.number,
                        static_cast<void*>(blocks.head));
    }
}

void IKTSpacePool::Dump(CKTString* out) {
    CKTString text;
    CKTString* target = out != nullptr ? out : &text;
    const double pages = m_pages != 0 ? m_pages : 1.0;
    target->Append(
        "SPACE(%s)===>pagenum = %d, pageuse = %d, pagemax = %d, pagelvl = %d, usage = %.3f%% / "
        "%.3f%%\n",
        m_name != nullptr ? m_name : "", m_pages, m_used, m_peak, m_levels, m_used * 100.0 / pages,
        m_peak * 100.0 / pages);
    target->Append("%5s %10s %10s    %s\n", "Level", "Number", "Count", "Head");
    Dump(target, -1);
    if (out == nullptr && !text.IsEmpty())
        KTPrintf("%s\n", text.GetBuffer());
}

// ---- taking pages ----

int IKTSpacePool::AcquirePages(unsigned int& start, unsigned int count) {
    if (count == 0 || m_table == nullptr)
        Fault("IKTSpacePool::AcquirePages", 230);
    unsigned int order = Log2X(count);
    if (BlockSize(order) < count)
        ++order;
    const int result = AcquireH(start, count, order);
    if (result != KT_OK)
        return result;
    m_used += count;
    if (m_used > m_peak)
        m_peak = m_used;
    return KT_OK;
}

int IKTSpacePool::AcquireH(unsigned int& start, unsigned int count, unsigned int level) {
    if (level >= m_levels || count > BlockSize(level))
        return KT_NO_MEMORY;
    while (level < m_levels && m_table[level].head == nullptr)
        ++level;
    if (level == m_levels)
        return KT_NO_MEMORY;
    tag_PBN* node = m_table[level].head;
    start = node->value << level;
    RemoveNode(&m_table[level], node);
    // The tail goes back as blocks of ascending size. The position also moves on at levels without
    // a block: dividing by the block size brings it to the right one.
    const unsigned long long rest = BlockSize(level) - count;
    unsigned int page = start + count;
    for (unsigned int at = 0; rest >> at != 0; ++at) {
        if ((rest >> at & 1) != 0)
            InsertNode(page, at);
        page += 1u << at;
    }
    return KT_OK;
}

int IKTSpacePool::AcquireE(unsigned int& start, unsigned int, unsigned int level) {
    if (level >= m_levels || m_table[level].head == nullptr)
        return KT_NOT_FOUND;
    tag_PBA& blocks = m_table[level];
    tag_PBN* node = blocks.head;
    do {
        // An odd block has its buddy below it, so only the block above it can be free as well; an
        // even one the other way round.
        const unsigned long long page = static_cast<unsigned long long>(node->value) << level;
        const bool odd = (node->value & 1) != 0;
        const unsigned long long beside = odd ? page + BlockSize(level) : page - BlockSize(level);
        tag_PBN* other = FindFree(beside, level);
        if (other != nullptr) {
            start = static_cast<unsigned int>(odd ? page : beside);
            RemoveNode(&blocks, node);
            RemoveNode(&blocks, other);
            return KT_OK;
        }
        node = node->next;
    } while (node != blocks.head);
    return KT_NOT_FOUND;
}

int IKTSpacePool::AcquireL(unsigned int& start, unsigned int count, unsigned int level) {
    if (level == 0 || level >= m_levels || count <= BlockSize(level) ||
        count >= BlockSize(level + 1) || m_table[level].head == nullptr)
        return KT_NOT_FOUND;
    const unsigned int size = 1u << level;
    const unsigned int excess = count - size;
    tag_PBA& blocks = m_table[level];
    tag_PBN* node = blocks.head;
    do {
        const unsigned int first = node->value << level;
        unsigned int mask = 0;
        if (FitsBelow(first, excess, level, mask)) {
            RemoveNode(&blocks, node);
            ExpandL(first, excess, level - 1, mask);
            start = first - excess;
            return KT_OK;
        }
        mask = 0;
        if (FitsAbove(first + size, excess, level, mask)) {
            RemoveNode(&blocks, node);
            ExpandH(first + size, excess, level - 1, mask);
            // Not the first page, which would be start - count: derived pools reckon with it.
            start = first + count;
            return KT_OK;
        }
        node = node->next;
    } while (node != blocks.head);
    return KT_NOT_FOUND;
}

// ---- blocks beside a block ----

bool IKTSpacePool::FitsBelow(unsigned int pos, unsigned int need, unsigned int level,
                             unsigned int& mask) {
    const unsigned int half = 1u << (level - 1);
    if (pos >= half && FindFree(pos - half, level - 1) != nullptr) {
        mask = half;
        return need <= half || ExpandLCheck(pos - half, need - half, level - 2, mask);
    }
    return need < half && level > 1 && ExpandLCheck(pos, need, level - 2, mask);
}

bool IKTSpacePool::FitsAbove(unsigned int pos, unsigned int need, unsigned int level,
                             unsigned int& mask) {
    const unsigned int half = 1u << (level - 1);
    if (FindFree(pos, level - 1) != nullptr) {
        mask = half;
        return need <= half || ExpandHCheck(pos + half, need - half, level - 2, mask);
    }
    return need < half && level > 1 && ExpandHCheck(pos, need, level - 2, mask);
}

bool IKTSpacePool::ExpandLCheck(unsigned int pos, unsigned int need, unsigned int level,
                                unsigned int& mask) {
    for (; level < m_levels; --level) {  // wraps after level 0
        const unsigned int size = 1u << level;
        if (pos >= size && FindFree(pos - size, level) != nullptr) {
            mask |= size;
            if (need <= size)
                return true;
            pos -= size;
            need -= size;
        } else if (need >= size) {
            return false;
        }
    }
    return false;
}

bool IKTSpacePool::ExpandHCheck(unsigned int pos, unsigned int need, unsigned int level,
                                unsigned int& mask) {
    for (; level < m_levels; --level) {  // wraps after level 0
        const unsigned int size = 1u << level;
        if (FindFree(pos, level) != nullptr) {
            mask |= size;
            if (need <= size)
                return true;
            pos += size;
            need -= size;
        } else if (need >= size) {
            return false;
        }
    }
    return false;
}

int IKTSpacePool::ExpandL(unsigned int pos, unsigned int need, unsigned int level,
                          unsigned int& mask) {
    for (; level < m_levels && mask != 0; --level) {
        const unsigned int size = 1u << level;
        if ((mask & size) == 0)
            continue;
        mask &= ~size;
        tag_PBN* node = FindFree(pos - size, level);
        if (node == nullptr)
            return KT_NOT_FOUND;
        RemoveNode(&m_table[level], node);
        pos -= size;
        if (need < size)
            return ReleaseL(pos, size - need, level);
        need -= size;
    }
    return KT_OK;
}

int IKTSpacePool::ExpandH(unsigned int pos, unsigned int need, unsigned int level,
                          unsigned int& mask) {
    for (; level < m_levels && mask != 0; --level) {
        const unsigned int size = 1u << level;
        if ((mask & size) == 0)
            continue;
        mask &= ~size;
        tag_PBN* node = FindFree(pos, level);
        if (node == nullptr)
            return KT_NOT_FOUND;
        RemoveNode(&m_table[level], node);
        pos += size;
        if (need < size)
            return ReleaseH(pos, size - need, level);
        need -= size;
    }
    return KT_OK;
}

// ---- giving pages back ----

int IKTSpacePool::ReleasePages(unsigned int start, unsigned int count) {
    const unsigned long long end = static_cast<unsigned long long>(start) + count;
    if (end > m_pages)
        Fault("IKTSpacePool::ReleasePages", 633);
    if (count > m_used)
        Fault("IKTSpacePool::ReleasePages", 634);
    const unsigned int level = Log2X(count);
    const unsigned int below = (1u << level) - 1;
    if ((start & below) == 0) {
        ReleaseUp(start, count, level);
    } else if ((end & below) == 0) {
        ReleaseDown(end, count, level);
    } else {
        Fault("IKTSpacePool::ReleasePages", 655);
        Fault("IKTSpacePool::ReleasePages", 656);
        return KT_OK;
    }
    m_used -= count;
    return KT_OK;
}

int IKTSpacePool::ReleaseL(unsigned int pos, unsigned int count, unsigned int level) {
    ReleaseUp(pos, count, level);
    return KT_OK;
}

int IKTSpacePool::ReleaseH(unsigned int pos, unsigned int count, unsigned int level) {
    ReleaseDown(pos, count, level);
    return KT_OK;
}

// Positions are 64 bits wide in these walks: a run that passes the last page number must not come
// round to page 0.
void IKTSpacePool::ReleaseUp(unsigned long long pos, unsigned int count, unsigned int level) {
    for (; level < 32; --level) {  // wraps after level 0
        if ((count >> level & 1) == 0)
            continue;
        if (pos < m_pages)
            MergeNode(static_cast<unsigned int>(pos), level);
        pos += BlockSize(level);
    }
}

void IKTSpacePool::ReleaseDown(unsigned long long pos, unsigned int count, unsigned int level) {
    for (; level < 32; --level) {  // wraps after level 0
        if ((count >> level & 1) == 0)
            continue;
        pos -= BlockSize(level);
        if (pos < m_pages)
            MergeNode(static_cast<unsigned int>(pos), level);
    }
}

int IKTSpacePool::MergeNode(unsigned int page, unsigned int level) {
    for (; level < m_levels; ++level) {
        tag_PBN* node = FindNode(page, level);
        if (node == nullptr)
            return KT_OK;
        if (!IsListed(node))
            return InsertNode(page, level);
        if (node->value == page >> level)
            return KT_OK;  // freed twice
        RemoveNode(&m_table[level], node);
    }
    return KT_OK;
}

int IKTSpacePool::InsertNode(unsigned int page, unsigned int level) {
    tag_PBN* node = FindNode(page, level);
    if (node == nullptr || IsListed(node))
        return KT_ARGUMENT;
    tag_PBA& blocks = m_table[level];
    if (blocks.head == nullptr) {
        node->next = node->prev = node;
    } else {
        node->next = blocks.head;
        node->prev = blocks.head->prev;
        node->prev->next = node;
        node->next->prev = node;
    }
    blocks.head = node;
    node->value |= page >> level & 1;
    ++blocks.count;
    return KT_OK;
}

int IKTSpacePool::RemoveNode(tag_PBA* level, tag_PBN* node) {
    if (level == nullptr || node == nullptr || !IsListed(node))
        return KT_ARGUMENT;
    if (node->next == node) {
        level->head = nullptr;
    } else {
        if (node == level->head)
            level->head = node->next;
        node->prev->next = node->next;
        node->next->prev = node->prev;
    }
    node->next = node->prev = nullptr;
    node->value &= ~1u;
    --level->count;
    return KT_OK;
}

// The node of the pair whose block holds the page; null when that block is not wholly inside the
// space.
tag_PBN* IKTSpacePool::FindNode(unsigned long long page, unsigned int level) const {
    if (level >= m_levels || page >= m_pages)
        return nullptr;
    const unsigned long long block = page >> level;
    return (block + 1) << level <= m_pages ? &m_table[level].nodes[block >> 1] : nullptr;
}

// The node that lists exactly the block that begins at page, or null.
tag_PBN* IKTSpacePool::FindFree(unsigned long long page, unsigned int level) const {
    tag_PBN* node = FindNode(page, level);
    const bool free = node != nullptr && IsListed(node) &&
                      static_cast<unsigned long long>(node->value) << level == page;
    return free ? node : nullptr;
}
