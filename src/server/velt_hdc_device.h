// The devices of the driver, and the two entry points for its notifications.
#pragma once

#include <cstdint>

#include "server/velt_device.h"

namespace Velt {

// The table is filled once, by the first call that finds something: until the driver answers,
// every call asks again. The driver is asked under the mutex.
class VeltHdcDevice final : public VeltDevice {
public:
    // In mode 0 the driver's list; in any other mode `deviceId`, if that is 32..63.
    void GetAllEnableDevices(int32_t mode, int32_t deviceId, DeviceList& list) override;

private:
    void FillFromDriver();
};

// What a driver tells of a device that changed its state.
struct DeviceStateMessage {
    uint32_t state;
    uint32_t deviceId;  // logical
};

// To be hooked into a driver that notifies, once the server has started: devices that came up,
// and devices that changed their state. They work on the devices of the HDC option, on any
// thread. 0 on success, ids that are out of range or unknown included; 1 for a null argument
// and when there is no HDC option.
int DeviceStartupNotify(uint32_t count, const uint32_t* ids);
int DeviceStateNotify(const DeviceStateMessage* message);

}  // namespace Velt
