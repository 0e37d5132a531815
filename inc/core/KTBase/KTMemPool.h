// Memory pools: buffers of whole pages from one block, and equal-sized elements from a free list.
#ifndef KTBASE_KTMEMPOOL_H
#define KTBASE_KTMEMPOOL_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTLock.h"
#include "KTBase/KTObject.h"

class CKTString;
class IKTSpacePool;

/// Base of the pools that hand out buffers of whole pages. Not locked: callers serialise.
class KTBASE_API IKTMemPool : public IKTBaseOBJ {
public:
    /// name is copied; null: the pool has none.
    explicit IKTMemPool(const char* name);
    IKTMemPool(const IKTMemPool&) = delete;
    IKTMemPool& operator=(const IKTMemPool&) = delete;
    ~IKTMemPool() override;

    /// Stores the shape: that many pages of 1 << shift bytes. Returns 0, -4 when either is 0, -6
    /// for a shift above 31.
    virtual int Create(unsigned int pages, unsigned int shift);
    virtual int Delete() = 0;
    /// Takes a buffer of at least size bytes; size becomes what was granted, in whole pages.
    virtual int CreateBuffer(unsigned long long& handle, unsigned char*& ptr,
                             unsigned int& size) = 0;
    /// Gives a buffer back and clears handle and ptr.
    virtual int DeleteBuffer(unsigned long long& handle, unsigned char*& ptr) = 0;
    virtual void Dump(CKTString* out);

protected:
    char* m_name;
    unsigned int m_pages;
    unsigned int m_shift;
    unsigned int m_size;  // bytes in a page, 1 << m_shift
};

/// Pool over one block of memory, its pages aligned to their size. Owns the block.
class KTBASE_API IKTMemPoolFix : public IKTMemPool {
public:
    explicit IKTMemPoolFix(const char* name);
    ~IKTMemPoolFix() override;

    /// Takes the memory. Returns 0; -7 when created already; -4 when pages or shift is 0; -6 when
    /// the memory cannot be had: the pool is still to be created then.
    int Create(unsigned int pages, unsigned int shift) override;
    /// Frees the memory, under buffers that are still out too. Returns 0.
    int Delete() override;
    /// Returns 0; -7 before Create; -4 for size 0; -6 and a handle of 0 when no run of pages is
    /// large enough.
    int CreateBuffer(unsigned long long& handle, unsigned char*& ptr, unsigned int& size) override;
    /// Returns 0, also for a handle of 0; -7 before Create.
    int DeleteBuffer(unsigned long long& handle, unsigned char*& ptr) override;
    /// Appends the state of the pages to out, or prints it when out is null. Nothing before Create.
    void Dump(CKTString* out) override;

private:
    IKTSpacePool* m_space;  // null until created
    unsigned char* m_block;
    unsigned char* m_base;  // page 0: the first multiple of the page size inside the block
};

/// Free list of equal-sized elements that grows by blocks and shrinks only in its destructor. Any
/// thread.
class KTBASE_API CKTPool : public IKTBaseOBJ {
public:
    /// size: bytes in an element, at least 8. A block holds 1024 elements unless setec says else.
    explicit CKTPool(unsigned int size);
    CKTPool(const CKTPool&) = delete;
    CKTPool& operator=(const CKTPool&) = delete;
    /// Frees all elements, those still out too.
    ~CKTPool() override;

    /// Returns an element, never null: throws std::bad_alloc when the pool cannot grow, and is the
    /// only call of the library that throws.
    void* alloc();
    /// Takes back an element of this pool; null is ignored.
    void free(void* p);
    /// Sets the number of elements in the blocks to come; 0 counts as 1.
    void setec(unsigned int count);

private:
    struct Block {
        unsigned char* elements;
        Block* next;
    };
    void grow();

    Block* m_blocks;
    unsigned int m_size;
    unsigned int m_count;  // elements in a block to come
    void* m_free;          // each free element begins with the address of the next
    CKTMutex m_lock;       // guards all the above
};

#endif
