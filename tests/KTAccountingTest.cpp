#include "KTAccounting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include "KTHeap.h"

namespace {

const void* At(std::uintptr_t address) {
    return reinterpret_cast<const void*>(address);
}

// Constant-initialised in the library; the heap keeps it off the test's stack.
class AccountingTable : public testing::Test {
protected:
    ~AccountingTable() override {
        KTHeapFailAt(0);
        m_table.Clear();
    }
    std::map<std::uintptr_t, std::size_t> Walk() {
        std::map<std::uintptr_t, std::size_t> found;
        m_table.Walk(
            [](void* context, const void* block, std::size_t size) {
                auto& into = *static_cast<std::map<std::uintptr_t, std::size_t>*>(context);
                const auto address = reinterpret_cast<std::uintptr_t>(block);
                EXPECT_TRUE(into.empty() || into.rbegin()->first < address);
                into[address] = size;
                return true;
            },
            &found);
        return found;
    }
    static KTAccounting m_table;
};
KTAccounting AccountingTable::m_table;

}  // namespace

TEST_F(AccountingTable, MatchesAnOrderedMapOverRandomAddresses) {
    std::mt19937_64 random(20260101);
    std::map<std::uintptr_t, std::size_t> model;
    std::vector<std::uintptr_t> pool;
    for (int i = 0; i < 300; ++i) {  // clusters of near addresses, far apart
        const std::uintptr_t base = random() & 0xFFFFFFFFF000u;
        for (int near = 0; near < 40; ++near)
            pool.push_back(base + (random() & 0x3FF0));
    }
    pool.push_back(0xFFFFFFFFFFF0u);  // the highest granule
    unsigned long long used = 0, most = 0;
    for (int step = 0; step < 200000; ++step) {
        const std::uintptr_t address = pool[random() % pool.size()];
        const std::size_t size = random() % 100;
        if (random() % 2 == 0) {
            const bool fresh = model.emplace(address, size).second;
            EXPECT_EQ(m_table.Insert(At(address), size), fresh);
            used += fresh ? size : 0;
            most = std::max(most, used);
        } else {
            const auto found = model.find(address);
            EXPECT_EQ(m_table.Remove(At(address)), found != model.end());
            if (found != model.end()) {
                used -= found->second;
                model.erase(found);
            }
        }
        ASSERT_EQ(m_table.Count(), model.size());
        ASSERT_EQ(m_table.Used(), used);
        ASSERT_EQ(m_table.Max(), most);
    }
    EXPECT_EQ(Walk(), model);
}

TEST_F(AccountingTable, RefusesWhatNoHeapHandsOut) {
    EXPECT_FALSE(m_table.Insert(nullptr, 1));
    EXPECT_FALSE(m_table.Insert(At(0x10008), 1));          // between two granules
    EXPECT_FALSE(m_table.Insert(At(0x1000000000000), 1));  // beyond 48 bits
    EXPECT_FALSE(m_table.Remove(At(0x1000000000000)));
    EXPECT_EQ(m_table.Count(), 0u);
}

TEST_F(AccountingTable, LeavesABlockOutWhenItCannotGrowAndGoesOn) {
    for (unsigned int nth = 1; nth <= 3; ++nth) {
        KTHeapFailAt(nth);
        EXPECT_FALSE(m_table.Insert(At(0x123456789000), 5)) << nth;
        EXPECT_EQ(m_table.Count(), 0u);
        EXPECT_FALSE(m_table.Remove(At(0x123456789000)));
        KTHeapFailAt(0);
        m_table.Clear();
    }
    EXPECT_TRUE(m_table.Insert(At(0x123456789000), 5));
    EXPECT_EQ(Walk(), (std::map<std::uintptr_t, std::size_t>{{0x123456789000, 5}}));
    EXPECT_TRUE(m_table.Remove(At(0x123456789000)));
}

TEST_F(AccountingTable, OneBlockComingAndGoingAllocatesNothing) {
    ASSERT_TRUE(m_table.Insert(At(0x10000), 1));
    KTHeapFailAt(1, ~0u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(m_table.Remove(At(0x10000 + i * 0x1000)));
        EXPECT_TRUE(m_table.Insert(At(0x10000 + (i + 1) * 0x1000), 1));
    }
}
