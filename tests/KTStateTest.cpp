#include <KTBase/KTState.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "KTTestLoad.h"

namespace {

template <typename T>
class State : public testing::Test {};
using Kinds = testing::Types<IKTState, IKTStateRef>;
TYPED_TEST_SUITE(State, Kinds);

TYPED_TEST(State, TakesFlagNumbersModulo32AndWholeWordsOnlyToReset) {
    TypeParam state;
    EXPECT_EQ(state.SetState(3), 8u);
    EXPECT_TRUE(state.CheckState(3));
    EXPECT_TRUE(state.CheckState(35));
    EXPECT_EQ(state.SetState(63), 0x80000008u);
    EXPECT_EQ(state.ClearState(35), 0x80000000u);
    EXPECT_FALSE(state.CheckState(0));
    EXPECT_EQ(state.ResetState(5), 5u);
    EXPECT_TRUE(state.CheckState(0) && state.CheckState(2) && !state.CheckState(5));
}

TYPED_TEST(State, LosesNoFlagWhenThreadsSetDifferentOnes) {
    const unsigned int kRounds = KTTestLoad(200000);
    TypeParam state;
    int lost[2] = {};
    std::atomic<int> started{0};
    auto toggle = [&](unsigned int bit) {
        for (++started; started != 2;) {
        }
        for (unsigned int i = 0; i < kRounds; ++i) {
            state.SetState(bit);
            lost[bit] += !state.CheckState(bit);
            state.ClearState(bit);
            lost[bit] += state.CheckState(bit);
        }
    };
    std::thread other(toggle, 0);
    toggle(1);
    other.join();
    EXPECT_EQ(lost[0] + lost[1], 0);
}

TEST(StateRef, CountsItselfAndNeverDeletes) {
    IKTStateRef state;  // on the stack: deleting it would crash
    EXPECT_EQ(state.AddRef(), 2);
    EXPECT_EQ(state.Release(), 1);
    EXPECT_EQ(state.Release(), 0);
    EXPECT_EQ(state.Release(), -1);
}

}  // namespace
