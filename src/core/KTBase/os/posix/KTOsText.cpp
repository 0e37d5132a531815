#include "os/KTOsText.h"

#include <cstring>

#include "KTBase/KTObject.h"

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";
constexpr std::size_t kReplacementBytes = 3;

/// Length of the well-formed UTF-8 sequence at text; 0 where there is none, and bad then says how
/// many bytes one replacement stands for: the longest start of a sequence that could have become
/// one. Reads no byte behind a NUL.
std::size_t SequenceLength(const unsigned char* text, std::size_t& bad) {
    bad = 1;
    const unsigned char lead = text[0];
    if (lead < 0x80)
        return 1;
    if (lead < 0xC2 || lead > 0xF4)
        return 0;
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    // The second byte excludes overlong forms, surrogates and what lies above U+10FFFF.
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (text[1] < lowest || text[1] > highest)
        return 0;
    for (bad = 2; bad < length; ++bad) {
        if ((text[bad] & 0xC0) != 0x80)
            return 0;
    }
    return length;
}

/// Writes the repaired text to out, or only counts it when out is null. Returns the bytes.
std::size_t Repair(const unsigned char* text, char* out) {
    std::size_t size = 0;
    while (*text != 0) {
        std::size_t bad;
        const std::size_t length = SequenceLength(text, bad);
        const void* source = length != 0 ? static_cast<const void*>(text) : kReplacement;
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
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
    const std::size_t size = Repair(bytes, nullptr);
    char* utf8 = reinterpret_cast<char*>(ZMKMalloc(size + 1));
    if (utf8 == nullptr)
        return nullptr;
    Repair(bytes, utf8);
    utf8[size] = 0;
    length = size;
    return utf8;
}
