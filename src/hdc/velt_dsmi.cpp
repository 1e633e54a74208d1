#include "hdc/velt_dsmi.h"

#include <hdc_driver.h>

#include <algorithm>
#include <array>

#include "hdc/log_side.h"

using orla::kCoreSide;

namespace {

bool RefusesList(const uint32_t* devNum, uint32_t len) {
    return SIDE_REFUSES(kCoreSide, {devNum == nullptr, "devNum is nullptr"},
                        {len != kMaxDevices, "len is invalid"});
}

bool HasIds(uint32_t count) {
    return count >= 1 && count <= kMaxDevices;
}

int Translate(uint32_t logicalDevice, uint32_t* physicalDevice) {
    const drvError_t err = drvDeviceGetPhyIdByIndex(logicalDevice, physicalDevice);
    if (err != DRV_ERROR_NONE) {
        IDE_LOGE("drvDeviceGetPhyIdByIndex devIds: %u failed, err: %d", logicalDevice, err);
        return -1;
    }
    return 0;
}

}  // namespace

int IdeGetDevList(uint32_t* devNum, uint32_t* list, uint32_t len) {
    if (RefusesList(devNum, len) ||
        SIDE_REFUSES(kCoreSide, {list == nullptr, "device list is nullptr"})) {
        return -1;
    }
    drvError_t err = drvGetDevNum(devNum);
    if (err != DRV_ERROR_NONE) {
        IDE_LOGE("Get physical device number failed, err: %d", err);
        return -1;
    }
    if (!HasIds(*devNum)) {
        return 0;
    }
    err = drvGetDeviceLocalIDs(list, kMaxDriverIds);
    if (err != DRV_ERROR_NONE) {
        IDE_LOGE("get device IDs failed, err: %d", err);
        return -1;
    }
    return 0;
}

int IdeGetPhyDevList(uint32_t* devNum, uint32_t* list, uint32_t len) {
    if (RefusesList(devNum, len) ||
        SIDE_REFUSES(kCoreSide, {list == nullptr, "device list is nullptr"})) {
        return -1;
    }
    std::array<uint32_t, kMaxDevices> logicalIds{};
    const int ret = IdeGetDevList(devNum, logicalIds.data(), kMaxDevices);
    if (ret != 0) {
        IDE_LOGE("IdeGetDevList failed, ret: %d", ret);
        return -1;
    }
    if (!HasIds(*devNum)) {
        return 0;
    }
    // Beyond what the driver fills, the list holds zeros that are no ids.
    *devNum = std::min(*devNum, kMaxDriverIds);
    for (uint32_t i = 0; i < *devNum; ++i) {
        if (Translate(logicalIds[i], &list[i]) != 0) {
            return -1;
        }
    }
    return 0;
}

int IdeGetLogIdByPhyId(uint32_t phyId, uint32_t* logId) {
    if (SIDE_REFUSES(kCoreSide, {logId == nullptr, "logId is nullptr"})) {
        return -1;
    }
    std::array<uint32_t, kMaxDevices> logicalIds{};
    uint32_t count = 0;
    if (IdeGetDevList(&count, logicalIds.data(), kMaxDevices) != 0) {
        IDE_LOGE("IdeGetDevList failed");
        return -1;
    }
    if (!HasIds(count)) {
        return -1;
    }
    for (uint32_t i = 0; i < std::min(count, kMaxDriverIds); ++i) {
        uint32_t physical = 0;
        if (Translate(logicalIds[i], &physical) != 0) {
            return -1;
        }
        if (physical == phyId) {
            IDE_LOGI("the logical ID(%u) is a corresponding physical ID(%u)", logicalIds[i], phyId);
            *logId = logicalIds[i];
            return 0;
        }
    }
    return -1;
}
