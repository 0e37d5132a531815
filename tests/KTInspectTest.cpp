#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "KTTestLoad.h"
#include "Names.h"
#include "Stream.h"

namespace {

/// Units in hexadecimal digits, parted by spaces; each gets a start code.
std::string Bytes(const std::string& units) {
    std::string bytes("\0\0\1", 3);
    for (std::size_t i = 0; i < units.size(); i += units[i] == ' ' ? 1 : 2) {
        if (units[i] == ' ')
            bytes.append("\0\0\1", 3);
        else
            bytes += static_cast<char>(std::stoi(units.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

/// The frame of each slice, with "k" behind the frames that are key; or why it is no stream.
/// The bytes are read from a block of exactly their size.
std::string Frames(const std::string& bytes) {
    const std::unique_ptr<unsigned char[]> block(new unsigned char[bytes.size()]);
    std::memcpy(block.get(), bytes.data(), bytes.size());
    Stream stream;
    if (const char* why = ReadStream(block.get(), static_cast<unsigned int>(bytes.size()), stream))
        return why;
    std::string text;
    for (const Unit& unit : stream.units)
        if (unit.isSlice)
            text += std::to_string(unit.frame) +
                    (unit.frame >= 0 && stream.frames[unit.frame].isKey ? "k " : " ");
    return text;
}

// 320x256 in fields, frame numbers of 4 bits; composed field by field.
const std::string kSets = "674d001eda050412 68cc ";
// An H.265 sequence parameter set of 1280x720, by libx265 3.5.
const std::string kSets265 =
    "42010101600000030090000003000003005da00280802d165959a4932bc05a0200000300020000030032 ";

}  // namespace

TEST(Inspect, PairsFieldsAndGathersSlices) {
    const struct {
        std::string units;
        const char* frames;
    } cases[] = {
        // IDR top field in two slices, its bottom field, a pair, a frame, a pair with bottom first.
        {kSets + "65888568 65142215a0 61888768 61888d68 61888f68 618892d0 01889f68 01889d68",
         "0k 0k 0k 1 1 2 3 3 "},
        // Two fields whose other one is missing, then an IDR field with the same frame number.
        {kSets + "0188a568 0188af68 65888568 41888768", "0 1 2k 2k "},
        // A slice that does not begin a picture, before any that does; without its sets.
        {"65142215a0 " + kSets + "65142215a0 65888568", "-1 -1 0k "},
        {kSets265 + "2601a0 260120 0201d0 020150 0209d0 2a01a0", "0k 0k 1 1 2k "},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Frames(Bytes(c.units)), c.frames) << c.units;
}

TEST(Inspect, ListsEachParameterSetOnce) {
    const std::string bytes = Bytes(kSets + "65888568 " + kSets + "68ce 65888568");
    Stream stream;
    ASSERT_EQ(ReadStream(reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<unsigned int>(bytes.size()), stream),
              nullptr);
    ASSERT_EQ(stream.sets.size(), 3u);
    EXPECT_EQ(stream.sets[1].times, 2u);
    EXPECT_EQ(stream.sets[2].unit, 5u);
    EXPECT_EQ(stream.frames[1].firstUnit, 3u);
}

TEST(Inspect, NamesWhatDependsOnConstraints) {
    EXPECT_EQ(H264Level(66, 0x10, 11) + H264Level(66, 0, 11) + H264Level(100, 0, 9), "1b1.11b");
    EXPECT_EQ(H264Profile(66, 0x40) + ", " + H264Profile(100, 0x0C),
              "Constrained Baseline, Constrained High");
    EXPECT_EQ(H265Level(186) + UnitName(true, 23) + UnitName(true, 47) + UnitName(true, 63),
              "6.2RSV_IRAP_VCL23RSV_NVCL47UNSPEC63");
}

TEST(Inspect, CutAndDamagedStreamsAreReadToTheirEndOnly) {
    std::mt19937 random(20260315);
    for (const std::string& sets : {kSets, kSets265}) {
        const std::string whole = Bytes(sets + "65888568 61888d68 2601a0 0201d0");
        for (std::size_t len = 0; len < whole.size(); ++len)
            Frames(whole.substr(0, len));
        EXPECT_EQ(Frames(whole.substr(0, 0)), "the file is empty");
        for (unsigned int round = KTTestLoad(10000); round > 0; --round) {
            std::string bad = whole;
            for (unsigned int flips = random() % 6 + 1; flips > 0; --flips)
                bad[random() % bad.size()] ^= static_cast<char>(1u << random() % 8);
            Frames(bad);
        }
    }
}
