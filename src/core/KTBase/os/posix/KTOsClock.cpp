#include "os/KTOsClock.h"

#include <time.h>

KTOsInstant KTOsWallClock() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return {now.tv_sec, static_cast<unsigned int>(now.tv_nsec / 1000000)};
}

bool KTOsEpochToLocal(long long seconds, tm& out) {
    const time_t at = seconds;
    return localtime_r(&at, &out) != nullptr;
}

long long KTOsLocalToEpoch(int year, int month, int day, int hour, int minute, int second) {
    tm local = {};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    return mktime(&local);
}

unsigned long long KTOsCounter() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000000000 +
           static_cast<unsigned long long>(now.tv_nsec);
}

unsigned long long KTOsCounterFrequency() {
    return 1000000000;
}
