// Turns the start of a profiling job into running collection jobs, and its stop into an orderly
// end. One engine per job and device; it reads no data itself.
//
//        Init           CollectStart               Start
//   new -----> ready -----------------> session ----------> session, jobs run
//                ^                        |   ^                 |
//                |      CollectStop       |   `----- Stop ------|
//                `------------------------'---------------------'
//
// ProfJobHandler owns the engine and calls it in that order on the thread of the control session,
// or on the thread that cleans up at the end; never on two at once, and the engine has no lock
// for its own fields. The job objects are made by Init and live as long as the engine: each goes
// round once per replay. A job's own threads start in its Process and have ended when Stop
// returns.
//
// While Stop or CollectStop runs, the host may keep a message of this job waiting for a bounded
// time only: a job's Uninit, like the finish, may have to wait for room in the queue to the host.
// Between the two nothing waits, and the host may take its time.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "profiling/collect/collection_register.h"
#include "profiling/config/job_records.h"

namespace analysis::nedra::device {

using Analysis::Nedra::JobWrapper::CollectionJobCfg;
using Analysis::Nedra::JobWrapper::CollectionJobCommonParams;
using Analysis::Nedra::JobWrapper::ICollectionJob;

// One slot of the engine's array.
struct CollectionJobInfo {
    int jobTag = Analysis::Nedra::JobWrapper::NR_MAX_COLLECTION_JOB;  // that: an empty slot
    std::shared_ptr<CollectionJobCfg> jobCfg;
    std::shared_ptr<ICollectionJob> job;
};

class CollectEngine {
public:
    using Events = std::shared_ptr<std::vector<std::string>>;

    CollectEngine() = default;
    virtual ~CollectEngine();
    CollectEngine(const CollectEngine&) = delete;
    CollectEngine& operator=(const CollectEngine&) = delete;

    // Makes the jobs. `devId` is the device as the driver counts. 0, or -1 without memory.
    [[nodiscard]] int Init(int devId);
    // Stops what runs, as CollectStop, and lets the common parameters go. Once; without an Init
    // nothing. The destructor does the same.
    void Uninit();
    // The number under which the host knows the device. Before CollectStart.
    void SetDevIdOnHost(uint32_t devId);
    // Whose engine this is; null by default. While a session is open, no engine of another owner
    // can open one with the same job id. Before CollectStart.
    void SetOwner(std::shared_ptr<const void> owner) { owner_ = std::move(owner); }

    // Places `job` in the slot of `jobTag` (0 to 36), instead of what was there: the way in for
    // jobs beside those of Init. Of `source` it takes what the job works from (jobFileName, cores,
    // events and those of the vector cores); tag and common parameters are the engine's.
    // After Init. A Stop releases the cores and the events of all slots, so a job that works from
    // them is placed again, itself or another, before the next Start. The engine gives the jobs of
    // the control CPU and of the last-level cache the host's events at each Start.
    // 0; -1, with nothing changed, without an Init, for a bad tag or no job, and while the slot's
    // job is registered.
    [[nodiscard]] int PlaceJob(int jobTag, std::shared_ptr<ICollectionJob> job,
                               const CollectionJobCfg& source = {});

    // Each of the following answers 0 or -1 and says the same, and perhaps why, in `status`, whose
    // info is for the host.

    // Opens a session: parses the parameters of the job from `sampleConfig` (JSON), makes the work
    // directories, brings up the channel poll and reads the driver's channel list. A failure
    // leaves nothing of that behind.
    [[nodiscard]] int CollectStart(const std::string& sampleConfig, message::StatusInfo& status);
    // Starts a replay: every job that its parameters and events switch on. It fails when not one
    // job ran. Null lists stand for no events. Jobs that run already stay as they are, and count
    // as not run.
    [[nodiscard]] int Start(const Events& ctrlCpuEvents, message::StatusInfo& status,
                            const Events& llcEvents);
    // Ends a replay: stops this engine's own jobs. What a single job answers is only logged.
    [[nodiscard]] int Stop(message::StatusInfo& status);
    // Ends the session, with all its steps whatever fails on the way: stops the replay, removes
    // the work directories that nobody else works in, sends the host's last message and lets the
    // uploader go.
    [[nodiscard]] int CollectStop(message::StatusInfo& status);

private:
    [[nodiscard]] int ParseSampleConfig(const std::string& sampleConfig,
                                        message::StatusInfo& status);
    [[nodiscard]] int OpenChannels();
    void ReleaseChannelPoll();
    [[nodiscard]] std::string JobId() const;  // empty without parameters

    // collect_engine_dirs.cpp
    [[nodiscard]] int CreateTmpRootDir(std::string& out);
    void RemoveTmpDir();
    [[nodiscard]] int HoldDir(const std::string& path);
    [[nodiscard]] bool ClaimJobId(const std::string& jobId);
    void ReturnJobId();  // needs the lock of the directories, as ClaimJobId does
    void ReleaseJobId();

    // collect_engine_jobs.cpp
    void CreateCollectionJobArray();
    [[nodiscard]] int CheckPmuEventIsValid(const Events& ctrlCpuEvents,
                                           const Events& llcEvents) const;
    [[nodiscard]] int PrepareReplay(const Events& ctrlCpuEvents, const Events& llcEvents);
    [[nodiscard]] int CollectionJobRegisterAndRun(message::StatusInfo& status);
    [[nodiscard]] int RunJob(int tag, const CollectionJobInfo& slot);
    [[nodiscard]] int StopJobs(message::StatusInfo& status);
    [[nodiscard]] bool IsRegistered(const CollectionJobInfo& slot) const;

    std::string sampleConfig_;
    std::shared_ptr<CollectionJobCommonParams> jobCommParams_;  // null: not inited
    std::array<CollectionJobInfo, Analysis::Nedra::JobWrapper::NR_MAX_COLLECTION_JOB>
        collectionJobs_;  // by tag
    bool isStopped_ = false;
    bool isInited_ = false;
    std::string tmpResultDir_;
    bool isStarted_ = false;  // a session is open
    bool usesChannelPoll_ = false;
    std::vector<std::string> heldDirs_;  // what this engine made and has to give up
    std::shared_ptr<const void> owner_;
    std::string claimedJobId_;  // empty: none
};

}  // namespace analysis::nedra::device
