// What a collection job is, and who may run which job on which device.
//
// A job is one kind of data that the agent collects: a driver channel, a set of channels, a
// script, a handler on the timer. CollectEngine owns the job objects of one profiling job and
// drives them through CollectionRegisterMgr, on the thread of its control session:
//
//     Init(cfg) --0--> CollectionJobRegisterAndRun --> Process … CollectionJobUnregisterAndStop
//        |                    | held elsewhere: -1                         --> Uninit
//        `-- else: declines   `-- the job does not run
//
// This goes round once per replay with the same objects. Init of a job that is registered is not
// called. Uninit follows every Process, also one that failed, and nothing else.
//
// The registry holds a job from its registration to the end of its Uninit: until then its tag is
// taken, so no job starts on what another one has not let go of. The mutex is held for the
// look-up and the change of state only. Process and Uninit run outside it, on the thread of their
// engine: a job that waits there, for its host or for a script, holds up nobody else's.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "profiling/config/job_records.h"
#include "profiling/config/profile_params.h"
#include "profiling/config/singleton.h"

namespace Analysis::Nedra::JobWrapper {

// The kinds of data. Tags 31 to 36 have no job.
enum CollectionJobTag : int {
    DDR_DRV_COLLECTION_JOB = 0,
    HBM_DRV_COLLECTION_JOB,
    LLC_DRV_COLLECTION_JOB,
    DVPP_COLLECTION_JOB,
    NIC_COLLECTION_JOB,
    PCIE_DRV_COLLECTION_JOB,
    FABRICLINK_DRV_COLLECTION_JOB,
    ROCE_DRV_COLLECTION_JOB,
    APP_MEM_DRV_COLLECTION_JOB,
    DEV_MEM_DRV_COLLECTION_JOB,
    LPM_FREQ_CONV_DRV_COLLECTION_JOB,
    TS_CPU_DRV_COLLECTION_JOB,
    TS_TRACK_DRV_COLLECTION_JOB,
    AIV_TS_TRACK_DRV_COLLECTION_JOB,
    AI_CORE_SAMPLE_DRV_COLLECTION_JOB,
    AI_CORE_TASK_DRV_COLLECTION_JOB,
    AIV_SAMPLE_DRV_COLLECTION_JOB,
    AIV_TASK_DRV_COLLECTION_JOB,
    HWTS_LOG_COLLECTION_JOB,
    AIV_HWTS_LOG_COLLECTION_JOB,
    FMK_COLLECTION_JOB,
    L2_CACHE_TASK_COLLECTION_JOB,
    STARS_SOC_LOG_COLLECTION_JOB,
    STARS_BLOCK_LOG_COLLECTION_JOB,
    STARS_SOC_PROFILE_COLLECTION_JOB,
    FFTS_PROFILE_COLLECTION_JOB,
    INSTR_PERF_COLLECTION_JOB,
    CTRLCPU_PERF_COLLECTION_JOB,
    SYSSTAT_PROC_COLLECTION_JOB,
    SYSMEM_PROC_COLLECTION_JOB,
    ALLPID_PROC_COLLECTION_JOB,
    NR_MAX_COLLECTION_JOB = 37,  // no tag
};

// The file of each kind of data, below the result of a profiling job. Empty from tag 28 on: the
// sampling jobs' files are named by their handlers.
inline constexpr std::array<const char*, NR_MAX_COLLECTION_JOB> COLLECTION_JOB_FILENAME = {
    "data/ddr.data",
    "data/hbm.data",
    "data/llc.data",
    "data/dvpp.data",
    "data/nic.data",
    "data/pcie.data",
    "data/fabriclink.data",
    "data/roce.data",
    "data/npu_mem.app",
    "data/npu_mem.data",
    "data/lpmFreqConv.data",
    "data/tscpu.data",
    "data/ts_track.data",
    "data/ts_track.aiv_data",
    "data/aicore.data",
    "data/aicore.data",
    "data/aiVectorCore.data",
    "data/aiVectorCore.data",
    "data/hwts.data",
    "data/hwts.aiv_data",
    "data/training_trace.data",
    "data/l2_cache.data",
    "data/stars_soc.data",
    "data/stars_block.data",
    "data/stars_soc_profile.data",
    "data/ffts_profile.data",
    "data/instr",
    "data/ai_ctrl_cpu.data",
    "",
    "",
    "",
    "",
    "",
    "",
    "",
    "",
    "",
};

// What all jobs of one engine share. The engine writes it on its own thread, between replays;
// `jobCtx` is empty outside a replay. A job's own threads take copies of the pointers in Process.
struct CollectionJobCommonParams {
    int devId = 0;          // the device, as the driver counts
    int devIdOnHost = 0;    // the same device, as the host counts
    int devIdFlush = 0;     // the number in the job context and the finish message; = devIdOnHost
    std::string resultDir;  // where a job's files lie; set by the job that needs it
    std::shared_ptr<analysis::nedra::message::ProfileParams> params;
    std::shared_ptr<analysis::nedra::message::JobContext> jobCtx;
};

// What one job works from. It lives as long as its engine; the engine renews `events` at a start
// of a job that is not registered, and releases `events` and `cores` after the job's Uninit.
struct CollectionJobCfg {
    int jobTag = NR_MAX_COLLECTION_JOB;
    std::string jobFileName;                  // path of the output file, where there is one
    std::shared_ptr<std::vector<int>> cores;  // ids of the AI cores
    std::shared_ptr<std::vector<std::string>> events;  // PMU events
    std::shared_ptr<std::vector<int>> aivCores;        // the same two of the vector cores
    std::shared_ptr<std::vector<std::string>> aivEvents;
    std::shared_ptr<CollectionJobCommonParams> commonParams;
};

// The order of the virtual operations is a part of the interface.
class ICollectionJob {
public:
    virtual ~ICollectionJob() = default;
    // Takes the configuration and decides whether the job runs: 0; anything else declines, and
    // neither of the other two is called.
    [[nodiscard]] virtual int Init(std::shared_ptr<CollectionJobCfg> cfg) = 0;
    // Starts collecting. 0, or the job counts as not run; Uninit is called all the same.
    [[nodiscard]] virtual int Process() = 0;
    // Stops collecting; the job's threads are gone when it returns.
    [[nodiscard]] virtual int Uninit() = 0;
    // Whether only one such job may run in the whole process, whatever the device. It must not
    // change while the job is registered.
    [[nodiscard]] virtual bool IsGlobalJobLevel() { return false; }
};

// The checks at the head of a job's Init, Process and Uninit: true when the operation may go on;
// a failure is logged here.
//
// `commonParams` is there.
[[nodiscard]] bool CheckJobCommonParam(const std::shared_ptr<CollectionJobCfg>& cfg);
// And there is at least one event.
[[nodiscard]] bool CheckJobEventParam(const std::shared_ptr<CollectionJobCfg>& cfg);
// `commonParams`, and in it `jobCtx` and `params`.
[[nodiscard]] bool CheckJobContextParam(const std::shared_ptr<CollectionJobCfg>& cfg);
// The test that follows in every Init: false, silently, for a host-side job, which collects
// nothing on the device, and when there are no `params`. Needs a configuration that passed a check.
[[nodiscard]] bool IsDeviceSideJob(const CollectionJobCfg& cfg);

// Which job runs where. All operations may be called on any thread.
class CollectionRegisterMgr
    : public analysis::nedra::common::singleton::Singleton<CollectionRegisterMgr> {
public:
    // Registers the job and runs its Process. What Process answered; -1, and the registry does
    // not keep the job, when an argument is bad (device 0 and up, tag 0 to 36, a job), the tag
    // is held on this device, or it is held as a global job on any device.
    [[nodiscard]] int CollectionJobRegisterAndRun(int devId, int jobTag,
                                                  const std::shared_ptr<ICollectionJob>& job);
    // Runs the job's Uninit and takes it out. What Uninit answered; -1 when an argument is bad,
    // this device does not hold that tag, or the job is being stopped already. With `own`, only
    // that very object is taken: two engines may work on one device, and neither may stop the
    // other's job.
    [[nodiscard]] int CollectionJobUnregisterAndStop(
        int devId, int jobTag, const std::shared_ptr<ICollectionJob>& own = nullptr);
    // Whether this very object is registered there, and not being stopped.
    [[nodiscard]] bool Holds(int devId, int jobTag, const std::shared_ptr<ICollectionJob>& job);

private:
    friend analysis::nedra::common::singleton::Singleton<CollectionRegisterMgr>;
    CollectionRegisterMgr() = default;

    struct Place {
        std::shared_ptr<ICollectionJob> job;
        bool isEnding = false;  // its Uninit runs
    };
    using JobsOfDevice = std::map<int, Place>;  // by tag

    // These need the mutex.
    // Whether the tag is free for the device. False too for bad arguments; for a global job that
    // runs, `devId` then names its device.
    bool CheckCollectionJobIsNoRegister(int& devId, int jobTag) const;
    bool InsertCollectionJob(int devId, int jobTag, const std::shared_ptr<ICollectionJob>& job);
    // Hands the job out to be stopped; its place stays taken until FreePlace.
    bool GetAndDelCollectionJob(int devId, int jobTag, const std::shared_ptr<ICollectionJob>& own,
                                std::shared_ptr<ICollectionJob>& job);

    void FreePlace(int devId, int jobTag);

    std::mutex mutex_;
    std::map<int, JobsOfDevice> jobs_;  // by device; a device stays when its last job has gone
};

}  // namespace Analysis::Nedra::JobWrapper
