#include <KTBase/KTMedia.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "KTHeap.h"
#include "KTTestBytes.h"
#include "KTTestFrame.h"

namespace {

const std::string kCode = Unhex("00000001");

// Sets that libx264 164 and libx265 3.5 wrote. The sizes were worked out from what ffmpeg's
// trace_headers prints: 4:2:0 units of cropping, and no doubling for fields.
const std::string k336 = Unhex("676e0015a6cd941533c92602200000");  // High 10, level 2.1: 330x84
const std::string k640 =
    Unhex("674d4016eca05017fcb80880000003008000000f078b16cb");  // Main, level 2.2: 640x360
const std::string kPPS = Unhex("68ebecb2");
const std::string k265VPS = Unhex("40010c02ffff01600000030090000003000003003c00009594aca048");
const std::string k265SPS =
    Unhex("4201010408000003009d0800000300003cb00a880b9c9365959a4932bc05a020");
const std::string k265PPS = Unhex("4401c172b42240");
const std::string k264Key = kCode + k640 + kCode + kPPS + kCode + Unhex("65888400");
const std::string k265Key = kCode + k265VPS + kCode + k265SPS + kCode + k265PPS;

std::string Sets(const CKTVideoHead* head, unsigned int flags = 0) {
    std::string sets(head->GetLength(flags), 0);
    auto* out = reinterpret_cast<unsigned char*>(sets.data());
    EXPECT_EQ(head->GetData(out, flags), static_cast<int>(sets.size()));
    return sets;
}

/// Passes the unit in a block of exactly its size, so that a sanitizer sees reads past it.
int SetUnit(CKTVideoHead& head, const std::string& unit, std::size_t headerBytes) {
    unsigned int header = static_cast<unsigned char>(unit[0]);
    if (headerBytes == 2)
        header |= static_cast<unsigned int>(static_cast<unsigned char>(unit[1])) << 8;
    const std::size_t len = unit.size() - headerBytes;
    const std::unique_ptr<unsigned char[]> body(new unsigned char[len]);
    std::memcpy(body.get(), unit.data() + headerBytes, len);
    return head.SetNAL(header, body.get(), static_cast<unsigned int>(len));
}

std::string Size(const CKTVideoHead* head) {
    return head == nullptr
               ? "none"
               : std::to_string(head->GetWidth()) + "x" + std::to_string(head->GetHeight());
}

}  // namespace

TEST(MediaHead, IsMadeFromTheFramesOfItsKindOnly) {
    const struct {
        int type, codec;
        const char* made;
        int h264, h265;  // what Setup answers
        bool same;       // to a head of its codec and size
    } cases[] = {
        {11, 31, "640x360", 0, -10, true}, {1, 47, "0x0", -10, 0, true},
        {1, 14, "none", -10, -10, true},   {0, 1, "none", -10, -10, false},
        {4, 1, "none", -10, -10, false},   {1, 5, "none", -10, -10, false},
    };
    CKTH264Head h264;
    CKTH265Head h265;
    for (const auto& c : cases) {
        const Packet packet = TestFrame(c.type, c.codec, k264Key, 640, 360);
        const Held<CKTVideoHead> made(CKTVideoHead::CreateHead(packet.get()));
        EXPECT_EQ(Size(made.get()), c.made) << c.type << " " << c.codec;
        EXPECT_EQ(h264.Setup(packet.get()), c.h264) << c.type << " " << c.codec;
        EXPECT_EQ(h265.Setup(packet.get()), c.h265) << c.type << " " << c.codec;
        h264.SetCodec(static_cast<unsigned short>(c.codec));
        EXPECT_EQ(h264.Check(packet.get()), c.same) << c.type << " " << c.codec;
    }
    h264.SetCodec(1);
    EXPECT_FALSE(h264.Check(TestFrame(1, 16, "", 640, 360).get()) ||
                 h264.Check(TestFrame(1, 1, "", 640, 368).get()) ||
                 h264.Check(TestFrame(1, 1, "", 641, 360).get()));
    const Packet bare(CPacket::Acquire(0, 0));
    EXPECT_EQ(h264.Setup(bare.get()), -10);
    EXPECT_EQ(CKTVideoHead::CreateHead(bare.get()), nullptr);
}

TEST(MediaHead, KeepsAStoredSetAndReplacesAnother) {
    CKTH264Head head;
    EXPECT_EQ(SetUnit(head, k336, 1), 0);
    EXPECT_FALSE(head.IsValid());
    EXPECT_EQ(SetUnit(head, kPPS, 1), 0);
    EXPECT_TRUE(head.IsValid());
    const std::string stored = kCode + k336 + kCode + kPPS;
    EXPECT_EQ(Sets(&head), stored);
    EXPECT_EQ(head.GetSPS().GetBuffer()[stored.find(kPPS) - 4], 0);  // terminated
    // The same bodies behind other headers, a set that cannot be decoded, another unit, no body.
    EXPECT_EQ(SetUnit(head, "\x27" + k336.substr(1), 1), 0);
    EXPECT_EQ(SetUnit(head, "\x28" + kPPS.substr(1), 1), 0);
    EXPECT_EQ(SetUnit(head, k640.substr(0, 8), 1), -15);
    EXPECT_EQ(SetUnit(head, Unhex("6588"), 1), -1);
    EXPECT_EQ(SetUnit(head, "\x67", 1), -4);
    EXPECT_EQ(Sets(&head), stored);
    EXPECT_EQ(Size(&head), "330x84");
    // Out of the head's own buffer, one byte shorter.
    const auto* own = reinterpret_cast<const unsigned char*>(head.GetSPS().GetBuffer());
    EXPECT_EQ(head.SetNAL(0x47, own + 5, static_cast<unsigned int>(k336.size() - 2)), 0);
    EXPECT_EQ(Sets(&head, 0x200), kCode + "\x47" + k336.substr(1, k336.size() - 2));

    for (unsigned int nth = 1; nth < 4; ++nth) {
        CKTH264Head full;
        ASSERT_EQ(SetUnit(full, k336, 1), 0);
        KTHeapFailAt(nth, 1000);
        const std::string longer = k640 + std::string(64, 1);
        EXPECT_EQ(SetUnit(full, longer, 1), -6) << nth;
        KTHeapFailAt(0);
        EXPECT_EQ(Size(&full) + Sets(&full), "330x84" + kCode + k336);
    }
}

TEST(MediaHead, ComparesFormats) {
    CKTH264Head a, b;
    CKTH265Head plain, flags, other;
    CKTAudioHead audio(2);
    const auto same = [](const CKTMediaHead& x, CKTMediaHead& y) { return x.Check(&y); };
    ASSERT_EQ(SetUnit(a, k640, 1), 0);
    std::string level = k640;
    level[3] = 0x17;
    ASSERT_EQ(SetUnit(b, level, 1), 0);
    EXPECT_FALSE(same(a, b));  // by the level
    ASSERT_EQ(SetUnit(b, k640, 1), 0);
    EXPECT_TRUE(same(a, b));
    EXPECT_FALSE(same(a, plain) || same(a, audio));
    for (CKTH265Head* head : {&plain, &flags})
        ASSERT_EQ(SetUnit(*head, k265SPS, 2), 0);
    flags.SetCodec(32);
    EXPECT_TRUE(same(plain, plain) && same(flags, plain));
    EXPECT_FALSE(same(plain, flags) || same(flags, flags) || same(plain, other));
    audio.SetChannum(0);
    audio.SetFreq(0);
    EXPECT_FALSE(same(other, audio));  // of that number, but no video
    a.SetCodec(2);                     // no H.265 head, but of that number and of another size
    EXPECT_FALSE(same(plain, a));
}

TEST(MediaHead, TakesAudioFormats) {
    for (const auto& [type, codec, is] :
         {std::tuple{0, 4, true}, {3, 13, true}, {0, 14, false}, {8, 4, false}}) {
        const Packet packet = TestFrame(type, codec, "", 16000);
        const Held<CKTAudioHead> head(CKTAudioHead::CreateHead(packet.get()));
        ASSERT_EQ(head != nullptr, is) << type << " " << codec;
        CKTAudioHead fresh(static_cast<unsigned short>(codec));
        EXPECT_EQ(fresh.Check(packet.get()), is);
        EXPECT_FALSE(fresh.Check(head.get()));  // 8000 Hz
        fresh.SetChannum(2);
        EXPECT_EQ(fresh.Setup(packet.get()), is ? 0 : -10);
        EXPECT_EQ(fresh.GetChannum(), is ? 1 : 2);
        EXPECT_EQ(fresh.Check(head.get()), is);
    }
    EXPECT_EQ(CKTAudioHead::CreateHead(6, 1, 8000), nullptr);
    EXPECT_EQ(CKTAudioHead::CreateHead(3, 1, 8000), nullptr);
}

TEST(MediaDesc, FollowsTheStreamsFormat) {
    const Held<CKTMediaDesc> desc(CKTMediaDesc::Create(9));
    const auto after = [&](const Packet& packet) {
        EXPECT_EQ(desc->Setup(packet.get()), 0);
        return Size(desc->GetVideoHead());
    };
    EXPECT_EQ(after(TestFrame(0, 1, k264Key)), "none");
    EXPECT_EQ(after(Packet(CPacket::Acquire(0, 0))), "none");
    EXPECT_EQ(after(TestFrame(1, 1, k264Key, 640, 360)), "640x360");
    const CKTVideoHead* const first = desc->GetVideoHead();
    EXPECT_EQ(after(TestFrame(0, 1, "", 330, 179)), "640x360");
    EXPECT_EQ(after(TestFrame(1, 1, "", 640, 360)), "640x360");
    EXPECT_EQ(desc->GetVideoHead(), first);
    EXPECT_EQ(after(TestFrame(1, 2, k265Key, 640, 360)), "330x179");  // the codec has changed
    EXPECT_TRUE(desc->GetVideoHead()->IsH265());
    EXPECT_EQ(after(TestFrame(0, 8, "", 16000)), "330x179");
    EXPECT_EQ(desc->GetAudioHead()->GetFreq(), 16000u);
    const Held<CKTMediaDesc> copy(desc->Clone());
    EXPECT_EQ(after(TestFrame(1, 14, "", 330, 179)), "none");  // leads to no head
    EXPECT_EQ(desc->SetupAudio(6, 1, 8000), 0);
    EXPECT_EQ(desc->GetAudioHead(), nullptr);

    EXPECT_EQ(copy->GetKind(), 9u);
    EXPECT_EQ(copy->GetAudioHead()->GetCodec(), 8);
    CKTVideoHead* const held = copy->GetVideoHead();
    EXPECT_EQ(Sets(held), kCode + k265SPS + kCode + k265PPS + kCode + k265VPS);
    EXPECT_EQ(Sets(held, 0x100), kCode + k265PPS + kCode + k265VPS);
    EXPECT_EQ(Sets(held, 0x600), kCode + k265SPS);
    EXPECT_EQ(copy->SetVideoHead(held), 0);
    EXPECT_EQ(copy->GetVideoHead(), held);
    EXPECT_EQ(desc->SetVideoHead(held), 0);
    EXPECT_NE(desc->GetVideoHead(), held);
    EXPECT_EQ(Sets(desc->GetVideoHead()), Sets(held));
    EXPECT_EQ(desc->SetupAudio(5, 2, 44100), 0);
    // Description, H.265 head, three sets, audio head.
    for (unsigned int nth = 1; nth <= 6; ++nth) {
        KTHeapFailAt(nth, 1000);
        EXPECT_EQ(desc->Clone(), nullptr) << nth;
        KTHeapFailAt(0);
    }
    const Held<CKTMediaDesc> next(desc->Clone());
    EXPECT_TRUE(next->GetAudioHead()->Check(desc->GetAudioHead()));
}

TEST(MediaDesc, MeasuresItsDuration) {
    const Held<CKTMediaDesc> desc(CKTMediaDesc::Create(0));
    const auto at = [](const char* text) {
        CKTTime time;
        EXPECT_EQ(time.ParseISO8601(text), 0);
        return time;
    };
    CKTTime start = at("20240228T235959.900Z"), null(true);
    EXPECT_EQ(desc->SetTimeS(&start), 0);
    for (const auto& [text, ms, seconds] :
         {std::tuple{"20240301T000001.100Z", 86401200ull, 86402ull},
          {"20240229T000000.900Z", 1000, 1},
          {"20240229T000000.901Z", 1001, 2},
          {"20240228T235959.899Z", 0, 0}}) {
        CKTTime end = at(text);
        EXPECT_EQ(desc->SetTimeE(&end), 0);
        EXPECT_EQ(desc->GetTimeRange(), ms);
        EXPECT_EQ(desc->GetSeconds(), seconds);
    }
    EXPECT_EQ(desc->SetTimeS(&null), 0);
    EXPECT_EQ(desc->SetTimeE(&start), -7);
    desc->SetTimeRange(0xFFFFFFFFFFFFFFFF);
    EXPECT_EQ(desc->GetSeconds(), 18446744073709552ull);
}

TEST(MediaHostile, CutFramesReadNothingBehindThem) {
    for (const bool h265 : {false, true}) {
        const auto result = [&](const std::string& payload, unsigned int claimed, char filler) {
            const Packet packet = TestFrame(1, h265 ? 2 : 1, payload, 0, 0, filler);
            packet->FrameSetLength(claimed);
            const Held<CKTVideoHead> head(CKTVideoHead::CreateHead(packet.get()));
            return Size(head.get()) + Sets(head.get());
        };
        // A unit of one byte stands in front.
        std::string key = kCode + (h265 ? "\x44" + k265Key : "\x68" + k264Key);
        for (unsigned int len = 0; len <= key.size(); ++len) {
            const std::string cut = key.substr(0, len);
            ASSERT_EQ(result(cut, len, 0), result(cut, len, 1)) << len;
        }
        // Ends in a set at the end of its buffer, and claims more than that.
        const std::string last = kCode + (h265 ? k265PPS : kPPS);
        key.resize(1004 - last.size(), 1);
        EXPECT_EQ(result(key + last, 0xFFFFFFFF, 0), result(key + last, 1004, 0));
    }
}
