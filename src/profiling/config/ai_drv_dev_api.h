// The profiling agent's questions to the driver about devices. Each operation asks the driver
// once, turns its result into the agent's convention and logs. What they share is how they
// treat a driver that is older than the agent: "not supported" is a state and no failure. It
// gives a warning, the operation succeeds, and the caller goes on with what it had before.
//
// No state and no lock: any thread asks when it needs to. They stand beside the platform facts,
// which are made of them, and below the data path, whose channel poll counts devices.
#pragma once

#include <device_driver.h>

#include <cstdint>
#include <string>
#include <vector>

namespace analysis::nedra::driver {

constexpr uint32_t kDeviceLimit = 64;  // devices at most; every device number is below

// ---- Which devices there are -----------------------------------------------------------------

// Number of devices, 0..64; -1 when the driver fails, doesn't know, or claims more.
[[nodiscard]] int DrvGetDevNum();
// Physical id, 0..63, of the device with this logical id; `index` itself when the driver has
// none or none in that range.
[[nodiscard]] int DrvGetDevPhyId(int index);
// The first `num` (1..64) device ids; 0 or -1. `ids` is cleared first and empty on a failure.
[[nodiscard]] int DrvGetDevIds(int num, std::vector<uint32_t>& ids);
// All device ids in decimal, "0,1,5"; empty when there are none or the driver fails.
[[nodiscard]] std::string DrvGetDevIdsStr();
// Whether this driver doesn't know how to count devices, which is how a helper answers.
[[nodiscard]] bool DrvIsHelper();
// Side that this process runs on, DRV_PLATFORM_DEVICE or another; 0 or -1. `info` is unchanged
// on a failure, and on a driver that can't tell, which gives 0.
[[nodiscard]] int DrvGetPlatformInfo(uint32_t& info);
// Version of the driver's interface, 0 when it has none to tell.
[[nodiscard]] int DrvGetApiVersion();

// ---- One number about one device ---------------------------------------------------------------

// A query is a row that can be called. 0, or -1 when the driver fails; `value` is unchanged
// then, and when the driver doesn't support the query, which gives 0.
struct NumberQuery {
    const char* name;  // of the operation, for its log lines
    int32_t module;
    int32_t info;

    [[nodiscard]] int operator()(uint32_t deviceId, int64_t& value) const;
};

inline constexpr NumberQuery DrvGetEnvType{"DrvGetEnvType", DEV_MODULE_SYSTEM,
                                           DEV_INFO_ENVIRONMENT};
inline constexpr NumberQuery DrvGetCtrlCpuId{"DrvGetCtrlCpuId", DEV_MODULE_CTRL_CPU,
                                             DEV_INFO_CORE_ID};
inline constexpr NumberQuery DrvGetCtrlCpuCoreNum{"DrvGetCtrlCpuCoreNum", DEV_MODULE_CTRL_CPU,
                                                  DEV_INFO_CORE_NUM};
inline constexpr NumberQuery DrvGetCtrlCpuEndianLittle{"DrvGetCtrlCpuEndianLittle",
                                                       DEV_MODULE_CTRL_CPU, DEV_INFO_ENDIAN_LITTLE};
inline constexpr NumberQuery DrvGetAiCpuCoreNum{"DrvGetAiCpuCoreNum", DEV_MODULE_AI_CPU,
                                                DEV_INFO_CORE_NUM};
inline constexpr NumberQuery DrvGetAiCpuCoreId{"DrvGetAiCpuCoreId", DEV_MODULE_AI_CPU,
                                               DEV_INFO_CORE_ID};
inline constexpr NumberQuery DrvGetAiCpuOccupyBitmap{"DrvGetAiCpuOccupyBitmap", DEV_MODULE_AI_CPU,
                                                     DEV_INFO_OCCUPY_BITMAP};
inline constexpr NumberQuery DrvGetTsCpuCoreNum{"DrvGetTsCpuCoreNum", DEV_MODULE_TS_CPU,
                                                DEV_INFO_CORE_NUM};
inline constexpr NumberQuery DrvGetAiCoreId{"DrvGetAiCoreId", DEV_MODULE_AI_CORE, DEV_INFO_CORE_ID};
inline constexpr NumberQuery DrvGetAiCoreNum{"DrvGetAiCoreNum", DEV_MODULE_AI_CORE,
                                             DEV_INFO_CORE_NUM};

// Number of vector cores, as the queries above; 0 without a question to the driver on the
// platform types that have none.
[[nodiscard]] int DrvGetAivNum(uint32_t deviceId, int64_t& value);

// ---- Time and frequency ------------------------------------------------------------------------

// Monotonic start time in nanoseconds and the device's counter. 0, or -1 as soon as the driver
// fails; `startMono` may then hold its answer already. What the driver doesn't support is left
// unchanged and gives 0.
[[nodiscard]] int DrvGetDeviceTime(uint32_t deviceId, uint64_t& startMono, uint64_t& cntvct);
// Frequency of the host's counter in MHz with six decimals; true when the driver gave one, which
// 0 and less are not. Else `freq` is emptied.
[[nodiscard]] bool DrvGetHostFreq(std::string& freq);
// The same for the counter of one device, but `freq` is unchanged without an answer.
[[nodiscard]] bool DrvGetDeviceFreq(uint32_t deviceId, std::string& freq);

}  // namespace analysis::nedra::driver
