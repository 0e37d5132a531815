#include <KTBase/KTH26X.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KTHeap.h"
#include "KTTestLoad.h"

namespace {

using Bytes = std::basic_string<unsigned char>;

Bytes Hex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes += static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16));
    return bytes;
}

const Bytes kCode = Hex("00000001");

/// The bytes in a block of exactly their size, so that a sanitizer sees reads past it.
std::unique_ptr<unsigned char[]> Exact(const Bytes& bytes) {
    std::unique_ptr<unsigned char[]> block(new unsigned char[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), block.get());
    return block;
}

std::string Text(const tag_KTSIZES& coded, const tag_KTSIZES& shown) {
    return std::to_string(coded.width) + "x" + std::to_string(coded.height) + " " +
           std::to_string(shown.width) + "x" + std::to_string(shown.height);
}

/// Standard sizes, coded and displayed.
std::string Standard(const Bytes& unit, bool h265) {
    tag_KTSIZES coded = {}, shown = {};
    const auto decode = h265 ? H265DecodeSize : H264DecodeSize;
    if (decode(Exact(unit).get(), unit.size(), &coded, &shown) == 0)
        return "refused";
    EXPECT_TRUE(shown.width - 1 < coded.width && shown.height - 1 < coded.height);
    return Text(coded, shown);
}

/// The four-byte walk's sizes, coded and displayed, and the references.
std::string Walk(const Bytes& unit, bool h265) {
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

int Refnum(const Bytes& vps) {
    return H265DecodeVPSRefnum(Exact(vps).get(), vps.size());
}

// Displayed sizes, of H.265 coded ones too: ffprobe 5.1.9 -show_entries stream=width,height,
// coded_width,coded_height (of H.264 it shows the displayed size twice). All others: worked out
// from what ffmpeg -bsf:v trace_headers prints. Units: start codes counted by a script.
const struct {
    const char *file, *standard, *walk;
    unsigned int units;
} kSamples[] = {
    {"h264-main-640x360.h264", "640x368 640x360", "640x368 640x360 4", 171},
    {"h264-high-1920x1080.h264", "1920x1088 1920x1080", "1920x1088 1920x1080 4", 9},
    {"h264-interlaced-1440x1080.h264", "1440x1088 1440x1080", "1440x544 1440x536 4", 15},
    {"h264-422-630x355.h264", "640x368 630x355", "640x368 630x342 4", 15},
    {"h265-main-1280x720.h265", "1280x720 1280x720", "1280x720 1280x720 4", 270},
    {"h265-main10-854x482.h265", "856x488 854x482", "856x488 854x482 4", 16},
};

Bytes ReadSample(const std::string& file) {
    std::ifstream in(KTBASE_MEDIA_DIR "/" + file, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<Bytes> Units(const Bytes& stream) {
    std::vector<Bytes> units;
    const auto block = Exact(stream);
    unsigned int begin = 0, length = 0;
    while (H26XNextUnit(block.get(), stream.size(), begin + length, &begin, &length) == 1)
        units.emplace_back(&block[begin], length);
    return units;
}

Bytes SlowNormalised(const Bytes& stream) {
    const Bytes code = Hex("000001");
    Bytes normal;
    for (std::size_t at = stream.find(code), next = 0; at != Bytes::npos; at = next) {
        next = stream.find(code, at + 3);
        Bytes unit = stream.substr(at + 3, next == Bytes::npos ? next : next - at - 3);
        unit.erase(unit.find_last_not_of(static_cast<unsigned char>(0)) + 1);
        normal += unit.empty() ? unit : kCode + unit;
    }
    return normal;
}

Bytes Normalised(const Bytes& stream) {
    Bytes out(stream.size() * 4 / 3, 0);
    const auto in = Exact(stream);
    const long long size = H26XNormalise(in.get(), stream.size(), out.data(), out.size());
    EXPECT_EQ(H26XNormalise(in.get(), stream.size(), nullptr, 0), size);
    return out.substr(0, size > 0 ? size : 0);
}

}  // namespace

TEST(H26XWalk, AgreesWithASlowSearchOnStreamsFullOfZeros) {
    std::mt19937 random(20260311);
    for (unsigned int round = KTTestLoad(20000); round > 0; --round) {
        Bytes stream(random() % 200, 0);
        const unsigned int zeros = random() % 8 + 1;
        for (unsigned char& byte : stream)
            byte = random() % 9 < zeros ? 0 : static_cast<unsigned char>(random() % 4);
        const std::size_t next = stream.size() < 11 ? Bytes::npos : stream.find(kCode, 5);
        const bool reported = next != Bytes::npos && next < stream.size() - 5;
        const int found = H26XFindNextNal(Exact(stream).get(), stream.size());
        ASSERT_EQ(found, reported ? static_cast<int>(next) : -1);
        ASSERT_EQ(Normalised(stream), SlowNormalised(stream));
    }
}

TEST(H26XSamples, HoldTheUnitsAndSizesThatOtherProgramsSee) {
    for (const auto& sample : kSamples) {
        const bool h265 = sample.file[3] == '5';
        const std::vector<Bytes> units = Units(ReadSample(sample.file));
        EXPECT_EQ(units.size(), sample.units) << sample.file;
        EXPECT_EQ(Standard(units.at(h265 ? 1 : 0), h265), sample.standard);
        EXPECT_EQ(Walk(units.at(h265 ? 1 : 0), h265), sample.walk);
    }
    EXPECT_EQ(Normalised(ReadSample("h264-main-640x360.h264")),
              ReadSample("h264-main-640x360-four-byte.h264"));  // by the recipe's script
}

TEST(H26XSets, StandardAndWalkReadThemEachInTheirWay) {
    const struct {
        const char *hex, *standard, *walk;
    } cases[] = {
        // By libx264 164 and libx265 3.5, sizes as in the samples: H.264 4:2:2 in fields, 4:4:4,
        // monochrome, 4:2:0 in fields; H.265 4:2:2, monochrome, two temporal sub-layers.
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
    for (const auto& c : cases) {
        EXPECT_EQ(Standard(Hex(c.hex), c.hex[0] == '4'), c.standard) << c.hex;
        EXPECT_EQ(Walk(Hex(c.hex), c.hex[0] == '4'), c.walk) << c.hex;
    }
    // Other units: PPS, forbidden bit; PPS, forbidden bit, layers 1 and 32.
    for (const char* header : {"68", "E7"})
        EXPECT_EQ(Standard(Hex(header) + Hex(cases[0].hex).substr(1), false), "refused") << header;
    for (const char* header : {"4401", "C201", "4209", "4301"})
        EXPECT_EQ(Standard(Hex(header) + Hex(cases[4].hex).substr(2), true), "refused") << header;
}

TEST(H26XSets, VideoSetsAreReadWithAndWithoutCodeAndHeader) {
    // Sub-layers 3, 6 and 0xFFFFFFFE, which is below 0 as an int; its last alone; by libx265: 4, 4.
    const Bytes every = Hex("0c05ffff01600000030300000300000300005d00009338a140000003003ffffffff8");
    const Bytes last = Hex("0c05ffff01600000030300000300000300005d0000030000030000ffffffffe0");
    for (const Bytes& front : {Hex(""), Hex("4001"), kCode, kCode + Hex("4001")}) {
        EXPECT_EQ(Refnum(front + every), 6);
        EXPECT_EQ(Refnum(front + last), -1);
        EXPECT_EQ(Refnum(front), -1);
    }
    EXPECT_EQ(Refnum(Hex("40010c02ffff01600000030090000003000003003c00009594aca048")), 4);
}

TEST(H26XSets, ThoseTooShortFailAndGiveWhatWasRead) {
    const Bytes body = Hex("0160FFFFFFFFFFFFFFFFFFFF5DF080");  // every code 0: ends in byte 14
    EXPECT_EQ(H265DecodeSPS(body.data(), 15, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(H265DecodeSPS(body.data(), 14, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(H265DecodeSPS(body.data(), -1, nullptr, nullptr, nullptr), 0);
    KTHeapFailAt(1);
    EXPECT_EQ(H265DecodeSPS(body.data(), 15, nullptr, nullptr, nullptr), 0);  // no memory
    KTHeapFailAt(0);
    unsigned int height = 7, profile = 7;  // cut in the cropping
    EXPECT_EQ(H264DecodeSPS(Hex("4d4016eca05017fc").data(), 8, nullptr, &height, &profile), 0);
    EXPECT_TRUE(height == 368 && profile == (77 | 0x40 << 8 | 22 << 16));
}

TEST(H26XHostile, CutAndDamagedSetsEndInFailureOrASize) {
    std::vector<Bytes> sets;  // H.264: SPS and PPS; H.265: VPS and SPS
    for (unsigned int i = 0; i < 2 * std::size(kSamples); ++i)
        sets.push_back(Units(ReadSample(kSamples[i / 2].file)).at(i % 2));
    for (const Bytes& set : sets) {
        const bool h265 = set[0] < 0x60;
        for (std::size_t len = 0; len < set.size(); ++len) {
            const Bytes cut = set.substr(0, len);
            const std::string sizes = Standard(cut, h265), walked = Walk(cut, h265);
            EXPECT_TRUE(sizes == Standard(set, h265) || sizes == "refused");
            EXPECT_TRUE(walked == Walk(set, h265) || walked == "refused");
            EXPECT_TRUE(Refnum(cut) == Refnum(set) || Refnum(cut) == -1);
        }
    }
    std::mt19937 random(20260312);
    for (unsigned int round = KTTestLoad(30000); round > 0; --round) {
        Bytes set = sets[random() % sets.size()];
        for (unsigned int flips = random() % 6 + 1; flips > 0; --flips)
            set[random() % set.size()] ^= 1u << random() % 8;
        Standard(set, round % 2 != 0);
        Walk(set, round % 2 != 0);
        EXPECT_GE(Refnum(set), -1);
    }
}

TEST(H26XHostile, NullsAndWhatDoesNotFitAreRefused) {
    const Bytes stream = Hex("FF00000167AA00000168BB0000");
    Bytes out(13, 0x5A);
    EXPECT_EQ(H26XNormalise(stream.data(), 13, out.data(), 11), -6);
    EXPECT_EQ(H26XNormalise(stream.data(), 13, out.data(), 12), 12);
    EXPECT_EQ(out, Hex("0000000167AA0000000168BB5A"));
    EXPECT_EQ(H26XNormalise(stream.data(), 3, out.data(), 12), -15);
    EXPECT_EQ(H26XNormalise(nullptr, 13, out.data(), 12), -4);
    EXPECT_EQ(H26XFindNextNal(nullptr, 30), -1);
    EXPECT_EQ(H265DecodeVPSRefnum(nullptr, 30), -1);
    tag_KTSIZES sizes = {};
    EXPECT_FALSE(H264DecodeResolution(stream.data(), 13, nullptr, &sizes, nullptr, nullptr) ||
                 H265DecodeResolution(nullptr, 30, nullptr, nullptr, nullptr, nullptr) ||
                 H264DecodeSPS(nullptr, 30, nullptr, nullptr, nullptr) ||
                 H265DecodeSPS(nullptr, 30, nullptr, nullptr, nullptr) ||
                 H264DecodeSize(nullptr, 30, &sizes, nullptr) ||
                 H265DecodeSize(nullptr, 30, nullptr, &sizes) ||
                 H26XNextUnit(stream.data(), 13, 0, nullptr, nullptr) ||
                 H26XNextUnit(stream.data(), 13, 0xFFFFFFFF, &sizes.width, &sizes.width));
}
