#include "KTBase/KTSpacePool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "KTBase/KTString.h"
#include "KTHeap.h"

namespace {

using Blocks = std::map<unsigned int, unsigned int>;  // first page: level

class Pool : public IKTSpacePool {
public:
    explicit Pool(unsigned int pages) : IKTSpacePool("test") { EXPECT_EQ(Create(pages), 0); }
    using IKTSpacePool::AcquireE;
    using IKTSpacePool::AcquireL;
    using IKTSpacePool::AcquirePages;
    using IKTSpacePool::m_peak;
    using IKTSpacePool::m_table;
    using IKTSpacePool::m_used;
    using IKTSpacePool::ReleaseH;
    using IKTSpacePool::ReleaseL;
    using IKTSpacePool::ReleasePages;

    /// Free blocks; checks the lists' links, counts and node values on the way.
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
    /// Takes single pages until the given ones are all that is free.
    void TakeAllBut(std::initializer_list<std::pair<unsigned int, unsigned int>> runs) {
        while (PageAlloc(1) != 0) {
        }
        for (auto [first, count] : runs)
            ReleasePages(first, count);
    }
};

unsigned long long Pages(unsigned long long first, unsigned int count) {
    return first << 32 | count;
}

// The texts of the fault lines that the action prints, in order, as their numbers.
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
        std::size_t size = 0;
        for (std::size_t next = 1; page % next == 0 && page + next <= taken.size(); next *= 2) {
            if (std::find(taken.begin() + page, taken.begin() + page + next, true) !=
                taken.begin() + page + next)
                break;
            size = next;
        }
        if (size != 0)
            free[page] = IKTSpacePool::Log2X(static_cast<unsigned int>(size));
        page += size != 0 ? size : 1;
    }
    return free;
}

}  // namespace

TEST(SpacePool, BeginsAsPowersOfTwoAndTakesTheSmallestBlockFirst) {
    Pool pool(13);
    EXPECT_EQ(pool.Free(), (Blocks{{0, 3}, {8, 2}, {12, 0}}));
    EXPECT_EQ(pool.PageAlloc(1), Pages(12, 1));
    EXPECT_EQ(pool.PageAlloc(1), Pages(8, 1));
    EXPECT_EQ(pool.Free(), (Blocks{{0, 3}, {9, 0}, {10, 1}}));
    EXPECT_EQ(pool.PageAlloc(1), Pages(9, 1));
    EXPECT_EQ(pool.PageAlloc(9), 0u);
    EXPECT_EQ(pool.m_used, 3u);
}

TEST(SpacePool, CutsTheTailIntoBlocksAndMergesThemBack) {
    Pool pool(8);
    EXPECT_EQ(pool.PageAlloc(3), Pages(0, 3));
    EXPECT_EQ(pool.Free(), (Blocks{{3, 0}, {4, 2}}));
    pool.PageFree(Pages(0, 3));
    EXPECT_EQ(pool.Free(), (Blocks{{0, 3}}));
    EXPECT_EQ(pool.PageAlloc(5), Pages(0, 5));
    EXPECT_EQ(pool.Free(), (Blocks{{5, 0}, {6, 1}}));
    // Aligned at its high end only.
    pool.PageAlloc(2);
    pool.PageAlloc(1);
    pool.ReleasePages(5, 3);
    EXPECT_EQ(pool.Free(), (Blocks{{5, 0}, {6, 1}}));
    EXPECT_EQ(pool.m_used, 5u);
    EXPECT_EQ(pool.m_peak, 8u);
}

TEST(SpacePool, AgreesWithABitmapAfterEveryStep) {
    for (unsigned int pages : {1u, 2u, 13u, 64u, 1000u, 4097u}) {
        Pool pool(pages);
        std::vector<bool> taken(pages);
        std::vector<std::pair<unsigned int, unsigned int>> runs;
        std::mt19937 random(pages);
        unsigned int used = 0;
        const Blocks initial = pool.Free();
        for (int step = 0; step < 3000 / (pages > 500 ? 6 : 1); ++step) {
            // Runs of up to a quarter, mostly short; phases that fill and phases that drain.
            const bool fill = step / 100 % 2 == 0 ? random() % 4 != 0 : random() % 4 == 0;
            if (fill || runs.empty()) {
                unsigned int count = 1 + random() % (1 + (random() % 4 ? pages / 50 : pages / 4));
                const Blocks free = Merged(taken);
                const bool fits = std::any_of(free.begin(), free.end(), [count](auto& block) {
                    return 1ull << block.second >= count;
                });
                const unsigned long long run = pool.PageAlloc(count);
                ASSERT_EQ(run != 0, fits) << pages << " pages, step " << step;
                if (run == 0)
                    continue;
                const unsigned int first = static_cast<unsigned int>(run >> 32);
                ASSERT_LE(first + count, pages);
                for (unsigned int page = first; page < first + count; ++page) {
                    ASSERT_FALSE(taken[page]);
                    taken[page] = true;
                }
                runs.emplace_back(first, count);
                used += count;
            } else {
                std::swap(runs[random() % runs.size()], runs.back());
                const auto [first, count] = runs.back();
                runs.pop_back();
                pool.PageFree(Pages(first, count));
                std::fill_n(taken.begin() + first, count, false);
                used -= count;
            }
            ASSERT_EQ(pool.Free(), Merged(taken)) << pages << " pages, step " << step;
            ASSERT_EQ(pool.m_used, used);
        }
        for (const auto& [first, count] : runs)
            pool.PageFree(Pages(first, count));
        EXPECT_EQ(pool.Free(), initial);
    }
}

TEST(SpacePool, ReportsMisuseAndStaysWhole) {
    using Lines = std::vector<int>;
    Pool pool(13);
    EXPECT_EQ(Faults([&] { EXPECT_EQ(pool.PageAlloc(0), Pages(12, 0)); }), Lines{230});
    pool.PageFree(0);
    EXPECT_EQ(pool.Free(), (Blocks{{0, 3}, {8, 2}, {12, 0}}));

    ASSERT_EQ(pool.PageAlloc(8), Pages(0, 8));
    EXPECT_EQ(Faults([&] { pool.ReleasePages(1, 6); }), (Lines{655, 656}));
    EXPECT_EQ(pool.m_used, 8u);
    pool.PageFree(Pages(0, 8));
    EXPECT_EQ(Faults([&] { pool.PageFree(Pages(0, 8)); }), Lines{634});  // freed twice
    EXPECT_EQ(pool.Free(), (Blocks{{0, 3}, {8, 2}, {12, 0}}));

    // Blocks outside the space are skipped, also where the page numbers pass 32 bits.
    for (unsigned long long run : {Pages(12, 4), Pages(16, 16), Pages(13, 1), Pages(0xFFFFFFFFu, 9),
                                   Pages(0xFFFFFFF8u, 0xFFFFFFFFu)}) {
        EXPECT_GE(Faults([&] { pool.PageFree(run); }).size(), 1u);
        EXPECT_EQ(pool.Free(), (Blocks{{0, 3}, {8, 2}, {12, 0}})) << std::hex << run;
    }

    Pool none(0);
    EXPECT_EQ(none.PageAlloc(1), 0u);
    pool.Delete();
    EXPECT_EQ(Faults([&] { EXPECT_EQ(pool.PageAlloc(1), 0u); }), Lines{230});
    EXPECT_EQ(pool.PageAlloc(0xFFFFFFFFu), 0u);
    pool.PageFree(Pages(0, 1));
}

TEST(SpacePool, TakesTwoNeighboursThatAreNoBuddies) {
    Pool pool(16);
    unsigned int start = 99;
    EXPECT_EQ(pool.AcquireE(start, 0, 1), -11);
    EXPECT_EQ(pool.AcquireE(start, 0, 9), -11);
    pool.TakeAllBut({{0, 2}, {6, 2}, {8, 2}, {12, 2}});
    EXPECT_EQ(pool.AcquireE(start, 0, 1), 0);
    EXPECT_EQ(start, 6u);
    EXPECT_EQ(pool.Free(), (Blocks{{0, 1}, {12, 1}}));
    EXPECT_EQ(pool.AcquireE(start, 0, 1), -11);
    pool.TakeAllBut({{10, 2}, {12, 2}, {4, 1}, {7, 1}});
    EXPECT_EQ(pool.AcquireE(start, 0, 1), 0);
    EXPECT_EQ(start, 10u);
    EXPECT_EQ(pool.AcquireE(start, 0, 0), -11);
}

TEST(SpacePool, ExtendsABlockByWhatIsFreeBesideIt) {
    struct Case {
        std::initializer_list<std::pair<unsigned int, unsigned int>> free;
        unsigned int count, level, start;
        int result;
        Blocks left;
    };
    const Case cases[] = {
        // Below: the half block, a part of it, and the blocks below it.
        {{{8, 4}, {6, 2}}, 6, 2, 6, 0, {}},
        {{{8, 4}, {6, 2}}, 5, 2, 7, 0, {{6, 0}}},
        {{{8, 4}, {6, 2}, {5, 1}}, 7, 2, 5, 0, {}},
        {{{8, 4}, {7, 1}}, 5, 2, 7, 0, {}},
        {{{16, 8}, {12, 4}, {10, 2}}, 13, 3, 11, 0, {{10, 0}}},
        // Above: the start is reported count pages past the block.
        {{{4, 4}, {8, 2}}, 6, 2, 10, 0, {}},
        {{{4, 4}, {8, 2}}, 5, 2, 9, 0, {{9, 0}}},
        {{{4, 4}, {8, 2}, {10, 1}}, 7, 2, 11, 0, {}},
        {{{2, 2}, {4, 1}}, 3, 1, 5, 0, {}},
        {{{8, 8}, {16, 4}, {20, 2}}, 13, 3, 21, 0, {{21, 0}}},
        // Too little beside it, at the ends of the space, and arguments out of range.
        {{{8, 4}, {7, 1}}, 6, 2, 0, -11, {{7, 0}, {8, 2}}},
        {{{8, 4}, {6, 2}}, 7, 2, 0, -11, {{6, 1}, {8, 2}}},
        {{{0, 4}, {28, 4}}, 5, 2, 0, -11, {{0, 2}, {28, 2}}},
        {{{8, 4}, {6, 2}}, 4, 2, 0, -11, {{6, 1}, {8, 2}}},
        {{{8, 4}, {6, 2}}, 8, 2, 0, -11, {{6, 1}, {8, 2}}},
        {{{8, 1}, {7, 1}}, 1, 0, 0, -11, {{7, 0}, {8, 0}}},
        {{{8, 1}}, 33, 5, 0, -11, {{8, 0}}},
        {{{8, 1}}, 0xFFFFFFFFu, 31, 0, -11, {{8, 0}}},
    };
    for (const Case& test : cases) {
        Pool pool(32);
        pool.TakeAllBut(test.free);
        unsigned int start = 0;
        SCOPED_TRACE(std::to_string(&test - cases));
        EXPECT_EQ(pool.AcquireL(start, test.count, test.level), test.result);
        EXPECT_EQ(start, test.start);
        EXPECT_EQ(pool.Free(), test.left);
    }
}

TEST(SpacePool, ReleasesUpwardsAndDownwardsWithoutCountingUse) {
    Pool pool(16);
    pool.TakeAllBut({});
    pool.ReleaseL(8, 7, 2);
    EXPECT_EQ(pool.Free(), (Blocks{{8, 2}, {12, 1}, {14, 0}}));
    pool.ReleaseH(8, 7, 2);
    EXPECT_EQ(pool.Free(), (Blocks{{1, 0}, {2, 1}, {4, 2}, {8, 2}, {12, 1}, {14, 0}}));
    EXPECT_EQ(pool.m_used, 16u);
    pool.ReleaseH(2, 4, 2);  // would begin below page 0
    EXPECT_EQ(pool.Free().size(), 6u);
}

TEST(SpacePool, KeepsItsSpaceWhenASecondOneCannotBeMade) {
    for (unsigned int nth = 1; nth <= 5; ++nth) {
        Pool pool(13);
        pool.PageAlloc(5);
        KTHeapFailAt(nth, 100);
        EXPECT_EQ(pool.Create(13), -6);  // a table and four levels
        KTHeapFailAt(0);
        EXPECT_EQ(pool.m_used, 5u);
        EXPECT_EQ(pool.Free(), (Blocks{{5, 0}, {6, 1}, {8, 2}, {12, 0}}));
    }
}

TEST(SpacePool, DumpsItsCountersAndLevels) {
    Pool pool(3);
    pool.PageAlloc(1);
    CKTString text;
    pool.Dump(&text);
    char expected[512];
    std::snprintf(expected, sizeof(expected),
                  "SPACE(test)===>pagenum = 3, pageuse = 1, pagemax = 1, pagelvl = 2, "
                  "usage = 33.333%% / 33.333%%\n"
                  "Level     Number      Count    Head\n"
                  "    0          0          2    %p\n"
                  "    1          1          1    %p\n",
                  static_cast<void*>(nullptr), static_cast<void*>(pool.m_table[1].head));
    EXPECT_STREQ(text.GetBuffer(), expected);
}

TEST(SpacePool, FindsTheHighestBit) {
    for (auto [value, bit] : std::vector<std::pair<unsigned int, unsigned int>>{
             {0, 0}, {1, 0}, {3, 1}, {65535, 15}, {65536, 16}, {0xFFFFFFFFu, 31}})
        EXPECT_EQ(IKTSpacePool::Log2X(value), bit);
}
