// The jobs of the cores and their schedulers, each on a driver channel of its own: task scheduler,
// AI and vector cores, hardware logs, caches, instructions. What is special to each stands in the
// tables of prof_job.cpp; the road is that of prof_drv_job.h.
//
//     tag                        channel     runs when                           start
//     11 ProfTscpuJob            10          there are events                    Tscpu
//     12 ProfTsTrackJob          44          one of six task scheduler switches  TsFw
//     13   ProfAivTsTrackJob     49          one of four of them                 TsFw
//     14 ProfAicoreJob           43          ai_core_profiling, sample-based     Aicore
//     15 ProfAicoreTaskBasedJob  43          ai_core_profiling, task-based       AicoreTaskBased
//     16   ProfAivJob            85          aiv_profiling, sample-based         Aicore
//     17   ProfAivTaskBasedJob   85          aiv_profiling, task-based           AicoreTaskBased
//     18 ProfHwtsLogJob          45          hwts_log                            HwtsLog
//     19   ProfAivHwtsLogJob     48          hwts_log1                           HwtsLog
//     20 ProfFmkJob              46          always; collects by ts_fw_training  FmkData
//     21 ProfL2CacheTaskJob      47          l2CacheTaskProfiling                L2CacheTask
//     22   ProfStarsSocLogJob    50          always                              StarsSocLog
//     23   ProfStarsBlockLogJob  51          always; collects nothing            none
//     25   ProfFftsProfileJob    53 or 54    ai_core_profiling or aiv_profiling  FftsProfile
//     26 ProfInstrPerfJob        75 of them  instrProfiling                      InstrProfile
//
// Whoever places one in an engine's array sets what it works from: `jobFileName`, and `cores` and
// `events` where there are such. Init decides and picks the channel; an event list is needed by
// tags 11, 14 to 17 and 25, tag 21 takes its own from the parameters.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "profiling/collect/prof_drv_job.h"

namespace Analysis::Nedra::JobWrapper {

class ProfTscpuJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;
};

// ---- Task scheduler ----------------------------------------------------------------------------

class ProfTsTrackJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

protected:
    int channelId_ = analysis::nedra::driver::kChannelTsFw;
};

class ProfAivTsTrackJob : public ProfTsTrackJob {
public:
    // Switches ts_keypoint off for all who read the parameters later.
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
};

// The next three have a channel of their own beside that of their base.
class ProfStarsSocLogJob : public ProfTsTrackJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

protected:
    int channelId_ = analysis::nedra::driver::kChannelStarsSocLog;
};

// Its channel is never started.
class ProfStarsBlockLogJob : public ProfTsTrackJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override { return 0; }
    [[nodiscard]] int Uninit() override { return 0; }

protected:
    int channelId_ = analysis::nedra::driver::kChannelStarsBlockLog;
};

class ProfFftsProfileJob : public ProfTsTrackJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    // Always 0.
    [[nodiscard]] int Uninit() override;

private:
    int channelId_ = 0;
    uint32_t cfgMode = 0;  // 1: AI core, 2: vector core
    uint32_t aicMode = 0;  // 1: task based, 2: sample based; 4: blocks; 8: always
    uint32_t aivMode = 0;
    int aicPeriod = 10;
    int aivPeriod = 10;
};

// ---- Cores -------------------------------------------------------------------------------------

class ProfAicoreJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

protected:
    int period = 10;
    std::string taskType;
    int channelId_ = analysis::nedra::driver::kChannelAiCore;
};

class ProfAivJob : public ProfAicoreJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
};

class ProfAicoreTaskBasedJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

protected:
    std::string taskType;
    int channelId_ = analysis::nedra::driver::kChannelAiCore;
};

class ProfAivTaskBasedJob : public ProfAicoreTaskBasedJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
};

// ---- Logs, caches, instructions ----------------------------------------------------------------

class ProfHwtsLogJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

protected:
    int channelId_ = analysis::nedra::driver::kChannelHwtsLog;
};

class ProfAivHwtsLogJob : public ProfHwtsLogJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
};

class ProfFmkJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

private:
    [[nodiscard]] bool Collects() const;
};

class ProfL2CacheTaskJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;
};

class ProfInstrPerfJob : public ProfDrvJob {
public:
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    // Starts all channels that there are; what the last start answered.
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;

private:
    using Group = std::array<int, 3>;  // the channels of the columns "aic", "aiv0" and "aiv1"
    using Table = std::array<Group, 25>;

    [[nodiscard]] static Table MakeTable();
    // Calls `act(channel, group, column)` for each channel that there is, in this order.
    template <typename Act>
    void ForEachChannel(const Act& act) const;
    [[nodiscard]] int StartOne(int channelId, int group, size_t column);
    void StopOne(int channelId);

    int period = 0;
    std::vector<int> groups;
    const Table channels = MakeTable();
};

}  // namespace Analysis::Nedra::JobWrapper
