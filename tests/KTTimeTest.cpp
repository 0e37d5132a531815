#include "KTBase/KTTime.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "KTBase/KTString.h"
#include "KTBase/KTSysTypes.h"
#include "os/KTOsClock.h"

using namespace std::chrono_literals;

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
    const bool m_inJapan = GetParam()[0] == 'J';
};

TEST(Time, BreaksAnySecondDownAsUtcAndCutsItsTextToTheBuffer) {
    // Dates as GNU date prints them; their years come back modulo 64, from 2000 to 2063.
    const struct {
        long long seconds;
        const char* text;
    } kCases[] = {
        {951782400, "2000/02/29 00:00:00.007"},      // 2000-02-29
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
    char text[] = "##########";
    EXPECT_EQ(t.ToString(text, 8), 0);
    EXPECT_EQ(std::string(text, sizeof(text)), std::string("2033/01\0##\0", 11));
    EXPECT_TRUE(t.SetTime(LLONG_MIN) && t.SetTime(LLONG_MAX));  // sums must not overflow
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

TEST(Time, TakesMillisecondsAndLowTicksFromTheArgument) {
    CKTTime t = At("20210921T101010.500Z");
    EXPECT_TRUE(t.SetTicks(5));  // 380 * 2^32 + 5 = 1632087572485
    EXPECT_EQ(Text(t), "2021/09/19 21:39:32.485");
    ZHTIME word = 0x566AA2DE;
    EXPECT_EQ(CKTTime(&word, 1500).GetMS(), 500u);
    EXPECT_TRUE(t.SetTime(static_cast<const ZHTIME*>(nullptr), 1234));
    EXPECT_EQ(t.GetMS(), 234u);
    // The constructor takes the clock's, which cannot be 234 each time.
    const CKTTime first(static_cast<ZHTIME*>(nullptr), 1234);
    KTSleepMS(5);
    EXPECT_NE(CKTTime(static_cast<ZHTIME*>(nullptr), 1234).GetMS(), first.GetMS());
}

TEST(Time, ComparesDownToTheLevel) {
    const CKTTime base = At("20210921T101010.500Z");
    const struct {
        const char* iso;
        int firstLevelThatDiffers;
    } kCases[] = {
        {"20200921T101010.500Z", -1}, {"20210821T101010.500Z", 1}, {"20210920T101010.500Z", 2},
        {"20210921T091010.500Z", 3},  {"20210921T100910.500Z", 4}, {"20210921T101009.500Z", 5},
    };
    for (const auto& c : kCases)
        for (int level = -1; level <= 8; ++level) {
            const int order = level >= c.firstLevelThatDiffers;
            EXPECT_EQ(base.Compare(At(c.iso), level), order) << c.iso << " level " << level;
            EXPECT_EQ(At(c.iso).Compare(base, level), -order) << c.iso << " level " << level;
        }
    const CKTTime later = At("20210921T101010.501Z");
    EXPECT_EQ(base.Compare(later, 5) + base.Compare(later, 7), 0);
    EXPECT_EQ(base.Compare(later, 6), -1);
    EXPECT_TRUE(base == later && base <= later && base >= later && !(base < later));
    EXPECT_TRUE(At("20591231T235959Z") > At("20000101T000000Z"));  // the word as unsigned
}

TEST(Time, ComparesBirthsAsTextsAndReportsNulls) {
    const tag_BIRTHTIME may = {1980, 5, 3}, future = {10000, 1, 1};
    EXPECT_EQ(CKTTime::CompareBirth(&future, &may), -1);  // as texts: "100000101" and "19800503"
    testing::internal::CaptureStdout();
    EXPECT_EQ(CKTTime(true).Compare(static_cast<ZHTIME*>(nullptr), 5), 0);
    EXPECT_EQ(CKTTime::CompareBirth(nullptr, &may), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("/KTTime====>(Func = CKTTime::Compare, line = 806)\n"), out.npos);
    EXPECT_NE(out.find("/KTTime====>(Func = CKTTime::CompareBirth, line = 895)\n"), out.npos);
}

TEST_P(ZoneTime, ShiftsWithinTheDayAndAcrossIt) {
    const struct {
        const char* from;
        long long ms;
        const char* utc;
        const char* japan;  // a day crossed comes back as local time, nine hours on
    } kCases[] = {
        {"20210921T000001.500Z", -1500, "2021/09/21 00:00:00.000", "2021/09/21 00:00:00.000"},
        {"20210921T235959.499Z", 500, "2021/09/21 23:59:59.999", "2021/09/21 23:59:59.999"},
        {"20210921T235959.500Z", 500, "2021/09/22 00:00:00.000", "2021/09/22 09:00:00.000"},
        {"20210301T000000.200Z", -201, "2021/02/28 23:59:59.000", "2021/03/01 08:59:59.000"},
        {"20210101T000000Z", 4294967295, "2021/02/19 17:02:47.000", "2021/02/20 02:02:47.000"},
    };
    for (const auto& c : kCases) {
        CKTTime t = At(c.from);
        c.ms < 0 ? t.Sub(static_cast<unsigned int>(-c.ms)) : t.Add(static_cast<unsigned int>(c.ms));
        EXPECT_EQ(Text(t), m_inJapan ? c.japan : c.utc) << c.from << " by " << c.ms;
    }
}

TEST_P(ZoneTime, ShowsUtcAsLocalTime) {
    CKTString text;
    EXPECT_EQ(At("20210921T200000.007Z").ToString(&text, false), 19);
    EXPECT_EQ(At("20210921T200000.007Z").ToString(&text, true), 19);
    EXPECT_STREQ(text.GetBuffer(), m_inJapan ? "2021/09/22 05:00:002021/09/21 20:00:00"
                                             : "2021/09/21 20:00:002021/09/21 20:00:00");
    tm utc, local;
    CKTTime::GetDateTime(utc, true);
    CKTTime::GetDateTime(local, false);
    EXPECT_NEAR(CKTTime(&local) - CKTTime(&utc), m_inJapan ? 32400 : 0, 1);
    EXPECT_EQ(CKTTime(&utc).GetWeekDay(), utc.tm_wday);
}

INSTANTIATE_TEST_SUITE_P(Zones, ZoneTime, testing::Values("UTC0", "JST-9"));

TEST(Time, TurnsLocalTimeIntoSecondsWithoutDaylightSaving) {
    SetZone("CET-1CEST");
    EXPECT_EQ(KTOsLocalToEpoch(2021, 7, 1, 12, 0, 0), 1625137200);  // 11:00 UTC
}

TEST(Time, ShiftsBySecondsInThirtyTwoBitsAndTellsTheDifference) {
    CKTTime t = At("20210921T100000Z");
    t += 4294968;  // times 1000 is 2^32 + 704
    EXPECT_EQ(Text(t), "2021/09/21 10:00:00.704");
    (t += INT_MIN) -= 4294968u;  // INT_MIN times 1000 is a multiple of 2^32
    (t -= -2) += -5;
    EXPECT_EQ(Text(t), "2021/09/21 09:59:57.000");
    CKTTime earlier = At("20210920T235959.900Z");
    EXPECT_EQ(CKTTime::GetTimeSpan(&earlier, &t), -35997100);
}

TEST(Time, ReadsAndWritesIso8601) {
    // What sscanf makes of widths, blanks and signs is part of the format.
    const struct {
        const char* text;
        const char* back;  // null when refused
    } kCases[] = {
        {"20210921T101000.5", "20210921T101000.005Z"},
        {"20210921T101000.xZ", "20210921T101000Z"},
        {" 2021 9 1T 1 2+3", "20210901T010203Z"},
        {"21991332T256199Z", "20071300T256135Z"},  // masked: 199, 13, 32, 25, 61, 99
        {"20210921T101000.-1Z", "20210921T101000.-01Z"},
        {"20210921 101000Z", nullptr},
        {nullptr, nullptr},
    };
    for (const auto& c : kCases) {
        CKTTime t = At("20300102T030405.678Z");
        CKTString out("t=");
        EXPECT_EQ(t.ParseISO8601(c.text), c.back != nullptr ? 0 : -4) << c.text;
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
    EXPECT_TRUE(timeout.Check(1100, true));
    EXPECT_TRUE(timeout.Check(0, true));  // the clock is past 1250 ms by far
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
            const double slept = static_cast<double>(CKTTime::GetTimeUS() - from);
            const auto passed = std::chrono::steady_clock::now() - outer;
            EXPECT_TRUE(slept >= 29000 && slept <= passed / 1.0us + 1) << slept;
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Clock, TellsTheWallClockOfTheSystem) {
    SetZone("");  // the system's own: Windows tells local time by that, whatever TZ says
    timeval tv = {};
    EXPECT_EQ(KTGetTimeOfDay(&tv, nullptr), 0);
    EXPECT_NEAR(tv.tv_sec - std::time(nullptr), 0, 1);
    EXPECT_EQ(KTGetTimeOfDay(nullptr, nullptr), -1);
#if defined(KTBASE_HAS_GETTIMEOFDAY)
    EXPECT_EQ(gettimeofday(nullptr, nullptr), -1);  // the C library's own would answer 0
#endif
}

}  // namespace
