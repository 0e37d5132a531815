// Calendar time, the packed date-time word, the monotonic clock and time-outs.
#ifndef KTBASE_KTTIME_H
#define KTBASE_KTTIME_H

#include "KTBase/KTDefs.h"
#include "KTBase/KTObject.h"

struct timeval;
struct tm;
class CKTString;

/// Packed date and time. From the least significant bit: second 6 bits, minute 6, hour 5, day 5,
/// month 4, year minus 2000 6. So unsigned comparison orders words in time. 0 is the null time.
typedef unsigned int ZHTIME;

/// Date of birth.
struct tag_BIRTHTIME {
    unsigned short year;
    unsigned char month;  // 1-12
    unsigned char day;    // 1-31
};

/// Calendar time of 2000 to 2063: a ZHTIME word and milliseconds. Carries no time zone: whether the
/// fields are UTC or local is the affair of whoever fills them. A plain value without a lock.
/// Fields are masked to their bits when packed; a date that does not exist is not refused.
class KTBASE_API CKTTime : public CKTObject {
public:
    CKTTime();                      // now, UTC
    explicit CKTTime(bool bEmpty);  // true: the null time; false: now, UTC
    /// The word, and ms modulo 1000. With t null now in UTC, with the clock's milliseconds: ms is
    /// then not used, unlike in SetTime.
    CKTTime(ZHTIME* t, unsigned int ms);
    CKTTime(tm* t);        // as SetTime(tm*); the null time when t is null
    CKTTime(timeval* tv);  // as SetTime(timeval*)
    /// Any other pointer would silently become a bool.
    CKTTime(const void*) = delete;
    CKTTime(const CKTTime& other) = default;
    CKTTime& operator=(const CKTTime& other) = default;
    ~CKTTime() override;
    /// Prints date, time and milliseconds with KTPrintf.
    virtual void Dump();

    /// Copies other into this object; null changes nothing.
    void clone(CKTTime* other);

    bool SetTime();  ///< Now, UTC. Returns true.
    /// Now: UTC fields, or local ones when bUTC is false.
    void FillCurrentTime(bool bUTC);
    /// UTC fields and milliseconds of tv, of now when tv is null. Returns true.
    bool SetTime(timeval* tv);
    /// UTC fields of t seconds since 1970; leaves the milliseconds. Returns true.
    bool SetTime(long long t);
    /// The word, of now in UTC when t is null; in both cases with ms modulo 1000. Returns true.
    bool SetTime(const ZHTIME* t, unsigned int ms);
    /// t's fields as they stand, without conversion of zone; milliseconds 0. False when t is null.
    bool SetTime(tm* t);
    bool SetYear(unsigned int year);      ///< False, and no change, unless 2000-2063.
    bool SetMonth(unsigned int month);    ///< False, and no change, unless 1-12.
    bool SetDay(unsigned int day);        ///< False, and no change, unless 1-31.
    bool SetHour(unsigned int hour);      ///< More than 23 counts as 23. Returns true.
    bool SetMinute(unsigned int minute);  ///< More than 59 counts as 59. Returns true.
    bool SetSecond(unsigned int second);  ///< More than 59 counts as 59. Returns true.
    bool SetMS(unsigned short ms);        ///< Modulo 1000. Returns true.
    /// Replaces the low 32 bits of GetTicks; the high ones stay those of the time held. True.
    bool SetTicks(unsigned int ticks);
    void Empty();          ///< Becomes the null time, milliseconds 0.
    bool IsEmpty() const;  ///< The word is 0.

    unsigned int GetYear() const;  ///< 2000-2063
    unsigned int GetMonth() const;
    unsigned int GetDay() const;
    unsigned int GetHour() const;
    unsigned int GetMinute() const;
    unsigned int GetSecond() const;
    unsigned int GetMS() const;
    bool GetTime(ZHTIME* t) const;  ///< False when t is null.
    /// Clears t, then fills year, month, day, hour, minute and second. False when t is null.
    bool GetTime(tm* t) const;
    /// Seconds since 1970, the fields taken as UTC. Fields out of range carry over, so the null
    /// time counts as 1999-11-30.
    long long GetTime() const;
    unsigned long long GetTicks() const;  ///< GetTime in milliseconds, with those of this time.
    int GetWeekDay() const;               ///< 0 is Sunday.

    /// Words only: the milliseconds do not count.
    bool operator==(const CKTTime& other) const;
    bool operator==(ZHTIME t) const;
    bool operator<(const CKTTime& other) const;
    bool operator<(ZHTIME t) const;
    bool operator<=(const CKTTime& other) const;
    bool operator<=(ZHTIME t) const;
    bool operator>(const CKTTime& other) const;
    bool operator>(ZHTIME t) const;
    bool operator>=(const CKTTime& other) const;
    bool operator>=(ZHTIME t) const;

    /// As the static Compare; level 6 compares the milliseconds of equal words too.
    int Compare(const CKTTime& other, int level) const;
    int Compare(const ZHTIME* t, int level) const;
    /// Returns -1, 0 or 1: a against b. level: 0 or less compares the year only, 1 down to the
    /// month, 2 the day, 3 the hour, 4 the minute, 5 and more everything.
    /// A null argument is reported as a fault and counts as the null time.
    static int Compare(const ZHTIME* a, const ZHTIME* b, int level);
    /// Returns -1, 0 or 1: a against b, compared as texts "%04d%02d%02d".
    /// A null argument is reported as a fault and counts as all zero.
    static int CompareBirth(const tag_BIRTHTIME* a, const tag_BIRTHTIME* b);

    /// Difference in seconds; the milliseconds do not count.
    long long operator-(const CKTTime& other) const;
    /// a minus b in milliseconds; 0 when one is null.
    static long long GetTimeSpan(CKTTime* a, CKTTime* b);
    /// Within the day the date stays untouched. Across midnight the milliseconds become 0, and the
    /// fields, taken as UTC, come back as local time: shifted by the zone's offset.
    void Add(unsigned int ms);
    void Sub(unsigned int ms);  ///< As Add, the other way.
    /// Add or Sub of seconds. Keep below 4,294,968: the milliseconds are counted in 32 bits.
    CKTTime& operator+=(int seconds);
    CKTTime& operator+=(unsigned int seconds);
    CKTTime& operator-=(int seconds);
    CKTTime& operator-=(unsigned int seconds);

    /// Writes "%04d/%02d/%02d %02d:%02d:%02d.%03d", cut to size bytes with its terminator.
    /// Returns 0, or -1 when buf is null or size below 1.
    int ToString(char* buf, int size) const;
    /// Appends "%04d/%02d/%02d %02d:%02d:%02d": the fields as they stand, or when bRaw is false
    /// taken as UTC and shown as local time. Returns what CKTString::Append returns, 0 when out is
    /// null, -1 when the system knows no local time for the fields.
    int ToString(CKTString* out, bool bRaw) const;
    /// Reads "20210921T101000.005Z" or "20210921T101000Z" as it stands, without conversion of zone.
    /// What follows the last number is not looked at. Returns 0, or -4 and no change.
    int ParseISO8601(const char* text);
    /// Appends that form, with milliseconds unless they are 0. Returns 0, -4 when out is null, -1 when
    /// out cannot grow.
    int BuildISO8601(CKTString* out) const;

    static bool IsNull(ZHTIME* t);   ///< True for a null pointer too.
    static void SetNull(ZHTIME* t);  ///< Null pointers are ignored.

    /// The monotonic clock, from an arbitrary start. Any thread.
    static unsigned long long GetTimeUS();
    static unsigned long long GetTimeMS();
    static unsigned long long GetClockTimeMS();  ///< Same as GetTimeMS.
    static unsigned long long GetClockTimeUS();  ///< Same as GetTimeUS.
    /// Now, in UTC or local time.
    static void GetDateTime(ZHTIME& out, bool bUTC);
    static void GetDateTime(tm& out, bool bUTC);
    /// Day of the year from 1, or -1 unless month is 1-12 and day 1-31.
    /// Every year divisible by 100, 2000 included, counts 28 days in February.
    static int GetYearDay(unsigned int year, unsigned int month, unsigned int day);
    /// 0 is Sunday; -1 unless month is 1-12 and day 1-31.
    static int GetWeekDay(unsigned int year, unsigned int month, unsigned int day);

private:
    unsigned long long MsOfDay() const;
    void SetMsOfDay(unsigned long long ofDay);
    void CrossMidnight(long long totalMs);

    ZHTIME m_time = 0;
    unsigned int m_ms = 0;

    static unsigned long long s_freq;  // of the performance counter; 0 until first asked for
};

/// Time-out on the millisecond clock. A plain value without a lock.
class KTBASE_API CKTTimeout : public CKTObject {
public:
    CKTTimeout();                          // disarmed
    explicit CKTTimeout(unsigned int ms);  // as Setup
    CKTTimeout(const CKTTimeout& other) = default;
    CKTTimeout& operator=(const CKTTimeout& other) = default;
    ~CKTTimeout() override;

    /// Starts a time-out of ms now; 0 disarms.
    void Setup(unsigned int ms);
    void Clear();  ///< Disarms.
    /// True when the time is up; with bUpdate it then starts anew from now, so a poller gets true
    /// once per period. now: a reading of GetTimeMS, 0 to read it here. False when disarmed.
    bool Check(unsigned long long now, bool bUpdate);
    /// Starts anew from now (0: read the clock). Nothing when disarmed.
    void Update(unsigned long long now);

private:
    unsigned long long m_start = 0;  // milliseconds
    unsigned int m_timeout = 0;      // milliseconds, 0 when disarmed
};

/// Wall-clock time since 1970 to the millisecond. tz is not used.
/// Returns 0, or -1 when tv is null. Any thread.
KTBASE_API int KTGetTimeOfDay(timeval* tv, void* tz);

#if defined(KTBASE_HAS_GETTIMEOFDAY)
/// The same, exported where the C library has no such call of its own; elsewhere the name would
/// replace the C library's for the whole process. Not marked as imported: the compiler's own
/// <sys/time.h> declares the name too, and the two must agree.
extern "C" int gettimeofday(timeval* tv, void* tz);
#endif

/// Sleeps ms milliseconds, without end for KT_INFINITE. Returns -2, for the time has run out;
/// -1 when the wait fails; 0 would say that the event slept on was set, which nobody does.
/// Any thread.
KTBASE_API int KTSleepMS(unsigned int ms);

#endif
