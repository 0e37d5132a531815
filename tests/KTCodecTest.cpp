#include "KTBase/KTCodec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "KTTestAudio.h"

namespace {

template <typename T>
unsigned long long Checksum(const std::vector<T>& data) {
    return KTTestChecksum(data.data(), data.size() * sizeof(T));
}

/// Runs call over all of in, chunk items at a time, and returns what it wrote, at most 4 for 1.
template <typename Out, typename In, typename Call>
std::vector<Out> InChunks(const std::vector<In>& in, std::size_t chunk, Call call) {
    std::vector<Out> out(in.size() * 4);
    std::size_t size = 0;
    for (std::size_t at = 0; at < in.size(); at += chunk)
        size += static_cast<std::size_t>(
            call(&out[size], &in[at], static_cast<int>(std::min(chunk, in.size() - at))));
    out.resize(size);
    return out;
}

std::vector<unsigned char> Encoded(int rate, const std::vector<short>& in, std::size_t chunk) {
    tag_KTG726STATE state;
    EXPECT_EQ(InitializeG726(&state, rate), 0);
    return InChunks<unsigned char>(in, chunk, [&](unsigned char* out, const short* from, int n) {
        return EncodeG726(&state, out, from, n);
    });
}

std::vector<short> Decoded(int rate, const std::vector<unsigned char>& in, std::size_t chunk) {
    tag_KTG726STATE state;
    EXPECT_EQ(InitializeG726(&state, rate), 0);
    return InChunks<short>(in, chunk, [&](short* out, const unsigned char* from, int n) {
        return DecodeG726(&state, out, from, n);
    });
}

}  // namespace

// The checksums are those of spandsp 0.0.6; spandsp/make.sh computes them.

TEST(G711, AgreesWithSpandspOnEveryInput) {
    std::vector<unsigned char> codes(256), aToU(256), uToA(256), toU(65536), toA(65536);
    std::vector<short> samples(65536), fromU(256), fromA(256);
    for (int i = 0; i < 256; ++i)
        codes[static_cast<std::size_t>(i)] = static_cast<unsigned char>(i);
    for (int i = 0; i < 65536; ++i)
        samples[static_cast<std::size_t>(i)] = static_cast<short>(i - 32768);
    EXPECT_EQ(DecodeAudioPCMU(codes.data(), 256, fromU.data()), 256);
    EXPECT_EQ(DecodeAudioPCMA(codes.data(), 256, fromA.data()), 256);
    EXPECT_EQ(EncodeAudioPCMU(samples.data(), 65536, toU.data()), 65536);
    EXPECT_EQ(EncodeAudioPCMA(samples.data(), 65536, toA.data()), 65536);
    EXPECT_EQ(ConvertPCMA2PCMU(codes.data(), 256, aToU.data()), 256);
    EXPECT_EQ(ConvertPCMU2PCMA(codes.data(), 256, uToA.data()), 256);
    EXPECT_EQ(Checksum(fromU), 0xB91E65D68481A1A8ull);
    EXPECT_EQ(Checksum(fromA), 0x693A40CA62A3D2A5ull);
    EXPECT_EQ(Checksum(toU), 0x94D7525214C75EB2ull);
    EXPECT_EQ(Checksum(toA), 0xF030666EB780CF25ull);
    EXPECT_EQ(Checksum(aToU), 0x61EE8248462E0701ull);
    EXPECT_EQ(Checksum(uToA), 0x16C103B7AFB52AB5ull);
}

TEST(G711, AnswersEmptyInputWithItsCountAndNullsWithNothingDone) {
    const unsigned char code = 0;
    short sample = 5;
    EXPECT_EQ(DecodeAudioPCMU(&code, 0, &sample), 0);
    EXPECT_EQ(DecodeAudioPCMA(&code, -3, &sample), -3);
    EXPECT_EQ(DecodeAudioPCMA(nullptr, 1, &sample), 0);
    EXPECT_EQ(EncodeAudioPCMU(&sample, 1, nullptr), 0);
    EXPECT_EQ(sample, 5);
}

TEST(G726, AgreesWithSpandspInChunksOfAnySize) {
    const struct {
        int rate;
        unsigned long long noise;  // decoded from bytes that no encoder made
        unsigned long long codes[4], samples[4];
    } cases[] = {
        {16000,
         0xFAE7AAE8473B232E,
         {0xF24EB05C34B50C7F, 0xF232423670259C3F, 0x68782F9D231E8613, 0xA0AECBDDF9E6C485},
         {0x7D6A4C32F60FBA53, 0x4E341760CCD6269E, 0x4A01E01B31F04695, 0x066AABB331EBF145}},
        {24000,
         0x083B289D62E02B95,
         {0x3744A6EA2B0CC588, 0x236240E6EDCADD51, 0xF96DD8C4A6FF1C75, 0x06D1CE14D5451EE2},
         {0xA06F7D0A12A635DB, 0x625351B8D65F55CA, 0xCA662ABE6CEF6725, 0x71840C20BF77824D}},
        {32000,
         0x67F25DDA843895EA,
         {0x7DEA06194CA4B98B, 0x151BB193A0A82681, 0x3D09E1F422B310E5, 0x6DAC789CEAE2FE65},
         {0xD371042F043B6021, 0xFAFD2F66C05D9DBD, 0xCA662ABE6CEF6725, 0xA534BE817F79EC40}},
        {40000,
         0x9BC052C6E492270F,
         {0x9389834356A9C60C, 0x179474B54D983751, 0x6B6E1740C2D8D355, 0x8AF016F093808DD4},
         {0x0983A13701D2A22D, 0x43D0A4C6706F6581, 0xCA662ABE6CEF6725, 0x815F467076584F6D}},
    };
    for (const auto& one : cases)
        for (std::size_t chunk : {1u, 7u, 160u}) {
            SCOPED_TRACE(testing::Message() << one.rate << " bit/s, chunks of " << chunk);
            EXPECT_EQ(Checksum(Decoded(one.rate, KTTestCodes(), chunk)), one.noise);
            for (unsigned int i = 0; i < 4; ++i) {
                const auto codes = Encoded(one.rate, KTTestSignal(i), chunk);
                EXPECT_EQ(Checksum(codes), one.codes[i]) << kKTTestSignals[i];
                EXPECT_EQ(Checksum(Decoded(one.rate, codes, chunk)), one.samples[i]);
            }
        }
}

TEST(G726, KeepsTheBitsThatFillNoByte) {
    const short silence[8] = {};
    unsigned char out[4] = {1, 1, 1, 1};
    tag_KTG726STATE state;
    ASSERT_EQ(InitializeG726(&state, 24000), 0);
    EXPECT_EQ(EncodeG726(&state, out, silence, 3), 1);
    EXPECT_EQ(state.held, 1);
    EXPECT_EQ(EncodeG726(&state, out + 1, silence, 5), 2);
    EXPECT_EQ(state.held, 0);
    EXPECT_EQ(out[3], 1);
    short samples[3] = {};
    EXPECT_EQ(DecodeG726(&state, samples, out, 1), 2);
    EXPECT_EQ(state.held, 2);
    EXPECT_EQ(DecodeG726(&state, samples, out, 1), 3);
}

TEST(G726, RefusesOtherRatesNullsAndStatesNeverSetUp) {
    tag_KTG726STATE state = {}, before = {};
    short sample = 0;
    unsigned char byte = 0;
    EXPECT_EQ(EncodeG726(&state, &byte, &sample, 1), 0);
    EXPECT_EQ(DecodeG726(&state, &sample, &byte, 1), 0);
    EXPECT_EQ(InitializeG726(nullptr, 16000), -1);
    ASSERT_EQ(InitializeG726(&state, 40000), 0);
    std::memcpy(&before, &state, sizeof state);
    for (int rate : {8000, 0, -16000, 48000})
        EXPECT_EQ(InitializeG726(&state, rate), -1);
    EXPECT_EQ(EncodeG726(&state, nullptr, &sample, 1), 0);
    EXPECT_EQ(EncodeG726(nullptr, &byte, &sample, 1), 0);
    EXPECT_EQ(DecodeG726(&state, &sample, nullptr, 1), 0);
    EXPECT_EQ(DecodeG726(&state, &sample, &byte, 0x7FFFFFFF), 0);  // 3.4 thousand million samples
    EXPECT_EQ(std::memcmp(&before, &state, sizeof state), 0);
}
