// Small helpers on character ranges for the families that own plain texts.
#ifndef KTBASE_KTTEXT_H
#define KTBASE_KTTEXT_H

#include <cstddef>

/// NUL-terminated copy of exactly length bytes, from ZMKMalloc. begin may be null when length is 0.
/// Null when memory is out.
char* KTCopyRange(const char* begin, std::size_t length);

/// Bytes of s before its NUL, at most most; nothing behind them is read.
std::size_t KTTextLength(const char* s, std::size_t most);

#endif
