#include <KTBase/KTList.h>

#include <atomic>
#include <list>
#include <random>
#include <thread>
#include <vector>

#include "KTHeap.h"
#include "KTTestLoad.h"
#include "KTTestTables.h"

class CPacket;
struct Record;
KTLIST_STRUCT(Record);

namespace {

// What `call` printed, while every allocation failed.
template <typename Call>
std::string PrintedWithoutMemory(Call call) {
    testing::internal::CaptureStdout();
    KTHeapFailAt(1, 0xFFFFFFFFu);
    call();
    KTHeapFailAt(0);
    return testing::internal::GetCapturedStdout();
}

// Writes its letter down when it is deleted, and may then drop the youngest of a list.
struct Letter : IKTBaseOBJ {
    Letter(std::string& s, char c, CKTList* l = nullptr) : seen(s), letter(c), list(l) {}
    ~Letter() override {
        seen += letter;
        if (list != nullptr)
            list->RemoveFromTailNum(1);
    }
    std::string& seen;
    char letter;
    CKTList* list;
};

template <typename Argument, typename = void>
constexpr bool kRemoves = false;
template <typename Argument>
constexpr bool kRemoves<Argument, std::void_t<decltype(std::declval<CKTListT<char*>&>().Remove(
                                      std::declval<Argument>()))>> = true;
static_assert(kRemoves<char*&> && kRemoves<void*> && !kRemoves<char*> && !kRemoves<char* const&>,
              "a temporary or const item would be taken for a position");

}  // namespace

TEST(List, AgreesWithStdListThroughRandomChanges) {
    std::mt19937 random(1);
    CKTList list(3);
    list.SetAutoDel(false);
    std::list<char*> model;
    static char items[500];
    for (char& item : items) {
        const int at = static_cast<int>(random() % (model.size() + 1));
        const auto there = std::next(model.begin(), at);
        void* pos = list.Find(list[at]);  // null past the end
        const unsigned int change = random() % (model.size() > 12 ? 4 : 2);
        if (change == 0) {
            list.InsertPrev(pos, &item);
            model.insert(pos != nullptr ? there : model.begin(), &item);
        } else if (change == 1) {
            list.InsertNext(pos, &item);
            model.insert(pos != nullptr ? std::next(there) : there, &item);
        } else if (change == 2) {
            ASSERT_EQ(list.RemoveAt(pos), pos != nullptr ? *there : nullptr);
            model.erase(there, pos != nullptr ? std::next(there) : there);
        } else {
            ASSERT_EQ(list.RemoveFromTailNum(2), 2u);
            model.resize(model.size() - 2);
        }
        void* last = nullptr;
        pos = list.GetHead();
        for (char* expected : model) {
            ASSERT_EQ(list.GetAt(pos), expected);
            ASSERT_EQ(list.GetPrev(pos), last);
            last = pos;
            pos = list.GetNext(pos);
        }
        ASSERT_EQ(pos, nullptr);
        ASSERT_EQ(list.GetCount(), model.size());
        ASSERT_EQ(list.GetIDX(model.back()), static_cast<int>(model.size()) - 1);
    }
}

TEST(List, TakesWholeBlocksAndGivesThemBackWhenEmpty) {
    // Block size, items, blocks, bytes.
    const unsigned int cases[][4] = {{0, 10, 1, 248}, {0, 11, 2, 496}, {1, 3, 3, 96}};
    const KTTestTables before = KTTestReadTables();
    for (const auto& c : cases) {
        CKTList list(c[0]);
        for (unsigned int i = 0; i < c[1]; ++i)
            list.AddTail(nullptr);
        list.RemoveFromTailNum(c[1] - 1);
        const KTTestTables during = KTTestReadTables();
        EXPECT_EQ(during.blocks, before.blocks + c[2]);
        EXPECT_EQ(during.blockBytes, before.blockBytes + c[3]);
        list.RemoveHead();
        EXPECT_EQ(KTTestReadTables().blocks, before.blocks);
    }
}

TEST(List, WithoutMemoryReportsAndKeepsWhatItHas) {
    CKTList list(2), absurd(0xFFFFFFFFu);
    CPacket* packet = nullptr;
    Record* record = nullptr;
    CKTListT<CPacket*> packets(1);
    packets.AddTail(packet);
    list.AddTail(nullptr);
    const std::string printed = PrintedWithoutMemory([&] {
        // The block in hand serves without any allocation, however often.
        for (int i = 0; i < 1000 && list.AddHead(nullptr) != nullptr; ++i)
            list.RemoveTail();
        EXPECT_NE(list.AddHead(nullptr), nullptr);
        EXPECT_EQ(list.AddHead(nullptr), nullptr);
        EXPECT_EQ(packets.AddTail(packet), nullptr);
        EXPECT_EQ(CKTListT<Record*>().InsertNext(nullptr, record), nullptr);
        packets[1] = reinterpret_cast<CPacket*>(&list);
        EXPECT_EQ(packets[-1], nullptr);  // what was written beyond the end does not come back
        KTHeapFailAt(0);
        EXPECT_EQ(absurd.AddTail(nullptr), nullptr);
    });
    for (const char* line :
         {"src/core/KTBase/KTList====>(Func = CKTList::AllocFreeNode, line = 37)\n",
          "src/core/KTBase/KTList====>(Func = CKTList::NewNode, line = 78)\n",
          "(Func = CKTListT<class CPacket *>::AllocFreeNode, line = 101)\n",
          "inc/core/KTBase/KTListT====>(Func = CKTListT<class CPacket *>::NewNode, line = 79)\n",
          "(Func = CKTListT<class CPacket *>::operator [], line = 345)\n",
          "(Func = CKTListT<struct Record *>::NewNode, line = 79)\n"})
        EXPECT_NE(printed.find(line), std::string::npos) << line << "not in\n" << printed;
    EXPECT_EQ(KTListTypeName<char*>().Text(), std::string("char *"));
    EXPECT_NE(list.AddTail(nullptr), nullptr);
}

TEST(ListOBJ, AnObjectMayChangeTheListItIsDeletedFrom) {
    std::string seen;
    {
        CKTListOBJ list;
        for (char letter : {'a', 'b', 'c'})
            list.AddTail(new Letter(seen, letter, &list));
        list.RemoveFromTailNum(1);
        for (char letter : {'d', 'e'})
            list.AddTail(new Letter(seen, letter, &list));
    }
    EXPECT_EQ(seen, "cbade");  // the list was already empty to its objects
}

TEST(ListP, ReleasesByPositionOrAsAWholeByItsMode) {
    const unsigned int before = KTTestReadTables().blocks;
    std::string seen;
    {
        CKTListP<Letter> list;
        Letter *a = new Letter(seen, 'a'), *b = new Letter(seen, 'b'), *item = nullptr;
        EXPECT_EQ(list.RemoveHead(item), -9);
        EXPECT_EQ(list.RemoveAt(nullptr, item), -4);
        EXPECT_EQ(list.Remove(static_cast<void*>(nullptr)), -1);
        EXPECT_EQ(list.Remove(a), -11);
        list.SetReleaseMode(1);
        list.AddTail(b);
        EXPECT_EQ(list.Remove(list.FindIndex(0)), 0);  // auto-delete is still off
        list.SetAutoDel(true);
        list.AddTail(a);
        list.AddTail(b);
        EXPECT_EQ(list.Remove(b), 0);
        list.AddHead(b);
        EXPECT_EQ(list.Remove(list.FindIndex(0)), 0);
        EXPECT_EQ(seen, "b");
        CKTListP<char> buffers;
        buffers.SetReleaseMode(2);
        buffers.SetAutoDel(true);
        char* buffer = reinterpret_cast<char*>(ZMKMalloc(1));
        buffers.AddTail(buffer);
        CKTList raw;
        raw.AddTail(ZMKMalloc(1));
        raw.AddTail(ZMKMalloc(1));
        ZMKFree(raw.RemoveHead());
    }
    EXPECT_EQ(seen, "ba");
    EXPECT_EQ(KTTestReadTables().blocks, before);
}

TEST(Queue, RefusesBeyondItsLimitAndKeepsTheRest) {
    char items[3];
    void* got = items;
    CKTQueue queue(2);
    const std::string printed = PrintedWithoutMemory([&] {
        EXPECT_EQ(queue.Put(items), -6);
        CKTQueue unbuilt;
        EXPECT_EQ(unbuilt.Put(items), -6);
        EXPECT_EQ(unbuilt.Get(got, KT_INFINITE), -1);
    });
    EXPECT_NE(printed.find("CKTList::NewNode, line = 78"), std::string::npos);
    EXPECT_EQ(queue.Put(items), 0);
    EXPECT_EQ(queue.Put(items + 1), 0);
    EXPECT_EQ(queue.Put(items + 2), -8);
    EXPECT_EQ(queue.Get(got, 0), 0);
    EXPECT_EQ(got, items);
    EXPECT_EQ(queue.Get(got, 0), 0);
    EXPECT_EQ(queue.Get(got, 10), -2);
    EXPECT_EQ(got, nullptr);
}

// An endless wait beside an item would hang here.
TEST(Queue, BetweenManyThreadsNothingIsLostDoubledOrReordered) {
    constexpr unsigned int kProducers = 3, kConsumers = 4;
    const unsigned int each = KTTestLoad(30000);
    for (unsigned int limit : {0u, 2u}) {
        CKTQueue queue(limit);
        std::vector<std::atomic<int>> taken(kProducers * each);
        std::vector<std::thread> threads;
        const auto put = [&](void* item) {
            while (queue.Put(item) == -8)
                std::this_thread::yield();
        };
        for (unsigned int p = 0; p < kProducers; ++p)
            threads.emplace_back([&, p] {
                for (unsigned int i = 0; i < each; ++i)
                    put(&taken[p * each + i]);
            });
        for (unsigned int c = 0; c < kConsumers; ++c)
            threads.emplace_back([&] {
                long long newest[kProducers] = {-1, -1, -1};
                void* got = nullptr;
                while (queue.Get(got, KT_INFINITE) == 0 && got != nullptr) {
                    const long long index = static_cast<std::atomic<int>*>(got) - taken.data();
                    ++taken[index];
                    EXPECT_GT(index, newest[index / each]);
                    newest[index / each] = index;
                }
            });
        for (unsigned int t = 0; t < threads.size(); ++t) {
            for (unsigned int c = 0; t == kProducers && c < kConsumers; ++c)
                put(nullptr);  // ends one consumer
            threads[t].join();
        }
        for (const std::atomic<int>& times : taken)
            ASSERT_EQ(times, 1);
    }
}
