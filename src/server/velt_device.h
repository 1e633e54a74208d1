// The table of devices: which are up, which are suspended. The server manager asks for both
// every round; notifications change states from any thread. The mutex covers every operation.
//
// A device enters the table as up and never leaves it:
//
//     (unknown) --AddDevice--> up <--DeviceUp / DeviceSuspend--> suspended
//
// Ids are logical ids as decimal text, and lists are in text order: "10" before "2".
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Velt {

using DeviceList = std::vector<std::string>;

class VeltDevice {
public:
    VeltDevice() = default;
    VeltDevice(const VeltDevice&) = delete;
    VeltDevice& operator=(const VeltDevice&) = delete;
    virtual ~VeltDevice() = default;

    // Replaces `list` by the devices that are up, after filling an empty table. Mode 0 serves
    // all devices, any other only `deviceId`.
    virtual void GetAllEnableDevices(int32_t mode, int32_t deviceId, DeviceList& list) = 0;

    // Unknown ids are ignored.
    void DeviceUp(const std::string& id);
    void DeviceSuspend(const std::string& id);
    // Appends the devices that are up.
    void GetEnableDevices(DeviceList& list) const;
    // Replaces `list` by the devices that are suspended.
    void GetDisableDevices(DeviceList& list) const;
    // A known id keeps its state.
    void AddDevice(const std::string& id);
    [[nodiscard]] bool IsEmpty() const;

protected:
    enum class State : uint32_t { kUp = 1, kSuspended = 2 };
    using StateMap = std::map<std::string, State>;

    void AppendIds(State state, DeviceList& list) const;  // mutex_ held

    mutable std::mutex mutex_;
    StateMap devices_;  // guarded by mutex_

private:
    bool ChangeState(const std::string& id, State state);
};

}  // namespace Velt
