// Small helpers on character ranges for the families that own plain texts.
#ifndef KTBASE_KTTEXT_H
#define KTBASE_KTTEXT_H

#include <cstddef>

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
