#include "profiling/config/param_validation.h"

#include <portability.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::validation {

using utils::Utils;

namespace {

constexpr int kMaxEvents = 8;
constexpr int kMaxCores = 50;
constexpr long kMinAiCoreEvent = 1;
constexpr long kMaxAiCoreEvent = 1294;
constexpr int kMaxMetricsLength = 70;
constexpr int kMaxInterval = 1296000000;
constexpr int kMaxSysPeriod = 2592000;
constexpr uint32_t kMinInstrFreq = 300;
constexpr uint32_t kMaxInstrFreq = 30000;
constexpr int kMaxDeviceId = 63;
constexpr size_t kMaxJobIdLength = 512;

constexpr std::string_view kL2CacheEvents[] = {
    "0x59", "0x5b", "0x5c", "0x62", "0x6a", "0x6c", "0x71", "0x74", "0x77",
    "0x78", "0x79", "0x7c", "0x7d", "0x7e", "0xfb", "0xfc", "0x9a", "0xf6",
    "0xfd", "0xfe", "0x9c", "0x9d", "0x90", "0x91", "0x96", "0xbf"};
// Beside letters and digits, in an event that becomes an argument of the collection script.
constexpr std::string_view kEventMarks = "_:/";
constexpr std::string_view kMemoryEvents[] = {"read", "write"};
constexpr std::string_view kAicoreMetrics[] = {
    "ArithmeticUtilization",      "PipeUtilization", "PipeUtilizationExct",
    "PipelineExecuteUtilization", "Memory",          "MemoryL0",
    "ResourceConflictRatio",      "MemoryUB",        "L2Cache"};
constexpr std::string_view kSwitchValues[] = {"", "on", "off"};
constexpr std::string_view kModes[] = {"", "def_mode", "system-wide"};
constexpr std::string_view kHarmfulTexts[] = {"rm ",  "mv ", "reboot", "shutdown",
                                              "halt", "> ",  "wget ",  "poweroff"};
constexpr std::string_view kHostSysOptions[] = {"cpu", "mem", "disk", "network", "osrt"};
constexpr std::string_view kStarsTaskKinds[] = {"dsa",   "vdec", "jpegd", "jpege", "vpc",
                                                "topic", "pcie", "rocee", "sdma",  "ctrl_task"};

template <size_t N>
bool IsOneOf(const std::string_view (&allowed)[N], std::string_view value) {
    return std::find(std::begin(allowed), std::end(allowed), value) != std::end(allowed);
}

bool IsLetterOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Whether the text holds letters, digits and characters of `others` only.
bool HoldsOnly(const std::string& text, std::string_view others) {
    return std::all_of(text.begin(), text.end(), [others](char c) {
        return IsLetterOrDigit(c) || others.find(c) != std::string_view::npos;
    });
}

std::vector<std::string> SplitList(const std::string& list) {
    return Utils::Split(list, false, "", ",");
}

// The value of a hexadecimal number, with or without "0x"; 0 for a text that is none.
long HexValue(const std::string& text) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 16);
    return end == text.data() + text.size() ? value : 0;
}

bool IsMemoryEvent(const std::string& event) {
    return IsOneOf(kMemoryEvents, event);
}

}  // namespace

bool ParamValidation::CheckEventsSize(int n) const {
    PROF_LOGD("eventSize: %d", n);
    return n <= kMaxEvents;
}

bool ParamValidation::CheckCoresSize(int n) const {
    return n <= kMaxCores;
}

bool ParamValidation::CheckCtrlCpuEventIsValid(const Texts& events) const {
    if (!CheckEventsSize(static_cast<int>(events.size()))) {
        PROF_LOGE("cpu events size(%u) is bigger than %d", static_cast<unsigned>(events.size()),
                  kMaxEvents);
        return false;
    }
    return std::all_of(events.begin(), events.end(), [](const std::string& event) {
        if (!HoldsOnly(event, kEventMarks)) {
            PROF_LOGE("cpu event is invalid.%s", event.c_str());
            return false;
        }
        return Utils::ToLower(event).find("0x") != std::string::npos;
    });
}

bool ParamValidation::CheckAiCoreEventsIsValid(const Texts& events) const {
    if (!CheckEventsSize(static_cast<int>(events.size()))) {
        PROF_LOGE("ai core events size(%u) is bigger than %d", static_cast<unsigned>(events.size()),
                  kMaxEvents);
        return false;
    }
    for (const std::string& event : events) {
        const long value = HexValue(event);
        if (value < kMinAiCoreEvent || value > kMaxAiCoreEvent) {
            PROF_LOGE("ai core event out of range, which should be in 1-1294(0x1-0x50E)");
            return false;
        }
    }
    return true;
}

bool ParamValidation::CheckAiCoreEventCoresIsValid(const std::vector<int>& cores) const {
    if (!CheckCoresSize(static_cast<int>(cores.size()))) {
        PROF_LOGE("ai core events cores size(%u) is bigger than %d",
                  static_cast<unsigned>(cores.size()), kMaxCores);
        return false;
    }
    return std::all_of(cores.begin(), cores.end(), [](int core) { return core >= 0; });
}

bool ParamValidation::CheckDdrEventsIsValid(const Texts& events) const {
    if (!CheckEventsSize(static_cast<int>(events.size()))) {
        PROF_LOGE("ddr events size(%u) is bigger than %d", static_cast<unsigned>(events.size()),
                  kMaxEvents);
        return false;
    }
    if (std::find(events.begin(), events.end(), "master_id") != events.end()) {
        return true;
    }
    return CheckHbmEventsIsValid(events);
}

bool ParamValidation::CheckHbmEventsIsValid(const Texts& events) const {
    if (!CheckEventsSize(static_cast<int>(events.size()))) {
        PROF_LOGE("hbm events size(%u) is bigger than %d", static_cast<unsigned>(events.size()),
                  kMaxEvents);
        return false;
    }
    return std::all_of(events.begin(), events.end(), IsMemoryEvent);
}

bool ParamValidation::CheckLlcEventsIsValid(const std::string& events) const {
    if (!HoldsOnly(events, std::string(kEventMarks) + ",")) {
        PROF_LOGE("llc events is invalid.%s", events.c_str());
        return false;
    }
    PROF_LOGD("llc events is %s", events.c_str());
    return true;
}

bool ParamValidation::CheckL2CacheEventsValid(const Texts& events) const {
    if (!CheckEventsSize(static_cast<int>(events.size()))) {
        PROF_LOGE("L2Cache events size(%u) is bigger than %d", static_cast<unsigned>(events.size()),
                  kMaxEvents);
        return false;
    }
    for (const std::string& given : events) {
        PROF_LOGD("l2Cacheevents:%s", given.c_str());
        const std::string event = Utils::Trim(Utils::ToLower(given));
        if (!IsOneOf(kL2CacheEvents, event)) {
            PROF_LOGE("l2Cacheevent:%s is invalid", event.c_str());
            return false;
        }
        PROF_LOGD("l2Cacheevent:%s", event.c_str());
    }
    return true;
}

int ParamValidation::CheckEventsText(const std::string& events) const {
    if (events.empty()) {
        PROF_LOGI("events is empty");
        return 0;
    }
    if (SplitList(events).size() > kMaxEvents) {
        PROF_LOGE("events Size is incorrect. %s", events.c_str());
        return -1;
    }
    return 0;
}

bool ParamValidation::CheckAicoreMetricsIsValid(const std::string& metrics,
                                                const Texts& unsupported) const {
    if (metrics.empty()) {
        PROF_LOGI("aicoreMetrics is empty");
        return true;
    }
    if (metrics.size() > kMaxMetricsLength) {
        PROF_LOGE("The parameter length exceeds the specified value of %d.", kMaxMetricsLength);
        return false;
    }
    if (std::find(unsupported.begin(), unsupported.end(), metrics) != unsupported.end()) {
        PROF_LOGE("Current platform is not support %s metrics type", metrics.c_str());
        return false;
    }
    if (!IsOneOf(kAicoreMetrics, metrics)) {
        PROF_LOGE("The aic_metrics[%s] of input config is invalid", metrics.c_str());
        return false;
    }
    PROF_LOGD("aicoreMetrics is %s", metrics.c_str());
    return true;
}

bool ParamValidation::CheckIntervalIsValid(int interval, const std::string& name) const {
    if (interval < 1 || interval > kMaxInterval) {
        PROF_LOGE("invalid %s interval: %d", name.c_str(), interval);
        return false;
    }
    return true;
}

bool ParamValidation::CheckSysPeriodIsValid(int period) const {
    if (period < 1 || period > kMaxSysPeriod) {
        PROF_LOGE("Invalid --sys-period: %d", period);
        return false;
    }
    return true;
}

bool ParamValidation::CheckInstrFreqIsValid(uint32_t freq) const {
    if (freq < kMinInstrFreq || freq > kMaxInstrFreq) {
        PROF_LOGE("instr_profiling_freq %u is invalid (%u~%u).", freq, kMinInstrFreq,
                  kMaxInstrFreq);
        return false;
    }
    return true;
}

bool ParamValidation::CheckSwitchIsValid(const std::string& value) const {
    return IsOneOf(kSwitchValues, value);
}

bool ParamValidation::CheckParamOnOff(const std::string& name, const std::string& value) const {
    if (value.empty()) {
        PROF_LOGI("Argument %s is empty.", name.c_str());
        return true;
    }
    if (!CheckSwitchIsValid(value)) {
        PROF_LOGE("Argument %s: invalid value: %s. Please input 'on' or 'off'.", name.c_str(),
                  value.c_str());
        return false;
    }
    return true;
}

bool ParamValidation::CheckDeviceIdIsValid(const std::string& devId) const {
    if (!Utils::CheckStringIsNonNegativeIntNum(devId)) {
        PROF_LOGE("devId(%s) is not valid.", devId.c_str());
        return false;
    }
    int id = 0;
    std::from_chars(devId.data(), devId.data() + devId.size(), id);
    if (id > kMaxDeviceId) {
        PROF_LOGW("devId(%s) is over limited.", devId.c_str());
        return false;
    }
    return true;
}

bool ParamValidation::CheckDeviceList(const std::string& app, const std::string& devices,
                                      const std::string& hostSys) const {
    if (devices.empty() && app.empty()) {
        return !hostSys.empty();
    }
    if (devices == "all") {
        return true;
    }
    bool valid = true;
    for (const std::string& device : SplitList(devices)) {
        if (!CheckDeviceIdIsValid(device)) {
            PROF_LOGE("device:%s is not valid!", device.c_str());
            valid = false;
        }
    }
    return valid;
}

bool ParamValidation::CheckJobIdIsValid(const std::string& jobId) const {
    return !jobId.empty() && jobId.size() <= kMaxJobIdLength && HoldsOnly(jobId, "-");
}

bool ParamValidation::CheckProfilingMode(const std::string& mode) const {
    return IsOneOf(kModes, mode);
}

bool ParamValidation::CheckAppParamIsValid(const std::string& params) const {
    return std::none_of(
        std::begin(kHarmfulTexts), std::end(kHarmfulTexts),
        [&](std::string_view text) { return params.find(text) != std::string::npos; });
}

bool ParamValidation::CheckAppNameIsValid(const std::string& name) const {
    if (name.empty()) {
        PROF_LOGE("appName is empty");
        return false;
    }
    if (!HoldsOnly(name, "_-.")) {
        PROF_LOGE("appName is invalid.%s", name.c_str());
        return false;
    }
    return true;
}

bool ParamValidation::CheckTagIsValid(const std::string& tag) const {
    if (tag.empty()) {
        PROF_LOGE("tag is empty");
        return false;
    }
    if (!HoldsOnly(tag, "_")) {
        PROF_LOGE("tag is invalid.%s", tag.c_str());
        return false;
    }
    return true;
}

bool ParamValidation::CheckHostSysOptionsIsValid(const std::string& option) const {
    if (option.empty()) {
        PROF_LOGI("hostSysOptions is empty");
        return false;
    }
    if (!IsOneOf(kHostSysOptions, option)) {
        PROF_LOGE("hostSysOptions[%s] is invalid", option.c_str());
        return false;
    }
    PROF_LOGD("hostSysOptions is %s", option.c_str());
    return true;
}

bool ParamValidation::CheckHostSysPidIsValid(int pid) const {
    mmStat_t status;
    const std::string path = "/proc/" + std::to_string(pid) + "/status";
    if (pid < 0 || mmStatGet(path.c_str(), &status) != EN_OK) {
        PROF_LOGE("Invalid --host-sys-pid: %d", pid);
        return false;
    }
    return true;
}

bool ParamValidation::CheckStarsAcsqIsValid(const std::string& list) const {
    for (const std::string& kind : SplitList(list)) {
        if (!IsOneOf(kStarsTaskKinds, kind)) {
            PROF_LOGE("Invalid stars acsq params.");
            return false;
        }
    }
    return true;
}

}  // namespace analysis::nedra::common::validation
