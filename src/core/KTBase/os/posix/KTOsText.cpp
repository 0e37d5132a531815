#include "os/KTOsText.h"

#include <cstring>

#include "KTBase/KTObject.h"
#include "KTText.h"

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";
constexpr std::size_t kReplacementBytes = 3;
constexpr std::size_t kLongestSequence = 4;

/// Writes the repaired text to out, or only counts it when out is null. Returns the bytes.
std::size_t Repair(const char* text, char* out) {
    std::size_t size = 0;
    while (*text != 0) {
        std::size_t bad;
        // The NUL is no part of a sequence: nothing behind it is read.
        const std::size_t length = KTUtf8Length(text, kLongestSequence, bad);
        const char* source = length != 0 ? text : kReplacement;
        const std::size_t bytes = length != 0 ? length : kReplacementBytes;
        if (out != nullptr)
            std::memcpy(out + size, source, bytes);
        size += bytes;
        text += length != 0 ? length : bad;
    }
    return size;
}

}  // namespace

char* KTOsAnsiToUtf8(const char* text, std::size_t& length) {
    const std::size_t size = Repair(text, nullptr);
    char* utf8 = reinterpret_cast<char*>(ZMKMalloc(size + 1));
    if (utf8 == nullptr)
        return nullptr;
    Repair(text, utf8);
    utf8[size] = 0;
    length = size;
    return utf8;
}
