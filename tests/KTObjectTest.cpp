#include <KTBase/KTObject.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "KTTestLoad.h"
#include "KTTestTables.h"

namespace {

struct Sized : CKTObject {
    unsigned char body[100];
};

struct Counted : IKTRef {
    explicit Counted(bool& deletedFlag) : deleted(deletedFlag) {}
    ~Counted() override { deleted = true; }
    int Release() override {
        const int left = IKTRef::Release();
        if (left > 0)
            return left;
        delete this;
        return 0;
    }
    bool& deleted;
};

}  // namespace

TEST(Accounting, ObjectsAreCountedWithTheirSizeUntilTheyAreDeleted) {
    alignas(Sized) unsigned char place[sizeof(Sized)];
    const KTTestTables before = KTTestReadTables();
    Sized* placed = new (place) Sized;  // not counted
    CKTObject* one = new Sized;
    Sized* quiet = new (std::nothrow) Sized;
    Sized* many = new Sized[3];
    const KTTestTables during = KTTestReadTables();
    EXPECT_EQ(during.objects, before.objects + 3);
    EXPECT_GE(during.objectBytes, before.objectBytes + 5 * sizeof(Sized));
    EXPECT_GE(during.objectMax, during.objectBytes);
    placed->~Sized();
    delete one;  // through the virtual destructor: the full size goes
    delete quiet;
    delete[] many;
    delete static_cast<Sized*>(nullptr);
    const KTTestTables after = KTTestReadTables();
    EXPECT_EQ(after.objects, before.objects);
    EXPECT_EQ(after.objectBytes, before.objectBytes);
    EXPECT_EQ(after.objectMax, during.objectMax);
}

TEST(Accounting, BlocksKeepTheirBytesAndAreCountedUntilTheyAreFreed) {
    const KTTestTables before = KTTestReadTables();
    volatile std::size_t huge = SIZE_MAX / 4;
    EXPECT_EQ(ZMKCalloc(huge, 8), nullptr);  // the product wraps
    unsigned char* zeroed = static_cast<unsigned char*>(ZMKCalloc(100, 10));
    EXPECT_TRUE(std::all_of(zeroed, zeroed + 1000, [](unsigned char c) { return c == 0; }));
    EXPECT_EQ(KTTestReadTables().blockBytes, before.blockBytes + 1000);
    std::memset(zeroed, 7, 1000);
    unsigned char* grown = static_cast<unsigned char*>(ZMKRealloc(zeroed, 500000));
    const KTTestTables during = KTTestReadTables();
    EXPECT_EQ(during.blocks, before.blocks + 1);
    EXPECT_EQ(during.blockBytes, before.blockBytes + 500000);
    EXPECT_EQ(grown[0] * 10 + grown[999], 77);
    ZMKFree(grown);
    ZMKFree(nullptr);
    ZMKFree(std::malloc(10));  // a block it never saw
    EXPECT_EQ(KTTestReadTables().blocks, before.blocks);
    EXPECT_EQ(KTTestReadTables().blockBytes, before.blockBytes);
}

TEST(Accounting, DumpListsThe128LowestAddressesAndTheFirst32Bytes) {
    std::vector<std::unique_ptr<CKTObject>> objects;
    for (int i = 0; i < 1000; ++i)
        objects.emplace_back(i % 2 != 0 ? new CKTObject : new Sized);
    std::sort(objects.begin(), objects.end());
    unsigned char* shorter = ZMKMalloc(5);
    std::memcpy(shorter, "abcde", 5);
    unsigned char* longer = ZMKMalloc(41);
    std::memcpy(longer, "0123456789012345678901234567890123456789", 41);
    const std::string dump = KTTestDump(true);
    std::size_t at = 0;
    for (unsigned int i = 0; i < 128; ++i) {
        char line[64];
        std::snprintf(
            line, sizeof(line), "\nidx = %03u, addr = 0x%016llx, size = ", i,
            static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(objects[i].get())));
        at = dump.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << dump;
    }
    EXPECT_EQ(dump.find("idx = 128"), std::string::npos);
    EXPECT_NE(dump.find("size = 5(abcde)\n"), std::string::npos) << dump;
    EXPECT_NE(dump.find("size = 41(01234567890123456789012345678901)\n"), std::string::npos)
        << dump;
    EXPECT_EQ(KTTestDump(false).find("idx"), std::string::npos);
    ZMKFree(shorter);
    ZMKFree(longer);
}

TEST(Accounting, ThreadsAllocatingAtOnceLeaveNothing) {
    const KTTestTables before = KTTestReadTables();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::vector<CKTObject*> kept(64);
            for (unsigned int i = 0; i < KTTestLoad(200000); ++i) {
                CKTObject*& slot = kept[(i * 7 + t) % kept.size()];
                delete slot;
                slot = i % 3 != 0 ? new CKTObject : new Sized;
                ZMKFree(ZMKMalloc(i % 5000));
            }
            for (CKTObject* object : kept)
                delete object;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const KTTestTables after = KTTestReadTables();
    EXPECT_EQ(after.objects, before.objects);
    EXPECT_EQ(after.objectBytes, before.objectBytes);
    EXPECT_EQ(after.blockBytes, before.blockBytes);
}

TEST(Reference, TheBaseCountsAndLeavesTheObjectToItsOwner) {
    IKTRef* ref = new IKTRef;
    EXPECT_EQ(ref->GetRef(), 1);
    EXPECT_EQ(ref->AddRef(), 2);
    IKTRef copy(*ref);
    EXPECT_EQ(copy.GetRef(), 2);
    EXPECT_EQ(ref->Release(), 1);
    copy = *ref;
    EXPECT_EQ(copy.GetRef(), 1);
    EXPECT_EQ(ref->Release(), 0);
    EXPECT_EQ(ref->Release(), -1);
    delete ref;
}

TEST(Reference, AnOverridingReleaseDeletesAtTheLastOfManyThreads) {
    bool deleted = false;
    IKTRef* ref = new Counted(deleted);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        ref->AddRef();
        threads.emplace_back([ref] {
            for (unsigned int i = 0; i < KTTestLoad(100000); ++i) {
                ref->AddRef();
                ref->Release();
            }
            ref->Release();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(deleted);
    EXPECT_EQ(ref->Release(), 0);
    EXPECT_TRUE(deleted);
}
