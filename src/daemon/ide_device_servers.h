// The servers of service type 4: one per device, each with a thread "ide_hdc_server" that makes
// it, accepts sessions and starts a thread for each (ide_session.h).
//
//     no server --made, in steps of 5 s--> accepting --anything that fails--> no server
//
// A failure costs a device its server, and not its listener: hosts that wait in the old one are
// sent away, and the next one serves. After two failures without a session in between the thread
// pauses, so that a driver which fails every accept doesn't keep the processor busy.
//
// The operations are the main thread's. Threads may outlive Stop, so the object is never destroyed.
#pragma once

#include <portability.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "hdc/hdc_server.h"

class DeviceServers {
public:
    // Devices may be served from now on.
    void Allow();
    // Starts the thread of a device, physical id, if there is none. False when that fails.
    [[nodiscard]] bool Start(uint32_t phyDevId);
    // Destroys all servers and waits for their threads, for a second at most.
    void Stop();

private:
    struct Device {
        uint32_t phyDevId;
        uint32_t logDevId = 0;  // its thread alone
        // Guarded by mutex_; null while there is none. The thread destroys it after a failure,
        // Stop makes a blocked accept return by that.
        HdcServerPtr server = nullptr;
    };
    struct ThreadArgument {
        DeviceServers* servers;
        std::shared_ptr<Device> device;
    };

    static void* IdeDaemonHdcHandleEvent(void* argument);

    // ---- On a device's thread ----
    void ServeDevice(Device& device);
    bool RunServer(Device& device);
    HdcServerPtr CreateServer(Device& device);
    void DestroyServer(Device& device);
    // Sleeps, and wakes at once when the servers are stopped.
    void Pause(std::chrono::milliseconds pause);
    void LeaveThread();

    bool IsRunning();
    HdcServerPtr ServerOf(const Device& device);
    // Returns false once the servers are stopped: the stop doesn't know this server.
    bool Keep(Device& device, const HdcServerPtr& server);

    std::map<uint32_t, std::shared_ptr<Device>> devices_;  // main thread alone

    std::mutex mutex_;  // guards the rest, and the servers of the devices
    std::condition_variable changed_;
    bool running_ = false;
    int threads_ = 0;
};
