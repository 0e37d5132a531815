#include "KTText.h"

#include <cstring>

#include "KTBase/KTObject.h"

char* KTCopyRange(const char* begin, std::size_t length) {
    if (length + 1 == 0)
        return nullptr;
    char* copy = reinterpret_cast<char*>(ZMKMalloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    if (length != 0)
        std::memcpy(copy, begin, length);
    copy[length] = 0;
    return copy;
}

std::size_t KTTextLength(const char* s, std::size_t most) {
    const void* end = std::memchr(s, 0, most);
    return end == nullptr ? most : static_cast<std::size_t>(static_cast<const char*>(end) - s);
}
