#include "KTBase/KTTime.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "KTBase/KTDebug.h"
#include "KTBase/KTString.h"
#include "KTBase/KTSysTypes.h"
#include "KTLibrary.h"
#include "os/KTOsClock.h"

namespace {

constexpr char kSource[] = "src/core/KTBase/KTTime";
constexpr long long kDaySeconds = 86400;
constexpr unsigned long long kDayMs = 86400000;

// Fields of the word: the lowest bit and the mask of each.
constexpr unsigned int kMinuteShift = 6, kHourShift = 12, kDayShift = 17, kMonthShift = 22,
                       kYearShift = 26;
constexpr unsigned int kSecondMask = 0x3F, kMinuteMask = 0x3F, kHourMask = 0x1F, kDayMask = 0x1F,
                       kMonthMask = 0xF, kYearMask = 0x3F;

// year counts from 2000.
ZHTIME Pack(unsigned int year, unsigned int month, unsigned int day, unsigned int hour,
            unsigned int minute, unsigned int second) {
    return (year & kYearMask) << kYearShift | (month & kMonthMask) << kMonthShift |
           (day & kDayMask) << kDayShift | (hour & kHourMask) << kHourShift |
           (minute & kMinuteMask) << kMinuteShift | (second & kSecondMask);
}

unsigned int Field(ZHTIME word, unsigned int shift, unsigned int mask) {
    return word >> shift & mask;
}

void Replace(ZHTIME& word, unsigned int shift, unsigned int mask, unsigned int value) {
    word = (word & ~(mask << shift)) | (value & mask) << shift;
}

// Division that rounds down, for b above 0.
long long FloorDiv(long long a, long long b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

long long FloorMod(long long a, long long b) {
    return a % b + (a % b < 0 ? b : 0);
}

// ---- civil calendar: by our own sums, for the C runtimes refuse negative and far times ----

// Days are counted here in years that begin on March 1, so that a leap day comes last: a cycle of
// 400 such years has 146097 days, and 1970-01-01 is day 719468 after 0000-03-01.
constexpr long long kCycleDays = 146097;
constexpr long long kEpochDay = 719468;

// Month and day out of range carry over.
long long DayOfDate(long long year, long long month, long long day) {
    const long long months = year * 12 + month - 3;  // from March of year 0
    const long long marchYear = FloorDiv(months, 12);
    const long long cycle = FloorDiv(marchYear, 400);
    const long long yearOfCycle = marchYear - cycle * 400;
    const long long dayOfYear = (153 * (months - marchYear * 12) + 2) / 5 + day - 1;
    return cycle * kCycleDays + yearOfCycle * 365 + yearOfCycle / 4 - yearOfCycle / 100 +
           dayOfYear - kEpochDay;
}

// 0 is Sunday. 1970-01-01 was a Thursday.
int WeekdayOfDay(long long day) {
    return static_cast<int>(FloorMod(day + 4, 7));
}

struct Civil {
    long long year;
    unsigned int month, day, hour, minute, second;
};

Civil BreakDownUtc(long long seconds) {
    const long long epochDay = FloorDiv(seconds, kDaySeconds);
    const unsigned int rest = static_cast<unsigned int>(FloorMod(seconds, kDaySeconds));
    const long long cycle = FloorDiv(epochDay + kEpochDay, kCycleDays);
    const long long dayOfCycle = FloorMod(epochDay + kEpochDay, kCycleDays);
    // Takes out the leap days before the division: one in 1461, all but one in 36524.
    const long long yearOfCycle =
        (dayOfCycle - dayOfCycle / 1460 + dayOfCycle / 36524 - dayOfCycle / 146096) / 365;
    const long long dayOfYear =
        dayOfCycle - (yearOfCycle * 365 + yearOfCycle / 4 - yearOfCycle / 100);
    const long long march = (5 * dayOfYear + 2) / 153;  // months since March
    Civil out;
    out.year = cycle * 400 + yearOfCycle + (march >= 10 ? 1 : 0);
    out.month = static_cast<unsigned int>(march < 10 ? march + 3 : march - 9);
    out.day = static_cast<unsigned int>(dayOfYear - (153 * march + 2) / 5 + 1);
    out.hour = rest / 3600;
    out.minute = rest / 60 % 60;
    out.second = rest % 60;
    return out;
}

ZHTIME PackUtc(long long seconds) {
    const Civil at = BreakDownUtc(seconds);
    return Pack(static_cast<unsigned int>(at.year - 2000), at.month, at.day, at.hour, at.minute,
                at.second);
}

void FillUtc(long long seconds, tm& out) {
    const Civil at = BreakDownUtc(seconds);
    const long long epochDay = FloorDiv(seconds, kDaySeconds);
    std::memset(&out, 0, sizeof(out));
    out.tm_year = static_cast<int>(at.year - 1900);
    out.tm_mon = static_cast<int>(at.month) - 1;
    out.tm_mday = static_cast<int>(at.day);
    out.tm_hour = static_cast<int>(at.hour);
    out.tm_min = static_cast<int>(at.minute);
    out.tm_sec = static_cast<int>(at.second);
    out.tm_wday = WeekdayOfDay(epochDay);
    out.tm_yday = static_cast<int>(epochDay - DayOfDate(at.year, 1, 1));
}

int Order(unsigned int a, unsigned int b) {
    return a < b ? -1 : a > b ? 1 : 0;
}

}  // namespace

unsigned long long CKTTime::s_freq = 0;

CKTTime::CKTTime() {
    SetTime();
}

CKTTime::CKTTime(bool bEmpty) {
    if (!bEmpty)
        SetTime();
}

CKTTime::CKTTime(ZHTIME* t, unsigned int ms) {
    if (t != nullptr)
        SetTime(t, ms);
    else
        SetTime();
}

CKTTime::CKTTime(tm* t) {
    SetTime(t);
}

CKTTime::CKTTime(timeval* tv) {
    SetTime(tv);
}

CKTTime::~CKTTime() = default;

void CKTTime::Dump() {
    // The class name stands in the line twice: searches of field logs rely on it.
    char text[64];
    ToString(text, sizeof(text));
    KTPrintf("CKTTime::%s--->%s\n", "CKTTime::Dump", text);
}

void CKTTime::clone(CKTTime* other) {
    if (other != nullptr)
        *this = *other;
}

bool CKTTime::SetTime() {
    FillCurrentTime(true);
    return true;
}

void CKTTime::FillCurrentTime(bool bUTC) {
    const KTOsInstant now = KTOsWallClock();
    tm local;
    if (bUTC)
        m_time = PackUtc(now.seconds);
    else if (KTOsEpochToLocal(now.seconds, local))
        SetTime(&local);
    m_ms = now.ms;
}

bool CKTTime::SetTime(timeval* tv) {
    if (tv == nullptr)
        return SetTime();
    m_time = PackUtc(tv->tv_sec);
    m_ms = static_cast<unsigned int>(tv->tv_usec / 1000) % 1000;
    return true;
}

bool CKTTime::SetTime(long long t) {
    m_time = PackUtc(t);
    return true;
}

bool CKTTime::SetTime(const ZHTIME* t, unsigned int ms) {
    if (t != nullptr)
        m_time = *t;
    else
        SetTime();
    m_ms = ms % 1000;
    return true;
}

bool CKTTime::SetTime(tm* t) {
    if (t == nullptr)
        return false;
    // tm counts years from 1900, the word from 2000 modulo 64: 28 is -100 modulo 64.
    m_time =
        Pack(static_cast<unsigned int>(t->tm_year) + 28, static_cast<unsigned int>(t->tm_mon) + 1,
             static_cast<unsigned int>(t->tm_mday), static_cast<unsigned int>(t->tm_hour),
             static_cast<unsigned int>(t->tm_min), static_cast<unsigned int>(t->tm_sec));
    m_ms = 0;
    return true;
}

bool CKTTime::SetYear(unsigned int year) {
    if (year < 2000 || year > 2063)
        return false;
    Replace(m_time, kYearShift, kYearMask, year - 2000);
    return true;
}

bool CKTTime::SetMonth(unsigned int month) {
    if (month < 1 || month > 12)
        return false;
    Replace(m_time, kMonthShift, kMonthMask, month);
    return true;
}

bool CKTTime::SetDay(unsigned int day) {
    if (day < 1 || day > 31)
        return false;
    Replace(m_time, kDayShift, kDayMask, day);
    return true;
}

bool CKTTime::SetHour(unsigned int hour) {
    Replace(m_time, kHourShift, kHourMask, hour > 23 ? 23 : hour);
    return true;
}

bool CKTTime::SetMinute(unsigned int minute) {
    Replace(m_time, kMinuteShift, kMinuteMask, minute > 59 ? 59 : minute);
    return true;
}

bool CKTTime::SetSecond(unsigned int second) {
    Replace(m_time, 0, kSecondMask, second > 59 ? 59 : second);
    return true;
}

bool CKTTime::SetMS(unsigned short ms) {
    m_ms = ms % 1000u;
    return true;
}

bool CKTTime::SetTicks(unsigned int ticks) {
    const unsigned long long count = (GetTicks() & 0xFFFFFFFF00000000ull) | ticks;
    m_time = PackUtc(static_cast<long long>(count / 1000));
    m_ms = static_cast<unsigned int>(count % 1000);
    return true;
}

void CKTTime::Empty() {
    m_time = 0;
    m_ms = 0;
}

bool CKTTime::IsEmpty() const {
    return m_time == 0;
}

unsigned int CKTTime::GetYear() const {
    return Field(m_time, kYearShift, kYearMask) + 2000;
}

unsigned int CKTTime::GetMonth() const {
    return Field(m_time, kMonthShift, kMonthMask);
}

unsigned int CKTTime::GetDay() const {
    return Field(m_time, kDayShift, kDayMask);
}

unsigned int CKTTime::GetHour() const {
    return Field(m_time, kHourShift, kHourMask);
}

unsigned int CKTTime::GetMinute() const {
    return Field(m_time, kMinuteShift, kMinuteMask);
}

unsigned int CKTTime::GetSecond() const {
    return Field(m_time, 0, kSecondMask);
}

unsigned int CKTTime::GetMS() const {
    return m_ms;
}

bool CKTTime::GetTime(ZHTIME* t) const {
    if (t == nullptr)
        return false;
    *t = m_time;
    return true;
}

bool CKTTime::GetTime(tm* t) const {
    if (t == nullptr)
        return false;
    std::memset(t, 0, sizeof(*t));
    t->tm_year = static_cast<int>(GetYear()) - 1900;
    t->tm_mon = static_cast<int>(GetMonth()) - 1;
    t->tm_mday = static_cast<int>(GetDay());
    t->tm_hour = static_cast<int>(GetHour());
    t->tm_min = static_cast<int>(GetMinute());
    t->tm_sec = static_cast<int>(GetSecond());
    return true;
}

long long CKTTime::GetTime() const {
    return DayOfDate(GetYear(), GetMonth(), GetDay()) * kDaySeconds + GetHour() * 3600 +
           GetMinute() * 60 + GetSecond();
}

unsigned long long CKTTime::GetTicks() const {
    return static_cast<unsigned long long>(GetTime()) * 1000 + m_ms;
}

int CKTTime::GetWeekDay() const {
    return WeekdayOfDay(FloorDiv(GetTime(), kDaySeconds));
}

bool CKTTime::operator==(const CKTTime& other) const {
    return m_time == other.m_time;
}

bool CKTTime::operator==(ZHTIME t) const {
    return m_time == t;
}

bool CKTTime::operator<(const CKTTime& other) const {
    return m_time < other.m_time;
}

bool CKTTime::operator<(ZHTIME t) const {
    return m_time < t;
}

bool CKTTime::operator<=(const CKTTime& other) const {
    return m_time <= other.m_time;
}

bool CKTTime::operator<=(ZHTIME t) const {
    return m_time <= t;
}

bool CKTTime::operator>(const CKTTime& other) const {
    return m_time > other.m_time;
}

bool CKTTime::operator>(ZHTIME t) const {
    return m_time > t;
}

bool CKTTime::operator>=(const CKTTime& other) const {
    return m_time >= other.m_time;
}

bool CKTTime::operator>=(ZHTIME t) const {
    return m_time >= t;
}

int CKTTime::Compare(const CKTTime& other, int level) const {
    const int order = Compare(&m_time, &other.m_time, level);
    return order == 0 && level == 6 ? Order(m_ms, other.m_ms) : order;
}

int CKTTime::Compare(const ZHTIME* t, int level) const {
    return Compare(&m_time, t, level);
}

int CKTTime::Compare(const ZHTIME* a, const ZHTIME* b, int level) {
    if (a == nullptr || b == nullptr)
        KTFault(kSource, "CKTTime::Compare", 806);
    // Coarser fields lie above finer ones: dropping the low bits compares down to the level.
    constexpr unsigned int kShifts[] = {kYearShift, kMonthShift, kDayShift, kHourShift,
                                        kMinuteShift};
    const unsigned int shift = level < 0 ? kYearShift : level < 5 ? kShifts[level] : 0;
    return Order((a != nullptr ? *a : 0) >> shift, (b != nullptr ? *b : 0) >> shift);
}

int CKTTime::CompareBirth(const tag_BIRTHTIME* a, const tag_BIRTHTIME* b) {
    if (a == nullptr || b == nullptr)
        KTFault(kSource, "CKTTime::CompareBirth", 895);
    const tag_BIRTHTIME none = {};
    const tag_BIRTHTIME& left = a != nullptr ? *a : none;
    const tag_BIRTHTIME& right = b != nullptr ? *b : none;
    // Texts, not numbers: a year of five digits sorts by its first four.
    char leftText[32] = {};
    char rightText[32] = {};
    std::snprintf(leftText, sizeof(leftText), "%04d%02d%02d", left.year, left.month, left.day);
    std::snprintf(rightText, sizeof(rightText), "%04d%02d%02d", right.year, right.month, right.day);
    const int order = std::memcmp(leftText, rightText, sizeof(leftText));
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

long long CKTTime::operator-(const CKTTime& other) const {
    return GetTime() - other.GetTime();
}

long long CKTTime::GetTimeSpan(CKTTime* a, CKTTime* b) {
    if (a == nullptr || b == nullptr)
        return 0;
    return (*a - *b) * 1000 + a->m_ms - b->m_ms;
}

unsigned long long CKTTime::MsOfDay() const {
    return ((GetHour() * 60 + GetMinute()) * 60ull + GetSecond()) * 1000 + m_ms;
}

void CKTTime::SetMsOfDay(unsigned long long ofDay) {
    const unsigned int seconds = static_cast<unsigned int>(ofDay / 1000);
    Replace(m_time, kHourShift, kHourMask, seconds / 3600);
    Replace(m_time, kMinuteShift, kMinuteMask, seconds / 60 % 60);
    Replace(m_time, 0, kSecondMask, seconds % 60);
    m_ms = static_cast<unsigned int>(ofDay % 1000);
}

// Deployed callers rely on both halves of this: the fields come back as local time, and SetTime
// leaves milliseconds 0.
void CKTTime::CrossMidnight(long long totalMs) {
    tm local;
    if (KTOsEpochToLocal(totalMs / 1000, local))
        SetTime(&local);
}

void CKTTime::Add(unsigned int ms) {
    const unsigned long long ofDay = MsOfDay() + ms;
    if (ofDay < kDayMs)
        SetMsOfDay(ofDay);
    else
        CrossMidnight(GetTime() * 1000 + m_ms + ms);
}

void CKTTime::Sub(unsigned int ms) {
    const unsigned long long ofDay = MsOfDay();
    if (ofDay >= ms)
        SetMsOfDay(ofDay - ms);
    else
        CrossMidnight(GetTime() * 1000 + m_ms - ms);
}

// The milliseconds of a shift by seconds are counted in unsigned 32 bits.
CKTTime& CKTTime::operator+=(int seconds) {
    if (seconds < 0)
        Sub((0u - static_cast<unsigned int>(seconds)) * 1000u);
    else if (seconds > 0)
        Add(static_cast<unsigned int>(seconds) * 1000u);
    return *this;
}

CKTTime& CKTTime::operator+=(unsigned int seconds) {
    if (seconds != 0)
        Add(seconds * 1000u);
    return *this;
}

CKTTime& CKTTime::operator-=(int seconds) {
    if (seconds < 0)
        Add((0u - static_cast<unsigned int>(seconds)) * 1000u);
    else if (seconds > 0)
        Sub(static_cast<unsigned int>(seconds) * 1000u);
    return *this;
}

CKTTime& CKTTime::operator-=(unsigned int seconds) {
    if (seconds != 0)
        Sub(seconds * 1000u);
    return *this;
}

int CKTTime::ToString(char* buf, int size) const {
    if (buf == nullptr || size < 1)
        return KT_ERROR;
    std::snprintf(buf, static_cast<std::size_t>(size), "%04d/%02d/%02d %02d:%02d:%02d.%03d",
                  static_cast<int>(GetYear()), static_cast<int>(GetMonth()),
                  static_cast<int>(GetDay()), static_cast<int>(GetHour()),
                  static_cast<int>(GetMinute()), static_cast<int>(GetSecond()),
                  static_cast<int>(m_ms));
    return KT_OK;
}

int CKTTime::ToString(CKTString* out, bool bRaw) const {
    if (out == nullptr)
        return 0;
    CKTTime shown(*this);
    if (!bRaw) {
        tm local;
        if (!KTOsEpochToLocal(GetTime(), local))
            return KT_ERROR;
        shown.SetTime(&local);
    }
    return out->Append("%04u/%02u/%02u %02u:%02u:%02u", shown.GetYear(), shown.GetMonth(),
                       shown.GetDay(), shown.GetHour(), shown.GetMinute(), shown.GetSecond());
}

int CKTTime::ParseISO8601(const char* text) {
    if (text == nullptr)
        return KT_ARGUMENT;
    int year, month, day, hour, minute, second, ms;
    if (std::sscanf(text, "%04d%02d%02dT%02d%02d%02d.%03dZ", &year, &month, &day, &hour, &minute,
                    &second, &ms) != 7) {
        if (std::sscanf(text, "%04d%02d%02dT%02d%02d%02dZ", &year, &month, &day, &hour, &minute,
                        &second) != 6)
            return KT_ARGUMENT;
        ms = 0;
    }
    m_time = Pack(static_cast<unsigned int>(year) - 2000, static_cast<unsigned int>(month),
                  static_cast<unsigned int>(day), static_cast<unsigned int>(hour),
                  static_cast<unsigned int>(minute), static_cast<unsigned int>(second));
    m_ms = static_cast<unsigned int>(ms);
    return KT_OK;
}

int CKTTime::BuildISO8601(CKTString* out) const {
    if (out == nullptr)
        return KT_ARGUMENT;
    char ms[16] = "";
    if (m_ms != 0)
        std::snprintf(ms, sizeof(ms), ".%03d", static_cast<int>(m_ms));
    const int appended = out->Append("%04u%02u%02uT%02u%02u%02u%sZ", GetYear(), GetMonth(),
                                     GetDay(), GetHour(), GetMinute(), GetSecond(), ms);
    return appended < 0 ? KT_ERROR : KT_OK;
}

bool CKTTime::IsNull(ZHTIME* t) {
    return t == nullptr || *t == 0;
}

void CKTTime::SetNull(ZHTIME* t) {
    if (t != nullptr)
        *t = 0;
}

unsigned long long CKTTime::GetTimeUS() {
    // First callers may meet here: each of them writes the same value.
    unsigned long long frequency = __atomic_load_n(&s_freq, __ATOMIC_RELAXED);
    if (frequency == 0) {
        frequency = KTOsCounterFrequency();
        __atomic_store_n(&s_freq, frequency, __ATOMIC_RELAXED);
    }
    return static_cast<unsigned long long>(static_cast<double>(KTOsCounter()) * 1000000.0 /
                                           static_cast<double>(frequency));
}

unsigned long long CKTTime::GetTimeMS() {
    return GetTimeUS() / 1000;
}

unsigned long long CKTTime::GetClockTimeMS() {
    return GetTimeMS();
}

unsigned long long CKTTime::GetClockTimeUS() {
    return GetTimeUS();
}

void CKTTime::GetDateTime(ZHTIME& out, bool bUTC) {
    CKTTime now(true);
    now.FillCurrentTime(bUTC);
    out = now.m_time;
}

void CKTTime::GetDateTime(tm& out, bool bUTC) {
    const long long now = KTOsWallClock().seconds;
    if (bUTC || !KTOsEpochToLocal(now, out))
        FillUtc(now, out);
}

int CKTTime::GetYearDay(unsigned int year, unsigned int month, unsigned int day) {
    if (month < 1 || month > 12 || day < 1 || day > 31)
        return -1;
    constexpr int kDaysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    // No leap day in a year divisible by 400 either: stored day numbers count this way.
    const bool leapDay = month > 2 && year % 4 == 0 && year % 100 != 0;
    return kDaysBefore[month - 1] + static_cast<int>(day) + (leapDay ? 1 : 0);
}

int CKTTime::GetWeekDay(unsigned int year, unsigned int month, unsigned int day) {
    if (month < 1 || month > 12 || day < 1 || day > 31)
        return -1;
    if (month < 3) {
        month += 12;
        --year;
    }
    const unsigned int fromMonday =
        (day + 2 * month + 3 * (month + 1) / 5 + year + year / 4 - year / 100 + year / 400) % 7;
    return fromMonday == 6 ? 0 : static_cast<int>(fromMonday) + 1;
}

CKTTimeout::CKTTimeout() = default;

CKTTimeout::CKTTimeout(unsigned int ms) {
    Setup(ms);
}

CKTTimeout::~CKTTimeout() = default;

void CKTTimeout::Setup(unsigned int ms) {
    m_timeout = ms;
    if (ms != 0)
        m_start = CKTTime::GetTimeMS();
}

void CKTTimeout::Clear() {
    m_timeout = 0;
}

bool CKTTimeout::Check(unsigned long long now, bool bUpdate) {
    if (m_timeout == 0)
        return false;
    if (now == 0)
        now = CKTTime::GetTimeMS();
    if (m_start + m_timeout > now)
        return false;
    if (bUpdate)
        m_start = now;
    return true;
}

void CKTTimeout::Update(unsigned long long now) {
    if (m_timeout != 0)
        m_start = now != 0 ? now : CKTTime::GetTimeMS();
}

int KTGetTimeOfDay(timeval* tv, void*) {
    if (tv == nullptr)
        return KT_ERROR;
    const KTOsInstant now = KTOsWallClock();
    tv->tv_sec = static_cast<decltype(tv->tv_sec)>(now.seconds);
    tv->tv_usec = static_cast<decltype(tv->tv_usec)>(now.ms) * 1000;
    return KT_OK;
}

#if defined(KTBASE_HAS_GETTIMEOFDAY)
extern "C" KTBASE_API int gettimeofday(timeval* tv, void* tz) {
    return KTGetTimeOfDay(tv, tz);
}
#endif

int KTSleepMS(unsigned int ms) {
    return KTLibraryGet().sleep.Wait(ms);
}
