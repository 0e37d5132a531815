// Reading the texts of messages. All comparisons fold ASCII letters only, whatever the locale.
#ifndef KTBASE_KTHTTPTEXT_H
#define KTBASE_KTHTTPTEXT_H

#include <cstddef>
#include <cstring>

/// Where the faults of the HTTP families come from.
constexpr char kKTHttpSource[] = "src/core/KTBase/KTHttp";

inline char KTHttpLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool KTHttpIsEmpty(const char* text) {
    return text == nullptr || *text == '\0';
}

inline const char* KTHttpTextOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

/// Whether the first length bytes at a and b are equal.
inline bool KTHttpEqual(const char* a, const char* b, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        if (KTHttpLower(a[i]) != KTHttpLower(b[i]))
            return false;
    }
    return true;
}

/// Of whole texts.
inline bool KTHttpEqual(const char* a, const char* b) {
    const std::size_t length = std::strlen(a);
    return std::strlen(b) == length && KTHttpEqual(a, b, length);
}

/// What follows name in line; null when line does not begin with it.
inline const char* KTHttpBehind(const char* line, const char* name) {
    for (; *name != '\0'; ++line, ++name) {
        if (*line != *name && KTHttpLower(*line) != KTHttpLower(*name))
            return nullptr;
    }
    return line;
}

/// First word in [begin, end), or null.
inline const char* KTHttpFind(const char* begin, const char* end, const char* word) {
    const std::size_t length = std::strlen(word);
    for (; static_cast<std::size_t>(end - begin) >= length; ++begin) {
        if (KTHttpEqual(begin, word, length))
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
