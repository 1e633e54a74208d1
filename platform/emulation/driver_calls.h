// The operations of the driver, and of the monitor's client, by name: what a fault names and what
// calls are counted under.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace orla::emulation {

// clang-format off
#define ORLA_DRIVER_CALLS(X)                                                                      \
    X(drvHdcClientCreate) X(drvHdcClientDestroy) X(drvHdcServerCreate) X(drvHdcServerDestroy)     \
    X(drvHdcSessionAccept) X(drvHdcSessionConnect) X(halHdcSessionConnectEx)                      \
    X(drvHdcSetSessionReference) X(drvHdcSessionClose) X(halHdcGetSessionAttr)                    \
    X(drvHdcGetCapacity) X(drvHdcAllocMsg) X(drvHdcFreeMsg) X(drvHdcReuseMsg)                     \
    X(drvHdcAddMsgBuffer) X(drvHdcGetMsgBuffer) X(halHdcSend) X(halHdcRecv)                       \
    X(drvHdcEpollCreate) X(drvHdcEpollClose) X(drvHdcEpollCtl) X(drvHdcEpollWait)                 \
    X(drvGetDevNum) X(drvGetDeviceLocalIDs) X(drvDeviceGetPhyIdByIndex)                           \
    X(drvGetPlatformInfo) X(drvGetDevIDs) X(halGetDeviceInfo) X(halGetAPIVersion)                 \
    X(prof_drv_get_channels) X(prof_drv_start) X(prof_stop) X(prof_channel_read)                  \
    X(prof_channel_poll) X(halProfDataFlush)                                                      \
    X(appmon_client_init) X(appmon_client_register) X(appmon_client_heartbeat)                    \
    X(appmon_client_deregister) X(appmon_client_exit)
// clang-format on

enum class Call : size_t {
#define ORLA_CALL_VALUE(name) name,
    ORLA_DRIVER_CALLS(ORLA_CALL_VALUE)
#undef ORLA_CALL_VALUE
        kCount
};

constexpr size_t kCallCount = static_cast<size_t>(Call::kCount);

inline constexpr std::array<std::string_view, kCallCount> kCallNames = {
#define ORLA_CALL_NAME(name) #name,
    ORLA_DRIVER_CALLS(ORLA_CALL_NAME)
#undef ORLA_CALL_NAME
};

[[nodiscard]] constexpr std::optional<Call> FindCall(std::string_view name) {
    for (size_t i = 0; i < kCallCount; ++i) {
        if (kCallNames[i] == name) {
            return static_cast<Call>(i);
        }
    }
    return std::nullopt;
}

}  // namespace orla::emulation
