#include "os/KTOsText.h"

#ifndef NOMINMAX
#define NOMINMAX
#endif
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "KTBase/KTObject.h"

namespace {

/// NUL-terminated UTF-16 copy, from ZMKMalloc, or null.
wchar_t* AnsiToWide(const char* text) {
    const int units = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (units < 1)
        return nullptr;
    wchar_t* wide = reinterpret_cast<wchar_t*>(ZMKMalloc(units * sizeof(wchar_t)));
    if (wide != nullptr && MultiByteToWideChar(CP_ACP, 0, text, -1, wide, units) != units) {
        ZMKFree(wide);
        return nullptr;
    }
    return wide;
}

}  // namespace

char* KTOsAnsiToUtf8(const char* text, std::size_t& length) {
    wchar_t* wide = AnsiToWide(text);
    if (wide == nullptr)
        return nullptr;
    char* utf8 = nullptr;
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (bytes > 0)
        utf8 = reinterpret_cast<char*>(ZMKMalloc(bytes));
    if (utf8 != nullptr &&
        WideCharToMultiByte(CP_UTF8, 0, wide, -1, utf8, bytes, nullptr, nullptr) != bytes) {
        ZMKFree(utf8);
        utf8 = nullptr;
    }
    ZMKFree(wide);
    if (utf8 != nullptr)
        length = bytes - 1;
    return utf8;
}
