// Base objects, accounted allocation and reference counting.
#ifndef KTBASE_KTOBJECT_H
#define KTBASE_KTOBJECT_H

#include <cstddef>
#include <new>

#include "KTBase/KTDefs.h"

/// Root of every class. Class-level allocation goes through the "object" accounting table, which
/// KTMemoryDump prints; the accounting is always on.
/// `new` gives null when the heap is exhausted: no exception, no new-handler. Test the result.
class KTBASE_API IKTBaseOBJ {
public:
    IKTBaseOBJ() = default;
    IKTBaseOBJ(const IKTBaseOBJ&) = default;
    IKTBaseOBJ& operator=(const IKTBaseOBJ&) = default;
    virtual ~IKTBaseOBJ();

    static void* operator new(std::size_t size) noexcept;
    static void* operator new[](std::size_t size) noexcept;
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void* operator new[](std::size_t size, const std::nothrow_t&) noexcept;
    /// Placement is not accounted: the storage stays the caller's.
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    static void* operator new[](std::size_t, void* place) noexcept { return place; }

    static void operator delete(void* p, std::size_t size) noexcept;
    static void operator delete[](void* p, std::size_t size) noexcept;
    static void operator delete(void* p, const std::nothrow_t&) noexcept;
    static void operator delete[](void* p, const std::nothrow_t&) noexcept;
    static void operator delete(void*, void*) noexcept {}
    static void operator delete[](void*, void*) noexcept {}
};

/// Common base of every class whose member functions are attached as handlers (signals, workers).
class KTBASE_API CKTObject : public IKTBaseOBJ {
public:
    CKTObject() = default;
    CKTObject(const CKTObject&) = default;
    CKTObject& operator=(const CKTObject&) = default;
    ~CKTObject() override;
};

/// Reference count, 1 at construction. One process-wide lock guards every count, so the operations
/// may be called from any thread. The base class never deletes: the caller that gets 0 from
/// Release does, unless a derived class says that its Release has done so.
/// A copy starts with its source's count.
class KTBASE_API IKTRef : public IKTBaseOBJ {
public:
    IKTRef();
    IKTRef(const IKTRef& other);
    IKTRef& operator=(const IKTRef& other);
    ~IKTRef() override;

    virtual int AddRef();   ///< Returns the new count.
    virtual int Release();  ///< Returns the new count; below 0 when released too often.
    virtual int GetRef();

protected:
    int m_ref;  // guarded by the process-wide reference lock
};

/// Raw buffers, kept in the "memory" accounting table. Each returns null when the heap is
/// exhausted; the caller frees with ZMKFree. Any thread.
KTBASE_API unsigned char* ZMKMalloc(std::size_t size);
/// Zeroed; null also when count x size does not fit.
KTBASE_API void* ZMKCalloc(std::size_t count, std::size_t size);
/// On failure null: p then stays allocated and the caller's, but is no longer accounted.
KTBASE_API void* ZMKRealloc(void* p, std::size_t size);
KTBASE_API void ZMKFree(void* p);

/// Prints both tables to standard output and the debugger, past every debug-output filter: live
/// blocks, bytes in use and peak. With detail also the first 128 blocks of each table in address
/// order, each with its first 32 bytes as text; other threads' blocks are read as they are.
KTBASE_API void KTMemoryDump(bool detail);

/// Number of processors online.
KTBASE_API unsigned int KTGetProcessorNum();

#endif
