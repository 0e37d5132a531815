#include "KTBase/KTMemPool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include "KTBase/KTString.h"
#include "KTHeap.h"

TEST(MemPool, GrantsWholeAlignedPages) {
    IKTMemPoolFix pool("test");
    ASSERT_EQ(pool.Create(13, 10), 0);
    EXPECT_EQ(pool.Create(13, 10), -7);
    unsigned char* base = nullptr;
    for (auto [asked, granted] : std::vector<std::pair<unsigned int, unsigned int>>{
             {8 * 1024, 8192}, {1025, 2048}, {1024, 1024}, {1, 1024}}) {
        unsigned long long handle = 0;
        unsigned char* ptr = nullptr;
        unsigned int size = asked;
        ASSERT_EQ(pool.CreateBuffer(handle, ptr, size), 0);
        EXPECT_EQ(size, granted);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(ptr) % 1024, 0u);
        base = base == nullptr ? ptr : base;
        EXPECT_EQ(ptr, base + (handle >> 32) * 1024);
        std::memset(ptr, 0xA5, size);
    }
    unsigned long long handle = 77;
    unsigned char* ptr = nullptr;
    unsigned int size = 1025;  // one page is left
    EXPECT_EQ(pool.CreateBuffer(handle, ptr, size), -6);
    EXPECT_EQ(handle, 0u);
    size = 0xFFFFFFFFu;  // granted in whole pages it would not fit its type
    EXPECT_EQ(pool.CreateBuffer(handle, ptr, size), -6);
}

TEST(MemPool, TakesBuffersBackAndTellsItsPages) {
    IKTMemPoolFix pool("test");
    unsigned long long handle = 0;
    unsigned char* ptr = nullptr;
    unsigned int size = 3000;
    CKTString text;
    pool.Dump(&text);
    EXPECT_EQ(text.IsEmpty(), 1);
    EXPECT_EQ(pool.CreateBuffer(handle, ptr, size), -7);
    EXPECT_EQ(pool.DeleteBuffer(handle, ptr), 0);
    handle = 1;
    EXPECT_EQ(pool.DeleteBuffer(handle, ptr), -7);
    ASSERT_EQ(pool.Create(8, 10), 0);
    size = 0;
    EXPECT_EQ(pool.CreateBuffer(handle, ptr, size), -4);
    size = 3000;
    ASSERT_EQ(pool.CreateBuffer(handle, ptr, size), 0);
    EXPECT_EQ(pool.DeleteBuffer(handle, ptr), 0);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(ptr, nullptr);
    pool.Dump(&text);
    EXPECT_TRUE(
        std::strstr(text.GetBuffer(), "SPACE(test)===>pagenum = 8, pageuse = 0, pagemax = 3"));
    EXPECT_EQ(pool.Delete(), 0);
    EXPECT_EQ(pool.Create(1, 1), 0);
}

TEST(MemPool, RefusesShapesItCannotHaveAndCanStillBeCreated) {
    IKTMemPoolFix pool(nullptr);
    EXPECT_EQ(pool.Create(0, 10), -4);
    EXPECT_EQ(pool.Create(10, 0), -4);
    EXPECT_EQ(pool.Create(1, 32), -6);
    EXPECT_EQ(pool.Create(0xFFFFFFFFu, 31), -6);
    unsigned long long handle = 0;
    unsigned char* ptr = nullptr;
    unsigned int size = 1;
    for (unsigned int nth = 1; nth <= 3; ++nth) {
        KTHeapFailAt(nth, 100);
        EXPECT_EQ(pool.Create(13, 10), -6);
        KTHeapFailAt(0);
        EXPECT_EQ(pool.CreateBuffer(handle, ptr, size), -7);
    }
    EXPECT_EQ(pool.Create(13, 10), 0);
}

TEST(ElementPool, ChainsElementsInAddressOrderAndReusesTheLastFreed) {
    for (unsigned int size : {1u, 13u, 64u}) {
        CKTPool pool(size);
        const std::size_t step = size < 8 ? 8 : size;
        pool.setec(3);
        unsigned char* first = static_cast<unsigned char*>(pool.alloc());
        EXPECT_EQ(pool.alloc(), first + step);
        EXPECT_EQ(pool.alloc(), first + 2 * step);
        std::memset(first, 0xFF, 3 * step);
        pool.setec(0);
        unsigned char* second = static_cast<unsigned char*>(pool.alloc());
        EXPECT_TRUE(second < first || second >= first + 3 * step);
        std::memset(second, 0xFF, step);
        pool.free(nullptr);
        pool.free(first);
        pool.free(second);
        EXPECT_EQ(pool.alloc(), second);
        EXPECT_EQ(pool.alloc(), first);
    }
}

TEST(ElementPool, GrowsAtThe1025thElement) {
    CKTPool pool(1);
    unsigned char* first = static_cast<unsigned char*>(pool.alloc());
    for (int i = 1; i < 1024; ++i)
        ASSERT_EQ(pool.alloc(), first + 8 * i);
    unsigned char* next = static_cast<unsigned char*>(pool.alloc());
    EXPECT_TRUE(next < first || next >= first + 8 * 1024);
}

TEST(ElementPool, ServesThreadsWithoutSharingAnElement) {
    CKTPool pool(16);
    pool.setec(7);
    auto work = [&pool](int mark) {
        std::vector<int*> held;
        for (int round = 0; round < 100000 / KTBASE_LOAD_DIVISOR; ++round) {
            held.push_back(static_cast<int*>(pool.alloc()));
            *held.back() = mark + static_cast<int>(held.size());
            if (held.size() < 50)
                continue;
            for (; !held.empty(); held.pop_back()) {
                ASSERT_EQ(*held.back(), mark + static_cast<int>(held.size()));
                pool.free(held.back());
            }
        }
    };
    std::thread other(work, 1000);
    work(2000);
    other.join();
}

TEST(ElementPool, ThrowsWhenItCannotGrowAndStaysUsable) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's operator new ends the program";
#endif
    CKTPool pool(0xFFFFFFFFu);
    pool.setec(0xFFFFFFFFu);
    EXPECT_THROW(pool.alloc(), std::bad_alloc);
    std::thread([&pool] { pool.setec(1); }).join();  // the lock is free
}
