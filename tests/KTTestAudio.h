// The signals that the audio codecs are compared on, and the checksum that their output is compared
// by. spandsp/checksums.cpp computes the expected values from the same signals.
#ifndef KTBASE_TESTS_KTTESTAUDIO_H
#define KTBASE_TESTS_KTTESTAUDIO_H

#include <cstddef>
#include <vector>

/// FNV-1a, 64 bits.
inline unsigned long long KTTestChecksum(const void* data, std::size_t size) {
    unsigned long long hash = 0xCBF29CE484222325ull;
    for (std::size_t i = 0; i < size; ++i)
        hash = (hash ^ static_cast<const unsigned char*>(data)[i]) * 0x100000001B3ull;
    return hash;
}

/// 16 bits of a linear congruential generator.
inline unsigned int KTTestNoise(unsigned int& seed) {
    seed = seed * 1664525u + 1013904223u;
    return seed >> 16;
}

constexpr const char* kKTTestSignals[] = {"speech", "tone", "silence", "full scale"};

/// 16000 samples, two seconds, of the signal of that number. Integers only: the same everywhere.
inline std::vector<short> KTTestSignal(unsigned int number) {
    std::vector<short> out(16000);
    unsigned int seed = 1;
    long long y1 = 0, y2 = 0, cosine = 10000, sine = 0;
    for (unsigned int i = 0; i < out.size(); ++i) {
        const int noise = static_cast<int>(KTTestNoise(seed)) - 32768;
        long long value = 0;
        if (number == 0) {  // pulses and breath through a resonance, in syllables
            const bool voiced = i / 1600 % 3 != 2;
            const long long y0 =
                (voiced ? (i % 73 == 0 ? 20000 : 0) : noise / 8) + (14 * y1 - 7 * y2) / 8;
            y2 = y1;
            y1 = y0;
            value = y0 * (1600 - i % 1600) / 1600;
        } else if (number == 1) {  // two frequencies that change places, for the tone detector
            const int turn = i / 2000 % 2 == 0 ? 400 : 3000;
            cosine -= sine * turn / 2000;
            sine += cosine * turn / 2000;
            value = i / 4000 % 2 == 0 ? sine : sine / 16;
        } else if (number == 3) {  // every sample at an end, then square waves
            value = i < 8000 ? (noise < 0 ? -32768 : 32767) : (i / (i / 1000) % 2 ? 32767 : -32768);
        }
        out[i] = static_cast<short>(value < -32768 ? -32768 : value > 32767 ? 32767 : value);
    }
    return out;
}

/// 16000 bytes that no encoder made.
inline std::vector<unsigned char> KTTestCodes() {
    std::vector<unsigned char> out(16000);
    unsigned int seed = 7;
    for (unsigned char& byte : out)
        byte = static_cast<unsigned char>(KTTestNoise(seed));
    return out;
}

#endif
