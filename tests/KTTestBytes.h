// Bytes in the forms that tests write, compare and pass.
#ifndef KTBASE_TESTS_KTTESTBYTES_H
#define KTBASE_TESTS_KTTESTBYTES_H

#include <KTBase/KTString.h>

#include <string>

inline const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

inline std::string Text(const CKTString& text) {
    return text.GetBuffer() == nullptr ? "" : std::string(text.GetBuffer(), text.GetLength());
}

/// "-" for null.
inline std::string Or(const char* text) {
    return text != nullptr ? text : "-";
}

inline std::string Unhex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

#endif
