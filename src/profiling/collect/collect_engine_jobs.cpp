// The jobs of an engine: its array, and the two loops that start and stop a replay.

#include <utility>

#include "hdc/log_side.h"
#include "profiling/collect/collect_engine.h"
#include "profiling/collect/prof_ctrlcpu_job.h"
#include "profiling/collect/prof_llc_job.h"
#include "profiling/collect/prof_sys_info.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/profile_params.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::device {
namespace {

using namespace Analysis::Nedra::JobWrapper;
using common::utils::Utils;
using common::validation::ParamValidation;

struct JobKind {
    int tag;
    std::shared_ptr<ICollectionJob> (*make)();
};

template <typename Job>
std::shared_ptr<ICollectionJob> Make() {
    return common::MakeShared<Job>();
}

// In the order in which the jobs are made.
constexpr JobKind kJobKinds[] = {
    {CTRLCPU_PERF_COLLECTION_JOB, Make<ProfCtrlcpuJob>},
    {SYSSTAT_PROC_COLLECTION_JOB, Make<ProfSysStatJob>},
    {SYSMEM_PROC_COLLECTION_JOB, Make<ProfSysMemJob>},
    {ALLPID_PROC_COLLECTION_JOB, Make<ProfAllPidsJob>},
    {LLC_DRV_COLLECTION_JOB, Make<ProfLlcJob>},
};

bool IsTag(int jobTag) {
    return jobTag >= 0 && jobTag < NR_MAX_COLLECTION_JOB;
}

}  // namespace

void CollectEngine::CreateCollectionJobArray() {
    PROF_LOGI("CreateCollectionJobArray to set jobCfg");
    for (const JobKind& kind : kJobKinds) {
        auto job = kind.make();
        if (job == nullptr || PlaceJob(kind.tag, std::move(job)) != 0) {
            return;
        }
    }
}

int CollectEngine::PlaceJob(int jobTag, std::shared_ptr<ICollectionJob> job,
                            const CollectionJobCfg& source) {
    if (jobCommParams_ == nullptr || !IsTag(jobTag) || job == nullptr) {
        return -1;
    }
    CollectionJobInfo& slot = collectionJobs_[static_cast<size_t>(jobTag)];
    if (slot.job != nullptr && IsRegistered(slot)) {
        return -1;
    }
    const auto cfg = common::MakeShared<CollectionJobCfg>(source);
    if (cfg == nullptr) {
        return -1;
    }
    cfg->jobTag = jobTag;
    cfg->commonParams = jobCommParams_;
    slot = {jobTag, cfg, std::move(job)};
    return 0;
}

bool CollectEngine::IsRegistered(const CollectionJobInfo& slot) const {
    return CollectionRegisterMgr::instance().Holds(jobCommParams_->devId, slot.jobTag, slot.job);
}

int CollectEngine::CheckPmuEventIsValid(const Events& ctrlCpuEvents,
                                        const Events& llcEvents) const {
    const ParamValidation& validation = ParamValidation::instance();
    if (ctrlCpuEvents != nullptr && !validation.CheckCtrlCpuEventIsValid(*ctrlCpuEvents)) {
        PROF_LOGE("[CheckPmuEventIsValid]ctrlCpuEvent is not valid!");
        return -1;
    }
    if (llcEvents != nullptr && !validation.CheckLlcEventsIsValid(Utils::Join(*llcEvents, ","))) {
        PROF_LOGE("[CheckPmuEventIsValid]llcEvent is not valid!");
        return -1;
    }
    return 0;
}

int CollectEngine::PrepareReplay(const Events& ctrlCpuEvents, const Events& llcEvents) {
    const auto context = common::MakeShared<message::JobContext>();
    if (context == nullptr) {
        return -1;
    }
    context->dev_id = std::to_string(jobCommParams_->devIdFlush);
    context->job_id = JobId();
    jobCommParams_->jobCtx = context;
    // A job that runs still needs the events that it was started with.
    const auto give = [this](int tag, const Events& events) {
        const CollectionJobInfo& slot = collectionJobs_[static_cast<size_t>(tag)];
        if (slot.jobCfg != nullptr && !IsRegistered(slot)) {
            slot.jobCfg->events = events;
        }
    };
    give(CTRLCPU_PERF_COLLECTION_JOB, ctrlCpuEvents);
    give(LLC_DRV_COLLECTION_JOB, llcEvents);
    return 0;
}

int CollectEngine::CollectionJobRegisterAndRun(message::StatusInfo& status) {
    PROF_LOGI("Start to register collction job:%s", JobId().c_str());
    int failCount = 0;
    std::vector<std::string> started;
    for (int tag = 0; tag < NR_MAX_COLLECTION_JOB; ++tag) {
        const CollectionJobInfo& slot = collectionJobs_[static_cast<size_t>(tag)];
        if (slot.job == nullptr) {
            continue;
        }
        if (RunJob(tag, slot) != 0) {
            PROF_LOGI("Collection Job %d No Run; Total: %d", tag, failCount);
            ++failCount;
        } else {
            started.push_back(std::to_string(tag));
        }
    }
    PROF_LOGI("Total count of job registered: %s", Utils::Join(started, ",").c_str());
    if (started.empty()) {
        PROF_LOGE("CollectionJobRegisterAndRun failed, fail_cnt:%d", failCount);
        status.status = 1;
        return -1;
    }
    status.status = 0;
    return 0;
}

int CollectEngine::RunJob(int tag, const CollectionJobInfo& slot) {
    PROF_LOGI("CollectRegister Start jobId %d ", tag);
    // Init might change a job under its own threads; the registry then refuses it a second place.
    const int ret = IsRegistered(slot) ? 0 : slot.job->Init(slot.jobCfg);
    if (ret != 0) {
        return ret;
    }
    PROF_LOGI("Collection Job %d Register", tag);
    return CollectionRegisterMgr::instance().CollectionJobRegisterAndRun(jobCommParams_->devId, tag,
                                                                         slot.job);
}

int CollectEngine::StopJobs(message::StatusInfo& status) {
    PROF_LOGI("Stop Job");
    if (!isStarted_ || jobCommParams_ == nullptr) {
        status.info = "collection engine has not been started";
        return -1;
    }
    for (int tag = 0; tag < NR_MAX_COLLECTION_JOB; ++tag) {
        const CollectionJobInfo& slot = collectionJobs_[static_cast<size_t>(tag)];
        if (slot.job == nullptr) {
            continue;
        }
        const int ret = CollectionRegisterMgr::instance().CollectionJobUnregisterAndStop(
            jobCommParams_->devId, tag, slot.job);
        if (slot.jobCfg != nullptr) {
            slot.jobCfg->events.reset();
            slot.jobCfg->cores.reset();
        }
        if (ret != 0) {
            PROF_LOGI("Device %d Collection Job %d Unregister", jobCommParams_->devIdOnHost, tag);
        }
    }
    return 0;
}

}  // namespace analysis::nedra::device
