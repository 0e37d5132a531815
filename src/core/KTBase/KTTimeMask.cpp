#include "KTBase/KTTimeMask.h"

#include <cstring>

namespace {

constexpr unsigned int kWordBits = 32;
constexpr unsigned int kDaySeconds = 86400;
constexpr unsigned int kMostAddSeconds = 0xFFFFFFFFu / 1000;  // that CKTTime::Add can count

/// What a value mask's list holds.
struct Entry {
    unsigned int slot;
    unsigned int value;
};

std::size_t WordCount(unsigned int slots) {
    return slots == 0 ? 0 : (slots - 1) / kWordBits + 1;
}

/// The bits of a word that belong to slots first to last, both counted.
unsigned int BitsOf(unsigned int word, unsigned int first, unsigned int last) {
    unsigned int bits = 0xFFFFFFFFu;
    if (word == first / kWordBits)
        bits &= 0xFFFFFFFFu << first % kWordBits;
    if (word == last / kWordBits)
        bits &= 0xFFFFFFFFu >> (kWordBits - 1 - last % kWordBits);
    return bits;
}

void StoreStart(CKTTime& slot, CKTTime* start) {
    if (start != nullptr)
        slot = *start;
    else
        slot.SetTime(static_cast<timeval*>(nullptr));
}

CKTTime After(const CKTTime& start, unsigned int seconds) {
    CKTTime out(start);
    if (seconds > kMostAddSeconds) {
        // All but a day by a plain jump: the day left crosses midnight, as one Add would have.
        out.SetTime(start.GetTime() + (seconds - kDaySeconds));
        seconds = kDaySeconds;
    }
    return out += seconds;
}

}  // namespace

// ---- bits ----

CKTTimeMaskBIT::CKTTimeMaskBIT(CKTTime* start, unsigned int seconds) : m_count(0), m_bits(nullptr) {
    Init(start, seconds);
}

CKTTimeMaskBIT::~CKTTimeMaskBIT() {
    ZMKFree(m_bits);
}

int CKTTimeMaskBIT::Init(CKTTime* start, unsigned int seconds) {
    ZMKFree(m_bits);
    m_bits = nullptr;
    m_count = 0;
    if (seconds == 0)
        return KT_OK;
    StoreStart(m_start, start);
    m_bits = static_cast<unsigned int*>(ZMKCalloc(WordCount(seconds), sizeof(*m_bits)));
    if (m_bits == nullptr)
        return KT_NO_MEMORY;
    m_count = seconds;
    return KT_OK;
}

int CKTTimeMaskBIT::Clear() {
    if (m_count == 0)
        return KT_BAD_STATE;
    std::memset(m_bits, 0, WordCount(m_count) * sizeof(*m_bits));
    return KT_OK;
}

int CKTTimeMaskBIT::Enable(unsigned int slot, bool on, unsigned int n) {
    if (slot >= m_count)
        return KT_ARGUMENT;
    if (n == 0)
        return KT_OK;
    const unsigned int last = n > m_count - slot ? m_count - 1 : slot + n - 1;
    for (unsigned int word = slot / kWordBits; word <= last / kWordBits; ++word) {
        const unsigned int bits = BitsOf(word, slot, last);
        m_bits[word] = on ? m_bits[word] | bits : m_bits[word] & ~bits;
    }
    return KT_OK;
}

int CKTTimeMaskBIT::Check(unsigned int slot, bool& found, unsigned int n) const {
    if (slot >= m_count)
        return KT_ARGUMENT;
    found = false;
    if (n == 0)
        return KT_OK;
    const unsigned int last = n > m_count - slot ? m_count - 1 : slot + n - 1;
    for (unsigned int word = slot / kWordBits; word <= last / kWordBits && !found; ++word)
        found = (m_bits[word] & BitsOf(word, slot, last)) != 0;
    return KT_OK;
}

int CKTTimeMaskBIT::FindSlots(const CKTTime& t, unsigned int seconds, unsigned int& slot,
                              unsigned int& n) const {
    const long long after = t - m_start;
    if (after > 0) {
        if (after >= m_count)
            return KT_ARGUMENT;
        slot = static_cast<unsigned int>(after);
        n = seconds;
        return KT_OK;
    }
    // Seconds and milliseconds are added up here as if they were one: wanted, see the class.
    const long long left = after + static_cast<long long>(seconds) * 1000;
    if (left <= 0)
        return KT_ARGUMENT;
    slot = 0;
    n = static_cast<unsigned int>(left / 1000);
    return KT_OK;
}

int CKTTimeMaskBIT::Enable(CKTTime& t, bool on, unsigned int seconds) {
    unsigned int slot, n;
    const int result = FindSlots(t, seconds, slot, n);
    return result == KT_OK ? Enable(slot, on, n) : result;
}

int CKTTimeMaskBIT::Check(CKTTime& t, bool& found, unsigned int seconds) const {
    found = false;
    unsigned int slot, n;
    const int result = FindSlots(t, seconds, slot, n);
    return result == KT_OK ? Check(slot, found, n) : result;
}

int CKTTimeMaskBIT::GetTimeS(CKTTime& out) const {
    if (m_count == 0)
        return KT_BAD_STATE;
    out = m_start;
    return KT_OK;
}

int CKTTimeMaskBIT::GetTimeE(CKTTime& out) const {
    if (m_count == 0)
        return KT_BAD_STATE;
    out = After(m_start, m_count);
    return KT_OK;
}

// ---- values ----

CKTTimeMaskValue::CKTTimeMaskValue(CKTTime* start, unsigned int seconds) : m_count(0) {
    Init(start, seconds);
}

CKTTimeMaskValue::~CKTTimeMaskValue() = default;

int CKTTimeMaskValue::Init(CKTTime* start, unsigned int seconds) {
    m_entries.RemoveAll();
    m_count = seconds;
    if (seconds != 0)
        StoreStart(m_start, start);
    return KT_OK;
}

int CKTTimeMaskValue::Clear() {
    m_entries.RemoveAll();
    return KT_OK;
}

/// Position of the first entry at slot or after it, or null.
void* CKTTimeMaskValue::FindFrom(unsigned int slot) const {
    const Entry* tail = static_cast<Entry*>(m_entries.GetAtTail());
    if (tail == nullptr || tail->slot < slot)
        return nullptr;
    void* pos = m_entries.GetHead();
    while (static_cast<Entry*>(m_entries.GetAt(pos))->slot < slot)
        pos = m_entries.GetNext(pos);
    return pos;
}

int CKTTimeMaskValue::SetValue(unsigned int slot, unsigned int value) {
    if (slot >= m_count)
        return KT_ARGUMENT;
    void* pos = FindFrom(slot);
    Entry* entry = static_cast<Entry*>(m_entries.GetAt(pos));
    if (entry != nullptr && entry->slot == slot) {
        entry->value = value;
        if (value == 0)
            ZMKFree(m_entries.RemoveAt(pos));
        return KT_OK;
    }
    if (value == 0)
        return KT_OK;
    entry = reinterpret_cast<Entry*>(ZMKMalloc(sizeof(Entry)));
    if (entry == nullptr)
        return KT_NO_MEMORY;
    *entry = {slot, value};
    if ((pos != nullptr ? m_entries.InsertPrev(pos, entry) : m_entries.AddTail(entry)) != nullptr)
        return KT_OK;
    ZMKFree(entry);
    return KT_NO_MEMORY;
}

int CKTTimeMaskValue::GetValue(unsigned int slot, unsigned int& value) const {
    if (slot >= m_count)
        return KT_ARGUMENT;
    const Entry* entry = static_cast<Entry*>(m_entries.GetAt(FindFrom(slot)));
    value = entry != nullptr && entry->slot == slot ? entry->value : 0;
    return KT_OK;
}

int CKTTimeMaskValue::Check(unsigned int slot, int& found, unsigned int n) const {
    const Entry* entry = static_cast<Entry*>(m_entries.GetAt(FindFrom(slot)));
    found = entry != nullptr && entry->slot - slot < n ? 1 : 0;
    return KT_OK;
}

int CKTTimeMaskValue::SetValue(CKTTime& t, unsigned int value) {
    const long long after = t - m_start;
    if (after < 0 || after / 1000 >= m_count)
        return KT_ARGUMENT;
    return SetValue(static_cast<unsigned int>(after / 1000), value);
}

int CKTTimeMaskValue::GetValue(CKTTime& t, unsigned int& value) const {
    value = 0;
    const long long after = t - m_start;
    if (after < 0 || after / 1000 >= m_count)
        return KT_ARGUMENT;
    return GetValue(static_cast<unsigned int>(after / 1000), value);
}

int CKTTimeMaskValue::Check(CKTTime& t, int& found, unsigned int n) const {
    found = 0;
    const long long slot = (t - m_start) / 1000;
    if (slot < 0 || slot >= m_count)
        return KT_OK;
    return Check(static_cast<unsigned int>(slot), found, n);
}

int CKTTimeMaskValue::GetFirstValue(void*& pos, unsigned int& slot, unsigned int& value) const {
    pos = m_entries.GetHead();
    return GetNextValue(pos, slot, value);
}

int CKTTimeMaskValue::GetNextValue(void*& pos, unsigned int& slot, unsigned int& value) const {
    const Entry* entry = static_cast<Entry*>(m_entries.GetAt(pos));
    if (entry == nullptr)
        return KT_NOT_FOUND;
    slot = entry->slot;
    value = entry->value;
    pos = m_entries.GetNext(pos);
    return KT_OK;
}

int CKTTimeMaskValue::GetTimeS(CKTTime& out) const {
    if (m_count == 0)
        return KT_BAD_STATE;
    out = m_start;
    return KT_OK;
}

int CKTTimeMaskValue::GetTimeE(CKTTime& out) const {
    return GetTime(out, m_count);
}

int CKTTimeMaskValue::GetTime(CKTTime& out, unsigned int slot) const {
    if (m_count == 0)
        return KT_BAD_STATE;
    out = After(m_start, slot);
    return KT_OK;
}
