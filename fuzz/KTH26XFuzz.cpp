// Streams and parameter sets as an attacker would send them. From the repository's root:
//   clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -DKTBASE_STATIC -Iinc/core
//       -Isrc/core/KTBase -o build/KTH26XFuzz fuzz/KTH26XFuzz.cpp src/core/KTBase/*.cpp
//       src/core/KTBase/os/posix/*.cpp -lssl -lcrypto -lz
//       $(pkg-config --cflags --libs jsoncpp)
//   build/KTH26XFuzz -max_len=4096 CORPUS examples/media
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "KTBase/KTH26X.h"

namespace {

void Expect(bool holds) {
    if (!holds)
        std::abort();
}

void Decode(const unsigned char* data, unsigned int len) {
    unsigned int width = 0, height = 0, word = 0, refs = 0;
    tag_KTSIZES coded = {}, shown = {};
    H26XFindNextNal(data, len);
    H264DecodeSPS(data, len, &width, &height, &word);
    H264DecodeResolution(data, len, &coded, &shown, &word, &refs);
    H265DecodeSPS(data, static_cast<int>(len), &width, &height, nullptr);
    H265DecodeResolution(data, len, &coded, &shown, nullptr, &refs);
    H265DecodeVPSRefnum(data, len);
    for (const auto decode : {H264DecodeSize, H265DecodeSize}) {
        if (decode(data, len, &coded, &shown) != 1)
            continue;
        Expect(shown.width > 0 && shown.width <= coded.width);
        Expect(shown.height > 0 && shown.height <= coded.height);
    }
}

/// Number of units; each is decoded in a block of its own size.
unsigned int DecodeUnits(const unsigned char* data, unsigned int len) {
    unsigned int begin = 0, length = 0, count = 0;
    for (; H26XNextUnit(data, len, begin + length, &begin, &length) == 1; ++count) {
        const std::unique_ptr<unsigned char[]> unit(new unsigned char[length]);
        std::memcpy(unit.get(), data + begin, length);
        Decode(unit.get(), length);
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const unsigned int len = static_cast<unsigned int>(size);
    Decode(data, len);
    const unsigned int units = DecodeUnits(data, len);
    const long long need = H26XNormalise(data, len, nullptr, 0);
    Expect(units == 0 ? need == KT_MALFORMED || (need == KT_ARGUMENT && data == nullptr)
                      : need > 0 && need <= len + static_cast<long long>(len / 3));
    if (need <= 0)
        return 0;
    const unsigned int room = static_cast<unsigned int>(need);
    const std::unique_ptr<unsigned char[]> out(new unsigned char[room]);
    Expect(H26XNormalise(data, len, out.get(), room - 1) == KT_NO_MEMORY);
    Expect(H26XNormalise(data, len, out.get(), room) == need);
    Expect(DecodeUnits(out.get(), room) == units);
    return 0;
}
