// Arguments that lie in the very string they are to change.
#ifndef KTBASE_KTOWNBUFFER_H
#define KTBASE_KTOWNBUFFER_H

#include <cstdint>

#include "KTBase/KTString.h"

/// Whether data lies in text's buffer, which moves when text grows.
inline bool KTLiesIn(const CKTString& text, const void* data) {
    const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(text.GetBuffer());
    return reinterpret_cast<std::uintptr_t>(data) - begin < text.Size();
}

#endif
