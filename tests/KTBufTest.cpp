#include "KTBase/KTBuf.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "KTBase/KTPacket.h"
#include "KTHeap.h"
#include "KTTestPrint.h"

namespace {

// Page 0 is aligned; writes over all pages, for a sanitizer to see.
void ExpectPages(const CKTPageBuffer& buffer, unsigned int pagenum, unsigned int size) {
    ASSERT_EQ(buffer.GetPageNum(), pagenum);
    EXPECT_EQ(buffer.GetSize(), pagenum * size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.GetBuffer(0)) % size, 0u);
    EXPECT_EQ(buffer.GetBuffer(pagenum - 1), buffer.GetBuffer(0) + (pagenum - 1) * size);
    EXPECT_EQ(buffer.GetBuffer(pagenum), nullptr);
    std::memset(buffer.GetBuffer(0), 'a', buffer.GetSize());
}

void ExpectNone(const CKTPageBuffer& buffer) {
    EXPECT_EQ(buffer.GetBuffer(0), nullptr);
    EXPECT_EQ(buffer.GetSize() + buffer.GetPageNum(), 0u);
}

}  // namespace

TEST(PageBuffer, HasWholeAlignedPagesFromTheHeap) {
    CKTPageBuffer buffer;
    for (unsigned int bit : {0u, 12u, 21u}) {
        EXPECT_EQ(buffer.Create((1u << bit) + 1, bit), 0);
        ExpectPages(buffer, 2, 1u << bit);
    }
    EXPECT_EQ(buffer.CreatePages(4, 1), 0);
    ExpectPages(buffer, 4, 2);
    buffer.Clear(2, 1);
    buffer.Clear(4, 0);
    EXPECT_EQ(std::memcmp(buffer.GetBuffer(0), "aaaa\0\0aa", 8), 0);
    buffer.Clear(1, 0);
    buffer.Clear(3, 0xFFFFFFFF);
    EXPECT_EQ(std::memcmp(buffer.GetBuffer(0), "aa\0\0\0\0\0", 8), 0);
}

TEST(PageBuffer, RefusesWhatItCannotHold) {
    CKTPageBufferExt buffer;
    CPacket* packet = nullptr;
    for (auto [pagenum, bit] : {std::pair{0u, 12u}, {1u, 32u}, {0x100000u, 12u}, {2u, 31u}}) {
        EXPECT_EQ(buffer.Create(1, 4), 0);
        EXPECT_EQ(buffer.Create(pagenum, bit, packet), -1);
        EXPECT_EQ(buffer.Create(0, bit), -1);
        ExpectPages(buffer, 1, 16);  // nothing changed yet
        EXPECT_EQ(buffer.CKTPageBuffer::CreatePages(pagenum, bit), -1);
        ExpectNone(buffer);
    }
}

TEST(PageBuffer, AlignsPagesInTheCallersMemory) {
    static char memory[20000];
    CKTPageBuffer buffer;
    char* aligned = memory + (4096 - reinterpret_cast<std::uintptr_t>(memory) % 4096);
    const unsigned int cases[][3] = {{100, 12188, 2}, {100, 12187, 1}, {100, 8092, 1},
                                     {100, 8091, 0},  {100, 1, 0},     {0, 8191, 1},
                                     {0, 4095, 0}};
    for (auto [skip, size, pages] : cases) {
        EXPECT_EQ(buffer.CreatePages(1, 4), 0);  // of its own, given up
        EXPECT_EQ(buffer.Create(aligned + skip, size, 12), pages == 0 ? -1 : 0);
        ExpectPages(buffer, pages == 0 ? 1 : pages, pages == 0 ? 16 : 4096);
        EXPECT_TRUE(pages == 0 || buffer.GetBuffer(0) == aligned + (skip == 0 ? 0 : 4096));
    }
    EXPECT_EQ(buffer.CreatePages(aligned + 4096, 2, 12), 0);
    EXPECT_EQ(buffer.CreatePages(aligned + 100, 1, 12), -1);
    EXPECT_EQ(buffer.GetBuffer(1), aligned + 8192);
    testing::internal::CaptureStdout();
    EXPECT_EQ(buffer.Create(nullptr, 8192, 12), -1);
    EXPECT_EQ(KTTestPrinted(),
              "src/core/KTBase/KTBuf====>(Func = CKTPageBuffer::Create, line = 107)\n");
}

TEST(PageBuffer, LiesInAPacketWhenOneCanBeHad) {
    CKTPageBufferExt buffer;
    EXPECT_EQ(buffer.CreatePages(2, 20), 0);  // 1 MB, of a packet that begins on 1 KB
    ExpectPages(buffer, 2, 1u << 20);
    ASSERT_NE(buffer.GetPacket(), nullptr);
    ASSERT_EQ(CPacket::CreatePool(2, 12, 0), 0);
    EXPECT_EQ(buffer.CreatePages(2, 12), 0);  // aligned already: both pages of the pool
    ExpectPages(buffer, 2, 4096);
    EXPECT_EQ(buffer.GetPacket()->GetSize(), 8192u);
    CPacket* other = nullptr;
    EXPECT_EQ(buffer.Create(2, 12, other), 0);
    ExpectNone(buffer);
    testing::internal::CaptureStdout();
    EXPECT_EQ(buffer.CreatePages(1, 12), 0);
    EXPECT_EQ(KTTestPrinted(),
              "CKTPageBufferExt::CKTPageBufferExt::Create(222)-------->Create Packet Error. "
              "pagenum = 1, pagebit = 12\n");
    ExpectPages(buffer, 1, 4096);
    other->Release();
    CPacket::DeletePool();
    int fromHeap = 0;
    for (unsigned int nth = 1; nth < 8; ++nth) {
        KTHeapFailAt(nth);
        EXPECT_EQ(buffer.CreatePages(2, 20), 0);
        ExpectPages(buffer, 2, 1u << 20);
        fromHeap += buffer.GetPacket() == nullptr ? 1 : 0;
    }
    EXPECT_GE(fromHeap, 3);  // without the first packet, and without the one with a page to spare
    KTHeapFailAt(1, 2);
    EXPECT_EQ(buffer.CreatePages(2, 12), -1);
    ExpectNone(buffer);
}
