#include <time.h>

#include <algorithm>
#include <limits>

#include "profiling/config/utils.h"

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace analysis::nedra::common::utils {

namespace {

constexpr uint64_t kNsPerSecond = 1000000000;
constexpr uint64_t kUsPerMs = 1000;

template <typename Timespec>
uint64_t ToNs(const Timespec& time) {
    return static_cast<uint64_t>(time.tv_sec) * kNsPerSecond + static_cast<uint64_t>(time.tv_nsec);
}

}  // namespace

uint64_t Utils::GetClockRealtime() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return ToNs(now);
}

uint64_t Utils::GetClockMonotonicRaw() {
    return ToNs(mmGetTickCount());
}

uint64_t Utils::GetCntvct() {
#if defined(__aarch64__)
    uint64_t count = 0;
    asm volatile("mrs %0, cntvct_el0" : "=r"(count));
    return count;
#elif defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    return GetClockMonotonicRaw();
#endif
}

std::string Utils::GetTimeRecord() {
    return "clock_realtime: " + std::to_string(GetClockRealtime()) +
           "\nclock_monotonic_raw: " + std::to_string(GetClockMonotonicRaw()) +
           "\ncntvct: " + std::to_string(GetCntvct()) + "\n";
}

void Utils::UsleepInterupt(uint64_t us) {
    constexpr uint64_t kLongest = std::numeric_limits<uint32_t>::max();
    mmSleep(static_cast<uint32_t>(std::min(us / kUsPerMs, kLongest)));
}

}  // namespace analysis::nedra::common::utils
