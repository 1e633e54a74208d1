#include "profiling/config/config_manager.h"

#include <device_driver.h>

#include <algorithm>
#include <charconv>
#include <iterator>

#include "hdc/log_side.h"
#include "profiling/config/profile_params.h"

namespace Analysis::Nedra::Common::Config {
namespace {

using analysis::nedra::message::IsOn;
using analysis::nedra::message::ProfileParams;

constexpr size_t kMaxMetricName = 70;
constexpr char kWorkDirectory[] = "/var/log/npu/profiling/";

constexpr char kHitRateAndVictimRateCloud[] = "0x5b,0x59,0x5c,0x7d,0x7e,0x71,0x79,0x7c";
constexpr char kHitRateAndVictimRate[] = "0x78,0x79,0x77,0x71,0x6a,0x6c,0x74,0x62";
constexpr char kHitRateAndVictimRateAllocate[] = "0xF6,0xFB,0xFC,0xBF,0x90,0x91,0x9C,0x9D";

struct PlatformRow {
    uint32_t type;
    const char* frequency;        // MHz
    const char* aicoreFrequency;  // MHz
    const char* l2CacheEvents;    // null: no such metric
    bool driverCountsLlc;
};

constexpr PlatformRow kPlatforms[] = {
    {TYPE_0, "19.2", "680", nullptr, false},
    {TYPE_1, "100", "800", kHitRateAndVictimRateCloud, true},
    {HELPER_DEVICE_TYPE, "38.4", "960", kHitRateAndVictimRate, true},
    {TYPE_4, "38.4", "1150", kHitRateAndVictimRate, true},
    {TYPE_5, "50", "800", kHitRateAndVictimRateAllocate, true},
    {TYPE_7, "48", "1250", kHitRateAndVictimRateAllocate, true},
};

bool Everywhere(uint32_t /*type*/) {
    return true;
}
bool OnlyOnType7(uint32_t type) {
    return type == TYPE_7;
}
bool NotOnTypes014(uint32_t type) {
    return type != TYPE_0 && type != TYPE_1 && type != TYPE_4;
}

struct MetricRow {
    const char* name;
    const char* events;
    bool (*existsOn)(uint32_t type);
};

constexpr MetricRow kMetrics[] = {
    {"ArithmeticUtilization", "0x49,0x4a,0x4b,0x4c,0x4d,0x4e,0x4f", Everywhere},
    {"PipeUtilization", "0x8,0xa,0x9,0xb,0xc,0xd,0x54,0x55", Everywhere},
    {"PipeUtilizationExct", "0x416,0x417,0x9,0x302,0xc,0x303,0x54,0x55", Everywhere},
    {"PipelineExecuteUtilization", "0x12c,0x49,0x4a,0x9,0x302,0xc,0xd,0x303", OnlyOnType7},
    {"Memory", "0x15,0x16,0x31,0x32,0xf,0x10,0x12,0x13", Everywhere},
    {"MemoryL0", "0x1b,0x1c,0x21,0x22,0x27,0x28,0x29,0x2a", Everywhere},
    {"ResourceConflictRatio", "0x64,0x65,0x66", Everywhere},
    {"MemoryUB", "0x10,0x13,0x37,0x38,0x3d,0x3e,0x43,0x44", Everywhere},
    {"L2Cache", "0x500,0x502,0x504,0x506,0x508,0x50a", NotOnTypes014},
};

const PlatformRow* FindPlatform(uint32_t type) {
    const auto* row = std::find_if(std::begin(kPlatforms), std::end(kPlatforms),
                                   [type](const PlatformRow& r) { return r.type == type; });
    return row == std::end(kPlatforms) ? nullptr : row;
}

uint32_t TypeOf(int64_t typeVersion) {
    const auto type = static_cast<uint32_t>(typeVersion >> 8) & 0xFFU;
    const auto version = static_cast<uint32_t>(typeVersion) & 0xFFU;
    // This one generation announces itself as a version of an older one.
    return type == HELPER_DEVICE_TYPE && version == 5 ? TYPE_7 : type;
}

}  // namespace

void ConfigManager::Init() {
    if (isInited_) {
        PROF_LOGD("ConfigManager has been inited");
        return;
    }
    uint32_t type = HELPER_DEVICE_TYPE;
    int64_t typeVersion = 0;
    const drvError_t ret =
        halGetDeviceInfo(0, DEV_MODULE_SYSTEM, DEV_INFO_TYPE_VERSION, &typeVersion);
    if (ret == DRV_ERROR_NOT_SUPPORT) {
        PROF_LOGW(
            "Driver doesn't support device type version by halGetDeviceInfo interface, "
            "ret=%d, set PlatformType::HELPER_DEVICE_TYPE",
            ret);
    } else if (ret != DRV_ERROR_NONE) {
        PROF_LOGE("halGetDeviceInfo get device type version failed , ret:%d", ret);
        configMap_.clear();
        return;
    } else {
        type = TypeOf(typeVersion);
    }
    const PlatformRow* row = FindPlatform(type);
    configMap_["type"] = std::to_string(type);
    configMap_["frq"] = row == nullptr ? "" : row->frequency;
    configMap_["aicFrq"] = row == nullptr ? "" : row->aicoreFrequency;
    isInited_ = true;
}

void ConfigManager::Uninit() {
    isInited_ = false;
}

std::string ConfigManager::Value(const std::string& key, const std::string& missing) const {
    const auto entry = configMap_.find(key);
    return entry == configMap_.end() ? missing : entry->second;
}

uint32_t ConfigManager::GetPlatformType() const {
    const std::string text = GetChipIdStr();
    uint32_t type = 0;
    std::from_chars(text.data(), text.data() + text.size(), type);
    return type;
}

std::string ConfigManager::GetChipIdStr() const {
    return Value("type", "0");
}

std::string ConfigManager::GetFrequency() const {
    return Value("frq", "");
}

std::string ConfigManager::GetAicoreFrequency() const {
    return Value("aicFrq", "");
}

void ConfigManager::GetUnsupportedMetrics(std::vector<std::string>& out) const {
    const uint32_t type = GetPlatformType();
    for (const MetricRow& metric : kMetrics) {
        if (!metric.existsOn(type)) {
            out.emplace_back(metric.name);
        }
    }
}

int ConfigManager::GetAicoreEvents(const std::string& metrics, std::string& events) const {
    if (metrics.empty()) {
        return -1;
    }
    if (metrics.size() > kMaxMetricName) {
        PROF_LOGE("The parameter length exceeds the specified value of %d.",
                  static_cast<int>(kMaxMetricName));
        return -1;
    }
    const auto* row = std::find_if(std::begin(kMetrics), std::end(kMetrics),
                                   [&](const MetricRow& metric) { return metrics == metric.name; });
    if (row == std::end(kMetrics)) {
        PROF_LOGE("Invalid metrics type %s.", metrics.c_str());
        return -1;
    }
    if (!row->existsOn(GetPlatformType())) {
        PROF_LOGE("Current platform is not support %s metrics type", metrics.c_str());
        return -1;
    }
    events = row->events;
    return 0;
}

void ConfigManager::MetricsAdjust(std::string& metrics) const {
    if (GetPlatformType() == TYPE_5 && metrics == "PipeUtilization") {
        metrics = "PipeUtilizationExct";
    }
}

int ConfigManager::GetL2cacheEvents(std::string& events) const {
    const uint32_t type = GetPlatformType();
    const PlatformRow* row = FindPlatform(type);
    if (row == nullptr || row->l2CacheEvents == nullptr) {
        PROF_LOGE("Invalid platform type %d for l2 cache", static_cast<int>(type));
        return -1;
    }
    events = row->l2CacheEvents;
    return 0;
}

void ConfigManager::ChangeL2CacheParams(const std::shared_ptr<ProfileParams>& params) const {
    if (params == nullptr) {
        return;
    }
    const bool wanted = IsOn(params->l2CacheTaskProfiling);
    const bool given = wanted && GetL2cacheEvents(params->l2CacheTaskProfilingEvents) == 0;
    if (wanted && !given) {
        PROF_LOGW("The platform is invalid for l2 cache, l2 cache data will not be collected");
    }
    params->l2CacheTaskProfiling = given ? "on" : "off";
}

bool ConfigManager::IsDriverSupportLlc() const {
    const PlatformRow* row = FindPlatform(GetPlatformType());
    return row != nullptr && row->driverCountsLlc;
}

std::string ConfigManager::GetInotifyDir() const {
    return kWorkDirectory;
}

std::string ConfigManager::GetPerfDataDir(uint32_t devId) const {
    return kWorkDirectory + std::to_string(devId);
}

}  // namespace Analysis::Nedra::Common::Config
