#include "KTHeap.h"

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<bool> g_failing{false};
std::atomic<unsigned int> g_allocations{0};
std::atomic<unsigned int> g_firstFailure{0};
std::atomic<unsigned int> g_failures{0};

bool FailsNow() {
    if (!g_failing.load(std::memory_order_relaxed))
        return false;
    // Unsigned: an allocation before the first failure is far beyond the count.
    return ++g_allocations - g_firstFailure < g_failures;
}

}  // namespace

void* KTHeapAlloc(std::size_t size) {
    return FailsNow() ? nullptr : std::malloc(size);
}

void* KTHeapCalloc(std::size_t count, std::size_t size) {
    return FailsNow() ? nullptr : std::calloc(count, size);
}

void* KTHeapRealloc(void* p, std::size_t size) {
    return FailsNow() ? nullptr : std::realloc(p, size);
}

void KTHeapFree(void* p) {
    std::free(p);
}

void KTHeapFailAt(unsigned int nth, unsigned int count) {
    g_failing = false;
    g_allocations = 0;
    g_firstFailure = nth;
    g_failures = count;
    g_failing = nth != 0;
}
