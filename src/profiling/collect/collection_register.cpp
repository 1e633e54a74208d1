#include "profiling/collect/collection_register.h"

#include <utility>

#include "hdc/log_side.h"

namespace Analysis::Nedra::JobWrapper {
namespace {

bool HasCommonParams(const std::shared_ptr<CollectionJobCfg>& cfg) {
    return cfg != nullptr && cfg->commonParams != nullptr;
}

bool IsPlace(int devId, int jobTag) {
    return devId >= 0 && jobTag >= 0 && jobTag < NR_MAX_COLLECTION_JOB;
}

}  // namespace

bool CheckJobCommonParam(const std::shared_ptr<CollectionJobCfg>& cfg) {
    if (HasCommonParams(cfg)) {
        return true;
    }
    PROF_LOGI("Job check comm param failed");
    return false;
}

bool CheckJobEventParam(const std::shared_ptr<CollectionJobCfg>& cfg) {
    if (HasCommonParams(cfg) && cfg->events != nullptr && !cfg->events->empty()) {
        return true;
    }
    PROF_LOGI("Job check event param not pass");
    return false;
}

bool CheckJobContextParam(const std::shared_ptr<CollectionJobCfg>& cfg) {
    if (HasCommonParams(cfg) && cfg->commonParams->jobCtx != nullptr &&
        cfg->commonParams->params != nullptr) {
        return true;
    }
    PROF_LOGI("Job check context param failed");
    return false;
}

bool IsDeviceSideJob(const CollectionJobCfg& cfg) {
    const auto& params = cfg.commonParams->params;
    return params != nullptr && !params->host_profiling;
}

int CollectionRegisterMgr::CollectionJobRegisterAndRun(int devId, int jobTag,
                                                       const std::shared_ptr<ICollectionJob>& job) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!InsertCollectionJob(devId, jobTag, job)) {
            return -1;
        }
    }
    PROF_LOGD("Collection Job Registeter, devId:%d jobTag:%d", devId, jobTag);
    return job->Process();
}

int CollectionRegisterMgr::CollectionJobUnregisterAndStop(
    int devId, int jobTag, const std::shared_ptr<ICollectionJob>& own) {
    std::shared_ptr<ICollectionJob> job;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!GetAndDelCollectionJob(devId, jobTag, own, job)) {
            return -1;
        }
    }
    PROF_LOGD("Collection Job Unregisteter, devId:%d jobTag:%d", devId, jobTag);
    try {
        const int ret = job->Uninit();
        FreePlace(devId, jobTag);
        return ret;
    } catch (...) {  // out of memory: the tag must not stay taken for good
        FreePlace(devId, jobTag);
        throw;
    }
}

void CollectionRegisterMgr::FreePlace(int devId, int jobTag) {
    const std::lock_guard<std::mutex> lock(mutex_);
    jobs_[devId].erase(jobTag);
}

bool CollectionRegisterMgr::Holds(int devId, int jobTag,
                                  const std::shared_ptr<ICollectionJob>& job) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto device = jobs_.find(devId);
    if (device == jobs_.end() || job == nullptr) {
        return false;
    }
    const auto held = device->second.find(jobTag);
    return held != device->second.end() && held->second.job == job && !held->second.isEnding;
}

bool CollectionRegisterMgr::CheckCollectionJobIsNoRegister(int& devId, int jobTag) const {
    if (!IsPlace(devId, jobTag)) {
        return false;
    }
    bool isFree = true;
    for (const auto& [heldOn, jobs] : jobs_) {
        const auto held = jobs.find(jobTag);
        if (held == jobs.end()) {
            continue;
        }
        if (held->second.job->IsGlobalJobLevel()) {
            devId = heldOn;
            PROF_LOGW("IsGlobalJobLevel, devId:%d jobTag:%d", devId, jobTag);
            return false;
        }
        isFree = isFree && heldOn != devId;
    }
    return isFree;
}

bool CollectionRegisterMgr::InsertCollectionJob(int devId, int jobTag,
                                                const std::shared_ptr<ICollectionJob>& job) {
    int heldOn = devId;
    if (job == nullptr || !CheckCollectionJobIsNoRegister(heldOn, jobTag)) {
        return false;
    }
    jobs_[devId][jobTag] = {job, false};
    return true;
}

bool CollectionRegisterMgr::GetAndDelCollectionJob(int devId, int jobTag,
                                                   const std::shared_ptr<ICollectionJob>& own,
                                                   std::shared_ptr<ICollectionJob>& job) {
    int heldOn = devId;
    if (!IsPlace(devId, jobTag) || CheckCollectionJobIsNoRegister(heldOn, jobTag) ||
        heldOn != devId) {
        return false;
    }
    Place& held = jobs_[devId].at(jobTag);
    if (held.isEnding || (own != nullptr && held.job != own)) {
        return false;
    }
    held.isEnding = true;
    job = held.job;
    return true;
}

}  // namespace Analysis::Nedra::JobWrapper
