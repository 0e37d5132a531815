#include "KTBase/KTZoom.h"

#include <gtest/gtest.h>

namespace {

bool operator==(const tag_KTRECT& a, const tag_KTRECT& b) {
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

}  // namespace

// Expected values are worked out by hand.

TEST(Zoom, TakesARegionFromOneFrameToAnother) {
    const tag_KTRECT frame = {0, 0, 640, 480}, moved = {100, 50, 740, 530},
                     larger = {5, 5, 1285, 965};
    const tag_KTPOINT a = {320, 240}, b = {160, 120}, crossed[] = {{160, 240}, {320, 120}};
    const tag_KTRECT expected = {16384, 16384, 32768, 32768}, region = {320, 240, 640, 480};
    tag_KTRECT zoom, out;
    EXPECT_EQ(KTZoomCalcuZoom(&zoom, &frame, &a, &b), 0);
    EXPECT_TRUE(zoom == expected);
    EXPECT_EQ(KTZoomCalcuZoom(&zoom, &moved, &crossed[0], &crossed[1]), 0);  // origin left alone
    EXPECT_TRUE(zoom == expected);
    EXPECT_EQ(KTZoomCalcuRect(&out, &larger, &zoom), 0);
    EXPECT_TRUE(out == region);
    EXPECT_EQ(KTZoomCalcuRect(&zoom, &larger, &zoom), 0);  // in place
    EXPECT_TRUE(zoom == region);
}

TEST(Zoom, CountsIn32BitsAndWraps) {
    const tag_KTRECT frame = {0, 0, 100, 3}, wide = {0, 0, 32768, 40000};
    const tag_KTRECT zoom = {65536, 65535, 65537, -1}, fractions = {-21474836, -21845, 0, 21845};
    const tag_KTPOINT a = {32768, 1}, b = {65536, -1};  // shift to -2^31 and to 0
    const tag_KTRECT expected = {-32768, -25537, -32768, -1};
    tag_KTRECT out;
    EXPECT_EQ(KTZoomCalcuZoom(&out, &frame, &a, &b), 0);
    EXPECT_TRUE(out == fractions);  // truncated towards 0
    EXPECT_EQ(KTZoomCalcuRect(&out, &wide, &zoom), 0);
    EXPECT_TRUE(out == expected);
}

TEST(Zoom, ZeroesTheResultOfAFrameWithoutAreaAndOfNulls) {
    const tag_KTPOINT a = {1, 1}, b = {2, 2};
    const tag_KTRECT none = {}, zoom = {1, 2, 3, 4};
    const tag_KTRECT frames[] = {
        {0, 0, 0, 9}, {0, 9, 9, 9}, {9, 0, 8, 9}, {-2147483647, 0, 2147483647, 9}};
    for (const tag_KTRECT& frame : frames) {
        tag_KTRECT out = {1, 1, 1, 1};
        EXPECT_EQ(KTZoomCalcuZoom(&out, &frame, &a, &b), -1);
        EXPECT_TRUE(out == none);
        out = {1, 1, 1, 1};
        EXPECT_EQ(KTZoomCalcuRect(&out, &frame, &zoom), -1);
        EXPECT_TRUE(out == none);
    }
    tag_KTRECT out = {1, 1, 1, 1};
    EXPECT_EQ(KTZoomCalcuZoom(&out, &zoom, nullptr, &b), -1);
    EXPECT_TRUE(out == none);
    EXPECT_EQ(KTZoomCalcuRect(&out, nullptr, &zoom), -1);
    EXPECT_EQ(KTZoomCalcuRect(nullptr, &zoom, &zoom), -1);
}
