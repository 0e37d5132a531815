#include "KTBase/KTMask.h"

#include <gtest/gtest.h>

#include "KTHeap.h"

TEST(Mask, HoldsWholeWordsAndClearsThemWhenInitialisedAgain) {
    const unsigned int cases[][2] = {{0, 0}, {1, 1}, {32, 1}, {33, 2}, {64, 2}, {65, 3}};
    tag_KTMASK mask = {};
    for (const auto& one : cases) {
        EXPECT_TRUE(KTMASK_Init(&mask, one[0]));
        EXPECT_EQ(mask.count, one[1]) << one[0];
        EXPECT_TRUE(KTMASK_IsEmpty(&mask));
        EXPECT_TRUE(KTMASK_NOT(&mask));  // inverts the bits that fill the last word, too
        EXPECT_EQ(KTMASK_GetChecked(&mask), one[1] * 32);
        EXPECT_EQ(KTMASK_Check(&mask, one[1] * 32 - 1), one[1] != 0);
        EXPECT_FALSE(KTMASK_Check(&mask, one[1] * 32));
    }
    KTMASK_Clear(&mask);
}

TEST(Mask, AnswersFalseToEverySingleBitAndTrueToAll) {
    // Programs rely on the false of a bit that was set.
    IKTMask mask(33u);
    for (int bit : {5, 32, 64, 0x7FFFFFFF})
        EXPECT_FALSE(mask.Set(bit, -7));
    EXPECT_EQ(mask.GetMask()->data[0], 0x20u);
    EXPECT_EQ(mask.GetMask()->data[1], 1u);
    EXPECT_FALSE(mask.Set(5, 0));
    EXPECT_EQ(KTMASK_GetChecked(mask.GetMask()), 1u);
    EXPECT_TRUE(mask.Set(-1, 1));
    EXPECT_EQ(KTMASK_GetChecked(mask.GetMask()), 64u);
    EXPECT_TRUE(mask.Set(-9, 0));
    EXPECT_TRUE(KTMASK_IsEmpty(mask.GetMask()));
}

TEST(Mask, CombinesMasksOfOneSizeOnly) {
    unsigned int right[] = {0xFFFF0000, 0x00FF00FF};
    const tag_KTMASK src = {2, right}, shorter = {1, right}, broken = {2, nullptr}, empty = {};
    const struct {
        bool (*combine)(tag_KTMASK*, const tag_KTMASK*);
        unsigned int first, second;
    } cases[] = {{KTMASK_AND, 0xFF000000, 0x000F000F},
                 {KTMASK_OR, 0xFFFFFF00, 0x0FFF0FFF},
                 {KTMASK_XOR, 0x00FFFF00, 0x0FF00FF0},
                 {KTMASK_ANDNOT, 0x0000FF00, 0x0F000F00}};
    for (const auto& one : cases) {
        unsigned int words[] = {0xFF00FF00, 0x0F0F0F0F};
        tag_KTMASK dst = {2, words}, nothing = {};
        for (const tag_KTMASK* other : {&shorter, &broken, &empty})
            EXPECT_FALSE(one.combine(&dst, other));
        EXPECT_EQ(words[0], 0xFF00FF00);
        EXPECT_TRUE(one.combine(&dst, &src));
        EXPECT_EQ(words[0], one.first);
        EXPECT_EQ(words[1], one.second);
        EXPECT_TRUE(one.combine(&nothing, &empty));
    }
}

TEST(Mask, EqualsBySizeAndWordsAndNeverWithoutItsWords) {
    unsigned int words[] = {1, 2}, same[] = {1, 2}, other[] = {1, 3};
    const tag_KTMASK a = {2, words}, equal = {2, same}, gone = {2, nullptr}, alsoGone = gone;
    const tag_KTMASK different[] = {{2, other}, {1, words}, gone, {}};
    EXPECT_TRUE(KTMASK_Equals(&a, &equal));
    for (const tag_KTMASK& one : different)
        EXPECT_FALSE(KTMASK_Equals(&a, &one));
    EXPECT_FALSE(KTMASK_Equals(&gone, &alsoGone));
    EXPECT_TRUE(KTMASK_Equals(&gone, &gone));
    EXPECT_FALSE(KTMASK_Equals(nullptr, nullptr));
}

TEST(Mask, CopiesOthersWordsAndItsOwn) {
    IKTMask mask(70u), other;
    mask.Set(0, 1);
    EXPECT_TRUE(other = mask);
    EXPECT_NE(other.GetMask()->data, mask.GetMask()->data);
    tag_KTMASK own = *mask.GetMask();
    EXPECT_TRUE(mask = own);
    EXPECT_FALSE(mask = static_cast<const tag_KTMASK*>(nullptr));
    EXPECT_TRUE(mask == other);
    own.count = 1;
    EXPECT_TRUE(mask = own);  // a part of itself
    EXPECT_EQ(mask.GetMask()->count, 1u);
    EXPECT_TRUE(mask.Check(0));
    EXPECT_EQ(IKTMask(static_cast<const IKTMask*>(nullptr)).GetMask()->count, 0u);
}

TEST(Mask, IsEmptyWhenMemoryIsOut) {
    IKTMask small(32u), large(64u);
    tag_KTMASK* made = nullptr;
    KTHeapFailAt(1);
    EXPECT_FALSE(small = large);
    EXPECT_EQ(small.GetMask()->count, 0u);
    EXPECT_EQ(small.GetMask()->data, nullptr);
    KTHeapFailAt(2);  // the words, behind the record
    EXPECT_FALSE(KTMASK_Alloc(&made, 1));
    KTHeapFailAt(0);
    EXPECT_EQ(made, nullptr);
}

TEST(IntegerArray, CountsElementsAndCopiesThem) {
    tag_KTMASK *array = nullptr, *copy = nullptr;
    const tag_KTMASK broken = {33, nullptr};
    ASSERT_TRUE(KTARRAY_UINT_Alloc(&array, 33));
    ASSERT_TRUE(KTARRAY_UINT_Alloc(&copy, 0));
    EXPECT_EQ(array->count, 33u);
    for (unsigned int element : {7u, 8u}) {  // into another size, then into the same
        array->data[32] = element;
        EXPECT_TRUE(KTARRAY_UINT_Copy(copy, array));
        EXPECT_EQ(copy->data[32], element);
    }
    EXPECT_TRUE(KTARRAY_UINT_Init(array, 33));
    EXPECT_FALSE(KTARRAY_UINT_Equals(copy, array));
    EXPECT_TRUE(KTARRAY_UINT_Copy(copy, &broken));
    EXPECT_EQ(copy->count, 0u);
    KTARRAY_UINT_Free(&array);
    KTARRAY_UINT_Free(&copy);
    EXPECT_EQ(copy, nullptr);
    EXPECT_TRUE(KTARRAY_UINT_Free(&copy));
}
