// The driver's profiling interface, as the agent uses it: which channels a device has, starting
// one with the record that its kind takes, reading, polling, flushing and stopping. Whoever is
// above this file thinks in channel ids, DrvPeripheralProfileCfg and ProfileParams; what the
// driver expects in bytes (<prof_driver.h>) is filled here.
//
// The free functions have no state and may be called on any thread. Each logs what it is about to
// do and what came of it, and turns the driver's answer into the agent's 0 or -1.
#pragma once

#include <prof_driver.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "profiling/config/profile_params.h"
#include "profiling/config/singleton.h"

namespace analysis::nedra::driver {

// The channels of the driver's interface.
enum ProfChannelId : int {
    kChannelHbm = 1,
    kChannelPcie = 3,
    kChannelNic = 4,
    kChannelDvpp = 6,
    kChannelDdr = 7,
    kChannelLlc = 8,
    kChannelFabriclink = 9,
    kChannelTsCpu = 10,
    kChannelAiCore = 43,
    kChannelTsFw = 44,
    kChannelHwtsLog = 45,
    kChannelFmk = 46,
    kChannelL2CacheTask = 47,
    kChannelAivHwtsLog = 48,
    kChannelTsFw1 = 49,
    kChannelStarsSocLog = 50,
    kChannelStarsBlockLog = 51,
    kChannelStarsSocProfile = 52,
    kChannelFftsProfileTask = 53,
    kChannelFftsProfileSample = 54,
    kChannelAiVector = 85,
    kChannelRoce = 129,
    kChannelNpuAppMem = 130,
    kChannelNpuDevMem = 131,
    kChannelLpFreqConv = 132,
    kChannelDvppVenc = 135,
    kChannelDvppJpege = 136,
    kChannelDvppVdec = 137,
    kChannelDvppJpegd = 138,
    kChannelDvppVpc = 139,
    kChannelDvppPng = 140,
    kChannelDvppScd = 141,
};

// What most start operations are told.
struct DrvPeripheralProfileCfg {
    virtual ~DrvPeripheralProfileCfg() = default;

    int profDeviceId = -1;
    int profSamplePeriod = 0;  // in the driver's unit; of the AI core for DrvFftsProfileStart
    int aivSamplePeriod = 0;   // of the vector core; this and the modes: DrvFftsProfileStart only
    int profChannel = 0;
    void* configP = nullptr;  // record of a peripheral; the caller's, read during the call
    uint32_t configSize = 0;  // its bytes
    uint32_t cfgMode = 0;
    uint32_t aicMode = 0;
    uint32_t aivMode = 0;
};

// Ids of cores: bit n of a mask; 32 and above set none.
using Cores = std::vector<int>;
// Hexadecimal texts such as "0x8".
using Events = std::vector<std::string>;

// ---- Start --------------------------------------------------------------------------------------
// 0, or -1 with the driver's answer in the log.

[[nodiscard]] int DrvPeripheralStart(const DrvPeripheralProfileCfg& cfg);
// -1 without a call for more than 8 events.
[[nodiscard]] int DrvAicoreStart(const DrvPeripheralProfileCfg& cfg, const Cores& cores,
                                 const Events& events);
// Takes the first 8 events.
[[nodiscard]] int DrvAicoreTaskBasedStart(int devId, int channel, const Events& events);
[[nodiscard]] int DrvL2CacheTaskStart(int devId, int channel, const Events& events);
[[nodiscard]] int DrvTscpuStart(const DrvPeripheralProfileCfg& cfg, const Events& events);
// -1 for null parameters, as the next one.
[[nodiscard]] int DrvTsFwStart(const DrvPeripheralProfileCfg& cfg,
                               const std::shared_ptr<message::ProfileParams>& params);
[[nodiscard]] int DrvStarsSocLogStart(const DrvPeripheralProfileCfg& cfg,
                                      const std::shared_ptr<message::ProfileParams>& params);
// Takes the first 8 events of each kind of core.
[[nodiscard]] int DrvFftsProfileStart(const DrvPeripheralProfileCfg& cfg, const Cores& aicCores,
                                      const Events& aicEvents, const Cores& aivCores,
                                      const Events& aivEvents);
[[nodiscard]] int DrvInstrProfileStart(uint32_t devId, uint32_t channel, uint32_t period);
[[nodiscard]] int DrvHwtsLogStart(int devId, int channel);
[[nodiscard]] int DrvFmkDataStart(int devId, int channel);

// ---- Data and stop ------------------------------------------------------------------------------

[[nodiscard]] int DrvStop(int devId, int channel);
// Bytes read; 0 when nothing is there or the channel has stopped; -1 on an error, and the content
// of the buffer is then undefined. A channel that has stopped is worth a warning, unless its reader
// knows: `isStopped`.
[[nodiscard]] int DrvChannelRead(int devId, int channel, void* outBuf, uint32_t bufSize,
                                 bool isStopped = false);
// The number of channels in `pollInfo`, PROF_STOPPED_ALREADY, or another negative value on an
// error: -1 also when the driver claims more than `num`. `timeout` is in the driver's unit.
[[nodiscard]] int DrvChannelPoll(ProfPollInfo* pollInfo, int num, int timeout);
// Whether the driver has side buffers at all. Any thread.
[[nodiscard]] bool DrvHasProfFlush();
// Moves the driver's side buffer into the channel; `bufSize` then holds its bytes. -1 on an error,
// with `bufSize` unchanged, and with drivers that have no such buffers.
[[nodiscard]] int DrvProfFlush(uint32_t devId, uint32_t channel, uint32_t& bufSize);

// ---- Which channels there are -------------------------------------------------------------------

struct DrvProfChannelInfo {
    virtual ~DrvProfChannelInfo() = default;

    uint32_t channelId = 0;
    uint32_t channelType = 0;
    std::string channelName;  // all 32 bytes, zeros included
};

struct DrvProfChannelsInfo {
    virtual ~DrvProfChannelsInfo() = default;

    int deviceId = -1;
    uint32_t chipType = 0;
    std::vector<DrvProfChannelInfo> channels;
};

// Asks the driver for the channels of `channels.deviceId`. 0, or -1 with `channels` as it was.
// Entries with an impossible id are left out.
[[nodiscard]] int DrvGetChannels(DrvProfChannelsInfo& channels);

// The channel lists of all devices, as of the last start of a collection on each.
class DrvChannelsMgr : public common::singleton::Singleton<DrvChannelsMgr> {
public:
    // Reads a device's list from the driver. 0, or -1 with the old list kept.
    [[nodiscard]] int GetAllChannels(int devIndexId);
    // Whether the device has the channel and the tuning file does not switch it off. False before
    // the first GetAllChannels of the device.
    [[nodiscard]] bool ChannelIsValid(int devId, int channelId);

private:
    friend common::singleton::Singleton<DrvChannelsMgr>;
    DrvChannelsMgr() = default;

    std::mutex mutex_;
    std::map<int, DrvProfChannelsInfo> channels_;  // guarded by mutex_
};

}  // namespace analysis::nedra::driver
