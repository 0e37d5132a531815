// Table of live blocks: address to size, in address order.
#ifndef KTBASE_KTACCOUNTING_H
#define KTBASE_KTACCOUNTING_H

#include <cstddef>
#include <cstdint>

/// A radix tree over the address: three levels of 4096 entries lead to the leaf of a 4 KB page,
/// which has a size for each 16-byte granule a block can begin at. A block's address is nowhere
/// stored, so a leak checker does not take the table for a user of the block.
/// Not locked: the allocation lock guards it. Constant-initialised, never destroyed.
class KTAccounting {
public:
    /// False when the address is null, listed already, or could not be listed for lack of memory;
    /// the table is then unchanged.
    bool Insert(const void* block, std::size_t size);
    /// False when the address is not listed.
    bool Remove(const void* block);

    std::size_t Count() const { return m_count; }
    unsigned long long Used() const { return m_used; }  ///< bytes in live blocks
    unsigned long long Max() const { return m_max; }    ///< the most they ever were

    /// Calls visit(context, block, size) in ascending address order while it returns true.
    void Walk(bool (*visit)(void* context, const void* block, std::size_t size),
              void* context) const;

    /// Forgets every block and frees the tree.
    void Clear();

private:
    static constexpr unsigned int kFanout = 4096;
    static constexpr unsigned int kGranules = 256;

    struct Leaf {
        std::size_t sizePlus1[kGranules];  // 0: no block begins here
        unsigned int count;
        Leaf* nextFree;  // while in the free list
    };
    // Leaves come in slabs large enough for the heap to keep them apart: one by one they would lie
    // between the very blocks they list and spread those over twice the pages.
    static constexpr unsigned int kSlabLeaves = 64;
    struct Slab {
        Slab* next;
        Leaf leaf[kSlabLeaves];
    };
    struct Branch {
        void* child[kFanout];
    };

    Leaf* Find(std::uintptr_t address) const;
    Leaf* Make(std::uintptr_t address);
    Leaf* TakeLeaf();
    void DropLeaf(std::uintptr_t address);

    Branch m_root = {};       // by address bits 36 to 47; below it bits 24 to 35, then 12 to 23
    Slab* m_slabs = nullptr;  // all of them; they stay until Clear
    Leaf* m_freeLeaves = nullptr;   // empty, all zeroes but for their link
    std::uintptr_t m_lastPage = 0;  // page of m_lastLeaf; no block lies in page 0
    Leaf* m_lastLeaf = nullptr;     // the leaf used last
    std::size_t m_count = 0;
    unsigned long long m_used = 0;
    unsigned long long m_max = 0;
};

#endif
