#include "KTBase/KTString.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "KTBase/KTDebug.h"
#include "KTBase/KTDigest.h"
#include "KTBase/KTTime.h"
#include "KTText.h"
#include "os/KTOsText.h"

namespace {

constexpr unsigned short kGrowShift = 5;
constexpr unsigned int kMostGrowShift = 31;
constexpr std::size_t kFormatBytes = 512;

constexpr unsigned int kMsPerSecond = 1000;
constexpr unsigned int kMsPerMinute = 60 * kMsPerSecond;
constexpr unsigned int kMsPerHour = 60 * kMsPerMinute;

/// Membership test of a set of bytes, so that a scan costs the same for any set.
class ByteSet {
public:
    explicit ByteSet(const char* set) {
        for (; *set != 0; ++set)
            m_bits[Byte(*set) / 64] |= 1ull << (Byte(*set) % 64);
    }
    bool Has(char c) const { return (m_bits[Byte(c) / 64] >> (Byte(c) % 64) & 1) != 0; }

private:
    static unsigned int Byte(char c) { return static_cast<unsigned char>(c); }
    unsigned long long m_bits[4] = {};
};

const char* EndOf(const char* begin, const char* end) {
    return end != nullptr ? end : begin + std::strlen(begin);
}

std::string_view View(const char* text, std::size_t length) {
    return {text, length != 0 ? length : std::strlen(text)};
}

const char* At(std::string_view text, std::size_t position) {
    return position == std::string_view::npos ? nullptr : text.data() + position;
}

}  // namespace

// ---- room ----

/// Makes room for n more bytes. *source moves along when it points into a buffer that moves.
inline bool CKTString::Reserve(std::size_t n, const char** source) {
    if (n > INT_MAX)
        return false;
    // Strictly less: growing one step early is what callers that watch Size() count on.
    return m_length + static_cast<unsigned long long>(n) + 1 < m_capacity || Grow(n, source);
}

bool CKTString::Grow(std::size_t n, const char** source) {
    if (m_growShift > kMostGrowShift)
        return false;
    const unsigned long long used = m_length + static_cast<unsigned long long>(n);
    const unsigned long long capacity = ((used >> m_growShift) + 1) << m_growShift;
    if (capacity > UINT_MAX || (m_maxCapacity != 0 && capacity > m_maxCapacity))
        return false;

    const std::uintptr_t offset =
        reinterpret_cast<std::uintptr_t>(*source) - reinterpret_cast<std::uintptr_t>(m_buffer);
    const bool inside = offset < m_capacity;
    char* buffer = static_cast<char*>(ZMKRealloc(m_buffer, capacity));
    if (buffer == nullptr)
        return false;
    if (m_buffer == nullptr)
        buffer[0] = 0;
    if (inside)
        *source = buffer + offset;
    m_buffer = buffer;
    m_capacity = static_cast<unsigned int>(capacity);
    return true;
}

inline int CKTString::AppendBytes(const char* data, std::size_t count) {
    if (count == 0)
        return 0;
    if (!Reserve(count, &data))
        return KT_ERROR;
    std::memmove(m_buffer + m_length, data, count);
    m_length += static_cast<unsigned int>(count);
    m_buffer[m_length] = 0;
    return static_cast<int>(count);
}

/// Replaces the content; on failure it stays as it was.
bool CKTString::Assign(const char* data, std::size_t count) {
    if (count == 0) {
        Empty(false);
        return true;
    }
    const unsigned int oldLength = m_length;
    m_length = 0;  // the old bytes need no room beside the new ones
    if (!Reserve(count, &data)) {
        m_length = oldLength;
        return false;
    }
    std::memmove(m_buffer, data, count);
    m_length = static_cast<unsigned int>(count);
    m_buffer[m_length] = 0;
    return true;
}

// ---- construction ----

CKTString::CKTString() : CKTString(0, kGrowShift) {}

CKTString::CKTString(unsigned short maxCapacity, unsigned short growShift)
    : m_buffer(nullptr),
      m_capacity(0),
      m_length(0),
      m_growShift(growShift),
      m_maxCapacity(maxCapacity) {}

CKTString::CKTString(const char* s) : CKTString(0, 0) {
    AppendSTR(s, 0);
}

CKTString::CKTString(const CKTString& other)
    : IKTBaseOBJ(other),
      m_buffer(nullptr),
      m_capacity(0),
      m_length(0),
      m_growShift(0),
      m_maxCapacity(0) {
    AppendBytes(other.m_buffer, other.m_length);
}

CKTString::~CKTString() {
    ZMKFree(m_buffer);
}

void CKTString::Dump() {
    if (m_buffer != nullptr)
        KTPrintf("CKTString = %s\n", m_buffer);
}

int CKTString::operator<<(const CKTString* other) {
    return other == nullptr ? KT_ERROR : AppendBytes(other->m_buffer, other->m_length);
}

int CKTString::operator<<(const CKTString& other) {
    return AppendBytes(other.m_buffer, other.m_length);
}

int CKTString::operator<<(const char* s) {
    return AppendSTR(s, 0);
}

// ---- storage ----

int CKTString::AllocBuffer(unsigned int n) {
    if (n == 0)
        return 0;
    const char* none = nullptr;
    return Reserve(n, &none) ? static_cast<int>(n) : KT_ERROR;
}

int CKTString::Init(unsigned int n) {
    Empty(true);
    return AllocBuffer(n);
}

void CKTString::Empty(bool freeBuffer) {
    m_length = 0;
    if (m_buffer != nullptr)
        m_buffer[0] = 0;
    if (!freeBuffer)
        return;
    ZMKFree(m_buffer);
    m_buffer = nullptr;
    m_capacity = 0;
}

int CKTString::IsEmpty() const {
    return m_buffer == nullptr || m_length == 0;
}

unsigned int CKTString::GetLength() const {
    return m_length;
}

unsigned int CKTString::Size() const {
    return m_capacity;
}

char* CKTString::GetBuffer() const {
    return m_buffer;
}

unsigned int CKTString::GetSpace() const {
    return m_buffer == nullptr ? 0 : m_capacity - m_length - 1;
}

int CKTString::Add(int n) {
    if (n < 1)
        return 0;
    const unsigned long long length = static_cast<unsigned long long>(m_length) + n;
    if (length >= m_capacity)
        return KT_ERROR;
    m_length = static_cast<unsigned int>(length);
    m_buffer[m_length] = 0;
    return static_cast<int>(m_length);
}

int CKTString::Flush(int n) {
    if (n < 0 || static_cast<unsigned int>(n) >= m_length) {
        Empty(false);
    } else if (n != 0) {
        m_length -= n;
        std::memmove(m_buffer, m_buffer + n, m_length + 1);
    }
    return static_cast<int>(m_length);
}

char* CKTString::Clone() {
    return Clone(*this);
}

char* CKTString::Clone(const CKTString& s) {
    return s.IsEmpty() ? nullptr : KTCopyRange(s.m_buffer, s.m_length);
}

char* CKTString::Clone(const char* s, std::size_t maxLen) {
    if (s == nullptr)
        return nullptr;
    return KTCopyRange(s, maxLen == 0 ? std::strlen(s) : KTTextLength(s, maxLen));
}

void CKTString::Clone(char** slot, const char* s, std::size_t len) {
    if (slot == nullptr)
        return;
    char* copy = nullptr;
    if (s != nullptr) {
        const std::size_t length = len == 0 ? std::strlen(s) : KTTextLength(s, len);
        if (*slot != nullptr && std::string_view(*slot) == std::string_view(s, length))
            return;
        copy = KTCopyRange(s, length);
    }
    // Freed last: s may point into it.
    ZMKFree(*slot);
    *slot = copy;
}

// ---- appending ----

int CKTString::AppendSTR(const char* s, unsigned int len) {
    if (s == nullptr)
        return 0;
    return AppendBytes(s, len != 0 ? len : std::strlen(s));
}

int CKTString::AppendDAT(const unsigned char* data, unsigned int len) {
    return data == nullptr ? 0 : AppendBytes(reinterpret_cast<const char*>(data), len);
}

int CKTString::Append(const char* format, ...) {
    if (format == nullptr)
        return 0;
    va_list args;
    va_start(args, format);
    const int appended = Append(&args, format);
    va_end(args);
    return appended;
}

int CKTString::Append(va_list* args, const char* format) {
    if (args == nullptr || format == nullptr)
        return KT_ERROR;
    // Formatted beside the buffer and not into it: the arguments may point into the buffer.
    char text[kFormatBytes];
    va_list pass;
    va_copy(pass, *args);
    const int length = std::vsnprintf(text, sizeof(text), format, pass);
    va_end(pass);
    if (length < 0)
        return KT_ERROR;
    const std::size_t bytes = static_cast<std::size_t>(length) + 1;
    if (bytes <= sizeof(text))
        return AppendBytes(text, length);

    char* longText = reinterpret_cast<char*>(ZMKMalloc(bytes));
    if (longText == nullptr)
        return KT_ERROR;
    va_copy(pass, *args);
    const int written = std::vsnprintf(longText, bytes, format, pass);
    va_end(pass);
    const int appended = written == length ? AppendBytes(longText, length) : KT_ERROR;
    ZMKFree(longText);
    return appended;
}

int CKTString::AppendChar(char c, unsigned int count) {
    if (count == 0)
        return 0;
    const char* none = nullptr;
    if (!Reserve(count, &none))
        return KT_NO_MEMORY;
    std::memset(m_buffer + m_length, c, count);
    m_length += count;
    m_buffer[m_length] = 0;
    return static_cast<int>(count);
}

int CKTString::AppendTime(CKTTime* t, int) {
    if (t == nullptr)
        return 0;
    return Append("%04d/%02d/%02d %02d:%02d:%02d.%03d", static_cast<int>(t->GetYear()),
                  static_cast<int>(t->GetMonth()), static_cast<int>(t->GetDay()),
                  static_cast<int>(t->GetHour()), static_cast<int>(t->GetMinute()),
                  static_cast<int>(t->GetSecond()), static_cast<int>(t->GetMS()));
}

int CKTString::AppendTime(unsigned long long ms, int asSeconds) {
    const unsigned int msLeft = static_cast<unsigned int>(ms % kMsPerSecond);
    if (asSeconds != 0)
        return Append("%llu.%d", ms / kMsPerSecond, static_cast<int>(msLeft));
    // Wider than %02u, so that no duration wraps.
    return Append("%02llu:%02u:%02u.%03u", ms / kMsPerHour,
                  static_cast<unsigned int>(ms % kMsPerHour / kMsPerMinute),
                  static_cast<unsigned int>(ms % kMsPerMinute / kMsPerSecond), msLeft);
}

void CKTString::operator+=(const char* s) {
    AppendSTR(s, 0);
}

int CKTString::operator+=(const CKTString& other) {
    return AppendBytes(other.m_buffer, other.m_length);
}

// ---- assignment and access ----

void CKTString::operator=(const char* s) {
    // What does not fit leaves the string empty: the old text must not pass for the new one.
    if (!Assign(s, s == nullptr ? 0 : std::strlen(s)))
        Empty(false);
}

void CKTString::operator=(const CKTString& other) {
    if (&other != this && !Assign(other.m_buffer, other.m_length))
        Empty(false);
}

char CKTString::operator[](int i) {
    return i >= 0 && static_cast<unsigned int>(i) < m_length ? m_buffer[i] : 0;
}

CKTString& CKTString::Replace(const char* from, const char* to) {
    if (IsEmpty() || IsEmpty(from) || to == nullptr)
        return *this;
    const std::string_view text(m_buffer, m_length), pattern(from), with(to);
    std::size_t hits = 0;
    for (std::size_t at = 0; (at = text.find(pattern, at)) != text.npos; at += pattern.size())
        ++hits;
    if (hits == 0 || with.size() > UINT_MAX)
        return *this;

    // The exact size at once, so that the work stays linear. Neither product passes 64 bits: each
    // factor is below 2^32.
    const char* none = nullptr;
    const std::size_t total = text.size() - hits * pattern.size() + hits * with.size();
    CKTString result;
    if (!result.Reserve(total, &none))
        return *this;
    std::size_t done = 0;
    for (std::size_t at; (at = text.find(pattern, done)) != text.npos; done = at + pattern.size()) {
        result.AppendBytes(m_buffer + done, at - done);
        result.AppendBytes(to, with.size());
    }
    result.AppendBytes(m_buffer + done, m_length - done);
    Assign(result.m_buffer, result.m_length);
    return *this;
}

void CKTString::ToUpper() {
    for (unsigned int i = 0; i < m_length; ++i) {
        if (m_buffer[i] >= 'a' && m_buffer[i] <= 'z')
            m_buffer[i] -= 'a' - 'A';
    }
}

void CKTString::ToLower() {
    for (unsigned int i = 0; i < m_length; ++i) {
        if (m_buffer[i] >= 'A' && m_buffer[i] <= 'Z')
            m_buffer[i] += 'a' - 'A';
    }
}

// ---- comparison ----

int CKTString::EqualTo(const char* s) const {
    if (IsEmpty() || IsEmpty(s))
        return IsEmpty() && IsEmpty(s);
    return std::strcmp(m_buffer, s) == 0;
}

int CKTString::EqualTo(const CKTString& other) const {
    if (IsEmpty() || other.IsEmpty())
        return IsEmpty() && other.IsEmpty();
    return std::strcmp(m_buffer, other.m_buffer) == 0;
}

int CKTString::operator==(const char* s) {
    return s != nullptr && m_buffer != nullptr && std::string_view(m_buffer, m_length) == s;
}

int CKTString::operator!=(const char* s) {
    return s != nullptr && m_buffer != nullptr && std::string_view(m_buffer, m_length) != s;
}

int CKTString::IsEqual(const char* a, const char* b) {
    if (IsEmpty(a) || IsEmpty(b))
        return IsEmpty(a) && IsEmpty(b);
    return std::strcmp(a, b) == 0;
}

int CKTString::IsEmpty(const char* s) {
    return s == nullptr || *s == 0;
}

int CKTString::Compare(const char* begin, const char* end, const char* prefix) {
    if (begin == nullptr || end == nullptr || prefix == nullptr || end <= begin)
        return 0;
    const std::size_t length = end - begin;
    const std::size_t prefixLength = std::strlen(prefix);
    return prefixLength <= length && std::memcmp(begin, prefix, prefixLength) == 0;
}

// ---- ranges ----

const char* CKTString::Find(const char* pattern, const char* text, std::size_t textLen) {
    if (IsEmpty(pattern) || text == nullptr)
        return nullptr;
    const std::string_view range = View(text, textLen);
    return At(range, range.find(pattern));
}

const char* CKTString::ReverseFind(const char* pattern, const char* text, std::size_t textLen) {
    if (IsEmpty(pattern) || text == nullptr)
        return nullptr;
    const std::string_view range = View(text, textLen);
    return At(range, range.rfind(pattern));
}

const char* CKTString::Find(char c, const char* begin, const char* last) {
    if (begin == nullptr)
        return nullptr;
    last = EndOf(begin, last);
    if (last < begin)
        return nullptr;
    return static_cast<const char*>(std::memchr(begin, c, last - begin + 1));
}

const char* CKTString::FindL(const char* begin, const char* end, const char* set) {
    if (begin == nullptr || IsEmpty(set))
        return nullptr;
    end = EndOf(begin, end);
    const ByteSet bytes(set);
    while (begin < end && !bytes.Has(*begin))
        ++begin;
    return begin < end ? begin : end;
}

const char* CKTString::TrimL(const char* s) {
    while (s != nullptr && *s == ' ')
        ++s;
    return s;
}

const char* CKTString::TrimL(const char* begin, const char* last, char c) {
    if (begin == nullptr || last == nullptr)
        return nullptr;
    while (begin <= last && *begin == c)
        ++begin;
    return begin;
}

const char* CKTString::TrimR(const char* begin, const char* last, char c) {
    if (begin == nullptr || last == nullptr)
        return nullptr;
    while (last >= begin && *last == c)
        --last;
    return last;
}

const char* CKTString::TrimL(const char* begin, const char* end, const char* set) {
    if (begin == nullptr || IsEmpty(set))
        return begin;
    end = EndOf(begin, end);
    const ByteSet bytes(set);
    while (begin < end && bytes.Has(*begin))
        ++begin;
    return begin < end ? begin : nullptr;
}

const char* CKTString::TrimR(const char* begin, const char* end, const char* set) {
    if (begin == nullptr)
        return nullptr;
    end = EndOf(begin, end);
    if (end < begin)
        return begin;
    const ByteSet bytes(set != nullptr ? set : "");
    while (end > begin && bytes.Has(end[-1]))
        --end;
    return end;
}

int CKTString::Copy(char* dst, const char* src, int size) {
    if (dst == nullptr || src == nullptr)
        return 0;
    const std::size_t length = size < 1 ? std::strlen(src) : KTTextLength(src, size - 1);
    std::memmove(dst, src, length);
    dst[length] = 0;
    return static_cast<int>(length);
}

int CKTString::TrimCopy(char* dst, const char* src, int size) {
    if (dst == nullptr || src == nullptr)
        return 0;
    src = TrimL(src);
    std::size_t length = TrimR(src, nullptr, " ") - src;
    if (length == 0)
        return 0;
    if (size > 0 && length >= static_cast<std::size_t>(size))
        length = size - 1;
    std::memmove(dst, src, length);
    dst[length] = 0;
    return static_cast<int>(length);
}

// ---- conversion ----

int CKTString::BASE64Encode(CKTString& out, const char* data, int len) {
    char* text = nullptr;
    unsigned int length = 0;
    if (len < 1 ||
        KTBASE64Encode(&text, &length, reinterpret_cast<const unsigned char*>(data), len) == 0)
        return KT_ERROR;
    const int appended = out.AppendBytes(text, length);
    ZMKFree(text);
    return appended;
}

int CKTString::BASE64Decode(CKTString& out, const char* text, int len) {
    // The decoder wants a terminated text, and text may go on behind len.
    char* range = len < 1 ? nullptr : Clone(text, len);
    unsigned char* data = nullptr;
    unsigned int size = 0;
    int appended = KT_ERROR;
    if (KTBASE64Decode(&data, &size, len < 1 ? text : range, 0) != 0)
        appended = out.AppendDAT(data, size);
    ZMKFree(data);
    ZMKFree(range);
    return appended;
}

int CKTString::Multi2UTF8(CKTString& out, const char* s) {
    std::size_t length = 0;
    // Converted first: s may point into out.
    char* utf8 = s == nullptr ? nullptr : KTOsAnsiToUtf8(s, length);
    out.Empty(false);
    if (s == nullptr)
        return 0;
    const int stored = utf8 == nullptr ? KT_ERROR : out.AppendBytes(utf8, length);
    ZMKFree(utf8);
    return stored;
}
