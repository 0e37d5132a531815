#include <KTBase/KTH26X.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KTHeap.h"
#include "KTTestBytes.h"
#include "KTTestLoad.h"

namespace {

const std::string kCode = Unhex("00000001");

/// The bytes in a block of exactly their size, so that a sanitizer sees reads past it.
std::unique_ptr<unsigned char[]> Exact(const std::string& bytes) {
    std::unique_ptr<unsigned char[]> block(new unsigned char[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), block.get());
    return block;
}

std::string Text(const tag_KTSIZES& coded, const tag_KTSIZES& shown) {
    return std::to_string(coded.width) + "x" + std::to_string(coded.height) + " " +
           std::to_string(shown.width) + "x" + std::to_string(shown.height);
}

/// Standard sizes, coded and displayed.
std::string Standard(const std::string& unit, bool h265) {
    tag_KTSIZES coded = {}, shown = {};
    const auto decode = h265 ? H265DecodeSize : H264DecodeSize;
    if (decode(Exact(unit).get(), unit.size(), &coded, &shown) == 0)
        return "refused";
    EXPECT_TRUE(shown.width - 1 < coded.width && shown.height - 1 < coded.height);
    return Text(coded, shown);
}

/// The four-byte walk's sizes, coded and displayed, and the references.
std::string Walk(const std::string& unit, bool h265) {
    tag_KTSIZES coded = {}, shown = {}, alone = {};
    unsigned int refs = 0;
    const auto block = Exact(kCode + unit);
    const std::size_t size = unit.size() + 4, skip = std::min<std::size_t>(size, h265 ? 6 : 5);
    const unsigned char *nal = block.get(), *body = nal + skip;
    const int one = h265 ? H265DecodeSPS(body, size - skip, &alone.width, &alone.height, nullptr)
                         : H264DecodeSPS(body, size - skip, &alone.width, &alone.height, nullptr);
    const int both = h265 ? H265DecodeResolution(nal, size, &coded, &shown, nullptr, &refs)
                          : H264DecodeResolution(nal, size, &coded, &shown, nullptr, &refs);
    EXPECT_GE(one, both);  // the one that reads further can only fail later
    if (both == 0)
        return "refused";
    EXPECT_EQ(Text(coded, alone), Text(coded, shown));
    return Text(coded, shown) + " " + std::to_string(refs);
}

int Refnum(const std::string& vps) {
    return H265DecodeVPSRefnum(Exact(vps).get(), vps.size());
}

const struct {
    const char *hex, *standard, *walk;
} kSets[] = {
    // By libx264 164 and libx265 3.5. Displayed sizes and coded ones of H.265: ffprobe 5.1.9
    // -show_entries stream=width,height,coded_width,coded_height; all others worked out from what
    // ffmpeg -bsf:v trace_headers prints. H.264 4:2:0, 4:2:2 in fields, 4:4:4, monochrome, 4:2:0 in
    // fields; H.265 4:2:2, monochrome, two temporal sub-layers.
    {"674d4016eca05017fcb80880000003008000000f078b16cb", "640x368 640x360", "640x368 640x360 4"},
    {"677a0015bcd941533cd3602200000300", "336x192 326x182", "336x96 326x76 4"},
    {"67f4000d919b282a33c90860220000", "336x192 333x177", "336x192 330x162 4"},
    {"6764000df365054679e3f01100000300", "336x192 330x178", "336x192 324x164 4"},
    {"676e0015a6cd941533c92602200000", "336x192 330x180", "336x96 330x84 4"},
    {"4201010408000003009d0800000300003cb00a880b9c9365959a4932bc05a020", "336x184 330x179",
     "336x184 330x179 4"},
    {"4201010408000003009fc800000300003cc02a202e734d96566924caf0168080", "336x184 331x179",
     "336x184 331x179 4"},
    {"42010201600000030090000003000003003c0000a00a880b9c92659594acb24995", "336x184 330x178",
     "336x184 330x178 4"},
    // The rest is composed field by field. Profile 44, planes apart, three scaling lists: one
    // ends at its second entry (8 + 127 + 121 wraps to 0), the others have all 16 and 64.
    {"672cc01e93b01fc03cbfffe1ffffffffffffffff05a0507f5a80", "320x240 319x239",
     "320x240 318x238 1"},
    // Order type 1, offsets full of escapes; then one that claims more offsets than it has.
    {"6742c01e9500000300007fffffff8000000300fffffffe6c0000030007fffffffa0507f5a8",
     "320x240 318x238", "320x240 318x238 1"},
    {"6742c01e9530000003001fffffffe8141fa0", "refused", "refused"},
    // Profile 118 with chroma fields, from the id on: 1 010 1 1 0 0, frame number 1, order type
    // 011, references 010, 0, width 000010100, height 0001111, 110. Without: 1 010, order 1 1,
    // references 00101, 1, width 010, height 00000101000, fields 0 0 1, cropping 1 1 1 1 1.
    {"6f76c01eacb40a0fd0", "320x240 320x240", "32x640 32x640 4"},
    // Width codes of 31 and of 32 leading zeros; cropped to nothing; 17 references.
    {"6742c01eda0000030000ffffffff1fd6a0", "refused", "4294967280x240 4294967278x238 1"},
    {"6742c01eda0000030000400000030007f5a8", "refused", "refused"},
    {"6742c01eda7cc4e0", "refused", "16x16 0x16 1"},
    {"6742c01ed849e8", "refused", "16x16 16x16 17"},
    // Three sub-layers, the first with profile and level, the second with a level: 3, 6 and 5.
    {"42010501600000030300000300000300005dd000ffffffffffffffff000003001e3ca00a080f1a642e59338a"
     "146e",
     "320x240 314x226", "320x240 314x226 6"},
    // A window of nothing; chroma format 4, whose window offsets are not there.
    {"42010101600000030300000300000300005da00a080f180c9f964e", "refused",
     "320x240 4294967216x240 3"},
    {"42010101600000030300000300000300005d94028203c7964e", "refused", "320x240 320x240 3"},
    // The width's bits hold 00 00 03, escaped 00 00 03 03: 26 leading zeros, and 2^26 - 1 plus
    // the bits 11 00000000 00000000 00001010. The walk skips the second 03 too: 20 zeros,
    // 2^20 - 1 + 0, and then height 0.
    {"42010101600000030300000300000300005da00000030380000520ffff80", "117440521x1 117440521x1",
     "1048575x0 1048575x0 0"},
};

// Sub-layers 3, 6 and 0xFFFFFFFE, which is below 0 as an int; its last alone.
const std::string kEveryLayer =
    Unhex("0c05ffff01600000030300000300000300005d00009338a140000003003ffffffff8");
const std::string kLastLayer =
    Unhex("0c05ffff01600000030300000300000300005d0000030000030000ffffffffe0");

std::string SlowNormalised(const std::string& stream) {
    const std::string code = Unhex("000001");
    std::string normal;
    for (std::size_t at = stream.find(code), next = 0; at != std::string::npos; at = next) {
        next = stream.find(code, at + 3);
        std::string unit = stream.substr(at + 3, next == std::string::npos ? next : next - at - 3);
        unit.erase(unit.find_last_not_of('\0') + 1);
        normal += unit.empty() ? unit : kCode + unit;
    }
    return normal;
}

std::string Normalised(const std::string& stream) {
    std::vector<unsigned char> out(stream.size() * 4 / 3);
    const auto in = Exact(stream);
    const long long size = H26XNormalise(in.get(), stream.size(), out.data(), out.size());
    EXPECT_EQ(H26XNormalise(in.get(), stream.size(), nullptr, 0), size);
    return std::string(out.begin(), out.begin() + (size > 0 ? size : 0));
}

}  // namespace

TEST(H26XWalk, AgreesWithASlowSearchOnStreamsFullOfZeros) {
    std::mt19937 random(20260311);
    for (unsigned int round = KTTestLoad(20000); round > 0; --round) {
        std::string stream(random() % 200, 0);
        const unsigned int zeros = random() % 8 + 1;
        for (char& byte : stream)
            byte = random() % 9 < zeros ? 0 : static_cast<char>(random() % 4);
        const std::size_t next = stream.size() < 11 ? std::string::npos : stream.find(kCode, 5);
        const bool reported = next != std::string::npos && next < stream.size() - 5;
        const int found = H26XFindNextNal(Exact(stream).get(), stream.size());
        ASSERT_EQ(found, reported ? static_cast<int>(next) : -1);
        ASSERT_EQ(Normalised(stream), SlowNormalised(stream));
    }
}

TEST(H26XSets, StandardAndWalkReadThemEachInTheirWay) {
    for (const auto& c : kSets) {
        EXPECT_EQ(Standard(Unhex(c.hex), c.hex[0] == '4'), c.standard) << c.hex;
        EXPECT_EQ(Walk(Unhex(c.hex), c.hex[0] == '4'), c.walk) << c.hex;
    }
    // Other units: PPS, forbidden bit; PPS, forbidden bit, layers 1 and 32.
    const std::string h264 = kSets[0].hex, h265 = kSets[5].hex;
    for (const char* header : {"68", "E7"})
        EXPECT_EQ(Standard(Unhex(header + h264.substr(2)), false), "refused") << header;
    for (const char* header : {"4401", "C201", "4209", "4301"})
        EXPECT_EQ(Standard(Unhex(header + h265.substr(4)), true), "refused") << header;
}

TEST(H26XSets, VideoSetsAreReadWithAndWithoutCodeAndHeader) {
    for (const std::string& front : {Unhex(""), Unhex("4001"), kCode, kCode + Unhex("4001")}) {
        EXPECT_EQ(Refnum(front + kEveryLayer), 6);
        EXPECT_EQ(Refnum(front + kLastLayer), -1);
        EXPECT_EQ(Refnum(front), -1);
    }
    // By libx265: 4, 4.
    EXPECT_EQ(Refnum(Unhex("40010c02ffff01600000030090000003000003003c00009594aca048")), 4);
}

TEST(H26XSets, ThoseTooShortFailAndGiveWhatWasRead) {
    // Every code 0: ends in byte 14.
    const auto block = Exact(Unhex("0160FFFFFFFFFFFFFFFFFFFF5DF080"));
    const unsigned char* const body = block.get();
    EXPECT_EQ(H265DecodeSPS(body, 15, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(H265DecodeSPS(body, 14, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(H265DecodeSPS(body, -1, nullptr, nullptr, nullptr), 0);
    KTHeapFailAt(1);
    EXPECT_EQ(H265DecodeSPS(body, 15, nullptr, nullptr, nullptr), 0);  // no memory
    KTHeapFailAt(0);
    unsigned int height = 7, profile = 7;  // cut in the cropping
    const auto cut = Exact(Unhex("4d4016eca05017fc"));
    EXPECT_EQ(H264DecodeSPS(cut.get(), 8, nullptr, &height, &profile), 0);
    EXPECT_TRUE(height == 368 && profile == (77 | 0x40 << 8 | 22 << 16));
}

TEST(H26XHostile, CutAndDamagedSetsEndInFailureOrASize) {
    std::vector<std::string> sets = {kEveryLayer, kLastLayer};
    for (const auto& c : kSets)
        sets.push_back(Unhex(c.hex));
    for (const std::string& set : sets) {
        const bool h265 = set[0] < 0x60;
        for (std::size_t len = 0; len < set.size(); ++len) {
            const std::string cut = set.substr(0, len);
            const std::string sizes = Standard(cut, h265), walked = Walk(cut, h265);
            EXPECT_TRUE(sizes == Standard(set, h265) || sizes == "refused");
            EXPECT_TRUE(walked == Walk(set, h265) || walked == "refused");
            EXPECT_TRUE(Refnum(cut) == Refnum(set) || Refnum(cut) == -1);
        }
    }
    std::mt19937 random(20260312);
    for (unsigned int round = KTTestLoad(30000); round > 0; --round) {
        std::string set = sets[random() % sets.size()];
        for (unsigned int flips = random() % 6 + 1; flips > 0; --flips)
            set[random() % set.size()] ^= static_cast<char>(1u << random() % 8);
        Standard(set, round % 2 != 0);
        Walk(set, round % 2 != 0);
        EXPECT_GE(Refnum(set), -1);
    }
}

TEST(H26XHostile, WhatDoesNotFitIsRefused) {
    const auto stream = Exact(Unhex("FF00000167AA00000168BB0000"));
    unsigned char out[13] = {};
    out[12] = 0x5A;
    EXPECT_EQ(H26XNormalise(stream.get(), 13, out, 11), -6);
    EXPECT_EQ(H26XNormalise(stream.get(), 13, out, 12), 12);
    EXPECT_EQ(std::string(out, out + 13), Unhex("0000000167AA0000000168BB5A"));
    EXPECT_EQ(H26XNormalise(stream.get(), 3, out, 12), -15);
    unsigned int begin = 0, length = 0;
    EXPECT_EQ(H26XNextUnit(stream.get(), 13, 0xFFFFFFFF, &begin, &length), 0);
}
