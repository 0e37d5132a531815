// Text in the platform's own encoding.
#ifndef KTBASE_OS_KTOSTEXT_H
#define KTBASE_OS_KTOSTEXT_H

#include <cstddef>

/// NUL-terminated UTF-8 copy, from ZMKMalloc, of text in the system's ANSI code page; what that page
/// does not know becomes the page's replacement. On POSIX the page is UTF-8, so only its invalid
/// sequences change, to U+FFFD. length receives the bytes without the NUL. Null when memory is out
/// or the system refuses.
char* KTOsAnsiToUtf8(const char* text, std::size_t& length);

#endif
