#include "driver_state.h"

#include <cstdio>

#include "device_life.h"

namespace orla::emulation {

DriverState& DriverState::Get() {
    static DriverState& state = *new DriverState;
    return state;
}

std::shared_ptr<const Scenario> DriverState::scenario() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return scenario_;
}

DeviceState DriverState::StateOf(uint32_t logicalDevice) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = states_.find(logicalDevice);
    return found == states_.end() ? DeviceState::kDown : found->second;
}

std::vector<DeviceIds> DriverState::PresentDevices() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<DeviceIds> present;
    for (const SimulatedDevice& device : scenario_->devices) {
        if (states_.at(device.logicalId) != DeviceState::kDown) {
            present.push_back({device.logicalId, device.physicalId});
        }
    }
    return present;
}

void DriverState::Use(const std::shared_ptr<const Scenario>& scenario) {
    faults_.Set(scenario->faults);
    const std::lock_guard<std::mutex> lock(mutex_);
    states_.clear();
    for (const SimulatedDevice& device : scenario->devices) {
        states_[device.logicalId] = device.state;
    }
    scenario_ = scenario;
    usable_ = true;
    FollowFlaps(scenario);
}

void DriverState::ReadEnvironment() {
    std::string error;
    if (const auto scenario = LoadScenarioFromEnvironment(&error)) {
        Use(scenario);
        return;
    }
    std::fprintf(stderr, "orla platform: the scenario can't be used: %s\n", error.c_str());
    usable_ = false;
}

bool DriverState::SetState(uint32_t logicalDevice, DeviceState state) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = states_.find(logicalDevice);
    if (found == states_.end()) {
        return false;
    }
    found->second = state;
    return true;
}

}  // namespace orla::emulation
