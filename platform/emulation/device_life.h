// Devices that go and come while the process runs.
#pragma once

#include <memory>

#include "scenario.h"

namespace orla::emulation {

// Changes a device's state; leaving kUp ends its accepts, sessions and channels. False for an
// unknown device. Any thread.
[[nodiscard]] bool ChangeDeviceState(uint32_t logicalDevice, DeviceState state);

// Follows the schedules of the scenario's devices, for as long as it is the current one, on a
// thread of its own if there are any.
void FollowFlaps(const std::shared_ptr<const Scenario>& scenario);

}  // namespace orla::emulation
