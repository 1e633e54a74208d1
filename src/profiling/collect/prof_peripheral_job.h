// The jobs of the blocks around the cores: memory, buses, network, media engines. All go one road,
// that of ProfPeripheralJob, and differ in channel, switch, period and the configuration record
// that the channel is started with (peripheral_records.h).
//
//     tag                       channel            runs when                    period, default
//      0 ProfDdrJob             7                  ddr_profiling, events        ddr_interval, 1
//      1 ProfHbmJob             1                  hbmProfiling, events         hbmInterval, 1
//      2 ProfLlcJob             see prof_llc_job.h
//      3 ProfDvppJob            6 and 135 to 141   dvpp_profiling               dvpp_…interval, 10
//      4 ProfNicJob             4                  nicProfiling                 nicInterval, 10
//      5 ProfPcieJob            3                  pcieProfiling                pcieInterval, 1
//      6 ProfFabriclinkJob      9                  fabriclinkProfiling          fabriclink…, 1
//      7 ProfRoceJob            129                roceProfiling                roceInterval, 10
//      8 ProfAppMemJob          130                memProfiling, an app         memInterval
//      9 ProfDevMemJob          131                memProfiling                 memInterval
//     10 ProfLpmFreqConvJob     132                ai_core_lpm                  100
//     24 ProfStarsSocProfileJob 52                 always                       100
//
// Those with tags 3 to 7 name their data file themselves; for the others it is in the
// configuration. Called by the engine through the registry, on one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "profiling/collect/prof_drv_job.h"

namespace Analysis::Nedra::JobWrapper {

// What differs in Init.
struct PeripheralChoice {
    ChannelChoice choice;
    int (*period)(const ProfileParams& params);
    const char* fileName;  // bare; null: the configuration has it
};

// `interval`, or 1 when the driver would not take it: it takes 1 to 1000.
[[nodiscard]] int FinePeriod(int interval);

class ProfPeripheralJob : public ProfDrvJob {
public:
    ~ProfPeripheralJob() override;

    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    // On the job's channel: what the driver answered, 0 without the channel, -1 when the check
    // fails, or what SetPeripheralConfig answered.
    [[nodiscard]] int Process() override;
    // 0, or -1 when the check fails.
    [[nodiscard]] int Uninit() override;
    // Puts the record into peripheralCfg_; here there is none. 0, or -1 without a record.
    [[nodiscard]] virtual int SetPeripheralConfig();

protected:
    explicit ProfPeripheralJob(int channelId) : channelId_(channelId) {}

    [[nodiscard]] int Decide(const PeripheralChoice& kind, std::shared_ptr<CollectionJobCfg> cfg);
    // Whether the device has the channel; if not, that is logged.
    [[nodiscard]] bool IsThere(int channelId) const;
    // Reader and start of one channel; the record goes in any case. What the driver answered.
    [[nodiscard]] int StartReading(int channelId, const std::string& filePath);
    // Stop of one channel, and its reader.
    void StopReading(int channelId);
    // Makes a copy of the record's bytes the one in peripheralCfg_; false without memory.
    [[nodiscard]] bool KeepConfig(const void* bytes, size_t size);
    void FreeConfig();

    int samplePeriod_ = 100;
    int channelId_;
    analysis::nedra::driver::DrvPeripheralProfileCfg peripheralCfg_;  // owns the record
    std::string eventsStr_;                                           // for log lines
};

// ---- Jobs with a record ------------------------------------------------------------------------

// A class that decides by its table and makes a record of its own.
#define PERIPHERAL_JOB(name, channel)                                           \
    class name : public ProfPeripheralJob {                                     \
    public:                                                                     \
        name() : ProfPeripheralJob(analysis::nedra::driver::channel) {}         \
        [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override; \
        [[nodiscard]] int SetPeripheralConfig() override;                       \
    }
PERIPHERAL_JOB(ProfDdrJob, kChannelDdr);
PERIPHERAL_JOB(ProfHbmJob, kChannelHbm);
PERIPHERAL_JOB(ProfAppMemJob, kChannelNpuAppMem);
PERIPHERAL_JOB(ProfDevMemJob, kChannelNpuDevMem);
PERIPHERAL_JOB(ProfLpmFreqConvJob, kChannelLpFreqConv);
PERIPHERAL_JOB(ProfStarsSocProfileJob, kChannelStarsSocProfile);
#undef PERIPHERAL_JOB

// ---- Jobs without ------------------------------------------------------------------------------

#define PERIPHERAL_JOB(name, channel)                                           \
    class name : public ProfPeripheralJob {                                     \
    public:                                                                     \
        name() : ProfPeripheralJob(analysis::nedra::driver::channel) {}         \
        [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override; \
    }
PERIPHERAL_JOB(ProfNicJob, kChannelNic);
PERIPHERAL_JOB(ProfPcieJob, kChannelPcie);
PERIPHERAL_JOB(ProfFabriclinkJob, kChannelFabriclink);
PERIPHERAL_JOB(ProfRoceJob, kChannelRoce);
#undef PERIPHERAL_JOB

// One channel on some generations of the chip, one per engine on others, both on yet others.
class ProfDvppJob : public ProfPeripheralJob {
public:
    ProfDvppJob();
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    // A channel of an engine that does not start is logged and changes nothing.
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

private:
    const std::vector<int> channels_;                // of the engines, in their order
    const std::map<int, std::string> channelFiles_;  // below `resultDir`
};

}  // namespace Analysis::Nedra::JobWrapper
