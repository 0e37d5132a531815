// Buffers of aligned, equal pages, from the heap, in the caller's memory or in a packet.
#ifndef KTBASE_KTBUF_H
#define KTBASE_KTBUF_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

class CPacket;

/// Buffer of pages of 1 << pagebit bytes, the first on a multiple of the page size. Not cleared by
/// creation. Not locked.
///
/// Every creation gives up the pages held before, unless it says otherwise. It returns 0; or -1 for
/// no page, pagebit above 31, pages of 4 GB and more in all, or when memory is out: the buffer then
/// has no pages.
class KTBASE_API CKTPageBuffer : public IKTBaseOBJ {
public:
    CKTPageBuffer();
    CKTPageBuffer(const CKTPageBuffer&) = delete;
    CKTPageBuffer& operator=(const CKTPageBuffer&) = delete;
    ~CKTPageBuffer() override;

    virtual int CreatePages(unsigned int pagenum, unsigned int pagebit);
    virtual int Destroy();  ///< Frees the pages, unless they are the caller's. Returns 0.
    /// Zeroes count pages from page on, cut at the end; all of them when count is 0.
    virtual void Clear(unsigned int page, unsigned int count);
    virtual void Dump();  ///< Prints the members with KTPrintf.

    /// Pages in mem, which stays the caller's and outlives them; not in pages of this buffer's own.
    /// -1 also, and nothing changed, when mem is null or not a multiple of the page size.
    int CreatePages(char* mem, unsigned int pagenum, unsigned int pagebit);
    /// As many pages as size bytes need. For size 0 nothing is changed.
    int Create(unsigned int size, unsigned int pagebit);
    /// As many whole aligned pages as the size bytes at mem have room for; mem as above. For -1
    /// nothing is changed.
    int Create(char* mem, unsigned int size, unsigned int pagebit);

    char* GetBuffer(unsigned int page) const;  ///< null beyond the last page
    unsigned int GetPageNum() const;
    unsigned int GetSize() const;  ///< bytes in all pages
    /// Whether addr is a multiple of this buffer's page size.
    bool IsAligned(unsigned long long addr) const;
    static bool IsAligned(unsigned long long addr, unsigned int pagebit);

protected:
    char* m_base;    // owned block, null when the memory is the caller's or a packet's
    char* m_buffer;  // page 0
    unsigned int m_pagebit;
    unsigned int m_pagenum;

private:
    void UseMemory(char* start, unsigned int pagenum, unsigned int pagebit);
};

/// Page buffer in the memory of a packet, so that it can travel as one; in the heap where no packet
/// can be had. The packet's header is not written: page 0 may lie over it.
class KTBASE_API CKTPageBufferExt : public CKTPageBuffer {
public:
    CKTPageBufferExt();
    ~CKTPageBufferExt() override;

    using CKTPageBuffer::Create;
    using CKTPageBuffer::CreatePages;
    int CreatePages(unsigned int pagenum, unsigned int pagebit) override;
    int Destroy() override;  ///< Releases the packet too. Returns 0.
    /// The memory for CreatePages: packet becomes one of pagenum << pagebit bytes, with a reference
    /// for whoever owns the pointer, and the buffer has no pages. Without a packet it becomes null,
    /// and the buffer has pages from the heap. Returns as the other creations; packet is left alone
    /// by an argument that is refused.
    virtual int Create(unsigned int pagenum, unsigned int pagebit, CPacket*& packet);

    /// The packet that the pages lie in, lent until the next creation; null when there is none.
    CPacket* GetPacket() const;

protected:
    CPacket* m_packet;  // one reference
};

#endif
