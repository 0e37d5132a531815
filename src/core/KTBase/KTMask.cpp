#include "KTBase/KTMask.h"

#include <climits>
#include <cstring>

namespace {

constexpr unsigned int kWordBits = 32;

unsigned int WordCount(unsigned int bits) {
    return bits == 0 ? 0 : (bits - 1) / kWordBits + 1;
}

/// The words that can be walked: none in a record without a buffer.
unsigned int Words(const tag_KTMASK* m) {
    return m != nullptr && m->data != nullptr ? m->count : 0;
}

/// Lets m own words instead of those it has; null is a failure but for count 0.
bool Replace(tag_KTMASK& m, unsigned int count, unsigned int* words) {
    ZMKFree(m.data);
    m.data = words;
    m.count = words != nullptr ? count : 0;
    return words != nullptr || count == 0;
}

unsigned int* NewWords(unsigned int count) {
    return count == 0 ? nullptr : static_cast<unsigned int*>(ZMKCalloc(count, sizeof(int)));
}

std::size_t Bytes(unsigned int count) {
    return static_cast<std::size_t>(count) * sizeof(unsigned int);
}

bool InitWords(tag_KTMASK* m, unsigned int count) {
    if (m == nullptr)
        return false;
    if (m->count != count || m->data == nullptr)
        return Replace(*m, count, NewWords(count));
    std::memset(m->data, 0, Bytes(count));
    return true;
}

bool AllocWords(tag_KTMASK** out, unsigned int count) {
    if (out == nullptr)
        return false;
    *out = static_cast<tag_KTMASK*>(ZMKCalloc(1, sizeof(tag_KTMASK)));
    if (*out == nullptr)
        return false;
    if (!InitWords(*out, count))
        KTMASK_Free(out);
    return *out != nullptr;
}

/// Neither is null. Words that src lacks count as zero.
bool CopyWords(tag_KTMASK* dst, const tag_KTMASK* src) {
    if (Words(src) == 0)
        return InitWords(dst, src->count);
    if (Words(dst) == src->count) {
        std::memmove(dst->data, src->data, Bytes(src->count));
        return true;
    }
    unsigned int* words = NewWords(src->count);
    if (words != nullptr)
        std::memcpy(words, src->data, Bytes(src->count));  // first: dst may hold src's words
    return Replace(*dst, src->count, words);
}

template <typename Combine>
bool Merge(tag_KTMASK* dst, const tag_KTMASK* src, Combine combine) {
    if (dst == nullptr || src == nullptr || dst->count != src->count)
        return false;
    if (Words(dst) != dst->count || Words(src) != src->count)
        return false;
    for (unsigned int i = 0; i < dst->count; ++i)
        dst->data[i] = combine(dst->data[i], src->data[i]);
    return true;
}

}  // namespace

// ---- Masks ----

bool KTMASK_Alloc(tag_KTMASK** out, unsigned int bits) {
    return AllocWords(out, WordCount(bits));
}

bool KTMASK_Free(tag_KTMASK** p) {
    if (p == nullptr)
        return false;
    if (*p != nullptr)
        ZMKFree((*p)->data);
    ZMKFree(*p);
    *p = nullptr;
    return true;
}

bool KTMASK_Init(tag_KTMASK* m, unsigned int bits) {
    return InitWords(m, WordCount(bits));
}

bool KTMASK_Clear(tag_KTMASK* m) {
    return m != nullptr && Replace(*m, 0, nullptr);
}

bool KTMASK_Copy(tag_KTMASK* dst, const tag_KTMASK* src) {
    if (dst == nullptr || src == nullptr)
        return false;
    return dst == src || CopyWords(dst, src);
}

bool KTMASK_Equals(const tag_KTMASK* a, const tag_KTMASK* b) {
    if (a == nullptr || b == nullptr)
        return false;
    if (a == b)
        return true;
    if (a->count != b->count || Words(a) != a->count || Words(b) != b->count)
        return false;
    return a->count == 0 || std::memcmp(a->data, b->data, Bytes(a->count)) == 0;
}

bool KTMASK_Check(const tag_KTMASK* m, unsigned int bit) {
    const unsigned int word = bit / kWordBits;
    return word < Words(m) && (m->data[word] >> bit % kWordBits & 1) != 0;
}

bool KTMASK_Set(tag_KTMASK* m, int bit, int value) {
    if (m == nullptr)
        return false;
    if (bit < 0) {
        for (unsigned int i = 0; i < Words(m); ++i)
            m->data[i] = value != 0 ? ~0u : 0;
        return true;
    }
    const unsigned int word = static_cast<unsigned int>(bit) / kWordBits;
    const unsigned int mask = 1u << static_cast<unsigned int>(bit) % kWordBits;
    if (word < Words(m))
        m->data[word] = value != 0 ? m->data[word] | mask : m->data[word] & ~mask;
    return false;  // of a set bit as well: programs have been built around it
}

bool KTMASK_IsEmpty(const tag_KTMASK* m) {
    for (unsigned int i = 0; i < Words(m); ++i)
        if (m->data[i] != 0)
            return false;
    return true;
}

bool KTMASK_AND(tag_KTMASK* dst, const tag_KTMASK* src) {
    return Merge(dst, src, [](unsigned int a, unsigned int b) { return a & b; });
}

bool KTMASK_OR(tag_KTMASK* dst, const tag_KTMASK* src) {
    return Merge(dst, src, [](unsigned int a, unsigned int b) { return a | b; });
}

bool KTMASK_XOR(tag_KTMASK* dst, const tag_KTMASK* src) {
    return Merge(dst, src, [](unsigned int a, unsigned int b) { return a ^ b; });
}

bool KTMASK_ANDNOT(tag_KTMASK* dst, const tag_KTMASK* src) {
    return Merge(dst, src, [](unsigned int a, unsigned int b) { return a & ~b; });
}

bool KTMASK_NOT(tag_KTMASK* m) {
    for (unsigned int i = 0; i < Words(m); ++i)
        m->data[i] = ~m->data[i];
    return m != nullptr;
}

unsigned int KTMASK_GetChecked(const tag_KTMASK* m) {
    unsigned long long checked = 0;
    for (unsigned int i = 0; i < Words(m); ++i)
        checked += static_cast<unsigned int>(__builtin_popcount(m->data[i]));
    return checked < UINT_MAX ? static_cast<unsigned int>(checked) : UINT_MAX;
}

// ---- Integer arrays ----

bool KTARRAY_UINT_Alloc(tag_KTMASK** out, unsigned int count) {
    return AllocWords(out, count);
}

bool KTARRAY_UINT_Free(tag_KTMASK** p) {
    return KTMASK_Free(p);
}

bool KTARRAY_UINT_Init(tag_KTMASK* a, unsigned int count) {
    return InitWords(a, count);
}

bool KTARRAY_UINT_Clear(tag_KTMASK* a) {
    return KTMASK_Clear(a);
}

bool KTARRAY_UINT_Copy(tag_KTMASK* dst, const tag_KTMASK* src) {
    if (dst == nullptr || src == nullptr)
        return false;
    if (dst == src)
        return true;
    return Words(src) == 0 ? KTMASK_Clear(dst) : CopyWords(dst, src);
}

bool KTARRAY_UINT_Equals(const tag_KTMASK* a, const tag_KTMASK* b) {
    return KTMASK_Equals(a, b);
}

// ---- IKTMask ----

IKTMask::IKTMask() : m_mask() {}

IKTMask::IKTMask(unsigned int bits) : m_mask() {
    KTMASK_Init(&m_mask, bits);
}

IKTMask::IKTMask(const IKTMask& other) : IKTBaseOBJ(other), m_mask() {
    KTMASK_Copy(&m_mask, &other.m_mask);
}

IKTMask::IKTMask(const IKTMask* other) : m_mask() {
    if (other != nullptr)
        KTMASK_Copy(&m_mask, &other->m_mask);
}

IKTMask::IKTMask(const tag_KTMASK& other) : m_mask() {
    KTMASK_Copy(&m_mask, &other);
}

IKTMask::IKTMask(const tag_KTMASK* other) : m_mask() {
    KTMASK_Copy(&m_mask, other);
}

IKTMask::~IKTMask() {
    KTMASK_Clear(&m_mask);
}

bool IKTMask::Init(unsigned int bits) {
    return KTMASK_Init(&m_mask, bits);
}

bool IKTMask::Check(unsigned int bit) {
    return KTMASK_Check(&m_mask, bit);
}

bool IKTMask::Set(int bit, int value) {
    return KTMASK_Set(&m_mask, bit, value);
}

bool IKTMask::operator=(const IKTMask& other) {
    return KTMASK_Copy(&m_mask, &other.m_mask);
}

bool IKTMask::operator=(const tag_KTMASK& other) {
    return KTMASK_Copy(&m_mask, &other);
}

bool IKTMask::operator=(const tag_KTMASK* other) {
    return KTMASK_Copy(&m_mask, other);
}

bool IKTMask::operator==(const IKTMask& other) const {
    return KTMASK_Equals(&m_mask, &other.m_mask);
}

bool IKTMask::operator==(const tag_KTMASK& other) const {
    return KTMASK_Equals(&m_mask, &other);
}

bool IKTMask::operator==(const tag_KTMASK* other) const {
    return KTMASK_Equals(&m_mask, other);
}

const tag_KTMASK* IKTMask::GetMask() const {
    return &m_mask;
}
