// The checks of a whole ProfileParams record: tables of its members, and the order of the checks.
#include <algorithm>
#include <charconv>
#include <exception>

#include "hdc/log_side.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::validation {

using message::ProfileParams;
using utils::Utils;

namespace {

struct Interval {
    int32_t ProfileParams::*member;
    const char* name;  // in the log line
};

constexpr Interval kIntervals[] = {
    {&ProfileParams::aiv_sampling_interval, "aiv"},
    {&ProfileParams::fabriclinkInterval, "collnet"},
    {&ProfileParams::pcieInterval, "pcie"},
    {&ProfileParams::roceInterval, "roce"},
    {&ProfileParams::llc_interval, "llc"},
    {&ProfileParams::ddr_interval, "ddr"},
    {&ProfileParams::hbmInterval, "hbm"},
    {&ProfileParams::cpu_sampling_interval, "cpu_profiling"},
};

constexpr Interval kIntervalsTwo[] = {
    {&ProfileParams::sys_sampling_interval, "sys_profiling"},
    {&ProfileParams::pid_sampling_interval, "pid_profiling"},
    {&ProfileParams::hardware_mem_sampling_interval, "hardware_mem"},
    {&ProfileParams::io_sampling_interval, "io_profiling"},
    {&ProfileParams::interconnection_sampling_interval, "interconnection_profiling"},
    {&ProfileParams::dvpp_sampling_interval, "dvpp_profiling"},
    {&ProfileParams::nicInterval, "nicProfiling"},
    {&ProfileParams::roceInterval, "roceProfiling"},
    {&ProfileParams::aicore_sampling_interval, "aicore_profiling"},
};

using Switch = std::string ProfileParams::*;

constexpr Switch kTsSwitches[] = {
    &ProfileParams::ts_task_track,  &ProfileParams::ts_cpu_usage, &ProfileParams::ai_core_status,
    &ProfileParams::ts_timeline,    &ProfileParams::ts_keypoint,  &ProfileParams::ai_vector_status,
    &ProfileParams::ts_fw_training, &ProfileParams::hwts_log,     &ProfileParams::hwts_log1,
    &ProfileParams::ts_memcpy,
};

constexpr Switch kPmuSwitches[] = {
    &ProfileParams::ai_core_profiling, &ProfileParams::aiv_profiling,
    &ProfileParams::ddr_profiling,     &ProfileParams::fabriclinkProfiling,
    &ProfileParams::pcieProfiling,     &ProfileParams::hbmProfiling,
};

constexpr Switch kSystemTraceSwitches[] = {
    &ProfileParams::cpu_profiling,      &ProfileParams::tsCpuProfiling,
    &ProfileParams::aiCtrlCpuProfiling, &ProfileParams::sys_profiling,
    &ProfileParams::pid_profiling,      &ProfileParams::hardware_mem,
    &ProfileParams::io_profiling,       &ProfileParams::interconnection_profiling,
    &ProfileParams::dvpp_profiling,     &ProfileParams::nicProfiling,
    &ProfileParams::roceProfiling,
};

template <size_t N>
bool AreIntervalsValid(const ParamValidation& checks, const Interval (&intervals)[N],
                       const ProfileParams& params) {
    return std::all_of(std::begin(intervals), std::end(intervals), [&](const Interval& interval) {
        return checks.CheckIntervalIsValid(params.*interval.member, interval.name);
    });
}

template <size_t N>
bool AreSwitchesValid(const ParamValidation& checks, const Switch (&switches)[N],
                      const ProfileParams& params) {
    return std::all_of(std::begin(switches), std::end(switches),
                       [&](Switch member) { return checks.CheckSwitchIsValid(params.*member); });
}

constexpr std::string_view kStorageUnit = "MB";
constexpr size_t kMinStorageTextLength = 3;
constexpr size_t kMaxStorageDigits = 10;
constexpr uint32_t kMinStorage = 200;
constexpr uint32_t kMaxStorage = 4294967295;

}  // namespace

bool ParamValidation::CheckProfilingIntervalIsValid(const Params& params) const {
    return params != nullptr && AreIntervalsValid(*this, kIntervals, *params) &&
           CheckProfilingIntervalIsValidTWO(params);
}

bool ParamValidation::CheckProfilingIntervalIsValidTWO(const Params& params) const {
    if (params == nullptr) {
        PROF_LOGE("[CheckProfilingIntervalIsValidTWO]params is null");
        return false;
    }
    return AreIntervalsValid(*this, kIntervalsTwo, *params);
}

bool ParamValidation::CheckProfilingSwitchIsValid(const Params& params) const {
    return CheckTsSwitchProfiling(params) && CheckPmuSwitchProfiling(params) &&
           CheckSystemTraceSwitchProfiling(params);
}

bool ParamValidation::CheckTsSwitchProfiling(const Params& params) const {
    return params != nullptr && AreSwitchesValid(*this, kTsSwitches, *params);
}

bool ParamValidation::CheckPmuSwitchProfiling(const Params& params) const {
    return params != nullptr && AreSwitchesValid(*this, kPmuSwitches, *params);
}

bool ParamValidation::CheckSystemTraceSwitchProfiling(const Params& params) const {
    if (params == nullptr) {
        PROF_LOGE("[CheckSystemTraceSwitchProfiling]params is null");
        return false;
    }
    return AreSwitchesValid(*this, kSystemTraceSwitches, *params);
}

namespace {

// The number of a storage limit, as the text gives it.
bool ReadStorageLimit(const std::string& limit, uint64_t* megabytes) {
    if (limit.size() < kMinStorageTextLength) {
        PROF_LOGE("storage_limit:%s, length is less than %u", limit.c_str(),
                  static_cast<unsigned>(kMinStorageTextLength));
        return false;
    }
    const size_t digits = limit.size() - kStorageUnit.size();
    if (limit.substr(digits) != kStorageUnit) {
        PROF_LOGE("storage_limit:%s, not end with MB", limit.c_str());
        return false;
    }
    if (!Utils::IsAllDigit(limit.substr(0, digits))) {
        PROF_LOGE("storage_limit:%s, invalid numbers", limit.c_str());
        return false;
    }
    if (digits > kMaxStorageDigits) {
        PROF_LOGE("storage_limit:%s, valid range is 200~4294967296", limit.c_str());
        return false;
    }
    std::from_chars(limit.data(), limit.data() + digits, *megabytes);
    return true;
}

}  // namespace

bool ParamValidation::CheckStorageLimit(const Params& params) const {
    if (params == nullptr) {
        return false;
    }
    std::string& limit = params->storageLimit;
    if (limit.empty()) {
        PROF_LOGI("storage_limit is empty");
        return true;
    }
    uint64_t megabytes = 0;
    if (!ReadStorageLimit(limit, &megabytes)) {
        return false;
    }
    if (megabytes < kMinStorage) {
        PROF_LOGE("storage_limit:%s, min value is %uMB", limit.c_str(), kMinStorage);
        limit = std::to_string(kMinStorage).append(kStorageUnit);
        PROF_LOGW("auto adjust storage_limit to:%s", limit.c_str());
        return false;
    }
    if (megabytes > kMaxStorage) {
        PROF_LOGE("storage_limit:%s, max value is %uMB", limit.c_str(), kMaxStorage);
        return false;
    }
    return true;
}

bool ParamValidation::CheckProfilingParams(const Params& params,
                                           const Texts& unsupportedMetrics) const {
    if (params == nullptr) {
        PROF_LOGE("[CheckProfilingParams]params is nullptr.");
        return false;
    }
    if (params->host_profiling == 0 &&
        !CheckDeviceList(params->app, params->devices, params->host_sys)) {
        PROF_LOGE("[CheckProfilingParams]devices:%s is illegal", params->devices.c_str());
        return false;
    }
    Texts l2CacheEvents;
    try {
        l2CacheEvents = Utils::Split(params->l2CacheTaskProfilingEvents, false, "", ",");
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return true;  // out of memory says nothing against the record
    }
    if (!CheckL2CacheEventsValid(l2CacheEvents)) {
        PROF_LOGE("[CheckProfilingParams]l2CacheTaskProfilingEvents is illegal");
        return false;
    }
    if (!CheckLlcEventsIsValid(params->llc_profiling_events)) {
        PROF_LOGE("[CheckProfilingParams]llc_profiling_events is illegal");
        return false;
    }
    if (!CheckProfilingIntervalIsValid(params)) {
        PROF_LOGE("[CheckProfilingParams]profiling interval is illegal");
        return false;
    }
    if (!CheckProfilingSwitchIsValid(params)) {
        PROF_LOGE("[CheckProfilingParams]profiling switch is illegal");
        return false;
    }
    if (!CheckAicoreMetricsIsValid(params->ai_core_metrics, unsupportedMetrics)) {
        PROF_LOGE("[CheckProfilingParams]profiling ai_core_metrics is illegal");
        return false;
    }
    return true;
}

}  // namespace analysis::nedra::common::validation
