#include "KTBase/KTMemPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <utility>

#include "KTBase/KTString.h"
#include "KTHeap.h"

TEST(MemPool, GrantsWholeAlignedPagesAndTakesThemBack) {
    IKTMemPoolFix pool("test");
    unsigned long long handle = 0;
    unsigned char *ptr = nullptr, *base = nullptr;
    unsigned int size = 1;
    EXPECT_EQ(pool.CreateBuffer(handle, ptr, size), -7);
    ASSERT_EQ(pool.Create(13, 10), 0);
    EXPECT_EQ(pool.Create(13, 10), -7);
    for (auto [asked, granted] :
         {std::pair{8192u, 8192u}, {1025u, 2048u}, {1024u, 1024u}, {1u, 1024u}}) {
        size = asked;
        ASSERT_EQ(pool.CreateBuffer(handle, ptr, size), 0);
        EXPECT_EQ(size, granted);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(ptr) % 1024, 0u);
        base = base == nullptr ? ptr : base;
        EXPECT_EQ(ptr, base + (handle >> 32) * 1024);
        std::memset(ptr, 0xA5, size);
    }
    EXPECT_EQ(pool.DeleteBuffer(handle, ptr), 0);
    EXPECT_TRUE(handle == 0 && ptr == nullptr);
    // More than is free in one run, nothing, and the most that can be asked for.
    for (auto [asked, result] : {std::pair{2049u, -6}, {0u, -4}, {0xFFFFFFFFu, -6}}) {
        size = asked;
        EXPECT_EQ(pool.CreateBuffer(handle, ptr, size), result);
        EXPECT_EQ(handle, 0u);
    }
    CKTString text;
    pool.Dump(&text);
    EXPECT_TRUE(std::strstr(
        text.GetBuffer(),
        "SPACE(test)===>pagenum = 13, pageuse = 11, pagemax = 12, pagelvl = 4, usage = 84.615% / "
        "92.308%\nLevel     Number      Count    Head\n    0          0          7    "))
        << text.GetBuffer();
    pool.Delete();
    handle = 1;
    EXPECT_EQ(pool.DeleteBuffer(handle, ptr), -7);
}

TEST(MemPool, RefusesShapesItCannotHaveAndCanStillBeCreated) {
    IKTMemPoolFix pool(nullptr);
    EXPECT_EQ(pool.Create(10, 0), -4);
    EXPECT_EQ(pool.Create(1, 32), -6);
    EXPECT_EQ(pool.Create(0xFFFFFFFFu, 31), -6);
    for (unsigned int nth = 1; nth <= 3; ++nth) {
        KTHeapFailAt(nth, 100);
        EXPECT_EQ(pool.Create(13, 10), -6);
        KTHeapFailAt(0);
    }
    EXPECT_EQ(pool.Create(13, 10), 0);
}

TEST(ElementPool, ChainsElementsInAddressOrderAndReusesTheLastFreed) {
    for (auto [size, step] : {std::pair<unsigned int, unsigned int>{1, 8}, {13, 13}, {64, 64}}) {
        CKTPool pool(size);
        unsigned char* first = static_cast<unsigned char*>(pool.alloc());
        for (unsigned int i = 1; i < 1024; ++i)
            ASSERT_EQ(pool.alloc(), first + i * step);
        std::memset(first, 0xFF, 1024 * step);
        pool.setec(0);
        void* second = pool.alloc();  // of a block of one element
        std::memset(second, 0xFF, step);
        pool.free(nullptr);
        pool.free(first);
        pool.free(second);
        EXPECT_EQ(pool.alloc(), second);
        EXPECT_EQ(pool.alloc(), first);
    }
}
