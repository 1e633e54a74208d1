// Time of <portability.h>.
#include <portability.h>

#include <cerrno>
#include <ctime>

#include "results.h"

using orla::posix::FromError;

namespace {

constexpr long kMillisecondsPerSecond = 1000;
constexpr long kNanosecondsPerMillisecond = 1000000;
constexpr long kNanosecondsPerSecond = 1000000000;

}  // namespace

int32_t mmSleep(uint32_t milliseconds) {
    timespec end;
    if (clock_gettime(CLOCK_MONOTONIC, &end) != 0) {
        return EN_ERROR;
    }
    end.tv_sec += milliseconds / kMillisecondsPerSecond;
    end.tv_nsec += milliseconds % kMillisecondsPerSecond * kNanosecondsPerMillisecond;
    if (end.tv_nsec >= kNanosecondsPerSecond) {
        ++end.tv_sec;
        end.tv_nsec -= kNanosecondsPerSecond;
    }
    // An absolute end: however many signals come, the sleep neither ends early nor adds up.
    int error;
    do {
        error = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
    } while (error == EINTR);
    return FromError(error);
}

mmTimespec mmGetTickCount(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return {now.tv_sec, now.tv_nsec};
}

int32_t mmGetLocalTime(mmSystemTime_t* time) {
    if (time == nullptr) {
        return EN_INVALID_PARAM;
    }
    timespec now;
    tm local;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || localtime_r(&now.tv_sec, &local) == nullptr) {
        return EN_ERROR;
    }
    constexpr int kYearZero = 1900;  // of tm_year; its months count from 0
    time->wYear = static_cast<uint16_t>(local.tm_year + kYearZero);
    time->wMonth = static_cast<uint16_t>(local.tm_mon + 1);
    time->wDayOfWeek = static_cast<uint16_t>(local.tm_wday);
    time->wDay = static_cast<uint16_t>(local.tm_mday);
    time->wHour = static_cast<uint16_t>(local.tm_hour);
    time->wMinute = static_cast<uint16_t>(local.tm_min);
    time->wSecond = static_cast<uint16_t>(local.tm_sec);
    time->wMilliseconds = static_cast<uint16_t>(now.tv_nsec / kNanosecondsPerMillisecond);
    return EN_OK;
}
