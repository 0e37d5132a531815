// Buddy allocator of page numbers: runs of consecutive pages, without memory of their own.
#ifndef KTBASE_KTSPACEPOOL_H
#define KTBASE_KTSPACEPOOL_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

class CKTString;

/// One pair of buddies at a level: blocks 2k and 2k + 1. At most one of the two is free there, since
/// two would be merged into one block of the next level.
struct tag_PBN {
    tag_PBN* next;  ///< neighbours in the level's circular list; both null while none is free
    tag_PBN* prev;
    unsigned int value;  ///< bits 31 to 1: k; bit 0: which of the two is free while listed
};

/// One level: blocks of 2^level pages, block b from page b x 2^level on.
struct tag_PBA {
    tag_PBN* head;        ///< first of the free blocks, null when there is none
    tag_PBN* nodes;       ///< one for each pair of buddies
    unsigned int number;  ///< pairs of buddies
    unsigned int level;
    unsigned int count;  ///< free blocks
};

/// Hands out runs of consecutive page numbers and takes them back, merging free buddies. What a page
/// is, the user knows. Nothing is allocated after Create. Not locked: callers serialise all calls on
/// one pool.
/// A copy is shallow: both objects then share the name and the table, their counters part ways, and
/// only one of the two may be deleted or destroyed.
class KTBASE_API IKTSpacePool : public IKTBaseOBJ {
public:
    /// name is copied; null or empty: "IKTSpacePool-" and the address of the object.
    explicit IKTSpacePool(const char* name);
    IKTSpacePool(const IKTSpacePool&) = default;
    IKTSpacePool& operator=(const IKTSpacePool&) = default;
    ~IKTSpacePool() override;

    /// Makes a space of that many pages, all free. An earlier space is not released: call Delete
    /// first. The peak stays. Returns 0, or -6 with nothing changed.
    virtual int Create(unsigned int pages);
    /// Releases the space and clears all counters, the peak too. Returns 0.
    virtual int Delete();

    /// Takes count consecutive pages. Returns the first page in the high 32 bits and count in the
    /// low 32, or 0 when no free block is large enough. A count of 0 is reported and takes nothing.
    unsigned long long PageAlloc(unsigned int count);
    /// Gives back a run as PageAlloc returned it; a handle of count 0 is ignored. Returns 0.
    unsigned long long PageFree(unsigned long long handle);

    /// Index of the highest set bit of v; 0 for v = 0.
    static unsigned int Log2X(unsigned int v);

protected:
    /// Appends the line of one level to out, or those of all levels when level is -1.
    virtual void Dump(CKTString* out, int level);

public:
    /// Appends counters and levels to out; prints them when out is null.
    virtual void Dump(CKTString* out);

protected:
    /// PageAlloc with the first page in start. Returns 0 or -6.
    int AcquirePages(unsigned int& start, unsigned int count);
    /// Cuts count pages from the low end of the first free block of at least 2^level pages, which
    /// must be no fewer than count. Counts no use. Returns 0 or -6.
    int AcquireH(unsigned int& start, unsigned int count, unsigned int level);
    /// Takes two neighbouring free blocks of the level that are no buddies: 2^(level + 1) pages.
    /// count is not used. Counts no use. Returns 0 or -11.
    int AcquireE(unsigned int& start, unsigned int count, unsigned int level);
    /// Takes a free block of the level and the excess of count over it, which is free beside it;
    /// 2^level < count < 2^(level + 1). Counts no use. Returns 0 or -11.
    /// A run that extends upwards from its block reports block + count in start.
    int AcquireL(unsigned int& start, unsigned int count, unsigned int level);

    /// Whether need pages below (L) or from (H) pos on are free as blocks of descending levels, the
    /// first of at most the given one. Sets a bit in mask for each level whose block is needed.
    bool ExpandLCheck(unsigned int pos, unsigned int need, unsigned int level, unsigned int& mask);
    bool ExpandHCheck(unsigned int pos, unsigned int need, unsigned int level, unsigned int& mask);
    /// Takes what the check found; the pages of the last block beyond need stay free. Clears mask.
    /// Returns 0, or -11 at a block that is not free.
    int ExpandL(unsigned int pos, unsigned int need, unsigned int level, unsigned int& mask);
    int ExpandH(unsigned int pos, unsigned int need, unsigned int level, unsigned int& mask);

    /// Gives back a run of which one end lies on a multiple of the largest power of two in count; any
    /// other is reported and stays taken. A run outside the space or larger than what is in use is
    /// reported, and its pages inside the space are given back. Returns 0.
    int ReleasePages(unsigned int start, unsigned int count);
    /// Gives back count pages from pos upwards (L) or below pos downwards (H), largest block first;
    /// 2^level is the highest bit of count. Counts no use. Returns 0.
    int ReleaseL(unsigned int pos, unsigned int count, unsigned int level);
    int ReleaseH(unsigned int pos, unsigned int count, unsigned int level);

    /// Frees one block and merges it upwards. A block outside the space, and one that is free
    /// already, is left as it is. Returns 0.
    int MergeNode(unsigned int page, unsigned int level);
    /// Lists a block as the first of its level, without merging. Returns 0, or -4 for a block
    /// outside the space or a pair that is listed already.
    int InsertNode(unsigned int page, unsigned int level);
    /// Unlists a pair's free block. Returns 0, or -4 for null or a pair that is not listed.
    int RemoveNode(tag_PBA* level, tag_PBN* node);

    char* m_name;
    unsigned int m_pages;
    unsigned int m_used;  // pages handed out
    unsigned int m_peak;  // the most that m_used ever was
    unsigned int m_levels;
    tag_PBA* m_table;  // m_levels records

private:
    tag_PBN* FindNode(unsigned long long page, unsigned int level) const;
    tag_PBN* FindFree(unsigned long long page, unsigned int level) const;
    bool FitsBelow(unsigned int pos, unsigned int need, unsigned int level, unsigned int& mask);
    bool FitsAbove(unsigned int pos, unsigned int need, unsigned int level, unsigned int& mask);
    void ReleaseUp(unsigned long long pos, unsigned int count, unsigned int level);
    void ReleaseDown(unsigned long long pos, unsigned int count, unsigned int level);
};

#endif
