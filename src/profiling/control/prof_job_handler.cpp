#include "profiling/control/prof_job_handler.h"

#include <utility>

#include "hdc/log_side.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/param_validation.h"

namespace analysis::nedra::device {
namespace {

using common::validation::ParamValidation;
using EventList = google::protobuf::RepeatedPtrField<std::string>;

constexpr char kNotStarted[] = "Profiling is not started on device";

bool IsTooLong(const EventList& events) {
    return !ParamValidation::instance().CheckEventsSize(events.size());
}

// The first list that is too long is logged.
bool EventSizesAreValid(const proto::ReplayStartReq& message) {
    if (IsTooLong(message.ctrl_cpu_events())) {
        PROF_LOGE("ctrl_cpu_events_size(%d) is not valid!", message.ctrl_cpu_events_size());
    } else if (IsTooLong(message.ts_cpu_events())) {
        PROF_LOGE("ts_cpu_events_size(%d) is not valid!", message.ts_cpu_events_size());
    } else if (IsTooLong(message.ai_cpu_events())) {
        PROF_LOGE("ai_cpu_events_size(%d) is not valid!", message.ai_cpu_events_size());
    } else if (IsTooLong(message.llc_events())) {
        PROF_LOGE("llc_events_size(%d) is not valid!", message.llc_events_size());
    } else {
        return true;
    }
    return false;
}

CollectEngine::Events CopyEvents(const EventList& events) {
    return common::MakeShared<std::vector<std::string>>(events.begin(), events.end());
}

}  // namespace

ProfJobHandler::~ProfJobHandler() {
    Uninit();
}

int ProfJobHandler::Init(int devId, const std::string& jobId,
                         std::shared_ptr<transport::ITransport> transport) {
    if (transport == nullptr) {
        PROF_LOGE("Init failed, transport is null");
        return -1;
    }
    devId_ = devId;
    jobId_ = jobId;
    transport_ = std::move(transport);
    isInited_ = true;
    return 0;
}

void ProfJobHandler::Uninit() {
    devId_ = -1;
    jobId_.clear();
    isInited_ = false;
}

int ProfJobHandler::InitEngine(message::StatusInfo& status) {
    status.status = 1;
    if (isStarted_) {
        PROF_LOGE("InitEngine Profiling is already running on device");
        status.info = "Profiling is already running on device";
        return -1;
    }
    engine_ = common::MakeShared<CollectEngine>();
    if (engine_ == nullptr) {
        return -1;
    }
    const int ret = engine_->Init(devId_);
    if (ret != 0) {
        PROF_LOGE("InitEngine Failed to init collection engine");
        engine_.reset();
        status.info = "Failed to init collection engine";
        return ret;
    }
    engine_->SetDevIdOnHost(static_cast<uint32_t>(devIdOnHost_));
    engine_->SetOwner(transport_);
    return 0;
}

int ProfJobHandler::OnJobStart(std::shared_ptr<proto::JobStartReq> message,
                               message::StatusInfo& status) {
    PROF_LOGI("receive job start");
    if (message == nullptr) {
        PROF_LOGE("[OnJobStart] message is nullptr");
        return -1;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (InitEngine(status) != 0) {
        PROF_LOGE("InitEngine failed");
        return -1;
    }
    if (engine_->CollectStart(message->sampleconfig(), status) != 0) {
        PROF_LOGE("devId %d CollectStart failed", devId_);
        engine_.reset();
        return -1;
    }
    isStarted_ = true;
    return 0;
}

int ProfJobHandler::OnJobEnd(message::StatusInfo& status) {
    PROF_LOGI("receive job end");
    status.status = 1;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!isStarted_ || engine_ == nullptr) {
        PROF_LOGE("OnJobEnd Profiling is not started on device");
        status.info = kNotStarted;
        return -1;
    }
    const int result = engine_->CollectStop(status);
    ResetTask();
    return result;
}

void ProfJobHandler::ResetTask() {
    PROF_LOGI("ResetTask begin, _is_started:%d", isStarted_);
    if (isStarted_) {
        isStarted_ = false;
        engine_.reset();
    }
}

int ProfJobHandler::Start(std::shared_ptr<proto::ReplayStartReq> message,
                          message::StatusInfo& status) {
    PROF_LOGI("receive start");
    status.status = 1;
    const std::lock_guard<std::mutex> lock(mutex_);
    const int result = StartReplay(message.get(), status);
    if (result != 0) {
        PROF_LOGE("Start failed, doing ResetTask!");
        ResetTask();
    }
    return result;
}

int ProfJobHandler::StartReplay(const proto::ReplayStartReq* message, message::StatusInfo& status) {
    if (!isStarted_) {
        PROF_LOGE("Start Profiling is not started on device");
        status.info = kNotStarted;
        return -1;
    }
    if (message == nullptr || !EventSizesAreValid(*message)) {
        PROF_LOGE("Start pmu event size is not valid");
        status.info = "[Start] pmu event size is not valid!";
        return -1;
    }
    if (engine_ == nullptr) {
        PROF_LOGE("Start Engine is null");
        status.info = "[Start] Start Engine is null!";
        return -1;
    }
    const auto ctrlCpuEvents = CopyEvents(message->ctrl_cpu_events());
    const auto llcEvents = CopyEvents(message->llc_events());
    if (ctrlCpuEvents == nullptr || llcEvents == nullptr) {
        return -1;
    }
    return engine_->Start(ctrlCpuEvents, status, llcEvents);
}

int ProfJobHandler::End(std::shared_ptr<proto::ReplayStopReq> message,
                        message::StatusInfo& status) {
    PROF_LOGI("receive end");
    status.status = 1;
    const std::lock_guard<std::mutex> lock(mutex_);
    const int result = EndReplay(message.get(), status);
    if (result != 0) {
        PROF_LOGE("End failed");
        ResetTask();
    }
    return result;
}

int ProfJobHandler::EndReplay(const proto::ReplayStopReq* message, message::StatusInfo& status) {
    if (message == nullptr) {
        PROF_LOGE("End message is nullptr");
        status.info = "StopReq message is nullptr";
        return -1;
    }
    if (!isStarted_) {
        PROF_LOGE("End Profiling is not started on device");
        status.info = kNotStarted;
        return -1;
    }
    if (engine_ == nullptr) {
        PROF_LOGE("End Engine is null");
        status.info = "[End] End Engine is null!";
        return -1;
    }
    return engine_->Stop(status);
}

int ProfJobHandler::OnConnectionReset() {
    const std::lock_guard<std::mutex> lock(mutex_);
    PROF_LOGI("receive connection reset, _is_started:%d", isStarted_);
    if (!isStarted_) {
        return 0;
    }
    if (engine_ == nullptr) {
        PROF_LOGE("OnConnectionReset engine is null");
        return -1;
    }
    message::StatusInfo status;
    if (engine_->CollectStop(status) != 0) {
        PROF_LOGW("Failed to stop collect.");
    }
    engine_.reset();
    return 0;
}

}  // namespace analysis::nedra::device
