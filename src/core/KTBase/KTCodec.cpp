#include "KTBase/KTCodec.h"

namespace {

// ---- Tables ----

struct Expansion {
    short linear[256];
};

constexpr int ExpandU(unsigned int code) {
    const unsigned int bits = ~code & 0xFF;
    const int magnitude = static_cast<int>((((bits & 15) << 3) + 0x84) << (bits >> 4 & 7)) - 0x84;
    return (bits & 0x80) != 0 ? -magnitude : magnitude;
}

constexpr int ExpandA(unsigned int code) {
    const unsigned int bits = code ^ 0x55;
    const unsigned int segment = bits >> 4 & 7;
    const unsigned int step = ((bits & 15) << 4) + 8;  // the middle of the interval
    const int magnitude = static_cast<int>(segment == 0 ? step : (step + 0x100) << (segment - 1));
    return (bits & 0x80) != 0 ? magnitude : -magnitude;
}

constexpr Expansion MakeExpansion(int (*expand)(unsigned int)) {
    Expansion table = {};
    for (unsigned int code = 0; code < 256; ++code)
        table.linear[code] = static_cast<short>(expand(code));
    return table;
}

constexpr Expansion kExpandU = MakeExpansion(ExpandU);
constexpr Expansion kExpandA = MakeExpansion(ExpandA);

constexpr int kBiasU = 132;
constexpr int kUnusedBits = 3;  // of a magnitude, biased for u-law: no code depends on them

struct Compression {
    unsigned char code[((kBiasU + 0x8000) >> kUnusedBits) + 1];
};

/// Number of the segment whose end point, 31 and then doubled, is the first not below value.
constexpr int Segment(int value) {
    return 27 - __builtin_clz(static_cast<unsigned int>(value | 31));
}

/// Both take a magnitude without its unused bits and give the code without sign.
constexpr int CompressMagnitudeU(int value) {
    const int segment = Segment(value);
    return segment > 7 ? 0x7F : segment << 4 | (value >> segment & 15);
}

constexpr int CompressMagnitudeA(int value) {
    const int segment = Segment(value);
    return segment << 4 | (value >> (segment < 2 ? 1 : segment) & 15);
}

constexpr Compression MakeCompression(int (*compress)(int)) {
    Compression table = {};
    int value = 0;
    for (unsigned char& code : table.code)
        code = static_cast<unsigned char>(compress(value++));
    return table;
}

constexpr Compression kCompressU = MakeCompression(CompressMagnitudeU);
constexpr Compression kCompressA = MakeCompression(CompressMagnitudeA);

// G.711, table 4: the u-law number, from 0, of each A-law number, from 1.
constexpr unsigned char kA2U[128] = {
    1,   3,   5,   7,   9,   11,  13,  15,  16,  17,  18,  19,  20,  21,  22,  23,   //
    24,  25,  26,  27,  28,  29,  30,  31,  32,  32,  33,  33,  34,  34,  35,  35,   //
    36,  37,  38,  39,  40,  41,  42,  43,  44,  45,  46,  47,  48,  48,  49,  49,   //
    50,  51,  52,  53,  54,  55,  56,  57,  58,  59,  60,  61,  62,  63,  64,  64,   //
    65,  66,  67,  68,  69,  70,  71,  72,  73,  74,  75,  76,  77,  78,  79,  80,   //
    80,  81,  82,  83,  84,  85,  86,  87,  88,  89,  90,  91,  92,  93,  94,  95,   //
    96,  97,  98,  99,  100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111,  //
    112, 113, 114, 115, 116, 117, 118, 119, 120, 121, 122, 123, 124, 125, 126, 127};

// G.711, table 3: the A-law number, from 1, of each u-law number, from 0.
constexpr unsigned char kU2A[128] = {
    1,   1,   2,   2,   3,   3,   4,   4,   5,   5,   6,   6,   7,   7,   8,   8,    //
    9,   10,  11,  12,  13,  14,  15,  16,  17,  18,  19,  20,  21,  22,  23,  24,   //
    25,  27,  29,  31,  33,  34,  35,  36,  37,  38,  39,  40,  41,  42,  43,  44,   //
    46,  48,  49,  50,  51,  52,  53,  54,  55,  56,  57,  58,  59,  60,  61,  62,   //
    64,  65,  66,  67,  68,  69,  70,  71,  72,  73,  74,  75,  76,  77,  78,  79,   //
    80,  82,  83,  84,  85,  86,  87,  88,  89,  90,  91,  92,  93,  94,  95,  96,   //
    97,  98,  99,  100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112,  //
    113, 114, 115, 116, 117, 118, 119, 120, 121, 122, 123, 124, 125, 126, 127, 128};

// ---- One sample ----

unsigned char CompressU(int sample) {
    const int sign = sample < 0 ? 0x7F : 0xFF;
    const int biased = kBiasU + (sample < 0 ? -sample : sample);
    return static_cast<unsigned char>(kCompressU.code[biased >> kUnusedBits] ^ sign);
}

unsigned char CompressA(int sample) {
    const int sign = sample < 0 ? 0x55 : 0xD5;
    const int scaled = sample >> kUnusedBits;
    return static_cast<unsigned char>(kCompressA.code[scaled < 0 ? ~scaled : scaled] ^ sign);
}

unsigned char AToU(unsigned int code) {
    return static_cast<unsigned char>((code & 0x80) != 0 ? 0xFF ^ kA2U[code ^ 0xD5]
                                                         : 0x7F ^ kA2U[code ^ 0x55]);
}

unsigned char UToA(unsigned int code) {
    return static_cast<unsigned char>((code & 0x80) != 0 ? 0xD5 ^ (kU2A[0xFF ^ code] - 1)
                                                         : 0x55 ^ (kU2A[0x7F ^ code] - 1));
}

template <typename In, typename Out, typename Each>
int Convert(const In* in, int n, Out* out, Each each) {
    if (n < 1)
        return n;
    if (in == nullptr || out == nullptr)
        return 0;
    for (int i = 0; i < n; ++i)
        out[i] = each(in[i]);
    return n;
}

}  // namespace

int DecodeAudioPCMU(const unsigned char* in, int n, short* out) {
    return Convert(in, n, out, [](unsigned int code) { return kExpandU.linear[code]; });
}

int DecodeAudioPCMA(const unsigned char* in, int n, short* out) {
    return Convert(in, n, out, [](unsigned int code) { return kExpandA.linear[code]; });
}

int EncodeAudioPCMU(const short* in, int n, unsigned char* out) {
    return Convert(in, n, out, CompressU);
}

int EncodeAudioPCMA(const short* in, int n, unsigned char* out) {
    return Convert(in, n, out, CompressA);
}

int ConvertPCMA2PCMU(const unsigned char* in, int n, unsigned char* out) {
    return Convert(in, n, out, AToU);
}

int ConvertPCMU2PCMA(const unsigned char* in, int n, unsigned char* out) {
    return Convert(in, n, out, UToA);
}
