#include "KTBase/KTTimeMask.h"

#include <gtest/gtest.h>

#include <string>

#include "KTHeap.h"

namespace {

CKTTime At(const char* clock) {
    CKTTime time(true);
    EXPECT_EQ(time.ParseISO8601(("20260110T" + std::string(clock) + "Z").c_str()), 0);
    return time;
}

struct Case {
    const char* clock;
    int result;
    const char* set;
    int number;  // of seconds asked for; whether Check finds the value of slot 0
};

// The slots that are on, of the first 80: "3-5 40-40 ".
std::string On(const CKTTimeMaskBIT& mask) {
    std::string text;
    bool before = false, found = false;
    for (unsigned int slot = 0; slot < 80; ++slot, before = found) {
        found = mask.Check(slot, found, 1) == 0 && found;
        if (found != before)
            text += found ? std::to_string(slot) : "-" + std::to_string(slot - 1) + " ";
    }
    return text;
}

// All values: "3=7 40=1 ". The walk goes on where the entry just handed out is changed or removed.
std::string Walk(CKTTimeMaskValue& mask, bool remove = false) {
    std::string text;
    void* pos = nullptr;
    unsigned int slot = 0, value = 0;
    for (int got = mask.GetFirstValue(pos, slot, value); got == 0;
         got = mask.GetNextValue(pos, slot, value)) {
        text += std::to_string(slot) + "=" + std::to_string(value) + " ";
        mask.SetValue(slot, remove ? 0 : value);
    }
    EXPECT_EQ(mask.GetNextValue(pos, slot, value), -11);
    return text;
}

}  // namespace

TEST(TimeMask, SetsAndFindsRangesOfBitsCutAtTheEnd) {
    CKTTime start = At("100000");
    CKTTimeMaskBIT mask(&start, 70);
    EXPECT_EQ(mask.Enable(0u, true, 70), 0);
    mask.Enable(31u, false, 2);
    mask.Enable(68u, false, 0xFFFFFFFF);  // 68 + n wraps
    mask.Enable(5u, false, 0);
    EXPECT_EQ(mask.Enable(70u, false, 1), -4);
    EXPECT_EQ(On(mask), "0-30 33-67 ");
    bool found = true;
    EXPECT_EQ(mask.Check(31u, found, 2), 0);
    EXPECT_FALSE(found);
    EXPECT_EQ(mask.Check(32u, found, 0xFFFFFFFF), 0);
    EXPECT_TRUE(found);
}

// Seconds after the start, but milliseconds before it: programs count on masks made this way.
TEST(TimeMask, TakesATimeBeforeTheFirstBitAsMilliseconds) {
    CKTTime start = At("100000.900");  // milliseconds do not count
    const Case cases[] = {
        {"100005", 0, "5-6 ", 2}, {"100059", 0, "59-59 ", 9}, {"100100", -4, "", 1},
        {"100000", 0, "0-2 ", 3}, {"095958", 0, "0-3 ", 5},   {"095958", 0, "", 1},
        {"094321", 0, "", 1},     {"094320", -4, "", 1},      {"100000", -4, "", 0}};
    for (auto [clock, result, slots, seconds] : cases) {
        CKTTimeMaskBIT mask(&start, 60);
        CKTTime time = At(clock);
        bool found = true;
        EXPECT_EQ(mask.Check(time, found, seconds), result);
        EXPECT_FALSE(found);
        EXPECT_EQ(mask.Enable(time, true, seconds), result);
        EXPECT_EQ(On(mask), slots);
        EXPECT_EQ(mask.Check(time, found, seconds), result);
        EXPECT_EQ(found, slots[0] != 0);
    }
}

TEST(TimeMask, KeepsValuesInTheOrderOfTheirSlots) {
    CKTTime start = At("100000");
    CKTTimeMaskValue mask(&start, 100);
    for (auto [slot, value] : {std::pair{50u, 1u}, {99u, 2u}, {0u, 3u}, {7u, 4u}, {50u, 6u}})
        EXPECT_EQ(mask.SetValue(slot, value), 0);
    EXPECT_EQ(mask.SetValue(100u, 1), -4);
    EXPECT_EQ(Walk(mask), "0=3 7=4 50=6 99=2 ");
    int found = 9;
    for (auto [slot, n, expected] :
         {std::tuple{1u, 6u, 0}, {1u, 7u, 1}, {7u, 0u, 0}, {98u, 0xFFFFFFFFu, 1}, {200u, 1u, 0}}) {
        EXPECT_EQ(mask.Check(slot, found, n), 0);
        EXPECT_EQ(found, expected) << slot << " " << n;
    }
    Walk(mask, true);
    EXPECT_EQ(Walk(mask), "");
}

// The difference is divided by 1000, as if it were milliseconds: unlike in the bit mask.
TEST(TimeMask, TakesAThousandSecondsAsOneValue) {
    CKTTime start = At("100000");
    const Case cases[] = {{"100005", 0, "0=7 ", 1}, {"101639", 0, "0=7 ", 1},
                          {"101640", 0, "1=7 ", 0}, {"104959", 0, "2=7 ", 0},
                          {"105000", -4, "", 0},    {"095959", -4, "", 1},
                          {"094321", -4, "", 1},    {"094320", -4, "", 0}};
    for (auto [clock, result, values, hit] : cases) {
        CKTTimeMaskValue mask(&start, 3);
        CKTTime time = At(clock);
        unsigned int value = 9;
        int found = 9;
        EXPECT_EQ(mask.SetValue(time, 7), result);
        EXPECT_EQ(mask.GetValue(time, value), result);
        EXPECT_EQ(value, result == 0 ? 7u : 0u);
        EXPECT_EQ(Walk(mask, true), values);
        mask.SetValue(0u, 7);
        EXPECT_EQ(mask.Check(time, found, 1), 0);
        EXPECT_EQ(found, hit) << clock;
    }
}

TEST(TimeMask, EndsItsSecondsAfterItsStart) {
    CKTTime start = At("100000"), end(true), later(true);
    EXPECT_EQ(CKTTimeMaskBIT(&start, 3600).GetTimeE(end), 0);
    EXPECT_TRUE(end == At("110000"));
    EXPECT_EQ(CKTTimeMaskBIT(&start, 4294967).GetTimeE(end), 0);
    EXPECT_EQ(CKTTimeMaskBIT(&start, 4294968).GetTimeE(later), 0);  // 33 bits of milliseconds
    EXPECT_EQ(later - end, 1);
}

TEST(TimeMask, IsEmptyWithoutSecondsOrMemory) {
    CKTTime start = At("100000");
    CKTTimeMaskBIT bits(&start, 0);
    CKTTimeMaskValue values(&start, 0);
    EXPECT_EQ(values.GetTime(start, 0), -7);
    values.Init(&start, 100);
    for (unsigned int nth : {1u, 2u}) {  // the entry, then its node
        KTHeapFailAt(nth);
        EXPECT_EQ(values.SetValue(3u, 1), -6);
        EXPECT_EQ(Walk(values), "");
    }
    EXPECT_EQ(bits.Init(&start, 100), 0);
    KTHeapFailAt(1);
    EXPECT_EQ(bits.Init(&start, 100), -6);
    EXPECT_EQ(bits.Clear(), -7);
    EXPECT_EQ(bits.GetTimeE(start), -7);
    EXPECT_EQ(bits.Enable(start, true, 1), -4);
}
