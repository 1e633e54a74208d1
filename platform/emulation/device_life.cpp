#include "device_life.h"

#include <cerrno>
#include <chrono>
#include <thread>
#include <vector>

#include "driver_state.h"
#include "hdc_handles.h"
#include "prof_channels.h"

namespace orla::emulation {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void EndWhatRunsOn(uint32_t device) {
    for (const auto& server : Handles::Get().servers.All()) {
        if (server->device() == device) {
            server->Stop(ENODEV);
        }
    }
    for (const auto& session : Handles::Get().sessions.All()) {
        if (session->device() == device) {
            session->End();
        }
    }
    ProfChannels::Get().EndDevice(device);
}

struct Schedule {
    uint32_t device;
    Flaps flaps;
    Clock::time_point next;
    uint32_t changes = 0;  // that were made; an even number: the device is up

    [[nodiscard]] bool over() const { return changes == 2 * flaps.count; }
};

void Change(Schedule* schedule) {
    const bool goes = schedule->changes++ % 2 == 0;
    static_cast<void>(
        ChangeDeviceState(schedule->device, goes ? DeviceState::kDown : DeviceState::kUp));
    schedule->next += milliseconds(goes ? schedule->flaps.downMs : schedule->flaps.upMs);
}

void Follow(const std::shared_ptr<const Scenario>& scenario, std::vector<Schedule> schedules) {
    constexpr milliseconds kGlance{100};  // at whether the scenario is still the current one
    while (DriverState::Get().scenario() == scenario) {
        auto next = Clock::now() + kGlance;
        for (Schedule& schedule : schedules) {
            if (!schedule.over() && schedule.next <= Clock::now()) {
                Change(&schedule);
            }
            if (!schedule.over()) {
                next = std::min(next, schedule.next);
            }
        }
        std::this_thread::sleep_until(next);
    }
}

}  // namespace

bool ChangeDeviceState(uint32_t logicalDevice, DeviceState state) {
    if (!DriverState::Get().SetState(logicalDevice, state)) {
        return false;
    }
    if (state != DeviceState::kUp) {
        EndWhatRunsOn(logicalDevice);
    }
    return true;
}

void FollowFlaps(const std::shared_ptr<const Scenario>& scenario) {
    std::vector<Schedule> schedules;
    for (const SimulatedDevice& device : scenario->devices) {
        if (device.flaps.count != 0) {
            schedules.push_back(
                {device.logicalId, device.flaps, Clock::now() + milliseconds(device.flaps.upMs)});
        }
    }
    if (!schedules.empty()) {
        std::thread([scenario, schedules] { Follow(scenario, schedules); }).detach();
    }
}

}  // namespace orla::emulation
