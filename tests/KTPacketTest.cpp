#include "KTBase/KTPacket.h"

#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "KTHeap.h"
#include "KTTestLoad.h"

namespace {

CPacket* Frame(unsigned int size, unsigned int length, unsigned char type, unsigned char codec) {
    CPacket* packet = CPacket::Acquire(size, 0);
    if (packet == nullptr)
        return nullptr;
    ZHTIME time = 0x56B2A280;  // 2021-10-25 10:10:00
    packet->FrameInit();
    packet->FrameSetTime(&time, 1005);
    packet->FrameSetLength(length);
    packet->FrameSetType(type);
    packet->FrameSetCodec(codec);
    return packet;
}

template <class Action>
void ExpectPrinted(const std::string& line, Action action) {
    testing::internal::CaptureStdout();
    action();
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_NE(text.find(line), std::string::npos) << text << line;
}

void ExpectLive(std::size_t count, unsigned int bytes) {
    ExpectPrinted("Packets==========> num = " + std::to_string(count) +
                      ", size = " + std::to_string(bytes) + "\n",
                  [] { CPacket::DumpPackets(nullptr); });
}

// A pool for the length of a test.
struct Pool {
    Pool(unsigned int pages, unsigned int shift) {
        EXPECT_EQ(CPacket::CreatePool(pages, shift, 0), 0);
    }
    ~Pool() { CPacket::DeletePool(); }
};

}  // namespace

TEST(Packet, TakesAlignedKilobytesFromTheHeapAndCountsThem) {
    for (auto [asked, size] : {std::pair{1u, 1024u}, {1024u, 1024u}, {1025u, 2048u}, {0u, 0u}}) {
        CPacket* packet = CPacket::Acquire(asked, 0);
        EXPECT_EQ(packet->GetSize(), size);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(packet->GetData()) % 1024, 0u);
        if (size != 0)
            std::memset(packet->GetData(), 0xFF, size);
        EXPECT_EQ(packet->Release(), 0);
    }
    EXPECT_EQ(CPacket::Acquire(0xFFFFFC01u, 0), nullptr);  // would round to 4 GB
    KTHeapFailAt(2, 100);                                  // the buffer
    EXPECT_EQ(CPacket::Acquire(1, 0), nullptr);
    KTHeapFailAt(0);
    std::vector<CPacket*> live;
    unsigned int bytes = 0;
    std::mt19937 random(1);
    for (unsigned int step = 0; step < 1000; ++step) {
        live.push_back(CPacket::Acquire(1 + random() % 3000, 0));
        bytes += live.back()->GetSize() + 1024;
    }
    std::shuffle(live.begin(), live.end(), random);
    for (; !live.empty(); live.pop_back()) {
        if (live.size() % 50 == 0)
            ExpectLive(live.size(), bytes);
        bytes -= live.back()->GetSize() + 1024;
        live.back()->Release();
    }
    ExpectLive(0, 0);
}

TEST(Packet, KeepsEachBufferToItsOrigin) {
    CPacket* heap = CPacket::Acquire(1, 0);
    EXPECT_EQ(CPacket::CreatePool(0, 10, 1), -10);
    EXPECT_EQ(CPacket::CreatePool(0, 10, 0), -4);
    ASSERT_EQ(CPacket::CreatePool(13, 10, 0), 0);
    EXPECT_EQ(CPacket::CreatePool(0, 10, 1), -7);
    heap->Release();
    CPacket* old = CPacket::Acquire(8192, 0);
    EXPECT_EQ(CPacket::Acquire(4097, 0), nullptr);
    KTHeapFailAt(1);
    EXPECT_EQ(CPacket::Acquire(4096, 0), nullptr);
    KTHeapFailAt(0);
    CPacket* rest = CPacket::Acquire(4096, 0);  // neither failure took anything
    EXPECT_EQ(rest->GetData(), old->GetData() + 8192);
    rest->Release();
    CPacket::DeletePool();

    Pool pool(13, 10);
    CPacket* taken = CPacket::Acquire(8192, 0);
    old->Release();  // of the pool before: this one's page 0 stays taken
    EXPECT_EQ(CPacket::Acquire(8192, 0), nullptr);
    taken->Release();
}

TEST(Packet, WritesAndDumpsItsHeader) {
    Pool pool(4, 5);
    CPacket* packet = CPacket::Acquire(1, 0);  // 12 bytes behind the header
    std::memset(packet->GetData(), 0xAB, 32);
    packet->Release();
    packet = Frame(1, 0x04030201, 1, 17);
    packet->FrameSetWidth(1920);
    packet->FrameSetHeight(1080);
    for (auto [fps, stored] : {std::pair{100.0, 252}, {-1.0, 0}, {std::nan(""), 0}, {12.6, 50}}) {
        packet->FrameSetFPS(fps);
        EXPECT_EQ(packet->GetData()[15], stored);
    }
    const unsigned char expected[] = {0x00, 0x00, 0x01, 0xE1, 0x01, 0x02, 0x03,
                                      0x04, 0x80, 0xA2, 0xB2, 0x56, 0xED, 0x03,
                                      0x11, 0x32, 0x80, 0x07, 0x38, 0x04, 0xAB};
    EXPECT_EQ(std::memcmp(packet->GetData(), expected, sizeof(expected)), 0);
    packet->FrameSetLength(300);
    ExpectPrinted(
        "Frame(2021-10-25 10:10:00.1005), codec = 17, type = 1, fps = 12.500, len = 300, "
        "size = 0x00000020, (ab ab ab ab-ab ab ab ab) -----(ab ab ab ab 00 00 00 00)\n",
        [packet] { packet->Dump(); });
    static char japan[] = "TZ=JST-9";
    putenv(japan);
    tzset();
    // `date -u -d "2021-10-25 01:10" +%s`, and the milliseconds as they stand.
    EXPECT_EQ(packet->FrameGetTimeStamp(), 1635124201005ull);
    packet->SetUserData(0x44332211);
    packet->FrameSetEventSource(9, 0x77);
    EXPECT_EQ(packet->GetUserData(0), 0x77332211u);
    packet->Release();
}

TEST(Packet, TellsKindsOfFrameByCodecAndType) {
    // Video, Audio, Picture, Smart, Key, vI frame, Has VI, 4: H.264, 5: H.265, Currc, pOs.
    const struct {
        unsigned char type;
        std::vector<unsigned char> codecs;
        const char* kinds;
    } cases[] = {
        {0, {1}, "V4"},       {1, {2}, "VK5"},       {11, {16, 19}, "VK4"}, {9, {20, 31}, "VIH4"},
        {9, {32, 35}, "VI5"}, {9, {36, 47}, "VIH5"}, {9, {1}, "V4"},        {2, {1}, "4"},
        {4, {16}, "K4"},      {12, {2}, "5"},        {0, {14}, "VP"},       {5, {3, 14}, "P"},
        {0, {4, 9, 12}, "A"}, {6, {13}, "A"},        {7, {4, 13, 0}, "S"},  {8, {1}, "S4"},
        {0, {10}, "S"},       {0, {11}, "C"},        {0, {15}, "O"},        {0, {0, 48, 255}, ""},
    };
    for (const auto& test : cases) {
        for (unsigned char codec : test.codecs) {
            CPacket* p = Frame(100, 0, test.type, codec);
            const bool is[] = {p->FrameIsVideo(), p->FrameIsAudio(), p->FrameIsPicture(),
                               p->FrameIsSmart(), p->FrameIsKey(),   p->FrameIsVI(),
                               p->FrameHasVI(),   p->FrameIsH264(),  p->FrameIsH265(),
                               p->FrameIsCurrC(), p->FrameIsPOS()};
            std::string kinds;
            for (int i = 0; i < 11; ++i)
                kinds += is[i] ? std::string(1, "VAPSKIH45CO"[i]) : "";
            EXPECT_EQ(kinds, test.kinds) << int(test.type) << " " << int(codec);
            EXPECT_EQ(p->FrameGetPBNum(), codec >= 16 && codec <= 47 ? codec % 4u : 0u);
            p->Release();
        }
    }
}

TEST(Packet, TakesABufferWithoutRoomForTheHeaderAsNone) {
    Pool pool(4, 4);
    for (unsigned int size : {0u, 16u}) {
        CPacket* packet = Frame(size, 9, 1, 1);
        packet->Dump();
        EXPECT_EQ(packet->FrameGetType(), 255);
        EXPECT_EQ(packet->FrameGetSize() + packet->FrameGetTimeStamp(), 0u);
        EXPECT_TRUE(packet->FrameGetData() == nullptr && packet->FrameGetTime() == nullptr);
        EXPECT_FALSE(packet->FrameIsVideo() || packet->FrameIsKey() || packet->FrameIsSmart());
        EXPECT_EQ(CKTPacketList(0, 0).PutPacket(packet, 1), -4);
        packet->Release();
    }
}

TEST(PacketList, KeepsOrderTotalsAndLimits) {
    CKTPacketList list(2, 500);
    CPacket* video = Frame(1, 100, 1, 1);
    CPacket* audio = Frame(1, 200, 0, 4);
    CPacket* smart = Frame(1, 10, 0, 10);
    KTHeapFailAt(1);
    EXPECT_EQ(list.PutPacket(video, 1), -6);  // and stays ours
    KTHeapFailAt(0);
    EXPECT_EQ(list.GetSize() + list.GetVideoFrameNum(), 0u);
    EXPECT_EQ(list.PutPacket(video, 1), 0);
    KTHeapFailAt(1);  // not met: nothing is allocated while the list holds a packet
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(list.PutPacket(smart, 1), 0);
        ASSERT_EQ(list.GetPacket(1), smart);
    }
    EXPECT_EQ(list.PutPacket(audio, 1), 0);
    KTHeapFailAt(0);
    EXPECT_EQ(list.IsFull(), 0);
    EXPECT_EQ(list.PutPacket(smart, 0), 0);
    EXPECT_EQ(list.GetSize(), 370u);
    EXPECT_EQ(list.IsFull(), 1);
    list.SetMaxVideoFrameNum(0);
    EXPECT_EQ(list.IsFull(), 0);
    // Edited while queued: the totals neither wrap nor outlast the last packet.
    audio->FrameSetLength(100000);
    smart->FrameSetCodec(4);
    EXPECT_EQ(list.GetPacket(1), audio);
    EXPECT_EQ(list.GetSize(), 0u);
    EXPECT_EQ(list.GetPacket(0), smart);
    EXPECT_EQ(list.GetVideoFrameNum(), 2u);
    EXPECT_EQ(list.GetPacket(0), video);
    EXPECT_EQ(list.GetVideoFrameNum(), 0u);
    for (CPacket* packet : {video, audio, smart})
        packet->Release();
}

TEST(PacketList, MovesWhatTheTargetTakes) {
    CKTPacketList from(0, 0);
    CKTPacketListEx to(0, 0);
    CPacket* untimed = Frame(1, 1, 1, 1);
    for (CPacket* packet : {untimed, Frame(1, 2, 0, 10), Frame(1, 3, 0, 11), Frame(1, 4, 0, 3)})
        EXPECT_EQ(from.PutPacket(packet, 1), 0);
    EXPECT_EQ(from.MoveTo(&from), 0);
    *untimed->FrameGetTime() = 0;  // refused by now
    EXPECT_EQ(from.MoveTo(&to), 3);
    EXPECT_TRUE(from.IsEmpty());
    EXPECT_EQ(to.GetVideoFrameNum(), 1u);  // the picture
    EXPECT_EQ(to.GetSize(), 2u + 3 + 4 + 60);
    CPacket* first = to.GetPacket(0);
    EXPECT_EQ(first->FrameGetLength(), 2u);
    first->Release();  // the others go with the list
}

TEST(Packet, ThreadsLeaveNoPageAndNoReferenceTaken) {
    const unsigned int rounds = KTTestLoad(500000, 5000000);
    Pool pool(1000, 10);
    CPacket* shared = CPacket::Acquire(1, 0);
    std::vector<std::thread> threads;
    for (unsigned int seed = 1; seed <= 2; ++seed)
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            CPacket* held[100] = {};
            for (unsigned int round = 0; round < rounds; ++round) {
                CPacket*& packet = held[random() % 100];
                if (packet != nullptr)
                    packet->Release();
                packet = CPacket::Acquire(1 + random() % 6000, 0);
                shared->AddRef();
            }
            for (CPacket* packet : held)
                if (packet != nullptr)
                    packet->Release();
            for (unsigned int round = 0; round < rounds; ++round)
                shared->Release();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(shared->Release(), 0);
    // The pool is again what 1000 pages begin as, and no page is missing.
    CKTPacketList blocks(0, 0);
    for (unsigned int pages : {512u, 256u, 128u, 64u, 32u, 8u}) {
        CPacket* packet = Frame(pages * 1024, 0, 1, 1);
        ASSERT_NE(packet, nullptr) << pages;
        blocks.PutPacket(packet, 1);
    }
    EXPECT_EQ(CPacket::Acquire(1, 0), nullptr);
}
