#include "KTText.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "KTBase/KTObject.h"
#include "KTBase/KTString.h"

bool KTEqualNoCase(const char* a, const char* b, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        if (KTLower(a[i]) != KTLower(b[i]))
            return false;
    }
    return true;
}

bool KTEqualNoCase(const char* a, const char* b) {
    const std::size_t length = std::strlen(a);
    return std::strlen(b) == length && KTEqualNoCase(a, b, length);
}

bool KTReserve(CKTString& text, unsigned int count) {
    const unsigned int doubled = std::min<unsigned int>(text.GetLength(), INT_MAX);
    return text.GetSpace() > count || (doubled > count && text.AllocBuffer(doubled) >= 0) ||
           text.AllocBuffer(count) >= 0;
}

char* KTCopyRange(const char* begin, std::size_t length) {
    if (length + 1 == 0)
        return nullptr;
    char* copy = reinterpret_cast<char*>(ZMKMalloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    if (length != 0)
        std::memcpy(copy, begin, length);
    copy[length] = 0;
    return copy;
}

std::size_t KTTextLength(const char* s, std::size_t most) {
    const void* end = std::memchr(s, 0, most);
    return end == nullptr ? most : static_cast<std::size_t>(static_cast<const char*>(end) - s);
}

std::size_t KTUtf8Length(const char* text, std::size_t len, std::size_t& bad) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
    bad = 1;
    const unsigned char lead = bytes[0];
    if (lead < 0x80)
        return 1;
    if (lead < 0xC2 || lead > 0xF4 || len < 2)
        return 0;
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    // The second byte excludes overlong forms, surrogates and what lies above U+10FFFF.
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (bytes[1] < lowest || bytes[1] > highest)
        return 0;
    for (bad = 2; bad < length; ++bad) {
        if (bad == len || (bytes[bad] & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

bool KTIsUtf8(const char* begin, const char* end) {
    while (begin != end) {
        std::size_t bad;
        const std::size_t length = KTUtf8Length(begin, static_cast<std::size_t>(end - begin), bad);
        if (length == 0)
            return false;
        begin += length;
    }
    return true;
}
