#include "KTBase/KTMemPool.h"

#include <cstdint>
#include <cstring>
#include <new>

#include "KTBase/KTSpacePool.h"
#include "KTBase/KTString.h"

namespace {

// Links are copied in and out: elements of an odd size leave most of them unaligned.
void SetNext(void* element, void* next) {
    std::memcpy(element, &next, sizeof(next));
}

void* GetNext(const void* element) {
    void* next;
    std::memcpy(&next, element, sizeof(next));
    return next;
}

}  // namespace

IKTMemPool::IKTMemPool(const char* name)
    : m_name(CKTString::Clone(name, 0)), m_pages(0), m_shift(0), m_size(0) {}

IKTMemPool::~IKTMemPool() {
    ZMKFree(m_name);
}

int IKTMemPool::Create(unsigned int pages, unsigned int shift) {
    if (pages == 0 || shift == 0)
        return KT_ARGUMENT;
    if (shift > 31)
        return KT_NO_MEMORY;
    m_pages = pages;
    m_shift = shift;
    m_size = 1u << shift;
    return KT_OK;
}

void IKTMemPool::Dump(CKTString*) {}

IKTMemPoolFix::IKTMemPoolFix(const char* name)
    : IKTMemPool(name), m_space(nullptr), m_block(nullptr), m_base(nullptr) {}

IKTMemPoolFix::~IKTMemPoolFix() {
    IKTMemPoolFix::Delete();
}

int IKTMemPoolFix::Create(unsigned int pages, unsigned int shift) {
    if (m_space != nullptr)
        return KT_BAD_STATE;
    const int result = IKTMemPool::Create(pages, shift);
    if (result != KT_OK)
        return result;
    // One page more than asked for, to align the first.
    m_block = ZMKMalloc((static_cast<std::size_t>(pages) + 1) << shift);
    if (m_block == nullptr)
        return KT_NO_MEMORY;
    const std::uintptr_t size = m_size;
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(m_block);
    m_base = m_block + (((start + size) & ~(size - 1)) - start);
    m_space = new IKTSpacePool(m_name);
    if (m_space == nullptr || m_space->Create(pages) != KT_OK) {
        Delete();
        return KT_NO_MEMORY;
    }
    return KT_OK;
}

int IKTMemPoolFix::Delete() {
    delete m_space;
    m_space = nullptr;
    ZMKFree(m_block);
    m_block = nullptr;
    m_base = nullptr;
    return KT_OK;
}

int IKTMemPoolFix::CreateBuffer(unsigned long long& handle, unsigned char*& ptr,
                                unsigned int& size) {
    if (m_space == nullptr)
        return KT_BAD_STATE;
    if (size == 0)
        return KT_ARGUMENT;
    handle = 0;
    const unsigned int pages = ((size - 1) >> m_shift) + 1;
    const unsigned long long granted = static_cast<unsigned long long>(pages) << m_shift;
    if (granted > 0xFFFFFFFFu)
        return KT_NO_MEMORY;
    handle = m_space->PageAlloc(pages);
    if (handle == 0)
        return KT_NO_MEMORY;
    ptr = m_base + ((handle >> 32) << m_shift);
    size = static_cast<unsigned int>(granted);
    return KT_OK;
}

int IKTMemPoolFix::DeleteBuffer(unsigned long long& handle, unsigned char*& ptr) {
    if (handle == 0)
        return KT_OK;
    if (m_space == nullptr)
        return KT_BAD_STATE;
    m_space->PageFree(handle);
    handle = 0;
    ptr = nullptr;
    return KT_OK;
}

void IKTMemPoolFix::Dump(CKTString* out) {
    if (m_space != nullptr)
        m_space->Dump(out);
}

CKTPool::CKTPool(unsigned int size)
    : m_blocks(nullptr), m_size(size > 8 ? size : 8), m_count(1024), m_free(nullptr) {}

CKTPool::~CKTPool() {
    while (m_blocks != nullptr) {
        Block* next = m_blocks->next;
        ::operator delete(m_blocks);
        m_blocks = next;
    }
}

void* CKTPool::alloc() {
    CKTGuard hold(m_lock);
    if (m_free == nullptr)
        grow();
    void* element = m_free;
    m_free = GetNext(element);
    return element;
}

void CKTPool::free(void* p) {
    if (p == nullptr)
        return;
    CKTGuard hold(m_lock);
    SetNext(p, m_free);
    m_free = p;
}

void CKTPool::setec(unsigned int count) {
    CKTGuard hold(m_lock);
    m_count = count != 0 ? count : 1;
}

void CKTPool::grow() {
    // 64 bits hold the product of any two 32-bit numbers and the header.
    const std::size_t bytes = static_cast<std::size_t>(m_size) * m_count;
    Block* block = static_cast<Block*>(::operator new(sizeof(Block) + bytes));
    block->elements = reinterpret_cast<unsigned char*>(block + 1);
    block->next = m_blocks;
    m_blocks = block;
    unsigned char* last = block->elements + bytes - m_size;
    for (unsigned char* element = block->elements; element != last; element += m_size)
        SetNext(element, element + m_size);
    SetNext(last, nullptr);
    m_free = block->elements;
}
