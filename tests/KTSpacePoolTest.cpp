#include "KTBase/KTSpacePool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "KTTestLoad.h"

namespace {

using Blocks = std::map<unsigned int, unsigned int>;  // first page: level
using Runs = std::vector<std::pair<unsigned int, unsigned int>>;

class Pool : public IKTSpacePool {
public:
    explicit Pool(unsigned int pages) : IKTSpacePool("test") { EXPECT_EQ(Create(pages), 0); }
    using IKTSpacePool::AcquireE;
    using IKTSpacePool::AcquireL;
    using IKTSpacePool::m_peak;
    using IKTSpacePool::m_used;
    using IKTSpacePool::ReleasePages;

    // Free blocks; checks the lists' links, counts and node values on the way.
    Blocks Free() const {
        Blocks free;
        for (unsigned int level = 0; level < m_levels; ++level) {
            const tag_PBA& blocks = m_table[level];
            unsigned int count = 0;
            for (tag_PBN* node = blocks.head; node != nullptr; ++count) {
                EXPECT_EQ(node->value >> 1, static_cast<unsigned int>(node - blocks.nodes));
                EXPECT_EQ(node->next->prev, node);
                EXPECT_TRUE(free.emplace(node->value << level, level).second);
                node = node->next != blocks.head ? node->next : nullptr;
            }
            EXPECT_EQ(count, blocks.count);
        }
        return free;
    }
    void TakeAllBut(const Runs& runs) {
        while (PageAlloc(1) != 0) {
        }
        for (auto [first, count] : runs)
            ReleasePages(first, count);
    }
};

unsigned long long Pages(unsigned long long first, unsigned int count) {
    return first << 32 | count;
}

// The numbers of the fault lines that the action prints.
template <class Action>
std::vector<int> Faults(Action action) {
    testing::internal::CaptureStdout();
    action();
    const std::string text = testing::internal::GetCapturedStdout();
    std::vector<int> lines;
    for (std::size_t at = 0; (at = text.find("line = ", at)) != std::string::npos; at += 7)
        lines.push_back(std::atoi(text.c_str() + at + 7));
    return lines;
}

// What is free in a plain bitmap as aligned blocks, each as large as can be.
Blocks Merged(const std::vector<bool>& taken) {
    Blocks free;
    for (std::size_t page = 0; page < taken.size();) {
        std::size_t size = 1;
        while (page % (2 * size) == 0 && page + 2 * size <= taken.size() &&
               std::count(taken.begin() + page, taken.begin() + page + 2 * size, true) == 0)
            size *= 2;
        if (!taken[page])
            free[page] = IKTSpacePool::Log2X(static_cast<unsigned int>(size));
        page += size;
    }
    return free;
}

}  // namespace

TEST(SpacePool, TakesTheSmallestBlockFirstAndCutsItsLowEnd) {
    Pool pool(13);
    EXPECT_EQ(pool.Free(), (Blocks{{0, 3}, {8, 2}, {12, 0}}));
    for (unsigned int page : {12, 8, 9})
        EXPECT_EQ(pool.PageAlloc(1), Pages(page, 1));
    EXPECT_EQ(pool.PageAlloc(9), 0u);
    pool.PageFree(Pages(12, 1));
    pool.PageFree(Pages(8, 1));
    for (unsigned int page : {8, 12})  // the last one freed is the first taken again
        EXPECT_EQ(pool.PageAlloc(1), Pages(page, 1));
    EXPECT_EQ(pool.PageAlloc(3), Pages(0, 3));
    EXPECT_EQ(pool.Free(), (Blocks{{3, 0}, {4, 2}, {10, 1}}));
    pool.TakeAllBut({{5, 3}});  // aligned at its high end only
    EXPECT_EQ(pool.Free(), (Blocks{{5, 0}, {6, 1}}));
    EXPECT_EQ(pool.m_used, 10u);
    EXPECT_EQ(pool.m_peak, 13u);
}

TEST(SpacePool, AgreesWithABitmapAfterEveryStep) {
    for (unsigned int pages : {1u, 2u, 13u, 64u, 1000u, 4097u}) {
        Pool pool(pages);
        std::vector<bool> taken(pages);
        Runs runs;
        std::mt19937 random(pages);
        for (unsigned int step = 0; step < 200 + KTTestLoad(2000); ++step) {
            SCOPED_TRACE(testing::Message() << pages << " pages, step " << step);
            // Phases that fill and phases that drain; mostly short runs, some of up to a quarter.
            if (runs.empty() || random() % 4 > (step / 100 % 2 == 0 ? 0u : 2u)) {
                const unsigned int most = random() % 4 != 0 ? pages / 50 : pages / 4;
                const unsigned int count = 1 + random() % (1 + most);
                const Blocks free = Merged(taken);
                const unsigned long long run = pool.PageAlloc(count);
                ASSERT_EQ(run != 0, std::any_of(free.begin(), free.end(), [count](auto& block) {
                              return 1u << block.second >= count;
                          }));
                if (run == 0)
                    continue;
                const unsigned int first = static_cast<unsigned int>(run >> 32);
                ASSERT_LE(first + count, pages);
                const auto at = taken.begin() + first;
                ASSERT_EQ(std::count(at, at + count, true), 0);
                std::fill_n(at, count, true);
                runs.emplace_back(first, count);
            } else {
                std::swap(runs[random() % runs.size()], runs.back());
                pool.PageFree(Pages(runs.back().first, runs.back().second));
                std::fill_n(taken.begin() + runs.back().first, runs.back().second, false);
                runs.pop_back();
            }
            ASSERT_EQ(pool.Free(), Merged(taken));
            ASSERT_EQ(pool.m_used, std::count(taken.begin(), taken.end(), true));
        }
    }
}

TEST(SpacePool, ReportsMisuseAndStaysWhole) {
    using Lines = std::vector<int>;
    const Blocks initial = {{0, 3}, {8, 2}, {12, 0}};
    Pool pool(13);
    EXPECT_EQ(Faults([&] { EXPECT_EQ(pool.PageAlloc(0), Pages(12, 0)); }), Lines{230});
    EXPECT_EQ(pool.PageAlloc(8), Pages(0, 8));
    EXPECT_EQ(Faults([&] { pool.ReleasePages(1, 6); }), (Lines{655, 656}));
    EXPECT_EQ(pool.m_used, 8u);
    pool.PageFree(Pages(0, 8));
    // Freed twice, or outside the space, also where the page numbers pass 32 bits.
    EXPECT_EQ(Faults([&] { pool.PageFree(Pages(0, 8)); }), Lines{634});
    for (unsigned long long run : {Pages(12, 4), Pages(16, 16), Pages(13, 1), Pages(0xFFFFFFFFu, 9),
                                   Pages(0xFFFFFFF8u, 0xFFFFFFFFu)}) {
        EXPECT_EQ(Faults([&] { pool.PageFree(run); })[0], 633);
        EXPECT_EQ(pool.Free(), initial) << std::hex << run;
    }
    EXPECT_EQ(Pool(0).PageAlloc(1), 0u);
    pool.Delete();
    EXPECT_EQ(Faults([&] { EXPECT_EQ(pool.PageAlloc(0xFFFFFFFFu), 0u); }), Lines{230});
}

TEST(SpacePool, ExtendsABlockByWhatIsFreeBesideIt) {
    struct Case {
        Runs free;
        unsigned int count, level, start;
        int result;
        Blocks left;
    };
    const Case cases[] = {
        // Below: the half block, a part of it, the blocks below it.
        {{{8, 4}, {6, 2}, {5, 1}}, 7, 2, 5, 0, {}},
        {{{8, 4}, {7, 1}}, 5, 2, 7, 0, {}},
        {{{16, 8}, {12, 4}, {10, 2}}, 13, 3, 11, 0, {{10, 0}}},
        // Above: the start is reported count pages past the block.
        {{{4, 4}, {8, 2}}, 5, 2, 9, 0, {{9, 0}}},
        {{{8, 8}, {16, 4}, {20, 2}}, 13, 3, 21, 0, {{21, 0}}},
        // Too little beside it, at the ends of the space, and arguments out of range.
        {{{8, 4}, {7, 1}}, 6, 2, 0, -11, {{7, 0}, {8, 2}}},
        {{{0, 4}, {28, 4}}, 5, 2, 0, -11, {{0, 2}, {28, 2}}},
        {{{8, 4}, {6, 2}}, 8, 2, 0, -11, {{6, 1}, {8, 2}}},
        {{{8, 1}, {7, 1}}, 1, 0, 0, -11, {{7, 0}, {8, 0}}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(&test - cases);
        Pool pool(32);
        pool.TakeAllBut(test.free);
        unsigned int start = 0;
        EXPECT_EQ(pool.AcquireL(start, test.count, test.level), test.result);
        EXPECT_EQ(start, test.start);
        EXPECT_EQ(pool.Free(), test.left);
    }
    Pool pool(16);
    unsigned int start = 0;
    pool.TakeAllBut({{6, 2}, {8, 2}, {0, 2}});
    EXPECT_EQ(pool.AcquireE(start, 0, 1), 0);  // two neighbours that are no buddies
    EXPECT_EQ(start, 6u);
    EXPECT_EQ(pool.Free(), (Blocks{{0, 1}}));
    EXPECT_EQ(pool.AcquireE(start, 0, 1), -11);
}
