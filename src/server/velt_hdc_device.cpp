#include "server/velt_hdc_device.h"

#include <algorithm>
#include <memory>

#include "hdc/log_side.h"
#include "hdc/velt_dsmi.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {

namespace {

constexpr int32_t kModeAllDevices = 0;
constexpr int32_t kFirstSingleDevice = 32;
constexpr int32_t kLastSingleDevice = 63;

using StateChange = void (VeltDevice::*)(const std::string& id);

// What a state of the driver's means for the table; null for states that mean nothing to it.
StateChange ChangeOf(uint32_t state) {
    switch (state) {
        case 0:
        case 7:
            return &VeltDevice::DeviceUp;
        case 1:
        case 2:
        case 3:
        case 6:
            return &VeltDevice::DeviceSuspend;
        default:
            return nullptr;
    }
}

}  // namespace

void VeltHdcDevice::FillFromDriver() {
    std::vector<uint32_t> ids(kMaxDevices, 0);
    uint32_t count = 0;
    if (IdeGetDevList(&count, ids.data(), kMaxDevices) != 0 || count > kMaxDevices) {
        return;
    }
    // Beyond what the driver fills, the list holds zeros that are no ids.
    ids.resize(std::min(count, kMaxDriverIds));
    for (const uint32_t id : ids) {
        if (id < kMaxDevices) {
            devices_.emplace(std::to_string(id), State::kUp);
        }
    }
}

void VeltHdcDevice::GetAllEnableDevices(int32_t mode, int32_t deviceId, DeviceList& list) {
    list.clear();
    const std::lock_guard<std::mutex> lock(mutex_);
    if (devices_.empty()) {
        if (mode == kModeAllDevices) {
            FillFromDriver();
        } else if (deviceId >= kFirstSingleDevice && deviceId <= kLastSingleDevice) {
            devices_.emplace(std::to_string(deviceId), State::kUp);
        }
    }
    AppendIds(State::kUp, list);
}

int DeviceStartupNotify(uint32_t count, const uint32_t* ids) {
    if (ids == nullptr) {
        IDE_LOGE("Startup Notify input error");
        return 1;
    }
    if (count > kMaxDevices) {
        IDE_LOGW("device startup notify %u devices extra the limit %u.", count, kMaxDevices);
        count = kMaxDevices;
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (ids[i] >= kMaxDevices) {
            IDE_LOGW("device startup notify skip bad device id %u.", ids[i]);
            continue;
        }
        IDE_LOGI("device %u notify startup state.", ids[i]);
        const auto devices = VeltCommOptManager::instance().GetDevice(kCommOptHdc);
        if (devices == nullptr) {
            IDE_LOGW("hdc get device failed");
            return 1;
        }
        devices->DeviceUp(std::to_string(ids[i]));
    }
    return 0;
}

int DeviceStateNotify(const DeviceStateMessage* message) {
    if (message == nullptr) {
        IDE_LOGE("cb input error");
        return 1;
    }
    const uint32_t id = message->deviceId;
    if (id >= kMaxDevices) {
        IDE_LOGW("device state notify skip bad device id %u.", id);
        return 0;
    }
    IDE_LOGI("device %u notify state change %u.", id, message->state);
    const StateChange change = ChangeOf(message->state);
    if (change == nullptr) {
        IDE_LOGI("unprocess power state(%d).", static_cast<int>(message->state));
        return 0;
    }
    const auto devices = VeltCommOptManager::instance().GetDevice(kCommOptHdc);
    if (devices == nullptr) {
        IDE_LOGE("hdc get device failed");
        return 1;
    }
    (devices.get()->*change)(std::to_string(id));
    return 0;
}

}  // namespace Velt
