// Prints the checksums of what spandsp makes of the test signals, for KTCodecTest.cpp.
#include <cstdint>
#include <cstdio>

#include <spandsp.h>

#include "../KTTestAudio.h"

namespace {

template <typename T>
unsigned long long Checksum(const std::vector<T>& data) {
    return KTTestChecksum(data.data(), data.size() * sizeof(T));
}

void PrintG711() {
    std::vector<short> fromU, fromA;
    std::vector<unsigned char> toU, toA, aToU, uToA;
    for (int code = 0; code < 256; ++code) {
        fromU.push_back(ulaw_to_linear(static_cast<uint8_t>(code)));
        fromA.push_back(alaw_to_linear(static_cast<uint8_t>(code)));
        aToU.push_back(alaw_to_ulaw(static_cast<uint8_t>(code)));
        uToA.push_back(ulaw_to_alaw(static_cast<uint8_t>(code)));
    }
    for (int sample = -32768; sample < 32768; ++sample) {
        toU.push_back(linear_to_ulaw(sample));
        toA.push_back(linear_to_alaw(sample));
    }
    std::printf("fromU 0x%016llX\nfromA 0x%016llX\ntoU   0x%016llX\ntoA   0x%016llX\n",
                Checksum(fromU), Checksum(fromA), Checksum(toU), Checksum(toA));
    std::printf("aToU  0x%016llX\nuToA  0x%016llX\n", Checksum(aToU), Checksum(uToA));
}

std::vector<short> Decoded(int rate, const std::vector<unsigned char>& codes) {
    std::vector<short> out(codes.size() * 4);
    g726_state_t* state = g726_init(nullptr, rate, G726_ENCODING_LINEAR, G726_PACKING_LEFT);
    const int count = g726_decode(state, out.data(), codes.data(), static_cast<int>(codes.size()));
    g726_free(state);
    out.resize(static_cast<std::size_t>(count));
    return out;
}

std::vector<unsigned char> Encoded(int rate, const std::vector<short>& signal) {
    std::vector<unsigned char> out(signal.size());
    g726_state_t* state = g726_init(nullptr, rate, G726_ENCODING_LINEAR, G726_PACKING_LEFT);
    const int count =
        g726_encode(state, out.data(), signal.data(), static_cast<int>(signal.size()));
    g726_free(state);
    out.resize(static_cast<std::size_t>(count));
    return out;
}

void PrintG726(int rate) {
    std::printf("{%d, 0x%016llX,\n {", rate, Checksum(Decoded(rate, KTTestCodes())));
    for (unsigned int i = 0; i < 4; ++i)
        std::printf("0x%016llX, ", Checksum(Encoded(rate, KTTestSignal(i))));
    std::printf("},\n {");
    for (unsigned int i = 0; i < 4; ++i)
        std::printf("0x%016llX, ", Checksum(Decoded(rate, Encoded(rate, KTTestSignal(i)))));
    std::printf("}},\n");
}

}  // namespace

int main() {
    PrintG711();
    for (int rate : {16000, 24000, 32000, 40000})
        PrintG726(rate);
}
