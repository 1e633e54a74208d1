// The emulated driver of this process: its scenario, its devices' states, its faults; and the
// frame in which every C operation of the driver runs.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "faults.h"
#include "results.h"
#include "scenario.h"
#include "shake.h"

namespace orla::emulation {

struct DeviceIds {
    uint32_t logicalId;
    uint32_t physicalId;
};

class DriverState {
public:
    // The one of this process, made by the first call. It is never destroyed, so that threads
    // which are still in the driver when the process ends find it.
    [[nodiscard]] static DriverState& Get();

    // False when the scenario file was malformed: then every driver call fails.
    [[nodiscard]] bool usable() const { return usable_.load(std::memory_order_relaxed); }
    // The current scenario; never null once usable.
    [[nodiscard]] std::shared_ptr<const Scenario> scenario() const;
    // State of a device now; kDown for one that the scenario doesn't have.
    [[nodiscard]] DeviceState StateOf(uint32_t logicalDevice) const;
    // The devices that are not down, in the order of the scenario.
    [[nodiscard]] std::vector<DeviceIds> PresentDevices() const;
    [[nodiscard]] FaultPlan& faults() { return faults_; }
    [[nodiscard]] Shake& shake() { return shake_; }

    // Makes `scenario` the current one, with its faults and states.
    void Use(const std::shared_ptr<const Scenario>& scenario);
    // Takes the scenario of the environment; tells stderr what is wrong with it.
    void ReadEnvironment();
    // False for an unknown device. The caller ends what the change ends.
    [[nodiscard]] bool SetState(uint32_t logicalDevice, DeviceState state);

private:
    DriverState() { ReadEnvironment(); }

    std::atomic<bool> usable_{false};
    FaultPlan faults_;
    Shake shake_;
    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::shared_ptr<const Scenario> scenario_;
    std::map<uint32_t, DeviceState> states_;  // by logical id
};

// The logical ids of the present devices into `ids`, at most `length` (1..64) of them: the body
// of both operations that list devices.
[[nodiscard]] int CopyPresentIds(uint32_t* ids, uint32_t length);

// Runs the body of a driver operation: counted, refused without a usable scenario, replaced by a
// fault that fires, shaken, and with nothing thrown into C callers. What the call uses has been
// told that it begins.
template <typename Body>
[[nodiscard]] int RunCall(Call call, const CallSubject& subject, Body&& body,
                          const FrameResults& failures = {}) noexcept {
    try {
        DriverState& driver = DriverState::Get();
        driver.shake().Hold();
        if (const auto fault = driver.faults().Check(call, subject)) {
            return *fault;
        }
        const int result = driver.usable() ? body() : failures.noScenario;
        driver.shake().Hold();
        return result;
    } catch (const std::bad_alloc&) {
        return failures.noMemory;
    } catch (...) {
        return failures.internal;
    }
}

}  // namespace orla::emulation
