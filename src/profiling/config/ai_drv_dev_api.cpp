#include "profiling/config/ai_drv_dev_api.h"

#include <array>

#include "hdc/log_side.h"
#include "profiling/config/config_manager.h"

namespace analysis::nedra::driver {
namespace {

using Analysis::Nedra::Common::Config::ConfigManager;

enum class Answer { kGiven, kUnsupported, kFailed };

// The one flow of every query by deviceId; what a given value is good for is the caller's line.
Answer Ask(const NumberQuery& query, uint32_t deviceId, int64_t& value) {
    const drvError_t ret = halGetDeviceInfo(deviceId, query.module, query.info, &value);
    if (ret == DRV_ERROR_NONE) {
        return Answer::kGiven;
    }
    if (ret == DRV_ERROR_NOT_SUPPORT) {
        PROF_LOGW("Driver doesn't support %s by halGetDeviceInfo interface, deviceId=%u, ret=%d",
                  query.name, deviceId, ret);
        return Answer::kUnsupported;
    }
    PROF_LOGE("Failed to %s, deviceId=%u, ret=%d", query.name, deviceId, ret);
    return Answer::kFailed;
}

bool AskFrequency(const NumberQuery& query, uint32_t deviceId, std::string& freq) {
    int64_t kiloHertz = 0;
    const drvError_t ret = halGetDeviceInfo(deviceId, query.module, query.info, &kiloHertz);
    if (ret != DRV_ERROR_NONE || kiloHertz < 1) {
        PROF_LOGW("Driver doesn't support %s by halGetDeviceInfo interface, ret=%d", query.name,
                  ret);
        return false;
    }
    PROF_LOGI("Succeeded to %s frequency=%lld", query.name, static_cast<long long>(kiloHertz));
    // In single precision, digits and all: the readers of this text know no other.
    freq = std::to_string(static_cast<float>(kiloHertz) / 1000.0F);
    return true;
}

bool HasVectorCores(uint32_t platformType) {
    return platformType != 0 && platformType != 1 && platformType != 4;
}

}  // namespace

int DrvGetDevNum() {
    uint32_t num = 0;
    const drvError_t ret = drvGetDevNum(&num);
    if (ret != DRV_ERROR_NONE || num > kDeviceLimit) {
        PROF_LOGE("Failed to drvGetDevNum, ret=%d, num=%u", ret, num);
        return -1;
    }
    PROF_LOGI("Succeeded to drvGetDevNum, numDev=%u", num);
    return static_cast<int>(num);
}

int DrvGetDevPhyId(int index) {
    uint32_t phyId = 0;
    const drvError_t ret = drvDeviceGetPhyIdByIndex(static_cast<uint32_t>(index), &phyId);
    if (ret != DRV_ERROR_NONE || phyId >= kDeviceLimit) {
        PROF_LOGW("Failed to get phyId by device index: %d, use device index directly", index);
        return index;
    }
    PROF_LOGI("Succeeded to get phyId: %u by index: %d", phyId, index);
    return static_cast<int>(phyId);
}

int DrvGetDevIds(int num, std::vector<uint32_t>& ids) {
    ids.clear();
    if (num < 1 || num > static_cast<int>(kDeviceLimit)) {
        return -1;
    }
    std::array<uint32_t, kDeviceLimit> devices{};
    const drvError_t ret = drvGetDevIDs(devices.data(), static_cast<uint32_t>(num));
    if (ret != DRV_ERROR_NONE) {
        PROF_LOGE("Failed to drvGetDevIDs, ret=%d", ret);
        return -1;
    }
    PROF_LOGI("Succeeded to drvGetDevIDs, numDevices=%d", num);
    ids.assign(devices.begin(), devices.begin() + num);
    return 0;
}

std::string DrvGetDevIdsStr() {
    std::vector<uint32_t> ids;
    if (DrvGetDevIds(DrvGetDevNum(), ids) != 0) {
        return "";
    }
    std::string text;
    for (const uint32_t id : ids) {
        text += std::to_string(id) + ",";
    }
    text.pop_back();
    return text;
}

bool DrvIsHelper() {
    uint32_t num = 0;
    if (drvGetDevNum(&num) != DRV_ERROR_NOT_SUPPORT) {
        return false;
    }
    PROF_LOGI("Tracelet work in Helper.");
    return true;
}

int DrvGetPlatformInfo(uint32_t& info) {
    const drvError_t ret = drvGetPlatformInfo(&info);
    if (ret != DRV_ERROR_NONE && ret != DRV_ERROR_NOT_SUPPORT) {
        PROF_LOGE("Failed to drvGetPlatformInfo, ret=%d", ret);
        return -1;
    }
    return 0;
}

int DrvGetApiVersion() {
    int version = 0;
    if (halGetAPIVersion(&version) != DRV_ERROR_NONE) {
        return 0;
    }
    PROF_EVENT("Succeeded to DrvGetApiVersion version: 0x%x", static_cast<unsigned>(version));
    return version;
}

int NumberQuery::operator()(uint32_t deviceId, int64_t& value) const {
    const Answer answer = Ask(*this, deviceId, value);
    if (answer == Answer::kGiven) {
        PROF_LOGI("Succeeded to %s, deviceId=%u", name, deviceId);
    }
    return answer == Answer::kFailed ? -1 : 0;
}

int DrvGetAivNum(uint32_t deviceId, int64_t& value) {
    if (!HasVectorCores(ConfigManager::instance().GetPlatformType())) {
        value = 0;
        PROF_LOGI("Driver doesn't support DrvGetAivNum by halGetDeviceInfo interface");
        return 0;
    }
    const Answer answer =
        Ask({"DrvGetAivNum", DEV_MODULE_VECTOR_CORE, DEV_INFO_CORE_NUM}, deviceId, value);
    if (answer == Answer::kGiven) {
        PROF_LOGI("Succeeded to DrvGetAivNum, deviceId=%u, aivNum=%lld", deviceId,
                  static_cast<long long>(value));
    }
    return answer == Answer::kFailed ? -1 : 0;
}

int DrvGetDeviceTime(uint32_t deviceId, uint64_t& startMono, uint64_t& cntvct) {
    int64_t v = 0;
    Answer answer =
        Ask({"DrvGetDeviceTime startMono", DEV_MODULE_SYSTEM, DEV_INFO_START_MONO}, deviceId, v);
    if (answer == Answer::kFailed) {
        return -1;
    }
    if (answer == Answer::kGiven) {
        startMono = static_cast<uint64_t>(v);
        PROF_LOGI("Succeeded to DrvGetDeviceTime startMono, devId=%u, startMono=%llu ns", deviceId,
                  static_cast<unsigned long long>(v));
    }
    answer = Ask({"DrvGetDeviceTime cntvct", DEV_MODULE_SYSTEM, DEV_INFO_COUNTER}, deviceId, v);
    if (answer == Answer::kFailed) {
        return -1;
    }
    if (answer == Answer::kGiven) {
        cntvct = static_cast<uint64_t>(v);
        PROF_LOGI("Succeeded to DrvGetDeviceTime cntvct, devId=%u, cntvct=%llu", deviceId,
                  static_cast<unsigned long long>(v));
    }
    return 0;
}

bool DrvGetHostFreq(std::string& freq) {
    if (!AskFrequency({"DrvGetHostFreq", DEV_MODULE_SYSTEM, DEV_INFO_HOST_FREQ}, 0, freq)) {
        freq.clear();
        return false;
    }
    return true;
}

bool DrvGetDeviceFreq(uint32_t deviceId, std::string& freq) {
    return AskFrequency({"DrvGetDeviceFreq", DEV_MODULE_SYSTEM, DEV_INFO_DEVICE_FREQ}, deviceId,
                        freq);
}

}  // namespace analysis::nedra::driver
