// The driver's device numbers, from the scenario.
#include <hdc_driver.h>

#include <algorithm>

#include "driver_state.h"

namespace orla::emulation {

int CopyPresentIds(uint32_t* ids, uint32_t length) {
    constexpr uint32_t kMaxIdsAtOnce = 64;
    if (ids == nullptr || length < 1 || length > kMaxIdsAtOnce) {
        return kInvalidArgument;
    }
    const std::vector<DeviceIds> devices = DriverState::Get().PresentDevices();
    const size_t count = std::min<size_t>(devices.size(), length);
    std::transform(devices.begin(), devices.begin() + static_cast<ptrdiff_t>(count), ids,
                   [](const DeviceIds& device) { return device.logicalId; });
    return kDone;
}

}  // namespace orla::emulation

using namespace orla::emulation;

drvError_t drvGetDevNum(uint32_t* count) {
    return RunCall(Call::drvGetDevNum, {}, [&]() -> int {
        if (count == nullptr) {
            return kInvalidArgument;
        }
        *count = static_cast<uint32_t>(DriverState::Get().PresentDevices().size());
        return kDone;
    });
}

drvError_t drvGetDeviceLocalIDs(uint32_t* ids, uint32_t length) {
    return RunCall(Call::drvGetDeviceLocalIDs, {}, [&] { return CopyPresentIds(ids, length); });
}

drvError_t drvDeviceGetPhyIdByIndex(uint32_t logicalDevice, uint32_t* physicalDevice) {
    return RunCall(Call::drvDeviceGetPhyIdByIndex, {logicalDevice}, [&]() -> int {
        if (physicalDevice == nullptr) {
            return kInvalidArgument;
        }
        for (const DeviceIds& device : DriverState::Get().PresentDevices()) {
            if (device.logicalId == logicalDevice) {
                *physicalDevice = device.physicalId;
                return kDone;
            }
        }
        return kNoDevice;
    });
}
