// Small helpers on character ranges for the families that own plain texts.
#ifndef KTBASE_KTTEXT_H
#define KTBASE_KTTEXT_H

#include <cstddef>

class CKTString;

/// ASCII only, whatever the locale; the same for the comparisons below.
inline char KTLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline const char* KTTextOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

/// Whether the first length bytes at a and b are equal but for case.
bool KTEqualNoCase(const char* a, const char* b, std::size_t length);
/// The same of whole texts.
bool KTEqualNoCase(const char* a, const char* b);

/// What follows prefix in text; null when text does not begin with it, in any case.
inline const char* KTBehindPrefix(const char* text, const char* prefix) {
    for (; *prefix != '\0'; ++text, ++prefix) {
        if (*text != *prefix && KTLower(*text) != KTLower(*prefix))
            return nullptr;
    }
    return text;
}

/// Makes room for count bytes more, and for as many as text has already where that can be had:
/// growing by small steps would copy a long text again and again. False when count does not fit.
bool KTReserve(CKTString& text, unsigned int count);

/// NUL-terminated copy of exactly length bytes, from ZMKMalloc. begin may be null when length is 0.
/// Null when memory is out.
char* KTCopyRange(const char* begin, std::size_t length);

/// Bytes of s before its NUL, at most most; nothing behind them is read.
std::size_t KTTextLength(const char* s, std::size_t most);

/// Length of the well-formed UTF-8 sequence that begins the len bytes at text, above 0. It is 0
/// where there is none, and bad then says how many bytes one replacement stands for: the longest
/// start of a sequence that could have become one. Reads on only while there is a sequence.
std::size_t KTUtf8Length(const char* text, std::size_t len, std::size_t& bad);

/// Whether all of [begin, end) is well-formed UTF-8.
bool KTIsUtf8(const char* begin, const char* end);

#endif
