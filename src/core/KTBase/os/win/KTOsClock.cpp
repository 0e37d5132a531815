#include "os/KTOsClock.h"

#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <time.h>
#include <windows.h>

KTOsInstant KTOsWallClock() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    tm local = {};
    local.tm_year = now.wYear - 1900;
    local.tm_mon = now.wMonth - 1;
    local.tm_mday = now.wDay;
    local.tm_hour = now.wHour;
    local.tm_min = now.wMinute;
    local.tm_sec = now.wSecond;
    local.tm_isdst = -1;  // the runtime knows whether daylight saving is on
    return {_mktime64(&local), now.wMilliseconds};
}

bool KTOsEpochToLocal(long long seconds, tm& out) {
    const __time64_t at = seconds;
    return _localtime64_s(&out, &at) == 0;
}

long long KTOsLocalToEpoch(int year, int month, int day, int hour, int minute, int second) {
    tm local = {};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    return _mktime64(&local);
}

unsigned long long KTOsCounter() {
    LARGE_INTEGER count;
    QueryPerformanceCounter(&count);
    return static_cast<unsigned long long>(count.QuadPart);
}

unsigned long long KTOsCounterFrequency() {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<unsigned long long>(frequency.QuadPart);
}
