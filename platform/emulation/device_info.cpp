// The driver's device queries, answered from the scenario. What the scenario doesn't say isn't
// supported, but for the two answers that run with time: a scenario that names them stops them.
#include <device_driver.h>
#include <time.h>

#include "driver_state.h"

using namespace orla::emulation;

namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;

int64_t MonotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

// The counter of a device runs at the frequency that the device tells of it, so that a reader
// who divides the one by the other gets the time; without a frequency it counts nanoseconds.
int64_t Counter(const SimulatedDevice& device) {
    const InfoAnswer* told = device.FindInfo(DEV_MODULE_SYSTEM, DEV_INFO_DEVICE_FREQ);
    const bool known = told != nullptr && told->result == DRV_ERROR_NONE && told->value > 0;
    const int64_t kiloHertz = known ? told->value : kNanosecondsPerMillisecond;
    return static_cast<int64_t>(static_cast<__int128>(MonotonicNanoseconds()) * kiloHertz /
                                kNanosecondsPerMillisecond);
}

int Answer(const SimulatedDevice& device, int32_t module, int32_t info, int64_t* value) {
    if (const InfoAnswer* told = device.FindInfo(module, info)) {
        if (told->result == DRV_ERROR_NONE) {
            *value = told->value;
        }
        return told->result;
    }
    if (module == DEV_MODULE_SYSTEM && info == DEV_INFO_COUNTER) {
        *value = Counter(device);
        return DRV_ERROR_NONE;
    }
    if (module == DEV_MODULE_SYSTEM && info == DEV_INFO_START_MONO) {
        static const int64_t start = MonotonicNanoseconds();  // devices start when they are asked
        *value = start;
        return DRV_ERROR_NONE;
    }
    return DRV_ERROR_NOT_SUPPORT;
}

int DeviceInfo(uint32_t device, int32_t module, int32_t info, int64_t* value) {
    if (value == nullptr) {
        return kInvalidArgument;
    }
    const auto scenario = DriverState::Get().scenario();
    const SimulatedDevice* found = scenario->FindDevice(device);
    if (found == nullptr || DriverState::Get().StateOf(device) == DeviceState::kDown) {
        return kNoDevice;
    }
    return Answer(*found, module, info, value);
}

// One number of the scenario that no device has a part in.
template <typename Number>
int Tell(Number* out, Number Scenario::*field) {
    if (out == nullptr) {
        return kInvalidArgument;
    }
    *out = (*DriverState::Get().scenario()).*field;
    return DRV_ERROR_NONE;
}

}  // namespace

drvError_t drvGetPlatformInfo(uint32_t* info) {
    return RunCall(Call::drvGetPlatformInfo, {},
                   [&] { return Tell(info, &Scenario::platformInfo); });
}

drvError_t halGetAPIVersion(int* version) {
    return RunCall(Call::halGetAPIVersion, {},
                   [&] { return Tell(version, &Scenario::apiVersion); });
}

drvError_t drvGetDevIDs(uint32_t* ids, uint32_t count) {
    return RunCall(Call::drvGetDevIDs, {}, [&] { return CopyPresentIds(ids, count); });
}

drvError_t halGetDeviceInfo(uint32_t device, int32_t module, int32_t info, int64_t* value) {
    return RunCall(Call::halGetDeviceInfo, {device},
                   [&] { return DeviceInfo(device, module, info, value); });
}
