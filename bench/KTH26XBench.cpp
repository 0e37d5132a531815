// Start-code scan beside GStreamer's masked scan, which its H.264 and H.265 parsers find units with.
#include <gst/base/gstbytereader.h>

#include <random>
#include <string>

#include "KTBase/KTH26X.h"
#include "KTCompare.h"

namespace {

using Bytes = std::basic_string<unsigned char>;

/// Slices of 16 KB as an encoder leaves them: bytes at random, no three of them like a start code.
Bytes Stream(unsigned int size) {
    std::mt19937 random(1);
    Bytes stream(size, 0);
    for (unsigned int i = 0; i < size; ++i) {
        const unsigned int inSlice = i % 16384;
        if (inSlice < 5)
            stream[i] = inSlice < 3 ? 0 : inSlice == 3 ? 1 : 0x41;
        else if (i >= 2 && stream[i - 1] == 0 && stream[i - 2] == 0)
            stream[i] = 3;
        else
            stream[i] = static_cast<unsigned char>(random());
    }
    return stream;
}

void ScanWithMask(const Bytes& stream) {
    const unsigned int size = static_cast<unsigned int>(stream.size());
    GstByteReader reader;
    gst_byte_reader_init(&reader, stream.data(), size);
    for (unsigned int at = 0; at + 4 <= size;) {
        const int found =
            gst_byte_reader_masked_scan_uint32(&reader, 0xFFFFFF00, 0x00000100, at, size - at);
        if (found < 0)
            return;
        benchmark::DoNotOptimize(at = static_cast<unsigned int>(found) + 3);
    }
}

void FindNextNal(benchmark::State& state) {
    const Bytes stream = Stream(static_cast<unsigned int>(state.range(0)) << 20);
    KTCompare(
        state, static_cast<double>(stream.size()),
        [&] {
            const unsigned int size = static_cast<unsigned int>(stream.size());
            unsigned int at = 0;
            for (int step = 0; step >= 0; at += static_cast<unsigned int>(step))
                benchmark::DoNotOptimize(step = H26XFindNextNal(&stream[at], size - at));
        },
        [&] { ScanWithMask(stream); });
}
BENCHMARK(FindNextNal)->ArgName("MB")->Arg(1)->Arg(64)->UseManualTime();

void NextUnit(benchmark::State& state) {
    const Bytes stream = Stream(static_cast<unsigned int>(state.range(0)) << 20);
    KTCompare(
        state, static_cast<double>(stream.size()),
        [&] {
            unsigned int begin = 0, length = 0;
            while (H26XNextUnit(stream.data(), static_cast<unsigned int>(stream.size()),
                                begin + length, &begin, &length) == 1)
                benchmark::DoNotOptimize(begin);
        },
        [&] { ScanWithMask(stream); });
}
BENCHMARK(NextUnit)->ArgName("MB")->Arg(1)->Arg(64)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
