#include "KTAccounting.h"

#include <initializer_list>

#include "KTHeap.h"

namespace {

constexpr unsigned int kGranuleBits = 4;
constexpr unsigned int kPageBits = 12;
constexpr unsigned int kLevelBits = 12;
constexpr unsigned int kAddressBits = 48;

unsigned int Digit(std::uintptr_t address, unsigned int shift) {
    return static_cast<unsigned int>(address >> shift) & ((1u << kLevelBits) - 1);
}

unsigned int Granule(std::uintptr_t address) {
    return static_cast<unsigned int>(address >> kGranuleBits) &
           ((1u << (kPageBits - kGranuleBits)) - 1);
}

constexpr unsigned int kTop = kPageBits + 2 * kLevelBits;
constexpr unsigned int kMiddle = kPageBits + kLevelBits;
constexpr unsigned int kBottom = kPageBits;

}  // namespace

KTAccounting::Leaf* KTAccounting::Find(std::uintptr_t address) const {
    if (address >> kPageBits == m_lastPage)
        return m_lastLeaf;
    if (address >> kAddressBits != 0)
        return nullptr;
    const Branch* middle = static_cast<const Branch*>(m_root.child[Digit(address, kTop)]);
    if (middle == nullptr)
        return nullptr;
    const Branch* bottom = static_cast<const Branch*>(middle->child[Digit(address, kMiddle)]);
    return bottom == nullptr ? nullptr : static_cast<Leaf*>(bottom->child[Digit(address, kBottom)]);
}

KTAccounting::Leaf* KTAccounting::Make(std::uintptr_t address) {
    if (address >> kAddressBits != 0)
        return nullptr;
    Branch* branch = &m_root;
    for (unsigned int shift : {kTop, kMiddle}) {
        void*& child = branch->child[Digit(address, shift)];
        if (child == nullptr)
            child = KTHeapCalloc(1, sizeof(Branch));
        if (child == nullptr)
            return nullptr;
        branch = static_cast<Branch*>(child);
    }
    void*& leaf = branch->child[Digit(address, kBottom)];
    leaf = TakeLeaf();
    return static_cast<Leaf*>(leaf);
}

KTAccounting::Leaf* KTAccounting::TakeLeaf() {
    if (m_freeLeaves == nullptr) {
        Slab* slab = static_cast<Slab*>(KTHeapCalloc(1, sizeof(Slab)));
        if (slab == nullptr)
            return nullptr;
        slab->next = m_slabs;
        m_slabs = slab;
        for (unsigned int i = kSlabLeaves; i-- > 0;) {
            slab->leaf[i].nextFree = m_freeLeaves;
            m_freeLeaves = &slab->leaf[i];
        }
    }
    Leaf* leaf = m_freeLeaves;
    m_freeLeaves = leaf->nextFree;
    return leaf;
}

void KTAccounting::DropLeaf(std::uintptr_t address) {
    Branch* middle = static_cast<Branch*>(m_root.child[Digit(address, kTop)]);
    Branch* bottom = static_cast<Branch*>(middle->child[Digit(address, kMiddle)]);
    void*& leaf = bottom->child[Digit(address, kBottom)];
    static_cast<Leaf*>(leaf)->nextFree = m_freeLeaves;
    m_freeLeaves = static_cast<Leaf*>(leaf);
    leaf = nullptr;
    m_lastPage = 0;
    m_lastLeaf = nullptr;
}

bool KTAccounting::Insert(const void* block, std::size_t size) {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(block);
    if (address == 0 || address % (1u << kGranuleBits) != 0)
        return false;
    Leaf* leaf = Find(address);
    if (leaf == nullptr)
        leaf = Make(address);
    if (leaf == nullptr)
        return false;
    m_lastPage = address >> kPageBits;
    m_lastLeaf = leaf;
    std::size_t& slot = leaf->sizePlus1[Granule(address)];
    if (slot != 0)
        return false;
    slot = size + 1;
    ++leaf->count;
    ++m_count;
    m_used += size;
    if (m_used > m_max)
        m_max = m_used;
    return true;
}

bool KTAccounting::Remove(const void* block) {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(block);
    if (address == 0 || address % (1u << kGranuleBits) != 0)
        return false;
    Leaf* leaf = Find(address);
    if (leaf == nullptr)
        return false;
    std::size_t& slot = leaf->sizePlus1[Granule(address)];
    if (slot == 0)
        return false;
    m_used -= slot - 1;
    slot = 0;
    --m_count;
    if (--leaf->count == 0)
        DropLeaf(address);
    return true;
}

void KTAccounting::Walk(bool (*visit)(void* context, const void* block, std::size_t size),
                        void* context) const {
    for (std::uintptr_t top = 0; top < kFanout; ++top) {
        const Branch* middle = static_cast<const Branch*>(m_root.child[top]);
        for (std::uintptr_t mid = 0; middle != nullptr && mid < kFanout; ++mid) {
            const Branch* bottom = static_cast<const Branch*>(middle->child[mid]);
            for (std::uintptr_t low = 0; bottom != nullptr && low < kFanout; ++low) {
                const Leaf* leaf = static_cast<const Leaf*>(bottom->child[low]);
                for (std::uintptr_t at = 0; leaf != nullptr && at < kGranules; ++at) {
                    if (leaf->sizePlus1[at] == 0)
                        continue;
                    const std::uintptr_t address =
                        top << kTop | mid << kMiddle | low << kBottom | at << kGranuleBits;
                    if (!visit(context, reinterpret_cast<const void*>(address),
                               leaf->sizePlus1[at] - 1))
                        return;
                }
            }
        }
    }
}

void KTAccounting::Clear() {
    for (void*& top : m_root.child) {
        Branch* middle = static_cast<Branch*>(top);
        for (unsigned int mid = 0; middle != nullptr && mid < kFanout; ++mid)
            KTHeapFree(middle->child[mid]);
        KTHeapFree(middle);
        top = nullptr;
    }
    while (m_slabs != nullptr) {
        Slab* slab = m_slabs;
        m_slabs = slab->next;
        KTHeapFree(slab);
    }
    m_freeLeaves = nullptr;
    m_lastPage = 0;
    m_lastLeaf = nullptr;
    m_count = 0;
    m_used = 0;
}
