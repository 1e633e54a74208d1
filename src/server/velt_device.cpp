#include "server/velt_device.h"

#include "hdc/log_side.h"

namespace Velt {

bool VeltDevice::ChangeState(const std::string& id, State state) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto device = devices_.find(id);
    if (device == devices_.end() || device->second == state) {
        return false;
    }
    device->second = state;
    return true;
}

void VeltDevice::DeviceUp(const std::string& id) {
    if (ChangeState(id, State::kUp)) {
        IDE_LOGI("device %s going up.", id.c_str());
    }
}

void VeltDevice::DeviceSuspend(const std::string& id) {
    if (ChangeState(id, State::kSuspended)) {
        IDE_LOGI("device %s going suspend.", id.c_str());
    }
}

void VeltDevice::AppendIds(State state, DeviceList& list) const {
    for (const auto& [id, deviceState] : devices_) {
        if (deviceState == state) {
            list.push_back(id);
        }
    }
}

void VeltDevice::GetEnableDevices(DeviceList& list) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    AppendIds(State::kUp, list);
}

void VeltDevice::GetDisableDevices(DeviceList& list) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    list.clear();
    AppendIds(State::kSuspended, list);
}

void VeltDevice::AddDevice(const std::string& id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    devices_.emplace(id, State::kUp);
}

bool VeltDevice::IsEmpty() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return devices_.empty();
}

}  // namespace Velt
