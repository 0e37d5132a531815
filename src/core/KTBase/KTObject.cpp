#include "KTBase/KTObject.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "KTAccounting.h"
#include "KTHeap.h"
#include "KTLibrary.h"
#include "os/KTOsSync.h"
#include "os/KTOsSystem.h"

namespace {

KTOsFastLock g_allocationLock;  // innermost; guards both tables
KTAccounting g_objects;
KTAccounting g_memory;

bool Insert(KTAccounting& table, const void* block, std::size_t size) {
    KTOsFastGuard hold(g_allocationLock);
    return table.Insert(block, size);
}

bool Remove(KTAccounting& table, const void* block) {
    KTOsFastGuard hold(g_allocationLock);
    return table.Remove(block);
}

void* NewObject(std::size_t size) {
    void* block = KTHeapAlloc(size);
    Insert(g_objects, block, size);
    return block;
}

void DeleteObject(void* block) {
    if (block == nullptr)
        return;
    Remove(g_objects, block);
    KTHeapFree(block);
}

// ---- dump ----

// The allocation lock is held while lines go out, so nothing here may allocate through it.
constexpr std::size_t kLineBytes = 256;
constexpr std::size_t kHeadBytes = 32;
constexpr unsigned int kMostLines = 128;

void Write(const char* line) {
    std::printf("%s", line);
    KTDebuggerWrite(line);
}

bool WriteBlock(void* context, const void* block, std::size_t size) {
    unsigned int& index = *static_cast<unsigned int*>(context);
    char head[kHeadBytes + 1] = {};
    std::memcpy(head, block, std::min(size, kHeadBytes));
    char line[kLineBytes];
    // Sixteen digits on every system: the C runtimes do not agree on %p.
    std::snprintf(line, sizeof(line), "idx = %03u, addr = 0x%016" PRIxPTR ", size = %d(%s)\n",
                  index, reinterpret_cast<std::uintptr_t>(block), static_cast<int>(size), head);
    Write(line);
    return ++index < kMostLines;
}

void WriteTable(const char* name, const KTAccounting& table, bool detail) {
    char line[kLineBytes];
    std::snprintf(line, sizeof(line), "%s num = %8u, %s used = %8u, %s max = %8u\n", name,
                  static_cast<unsigned int>(table.Count()), name,
                  static_cast<unsigned int>(table.Used()), name,
                  static_cast<unsigned int>(table.Max()));
    Write(line);
    unsigned int index = 0;
    if (detail)
        table.Walk(WriteBlock, &index);
}

}  // namespace

IKTBaseOBJ::~IKTBaseOBJ() = default;
CKTObject::~CKTObject() = default;

void* IKTBaseOBJ::operator new(std::size_t size) noexcept {
    return NewObject(size);
}

void* IKTBaseOBJ::operator new[](std::size_t size) noexcept {
    return NewObject(size);
}

void* IKTBaseOBJ::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return NewObject(size);
}

void* IKTBaseOBJ::operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return NewObject(size);
}

void IKTBaseOBJ::operator delete(void* p, std::size_t) noexcept {
    DeleteObject(p);
}

void IKTBaseOBJ::operator delete[](void* p, std::size_t) noexcept {
    DeleteObject(p);
}

void IKTBaseOBJ::operator delete(void* p, const std::nothrow_t&) noexcept {
    DeleteObject(p);
}

void IKTBaseOBJ::operator delete[](void* p, const std::nothrow_t&) noexcept {
    DeleteObject(p);
}

IKTRef::IKTRef() : m_ref(1) {}

IKTRef::IKTRef(const IKTRef& other) : IKTBaseOBJ(other), m_ref(other.m_ref) {}

IKTRef& IKTRef::operator=(const IKTRef& other) {
    m_ref = other.m_ref;
    return *this;
}

IKTRef::~IKTRef() = default;

int IKTRef::AddRef() {
    KTOsFastGuard hold(g_referenceLock);
    return ++m_ref;
}

int IKTRef::Release() {
    KTOsFastGuard hold(g_referenceLock);
    return --m_ref;
}

int IKTRef::GetRef() {
    KTOsFastGuard hold(g_referenceLock);
    return m_ref;
}

unsigned char* ZMKMalloc(std::size_t size) {
    void* block = KTHeapAlloc(size);
    Insert(g_memory, block, size);
    return static_cast<unsigned char*>(block);
}

void* ZMKCalloc(std::size_t count, std::size_t size) {
    void* block = KTHeapCalloc(count, size);
    Insert(g_memory, block, count * size);
    return block;
}

void* ZMKRealloc(void* p, std::size_t size) {
    // Removed first: once the heap has the old block back, another thread may be given its address.
    Remove(g_memory, p);
    void* block = KTHeapRealloc(p, size);
    Insert(g_memory, block, size);
    return block;
}

void ZMKFree(void* p) {
    if (p == nullptr)
        return;
    Remove(g_memory, p);
    KTHeapFree(p);
}

void KTMemoryDump(bool detail) {
    Write("===========================Memory====================================\n");
    KTOsFastGuard hold(g_allocationLock);
    WriteTable("object", g_objects, detail);
    WriteTable("memory", g_memory, detail);
}

unsigned int KTGetProcessorNum() {
    return KTOsProcessorCount();
}

void KTAccountingClose() {
    KTOsFastGuard hold(g_allocationLock);
    g_objects.Clear();
    g_memory.Clear();
}
