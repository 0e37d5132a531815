#include "KTBase/KTFrame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "KTBase/KTPacket.h"
#include "KTHeap.h"
#include "KTTestBytes.h"
#include "KTTestLoad.h"
#include "KTTestPrint.h"

namespace {

// Printed by ffmpeg/make.sh. In YV12 a picture of 7 x 5, whose chroma planes are 4 x 3 there, and
// what ffmpeg cuts out of it, 6 x 4.
const char kWhole[] =
    "438fba7e4074aa5185b5843f73aa5185bc7e3e70995185bc7e497eaa5185bc7e4177aa"
    "a0638d56ad6c8d65ad6c884d5025e0b24e1de3af4f1dddad";
const char kCut[] = "438fba7e40745185b5843f735185bc7e3e705185bc7e497ea0638dad6c8d5025e04e1de3";

tag_KTFRAME Record(std::string& bytes, unsigned int width, unsigned int height) {
    const int pitch = static_cast<int>(width), chroma = (pitch + 1) / 2;
    unsigned char* y = reinterpret_cast<unsigned char*>(&bytes[0]);
    unsigned char* v = y + width * height;
    unsigned char* u = v + (height + 1) / 2 * chroma;
    return {5, {y, v, u}, {pitch, chroma, chroma}, width, height};
}

std::string Memory(const CKTFrame& frame, std::size_t size) {
    return std::string(reinterpret_cast<char*>(frame.GetPicture()->GetPlane(0)), size);
}

class OpenPicture : public CKTPacketPIC {
public:
    OpenPicture() : CKTPacketPIC(0) {}
    void Flip() { m_stride[0] = -m_stride[0]; }
    void SetRef(int count) { m_ref = count; }
};

}  // namespace

TEST(Picture, LaysOutItsPlanes) {
    unsigned int line = 100;
    const struct {
        unsigned short format, align;
        unsigned int width, height, *stride, size;  // of the packet
        int strides[2], last;                       // where plane 2 begins
    } cases[] = {{5, 6, 1920, 1080, nullptr, 3110400, {1920, 960}, 2592000},
                 {5, 4, 10, 5, &line, 816, {112, 64}, 688},  // 112 * 5 + 64 * 2 + 64 * 2
                 {3, 4, 100, 10, &line, 400 * 400, {400, 0}, 0},
                 {2, 4, 333, 9999, nullptr, 1008 * 999, {1008, 0}, 0},
                 {4, 0, 6, 4, nullptr, 12 * 12, {12, 0}, 0}};
    ASSERT_EQ(CPacket::CreatePool(4000000, 1, 0), 0);  // packets of their very size
    CKTPacketPIC* picture = CKTPacketPIC::Acquire(1);
    for (const auto& one : cases) {
        for (unsigned int* stride : {one.stride, &line})  // another stride alone changes nothing
            EXPECT_EQ(picture->Init(one.width, one.height, one.format, stride, one.align), 0);
        unsigned char* data = picture->GetPacket()->GetData();
        EXPECT_EQ(picture->GetPacket()->GetSize(), one.size);
        EXPECT_EQ(picture->GetStride(0), one.strides[0]);
        EXPECT_EQ(picture->GetStride(2), one.strides[1]);
        EXPECT_EQ(picture->GetLine(2, 0), one.last != 0 ? data + one.last : nullptr);
        EXPECT_EQ(picture->GetLine(0, one.height), nullptr);
    }
    EXPECT_EQ(picture->Init(0, 7, 5, nullptr, 0), 0);
    EXPECT_TRUE(picture->GetHeight() == 7 && picture->GetPacket() == nullptr);
    picture->Release();
    CPacket::DeletePool();
}

TEST(Picture, IsEmptyAfterASetUpThatFails) {
    const unsigned int cases[][4] = {{6, 0, 8, 8},     {5, 32, 8, 8},         {5, 31, 8, 1},
                                     {2, 0, 30000, 1}, {5, 0, 8, 0x20000000}, {3, 0, ~0u, 1}};
    for (auto [format, align, width, height] : cases) {
        CKTPacketPIC* picture = CKTPacketPIC::Acquire(8, 8, 5, nullptr, 0);
        EXPECT_EQ(picture->Init(width, height, format, nullptr, align),
                  format == 6 || align == 32 ? -10 : -6);
        EXPECT_TRUE(picture->GetPacket() == nullptr && picture->GetPlane(0) == nullptr);
        EXPECT_EQ(picture->GetWidth() + picture->GetHeight() + picture->GetFormat(), 0u);
        picture->Release();
    }
    for (unsigned int nth = 1; nth <= 4; ++nth) {  // picture, lock, packet, its buffer
        KTHeapFailAt(nth, 9);
        EXPECT_EQ(CKTPacketPIC::Acquire(8, 8, 5, nullptr, 0), nullptr);
        KTHeapFailAt(0);
    }
}

TEST(Picture, CountsReferencesOfManyThreads) {
    OpenPicture* picture = new OpenPicture;
    const unsigned int count = KTTestLoad(40000);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([picture, count] {
            for (unsigned int n = 0; n < count; ++n)
                n % 2 == 0 ? picture->AddRef() : picture->Release();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(picture->AddRef(), 2);
    picture->SetRef(0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(CKTPacketPIC::Acquire(0)->Release(), 0);
    EXPECT_EQ(picture->Release(), 0);
    EXPECT_EQ(KTTestPrinted(),
              "src/core/KTBase/KTFrame====>(Func = CKTPacketPIC::Release, line = 59)\n");
}

TEST(Frame, CopiesPicturesAsFfmpegLaysThemOut) {
    CKTFrame frame;
    std::string cut = Unhex(kCut), whole = Unhex(kWhole);
    tag_KTFRAME record = Record(cut, 6, 4);
    EXPECT_EQ(frame.SetPicture(&record), 0);
    EXPECT_EQ(Memory(frame, 36), cut);
    record = Record(whole, 7, 5);
    for (int i = 0; i < 2; ++i) {  // the second time from the picture that it replaces
        EXPECT_EQ(frame.SetPicture(&record), 0);
        // The last chroma column and line are left out, as in the cut.
        EXPECT_EQ(Memory(frame, 47), whole.substr(0, 35) + cut.substr(24));
        EXPECT_EQ(frame.GetPicture(&record), 0);
    }
}

TEST(Frame, TakesPicturesThatStandUpsideDown) {
    const std::string cut = Unhex(kCut);
    OpenPicture* picture = new OpenPicture;
    EXPECT_EQ(picture->Init(6, 4, 5, nullptr, 0), 0);
    picture->Flip();
    EXPECT_EQ(picture->SetLine(0, 1, Bytes(cut) + 6, 6, 0xFFFFFFFF), 0);
    EXPECT_EQ(picture->SetLine(0, 4, Bytes(cut), 6, 1), -4);
    CKTFrame frame;
    frame.SetPicture(picture);
    EXPECT_EQ(picture->Release(), 1);
    EXPECT_EQ(Memory(frame, 18), cut.substr(18, 6) + cut.substr(12, 6) + cut.substr(6, 6));
    tag_KTFRAME record;
    EXPECT_EQ(frame.GetPicture(&record), 0);
    EXPECT_TRUE(record.plane[0] == picture->GetPlane(0) + 18 && record.stride[0] == -6);
    EXPECT_EQ(frame.SetPicture(&record), -6);
    EXPECT_EQ(frame.GetPicture(&record), -9);
}

TEST(Frame, RefusesRecordsThatLackAPlane) {
    std::string cut = Unhex(kCut);
    std::vector<unsigned char> tail(2, 'u');
    const tag_KTFRAME good = Record(cut, 6, 4);
    tag_KTFRAME cases[] = {good, good, good, good}, record = good;
    cases[0].format = 3;
    cases[1].plane[2] = nullptr;
    cases[2].stride[0] = cases[3].stride[1] = 0;
    CKTFrame frame;
    for (tag_KTFRAME& bad : cases) {
        EXPECT_EQ(frame.SetPicture(&record), 0);
        EXPECT_EQ(frame.SetPicture(&bad), -4);
        EXPECT_EQ(frame.GetPicture(), nullptr);
    }
    cases[1].height = 1;  // has no chroma lines
    EXPECT_EQ(frame.SetPicture(&cases[1]), 0);
    // A chroma line shorter than half a line of luma: nothing is read behind it.
    record.height = record.stride[2] = 2;
    record.plane[2] = tail.data();
    EXPECT_EQ(frame.SetPicture(&record), 0);
    EXPECT_EQ(std::memcmp(frame.GetPicture()->GetLine(2, 0), "uu", 2), 0);
}

TEST(Frame, TakesAReferenceToWhatItHolds) {
    CPacket* packet = CPacket::Acquire(1, 0);
    CKTFrame frame;
    for (CPacket* video : {packet, packet, static_cast<CPacket*>(nullptr), packet})
        frame.SetVideo(video);
    frame.SetSmart(packet);
    EXPECT_EQ(packet->GetRef(), 3);
    frame.Clear();
    EXPECT_EQ(packet->Release(), 0);
}
