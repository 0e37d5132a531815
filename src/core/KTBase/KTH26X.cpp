#include "KTBase/KTH26X.h"

#include <climits>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr unsigned char kFourByteCode[] = {0, 0, 0, 1};

/// First 00 00 01 in [p, end), or end.
const unsigned char* FindCode(const unsigned char* p, const unsigned char* end) {
    if (end - p < 3)
        return end;
    const unsigned char* const last = end - 3;
#if defined(__SSE2__)
    // 32 positions at once, each compared with the two bytes behind it. Pairs of zeros are rare in
    // coded video, so they are looked for alone; the bytewise loop below settles what they are.
    const __m128i zero = _mm_setzero_si128();
    while (last - p >= 32) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i a1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 1));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
        const __m128i b1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 17));
        const __m128i pairs = _mm_or_si128(_mm_cmpeq_epi8(_mm_or_si128(a, a1), zero),
                                           _mm_cmpeq_epi8(_mm_or_si128(b, b1), zero));
        if (_mm_movemask_epi8(pairs) != 0) {
            for (int i = 0; i < 32; ++i)
                if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1)
                    return p + i;
        }
        p += 32;
    }
#endif
    for (; p <= last; ++p)
        if (p[0] == 0 && p[1] == 0 && p[2] == 1)
            return p;
    return end;
}

}  // namespace

int H26XFindNextNal(const unsigned char* buf, unsigned int len) {
    if (buf == nullptr || len < 11)
        return -1;
    // The result is an int: a code further on could not be told.
    if (len > INT_MAX)
        len = INT_MAX;
    // A code of four bytes at offset 5 or later holds one of three at offset 6 or later. The last
    // that is reported begins 6 bytes before the end.
    const unsigned char* const end = buf + len - 2;
    const unsigned char* code = FindCode(buf + 6, end);
    while (code != end && code[-1] != 0)
        code = FindCode(code + 3, end);
    return code != end ? static_cast<int>(code - 1 - buf) : -1;
}

int H26XNextUnit(const unsigned char* buf, unsigned int len, unsigned int from, unsigned int* begin,
                 unsigned int* length) {
    if (buf == nullptr || begin == nullptr || length == nullptr || from >= len)
        return 0;
    const unsigned char* const end = buf + len;
    const unsigned char* code = FindCode(buf + from, end);
    while (code != end) {
        const unsigned char* const unit = code + 3;
        code = FindCode(unit, end);
        // The zero of a four-byte code and padding belong to no unit: none ends with a zero byte.
        const unsigned char* tail = code;
        while (tail > unit && tail[-1] == 0)
            --tail;
        if (tail > unit) {
            *begin = static_cast<unsigned int>(unit - buf);
            *length = static_cast<unsigned int>(tail - unit);
            return 1;
        }
    }
    return 0;
}

long long H26XNormalise(const unsigned char* buf, unsigned int len, unsigned char* out,
                        unsigned int outSize) {
    if (buf == nullptr)
        return KT_ARGUMENT;
    long long total = 0;
    unsigned int begin = 0;
    unsigned int length = 0;
    while (H26XNextUnit(buf, len, begin + length, &begin, &length) != 0) {
        const long long grown = total + static_cast<long long>(sizeof(kFourByteCode)) + length;
        if (out != nullptr) {
            if (grown > outSize)
                return KT_NO_MEMORY;
            std::memcpy(out + total, kFourByteCode, sizeof(kFourByteCode));
            std::memcpy(out + total + sizeof(kFourByteCode), buf + begin, length);
        }
        total = grown;
    }
    return total != 0 ? total : static_cast<long long>(KT_MALFORMED);
}
