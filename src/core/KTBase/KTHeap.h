// The one way to raw memory: everything the library allocates passes here.
#ifndef KTBASE_KTHEAP_H
#define KTBASE_KTHEAP_H

#include <cstddef>

/// The C runtime's heap, not accounted. Null when exhausted.
void* KTHeapAlloc(std::size_t size);
void* KTHeapCalloc(std::size_t count, std::size_t size);
void* KTHeapRealloc(void* p, std::size_t size);
void KTHeapFree(void* p);

/// Test hook, not exported: of the allocations from now on the nth (from 1) and the count - 1 after
/// it fail; nth 0 ends the failing. Counts every thread's allocations.
void KTHeapFailAt(unsigned int nth, unsigned int count = 1);

#endif
