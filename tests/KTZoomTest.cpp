#include "KTBase/KTZoom.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(Zoom, TakesARegionOverAndWrapsIn32Bits) {
    struct Case {
        tag_KTRECT frame, zoom, target, region;
        tag_KTPOINT a, b;
    };
    const tag_KTRECT zoom = {16384, 16384, 32768, 32768}, region = {320, 240, 640, 480};
    const tag_KTRECT overflowed = {-21474836, -21845, 0, 21845},
                     wrapped = {-32768, -13334, 0, 13333};
    const Case cases[] = {
        // by hand; an origin counts for nothing
        {{0, 0, 640, 480}, zoom, {0, 0, 1280, 960}, region, {320, 240}, {160, 120}},
        {{9, 5, 649, 485}, zoom, {5, 5, 1285, 965}, region, {160, 240}, {320, 120}},
        {{0, 0, 100, 3}, overflowed, {0, 0, 100, 40000}, wrapped, {32768, 1}, {65536, -1}}};
    for (const auto& one : cases) {
        tag_KTRECT out;
        EXPECT_EQ(KTZoomCalcuZoom(&out, &one.frame, &one.a, &one.b), 0);
        EXPECT_EQ(std::memcmp(&out, &one.zoom, sizeof out), 0);
        EXPECT_EQ(KTZoomCalcuRect(&out, &one.target, &out), 0);
        EXPECT_EQ(std::memcmp(&out, &one.region, sizeof out), 0);
    }
}

TEST(Zoom, ZeroesTheResultOfAFrameWithoutArea) {
    const tag_KTPOINT a = {1, 1}, b = {2, 2};
    const tag_KTRECT none = {},
                     frames[] = {{0, 9, 9, 9}, {9, 0, 8, 9}, {-2147483647, 0, 2147483647, 9}};
    for (tag_KTRECT frame : frames) {
        tag_KTRECT out = frame;
        EXPECT_EQ(KTZoomCalcuZoom(&out, &frame, &a, &b), -1);
        EXPECT_EQ(std::memcmp(&out, &none, sizeof out), 0);
        EXPECT_EQ(KTZoomCalcuRect(&frame, &frame, nullptr), -1);
        EXPECT_EQ(std::memcmp(&frame, &none, sizeof frame), 0);
    }
}
