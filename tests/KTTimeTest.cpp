#include "KTBase/KTTime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "KTBase/KTString.h"
#include "KTBase/KTSysTypes.h"
#include "os/KTOsClock.h"

namespace {

void SetZone(const char* zone) {
    static char setting[64];  // the environment keeps the pointer
    std::snprintf(setting, sizeof(setting), "TZ=%s", zone);
    putenv(setting);
    tzset();
}

std::string Text(const CKTTime& t) {
    char text[64] = "";
    EXPECT_EQ(t.ToString(text, sizeof(text)), 0);
    return text;
}

CKTTime At(const char* iso) {
    CKTTime t(true);
    EXPECT_EQ(t.ParseISO8601(iso), 0) << iso;
    return t;
}

// Zones by offset only: Wine misreads the named ones.
class ZoneTime : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override { SetZone(GetParam()); }
    void TearDown() override { SetZone("UTC0"); }
    bool InJapan() const { return std::strcmp(GetParam(), "JST-9") == 0; }
};

TEST(Time, BreaksAnySecondDownAsUtc) {
    // Dates and weekdays as GNU date prints them; years modulo 64 from 2000 to 2063.
    const struct {
        long long seconds;
        const char* text;
    } kCases[] = {
        {951782400, "2000/02/29 00:00:00.007"},      // 2000-02-29
        {4107542399, "2036/02/28 23:59:59.007"},     // 2100-02-28
        {-1, "2033/12/31 23:59:59.007"},             // 1969-12-31
        {-2203891201, "2028/02/28 23:59:59.007"},    // 1900-02-28
        {253402300799, "2063/12/31 23:59:59.007"},   // 9999-12-31
        {-377705116800, "2033/01/01 00:00:00.007"},  // -9999-01-01
    };
    CKTTime t(true);
    t.SetMS(1007);
    for (const auto& c : kCases) {
        EXPECT_TRUE(t.SetTime(c.seconds));
        EXPECT_EQ(Text(t), c.text) << c.seconds;
    }
    t.SetTime(LLONG_MIN);
    t.SetTime(LLONG_MAX);
}

TEST(Time, PacksFieldsAndCountsSecondsWithOverfullOnesCarriedOver) {
    // 21 << 26 | 9 << 22 | 21 << 17 | 10 << 12 | 11 << 6 | 30
    EXPECT_TRUE(At("20210921T101130Z") == 0x566AA2DEu);
    CKTTime t(true);
    EXPECT_EQ(t.GetTime(), 943920000);  // the null time is 1999-11-30, a Tuesday
    EXPECT_EQ(t.GetWeekDay(), 2);
    const ZHTIME overfull = 21u << 26 | 13u << 22 | 31u << 17 | 31u << 12 | 63u << 6 | 63u;
    t.SetTime(&overfull, 0);
    EXPECT_EQ(t.GetTime(), 1643702643);  // 2022-02-01 08:04:03
}

TEST(Time, RefusesDatesOutOfRangeAndClampsTimesOfDay) {
    CKTTime t = At("20210921T101010Z");
    EXPECT_FALSE(t.SetYear(1999) || t.SetYear(2064) || t.SetMonth(0) || t.SetMonth(13));
    EXPECT_FALSE(t.SetDay(0) || t.SetDay(32));
    EXPECT_EQ(Text(t), "2021/09/21 10:10:10.000");
    EXPECT_TRUE(t.SetYear(2063) && t.SetMonth(12) && t.SetDay(31));
    EXPECT_TRUE(t.SetHour(30) && t.SetMinute(60) && t.SetSecond(~0u) && t.SetMS(65535));
    EXPECT_EQ(Text(t), "2063/12/31 23:59:59.535");
}

TEST(Time, TakesMillisecondsOfTheArgumentOnlyWhereItSaysSo) {
    ZHTIME word = 0x566AA2DE;
    EXPECT_EQ(CKTTime(&word, 1500).GetMS(), 500u);
    CKTTime t(true);
    EXPECT_TRUE(t.SetTime(static_cast<const ZHTIME*>(nullptr), 1234));
    EXPECT_EQ(t.GetMS(), 234u);
    // The constructor takes the clock's: of several calls some must differ from the argument.
    int fromClock = 0;
    for (int i = 0; i < 9; ++i, KTSleepMS(2))
        fromClock += CKTTime(static_cast<ZHTIME*>(nullptr), 1234).GetMS() != 234;
    EXPECT_GT(fromClock, 5);
}

TEST(Time, SetTicksKeepsTheHighHalf) {
    CKTTime t = At("20210921T101010.500Z");
    EXPECT_TRUE(t.SetTicks(5));  // 380 * 2^32 + 5 = 1632087572485
    EXPECT_EQ(Text(t), "2021/09/19 21:39:32.485");
}

TEST(Time, ComparesDownToTheLevel) {
    const CKTTime base = At("20210921T101010.500Z");
    const struct {
        const char* iso;
        int firstLevelThatDiffers;
    } kCases[] = {
        {"20200921T101010.500Z", 0}, {"20210821T101010.500Z", 1}, {"20210920T101010.500Z", 2},
        {"20210921T091010.500Z", 3}, {"20210921T100910.500Z", 4}, {"20210921T101009.500Z", 5},
    };
    for (const auto& c : kCases) {
        const CKTTime smaller = At(c.iso);
        for (int level = -1; level <= 8; ++level) {
            const int order = level >= c.firstLevelThatDiffers || c.firstLevelThatDiffers == 0;
            EXPECT_EQ(base.Compare(smaller, level), order) << c.iso << " level " << level;
            EXPECT_EQ(smaller.Compare(base, level), -order) << c.iso << " level " << level;
        }
    }
    const CKTTime later = At("20210921T101010.501Z");
    for (int level : {0, 5, 7})
        EXPECT_EQ(base.Compare(later, level), 0);
    EXPECT_EQ(base.Compare(later, 6), -1);
    EXPECT_TRUE(base == later && base <= later && base >= later && !(base < later));
    EXPECT_TRUE(At("20591231T235959Z") > At("20000101T000000Z"));  // the word as unsigned
}

TEST(Time, ComparesBirthsAsTextsAndReportsNulls) {
    const ZHTIME word = 1;
    const tag_BIRTHTIME may = {1980, 5, 3}, june = {1980, 6, 1}, far = {10000, 1, 1};
    EXPECT_EQ(CKTTime::CompareBirth(&june, &may), 1);
    EXPECT_EQ(CKTTime::CompareBirth(&may, &may), 0);
    EXPECT_EQ(CKTTime::CompareBirth(&far, &may), -1);  // as texts: "100000101" and "19800503"
    testing::internal::CaptureStdout();
    EXPECT_EQ(CKTTime::Compare(&word, nullptr, 5), 1);
    EXPECT_EQ(CKTTime::Compare(nullptr, nullptr, 5), 0);
    EXPECT_EQ(CKTTime::CompareBirth(nullptr, &may), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    const char* kWord = "src/core/KTBase/KTTime====>(Func = CKTTime::Compare, line = 806)\n";
    const char* kBirth = "src/core/KTBase/KTTime====>(Func = CKTTime::CompareBirth, line = 895)\n";
    EXPECT_NE(out.find(kWord), out.rfind(kWord));
    EXPECT_NE(out.find(kBirth), std::string::npos);
}

TEST_P(ZoneTime, ShiftsWithinTheDayAndAcrossIt) {
    const struct {
        const char* from;
        long long ms;
        const char* utc;
        const char* japan;  // a day crossed comes back as local time, nine hours on
    } kCases[] = {
        {"20210921T100000.500Z", 1000, "2021/09/21 10:00:01.500", "2021/09/21 10:00:01.500"},
        {"20210921T100000.500Z", -501, "2021/09/21 09:59:59.999", "2021/09/21 09:59:59.999"},
        {"20210921T000001.500Z", -1500, "2021/09/21 00:00:00.000", "2021/09/21 00:00:00.000"},
        {"20210921T235959.499Z", 500, "2021/09/21 23:59:59.999", "2021/09/21 23:59:59.999"},
        {"20210921T235959.500Z", 1700, "2021/09/22 00:00:01.000", "2021/09/22 09:00:01.000"},
        {"20210301T000000.200Z", -201, "2021/02/28 23:59:59.000", "2021/03/01 08:59:59.000"},
        {"20210101T000000Z", 4294967295, "2021/02/19 17:02:47.000", "2021/02/20 02:02:47.000"},
        {"20210101T000000Z", -4294967295, "2020/11/12 06:57:12.000", "2020/11/12 15:57:12.000"},
    };
    for (const auto& c : kCases) {
        CKTTime t = At(c.from);
        c.ms < 0 ? t.Sub(static_cast<unsigned int>(-c.ms)) : t.Add(static_cast<unsigned int>(c.ms));
        EXPECT_EQ(Text(t), InJapan() ? c.japan : c.utc) << c.from << " by " << c.ms;
    }
}

TEST_P(ZoneTime, ShowsUtcFieldsAsLocalTime) {
    CKTString out;
    EXPECT_EQ(At("20210921T200000.007Z").ToString(&out, true), 19);
    EXPECT_STREQ(out.GetBuffer(), "2021/09/21 20:00:00");
    out.Empty(false);
    EXPECT_EQ(At("20210921T200000.007Z").ToString(&out, false), 19);
    EXPECT_STREQ(out.GetBuffer(), InJapan() ? "2021/09/22 05:00:00" : "2021/09/21 20:00:00");
}

TEST_P(ZoneTime, FillsNowInUtcOrLocalTime) {
    const long long offset = InJapan() ? 9 * 3600 : 0;
    CKTTime utc(true), local(true);
    utc.FillCurrentTime(true);
    local.FillCurrentTime(false);
    EXPECT_NEAR(static_cast<double>(local - utc - offset), 0.5, 0.5);
    tm broken;
    CKTTime::GetDateTime(broken, false);
    EXPECT_NEAR(static_cast<double>(CKTTime(&broken) - local), 0.5, 0.5);
    CKTTime::GetDateTime(broken, true);
    EXPECT_NEAR(static_cast<double>(CKTTime(&broken) - utc), 0.5, 0.5);
    EXPECT_EQ(CKTTime(&broken).GetWeekDay(), broken.tm_wday);
}

INSTANTIATE_TEST_SUITE_P(Zones, ZoneTime, testing::Values("UTC0", "JST-9"));

TEST(Time, TurnsLocalTimeIntoSecondsWithoutDaylightSaving) {
    SetZone("JST-9");
    EXPECT_EQ(KTOsLocalToEpoch(2021, 9, 21, 12, 0, 0), 1632193200);  // 03:00 UTC
    SetZone("CET-1CEST");
    EXPECT_EQ(KTOsLocalToEpoch(2021, 7, 1, 12, 0, 0), 1625137200);  // 11:00 UTC
    SetZone("UTC0");
}

TEST(Time, ShiftsBySecondsInThirtyTwoBitsAndTellsTheDifference) {
    CKTTime t = At("20210921T100000Z");
    t += 4294968;  // times 1000 is 2^32 + 704
    EXPECT_EQ(Text(t), "2021/09/21 10:00:00.704");
    t += INT_MIN;  // times 1000 is a multiple of 2^32
    t -= 4294968u;
    t -= -2;
    t += -5;
    EXPECT_EQ(Text(t), "2021/09/21 09:59:57.000");
    CKTTime earlier = At("20210920T235959.900Z");
    EXPECT_EQ(t - earlier, 35998);
    EXPECT_EQ(CKTTime::GetTimeSpan(&earlier, &t), -35997100);
}

TEST(Time, CutsItsTextWithinTheBuffer) {
    const CKTTime t = At("20210921T101112.005Z");
    char text[32];
    std::memset(text, '#', sizeof(text));
    EXPECT_EQ(t.ToString(text, 8), 0);
    EXPECT_STREQ(text, "2021/09");
    EXPECT_EQ(text[8], '#');
}

TEST(Time, ReadsAndWritesIso8601) {
    // What sscanf makes of widths, blanks and signs is part of the format.
    const struct {
        const char* text;
        int result;
        const char* back;
    } kCases[] = {
        {"20210921T101000Z", 0, "20210921T101000Z"},
        {"20210921T101000.5", 0, "20210921T101000.005Z"},
        {"20210921T101000 and more", 0, "20210921T101000Z"},
        {"20210921T101000.xZ", 0, "20210921T101000Z"},
        {" 2021 9 1T 1 2+3", 0, "20210901T010203Z"},
        {"21991332T256199Z", 0, "20071300T256135Z"},  // masked: 199, 13, 32, 25, 61, 99
        {"20210921T101000.-1Z", 0, "20210921T101000.-01Z"},
        {"20210921 101000Z", -4, nullptr},
        {"2021-09-21T10:10:00Z", -4, nullptr},
        {nullptr, -4, nullptr},
    };
    for (const auto& c : kCases) {
        CKTTime t = At("20300102T030405.678Z");
        CKTString out("t=");
        EXPECT_EQ(t.ParseISO8601(c.text), c.result) << c.text;
        EXPECT_EQ(t.BuildISO8601(&out), 0);
        EXPECT_EQ(out.GetBuffer(), std::string("t=") + (c.back ? c.back : "20300102T030405.678Z"));
    }
    CKTString tooSmall(static_cast<unsigned short>(8));
    EXPECT_EQ(At("20210921T101000Z").BuildISO8601(&tooSmall), -1);
}

TEST(Time, KnowsDaysOfYearAndWeek) {
    const struct {
        unsigned int year, month, day;
        int yearDay, weekDay;  // weekdays as GNU date prints them
    } kCases[] = {
        {2000, 3, 1, 60, 3},    {2024, 3, 1, 61, 5},   {2023, 3, 1, 60, 3},  {2100, 12, 31, 365, 5},
        {2024, 12, 31, 366, 2}, {2024, 1, 1, 1, 1},    {2024, 2, 29, 60, 4}, {2021, 9, 19, 262, 0},
        {2021, 9, 18, 261, 6},  {2023, 13, 1, -1, -1}, {2023, 0, 1, -1, -1}, {2023, 1, 0, -1, -1},
        {2023, 1, 32, -1, -1},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(CKTTime::GetYearDay(c.year, c.month, c.day), c.yearDay) << c.year << c.month;
        EXPECT_EQ(CKTTime::GetWeekDay(c.year, c.month, c.day), c.weekDay) << c.year << c.month;
    }
}

TEST(Timeout, FiresOncePerPeriodWhenUpdated) {
    CKTTimeout timeout(100);
    timeout.Update(1000);
    EXPECT_FALSE(timeout.Check(1099, true));
    EXPECT_TRUE(timeout.Check(1150, false));
    EXPECT_TRUE(timeout.Check(1150, true));
    EXPECT_FALSE(timeout.Check(1150, true));
    EXPECT_TRUE(timeout.Check(0, true));  // the clock is past 1350 ms by far
    EXPECT_FALSE(timeout.Check(0, true));
    timeout.Setup(0);
    EXPECT_FALSE(timeout.Check(~0ull, true));
}

TEST(Clock, SleepsTheFullTimeInEveryThread) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            const auto outer = std::chrono::steady_clock::now();
            const unsigned long long from = CKTTime::GetTimeUS();
            EXPECT_EQ(KTSleepMS(30), -2);
            const unsigned long long slept = CKTTime::GetTimeUS() - from;
            const std::chrono::duration<double, std::micro> passed =
                std::chrono::steady_clock::now() - outer;
            EXPECT_GE(slept, 29000u);
            EXPECT_LE(static_cast<double>(slept), passed.count() + 1);
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Clock, TellsTheWallClockOfTheSystem) {
    timeval tv = {};
    const long long before = std::time(nullptr);
    EXPECT_EQ(KTGetTimeOfDay(&tv, nullptr), 0);
    EXPECT_NEAR(static_cast<double>(tv.tv_sec - before), 0.5, 0.5);
    EXPECT_EQ(KTGetTimeOfDay(nullptr, nullptr), -1);
}

}  // namespace
