// Reading the texts of messages.
#ifndef KTBASE_KTHTTPTEXT_H
#define KTBASE_KTHTTPTEXT_H

#include <cstddef>
#include <cstring>

#include "KTText.h"

/// Where the faults of the HTTP families come from.
constexpr char kKTHttpSource[] = "src/core/KTBase/KTHttp";

/// First word in [begin, end), in any case, or null.
inline const char* KTHttpFind(const char* begin, const char* end, const char* word) {
    const std::size_t length = std::strlen(word);
    for (; static_cast<std::size_t>(end - begin) >= length; ++begin) {
        if (KTEqualNoCase(begin, word, length))
            return begin;
    }
    return nullptr;
}

inline const char* KTHttpSkipSpaces(const char* text) {
    while (*text == ' ')
        ++text;
    return text;
}

/// Reads a decimal number behind blanks and a "+", up to most; a greater one counts as most. A
/// text that is not terminated has to hold something else than blanks and digits. Returns false,
/// and leaves value, where there is no digit.
inline bool KTHttpReadNumber(const char* text, unsigned int most, unsigned int& value) {
    while (*text == ' ' || *text == '\t')
        ++text;
    if (*text == '+')
        ++text;
    if (*text < '0' || *text > '9')
        return false;
    unsigned long long number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        if (number <= most)
            number = number * 10 + static_cast<unsigned long long>(*text - '0');
    }
    value = number <= most ? static_cast<unsigned int>(number) : most;
    return true;
}

#endif
