#include <secure_c.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {

namespace {

const char* const kHostId = "64";  // the pseudo device that stands for the host

constexpr uint64_t kResultNumbers = 999999;
constexpr int kSeedLetters = 32;
constexpr int kResultLetters = 16;
constexpr uint64_t kResultAlphabet = 18;

std::string ZeroPadded(uint64_t number, size_t width) {
    const std::string digits = std::to_string(number);
    return digits.size() < width ? std::string(width - digits.size(), '0') + digits : digits;
}

std::string SteadyCount() {
    return std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

// Local time down to the millisecond, all zeros when there is none.
std::string TimeDigits() {
    mmSystemTime_t now = {};
    if (mmGetLocalTime(&now) != EN_OK) {
        PROF_LOGW("Get time failed");
    }
    char text[32] = {};
    if (snprintf_s(text, sizeof(text), sizeof(text) - 1, "%04d%02d%02d%02d%02d%02d%03d", now.wYear,
                   now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
                   now.wMilliseconds) < 0) {
        PROF_LOGW("Format time failed");
    }
    return text;
}

// Letters that differ between two results of one moment.
std::string ResultLetters() {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    std::string text;
    for (int i = 0; i < kSeedLetters; ++i) {
        text += static_cast<char>('A' + std::rand() % 26);
    }
    text += SteadyCount() + std::to_string(Utils::GetClockMonotonicRaw());
    uint64_t hash = std::hash<std::string>()(text);
    std::string letters;
    for (int i = 0; i < kResultLetters; ++i) {
        letters += static_cast<char>('A' + hash % kResultAlphabet);
        hash /= kResultAlphabet;
    }
    return letters;
}

}  // namespace

std::string Utils::CreateTaskId(const std::string& devId) {
    const std::string taskId = devId == kHostId ? "host" : "device_" + devId;
    PROF_LOGI("[TRACELET][ProfStart] created task id %s of device %s", taskId.c_str(),
              devId.c_str());
    return taskId;
}

std::string Utils::CreateResultPath(uint64_t hash) {
    const std::string name = "PROF_" + ZeroPadded(hash % kResultNumbers + 1, 6) + "_" +
                             TimeDigits() + "_" + ResultLetters();
    PROF_LOGI("Created output dir name %s", name.c_str());
    return name;
}

std::string Utils::CreateTraceId(uint64_t seed) {
    const std::string text =
        SteadyCount() + std::to_string(seed) + std::to_string(GetClockMonotonicRaw());
    return "trace" + ZeroPadded(std::hash<std::string>()(text), 27);
}

}  // namespace analysis::nedra::common::utils
