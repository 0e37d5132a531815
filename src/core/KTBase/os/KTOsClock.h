// Clocks and calendar of the platform. Every call may be made from any thread.
#ifndef KTBASE_OS_KTOSCLOCK_H
#define KTBASE_OS_KTOSCLOCK_H

struct tm;

/// An instant of the wall clock.
struct KTOsInstant {
    long long seconds;  // since 1970-01-01 00:00 UTC
    unsigned int ms;    // 0-999
};
KTOsInstant KTOsWallClock();

/// Breaks seconds since 1970 down to local time. False, and out undefined, for a time that the
/// system cannot tell.
bool KTOsEpochToLocal(long long seconds, tm& out);
/// Seconds since 1970 of a local date and time without daylight saving. Fields out of range carry
/// over. -1 for a time that the system cannot tell.
long long KTOsLocalToEpoch(int year, int month, int day, int hour, int minute, int second);

/// The performance counter, monotonic, and its counts per second, never 0.
unsigned long long KTOsCounter();
unsigned long long KTOsCounterFrequency();

#endif
