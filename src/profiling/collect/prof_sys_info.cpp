#include "profiling/collect/prof_sys_info.h"

#include <utility>

#include "hdc/log_side.h"
#include "profiling/collect/proc_handlers.h"
#include "profiling/collect/prof_timer.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/platform.h"
#include "profiling/datapath/uploader_mgr.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::MakeShared;
using analysis::nedra::message::IsOn;
using analysis::nedra::message::ProfileParams;
using analysis::nedra::transport::Uploader;
using analysis::nedra::transport::UploaderMgr;
using Common::Platform::Platform;

namespace {

constexpr int32_t kMinIntervalMs = 100;
constexpr uint64_t kNsPerMs = 1000000;
constexpr uint64_t kStatBufSize = 8192;
constexpr uint64_t kMemBufSize = 32768;

int32_t IntervalMs(const ProfileParams& params, uint32_t timerTag) {
    switch (timerTag) {
        case PROF_SYS_STAT:
            return params.cpu_sampling_interval;
        case PROF_SYS_MEM:
            return params.sys_sampling_interval;
        default:
            return params.pid_sampling_interval;
    }
}

}  // namespace

uint64_t ProfTimerJobCommonInit(const std::shared_ptr<CollectionJobCfg>& cfg,
                                std::shared_ptr<Uploader>& upLoader, uint32_t timerTag) {
    const CollectionJobCommonParams& common = *cfg->commonParams;
    const int32_t asked = IntervalMs(*common.params, timerTag);
    const int32_t intervalMs = asked > kMinIntervalMs ? asked : kMinIntervalMs;
    upLoader.reset();
    UploaderMgr::instance().GetUploader(common.params->job_id, upLoader);
    if (upLoader == nullptr) {
        PROF_LOGE("Failed to get devId(%d) upLoader, devIdOnHost : %d", common.devId,
                  common.devIdOnHost);
        return 0;
    }
    PROF_LOGI("[ProfTimerJobCommonInit]devId:%d, devIdOnHost:%d, timerTag:%d, sampleIntervalMs:%d",
              common.devId, common.devIdOnHost, static_cast<int>(timerTag), intervalMs);
    return static_cast<uint64_t>(intervalMs) * kNsPerMs;
}

ProfSysInfoBase::~ProfSysInfoBase() {
    static_cast<void>(ProfSysInfoBase::Uninit());
}

int ProfSysInfoBase::Init(std::shared_ptr<CollectionJobCfg> cfg) {
    if (!CheckJobContextParam(cfg) || !IsDeviceSideJob(*cfg)) {
        return -1;
    }
    if (!Platform::instance().PlatformIsDevice()) {
        PROF_LOGI("%s", kind_.notOnDevice);
        return -1;
    }
    collectionJobCfg_ = std::move(cfg);
    if (!IsSwitchedOn(*collectionJobCfg_->commonParams->params)) {
        PROF_LOGI("%s", kind_.switchedOff);
        return -1;
    }
    sampleIntervalNs_ = ProfTimerJobCommonInit(collectionJobCfg_, upLoader_, kind_.timerTag);
    return sampleIntervalNs_ != 0 ? 0 : -1;
}

int ProfSysInfoBase::Process() {
    if (!CheckJobCommonParam(collectionJobCfg_)) {
        return -1;
    }
    const CollectionJobCommonParams& common = *collectionJobCfg_->commonParams;
    const SampleRoad road{
        common.params,
        MakeShared<const std::string>(common.jobCtx == nullptr ? "" : common.jobCtx->ToString()),
        MakeShared<SampleSender>(upLoader_)};
    auto handler = road.sender == nullptr
                       ? nullptr
                       : MakeHandler(static_cast<uint32_t>(common.devId), sampleIntervalNs_, road);
    if (handler == nullptr) {
        return -1;
    }
    if (handler->Init() != 0) {
        PROF_LOGE("%s", kind_.initFailed);
        return -1;
    }
    PROF_LOGI("%s Init succ, sampleIntervalNs_:%llu", kind_.handlerName,
              static_cast<unsigned long long>(sampleIntervalNs_));
    auto& timers = TimerManager::instance();
    holdsTimer_ = timers.StartProfTimer();
    if (!holdsTimer_) {
        return -1;
    }
    handler_ = std::move(handler);
    timers.RegisterTimerHandler(kind_.timerTag, handler_);
    return 0;
}

int ProfSysInfoBase::Uninit() {
    auto& timers = TimerManager::instance();
    if (handler_ != nullptr) {
        timers.RemoveTimerHandler(kind_.timerTag, handler_);
        handler_.reset();
    }
    // Exactly the use that Process has taken.
    if (std::exchange(holdsTimer_, false)) {
        timers.StopProfTimer();
    }
    upLoader_.reset();
    return 0;
}

// ---- The three ----------------------------------------------------------------------------------

namespace {

constexpr ProfSysInfoBase::Kind kSysStat{
    PROF_SYS_STAT, "Not in device Side, SysStat Profiling not enabled", "sys_profiling not enabled",
    "statHandler Init Failed", "statHandler"};
constexpr ProfSysInfoBase::Kind kSysMem{
    PROF_SYS_MEM, "Not in device Side, SysMem Profiling not enabled",
    "sys mem profiling not enabled", "memHandler Init Failed", "memHandler"};
constexpr ProfSysInfoBase::Kind kAllPids{
    PROF_ALL_PID, "Not in device Side, AllPids Profiling not enabled", "pid_profiling not enabled",
    "pidsHandler Init Failed", "pidsHandler"};

}  // namespace

ProfSysStatJob::ProfSysStatJob() : ProfSysInfoBase(kSysStat) {}

bool ProfSysStatJob::IsSwitchedOn(const ProfileParams& params) const {
    return IsOn(params.sys_profiling);
}

std::shared_ptr<TimerHandler> ProfSysStatJob::MakeHandler(uint32_t devId, uint64_t sampleIntervalNs,
                                                          const SampleRoad& road) const {
    return MakeShared<ProcStatFileHandler>(
        SampleSpec{PROF_SYS_STAT, devId, kStatBufSize, sampleIntervalNs, "/proc/stat",
                   "SystemCpuUsage.data"},
        road);
}

ProfSysMemJob::ProfSysMemJob() : ProfSysInfoBase(kSysMem) {}

bool ProfSysMemJob::IsSwitchedOn(const ProfileParams& params) const {
    return IsOn(params.sys_profiling) && !IsOn(params.tracelet);
}

std::shared_ptr<TimerHandler> ProfSysMemJob::MakeHandler(uint32_t devId, uint64_t sampleIntervalNs,
                                                         const SampleRoad& road) const {
    return MakeShared<ProcMemFileHandler>(
        SampleSpec{PROF_SYS_MEM, devId, kMemBufSize, sampleIntervalNs, "/proc/meminfo",
                   "Memory.data"},
        road);
}

ProfAllPidsJob::ProfAllPidsJob() : ProfSysInfoBase(kAllPids) {}

bool ProfAllPidsJob::IsSwitchedOn(const ProfileParams& params) const {
    return IsOn(params.pid_profiling);
}

std::shared_ptr<TimerHandler> ProfAllPidsJob::MakeHandler(uint32_t devId, uint64_t sampleIntervalNs,
                                                          const SampleRoad& road) const {
    return MakeShared<ProcAllPidsFileHandler>(PROF_ALL_PID, devId, sampleIntervalNs, road);
}

}  // namespace Analysis::Nedra::JobWrapper
