#include "profiling/collect/collect_engine.h"

#include <exception>

#include "hdc/log_side.h"
#include "profiling/collect/collection_finish.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/profile_params.h"
#include "profiling/datapath/ai_drv_prof_api.h"
#include "profiling/datapath/prof_channel_manager.h"
#include "profiling/datapath/uploader_mgr.h"

namespace analysis::nedra::device {

using Analysis::Nedra::JobWrapper::ProfChannelManager;
using transport::UploaderMgr;

CollectEngine::~CollectEngine() {
    Uninit();
}

int CollectEngine::Init(int devId) {
    isInited_ = true;
    jobCommParams_ = common::MakeShared<CollectionJobCommonParams>();
    if (jobCommParams_ == nullptr) {
        return -1;
    }
    jobCommParams_->devId = devId;
    CreateCollectionJobArray();
    return 0;
}

void CollectEngine::Uninit() {
    if (!isInited_) {
        return;
    }
    isInited_ = false;
    if (isStarted_) {
        try {
            message::StatusInfo status;
            if (CollectStop(status) != 0) {
                PROF_LOGD("[CollectEngine]Collect stop failed.");
                return;
            }
        } catch (const std::exception&) {
            PROF_LOGD("[CollectEngine]Uinit failed.");
            return;
        }
    }
    jobCommParams_.reset();
}

void CollectEngine::SetDevIdOnHost(uint32_t devId) {
    if (jobCommParams_ == nullptr) {
        return;
    }
    PROF_LOGI("SetDevIdOnHost devId :%d", jobCommParams_->devIdOnHost);
    jobCommParams_->devIdOnHost = static_cast<int>(devId);
    jobCommParams_->devIdFlush = static_cast<int>(devId);
}

int CollectEngine::CollectStart(const std::string& sampleConfig, message::StatusInfo& status) {
    status.status = 1;
    if (!isInited_ || jobCommParams_ == nullptr) {
        status.info = "Collection engine was not initialized.";
        return -1;
    }
    if (ParseSampleConfig(sampleConfig, status) != 0 || OpenChannels() != 0) {
        RemoveTmpDir();
        ReleaseChannelPoll();
        ReleaseJobId();
        return -1;
    }
    isStarted_ = true;
    status.status = 0;
    return 0;
}

int CollectEngine::ParseSampleConfig(const std::string& sampleConfig, message::StatusInfo& status) {
    isStarted_ = false;
    isStopped_ = false;
    sampleConfig_ = sampleConfig;
    // What a failed parse has read must not be used.
    jobCommParams_->params.reset();
    const auto params = common::MakeShared<message::ProfileParams>();
    if (params == nullptr) {
        return -1;
    }
    if (!params->FromString(sampleConfig_)) {
        PROF_LOGE("Failed to parse sampleConfig: \"%s\".", sampleConfig_.c_str());
        status.info = "invalid sample configuration";
        return -1;
    }
    PROF_LOGI("parse sampleConfig: \"%s\".", sampleConfig_.c_str());
    jobCommParams_->params = params;
    if (CreateTmpRootDir(tmpResultDir_) != 0) {
        status.info = "Failed to create tmp root result directory.";
        return -1;
    }
    return 0;
}

int CollectEngine::OpenChannels() {
    PROF_LOGI("Collection started, sample config:%s", sampleConfig_.c_str());
    if (ProfChannelManager::instance().Init() != 0) {
        PROF_LOGE("[CollectEngine::CollectStart]Failed to init channel poll");
        return -1;
    }
    usesChannelPoll_ = true;
    if (driver::DrvChannelsMgr::instance().GetAllChannels(jobCommParams_->devId) != 0) {
        PROF_LOGE("[CollectEngine::CollectStart]Failed to GetAllChannels");
        return -1;
    }
    return 0;
}

void CollectEngine::ReleaseChannelPoll() {
    if (usesChannelPoll_) {
        usesChannelPoll_ = false;
        ProfChannelManager::instance().UnInit(false);
    }
}

int CollectEngine::Start(const Events& ctrlCpuEvents, message::StatusInfo& status,
                         const Events& llcEvents) {
    status.status = 1;
    if (!isStarted_ || jobCommParams_ == nullptr) {
        status.info = "collection engine has not been started";
        return -1;
    }
    if (CheckPmuEventIsValid(ctrlCpuEvents, llcEvents) != 0) {
        PROF_LOGE("[CollectStart] pmu event is not valid.");
        status.info = "[CollectStart] pmu event is not valid.";
        return -1;
    }
    if (PrepareReplay(ctrlCpuEvents, llcEvents) != 0) {
        return -1;
    }
    return CollectionJobRegisterAndRun(status);
}

int CollectEngine::Stop(message::StatusInfo& status) {
    status.status = 1;
    PROF_LOGI("Stop");
    const UploaderMgr::Ending ending(UploaderMgr::instance(), JobId());
    if (StopJobs(status) != 0) {
        return -1;
    }
    jobCommParams_->jobCtx.reset();
    status.status = 0;
    return 0;
}

int CollectEngine::CollectStop(message::StatusInfo& status) {
    status.status = 0;
    if (jobCommParams_ == nullptr) {
        status.status = 1;
        PROF_LOGE("[CollectStop]Config is null");
        return -1;
    }
    const UploaderMgr::Ending ending(UploaderMgr::instance(), JobId());
    if (isStarted_) {
        PROF_LOGI("stop collect ...");
        if (Stop(status) != 0) {
            status.status = 1;
            PROF_LOGE("[CollectStop]Collect stop failed");
        }
        PROF_LOGI("Data collection finished under agent mode.");
    }
    RemoveTmpDir();
    if (FinishCollection(jobCommParams_->devIdFlush, JobId()) != 0) {
        status.status = 1;
        PROF_LOGE("[CollectStop]FinishCollection failed");
    }
    ReleaseChannelPoll();
    ReleaseJobId();
    isStarted_ = false;
    isStopped_ = true;
    if (status.status != 0) {
        status.info = "Stop profiling failed, please check it or see log for more info";
        return -1;
    }
    return 0;
}

std::string CollectEngine::JobId() const {
    return jobCommParams_ != nullptr && jobCommParams_->params != nullptr
               ? jobCommParams_->params->job_id
               : std::string();
}

}  // namespace analysis::nedra::device
