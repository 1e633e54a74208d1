#include "profiling/collect/prof_job.h"

#include <utility>

#include "profiling/config/make_shared.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using namespace analysis::nedra::driver;
using analysis::nedra::common::MakeShared;
using analysis::nedra::common::utils::Utils;
using analysis::nedra::common::validation::ParamValidation;
using Cfg = std::shared_ptr<CollectionJobCfg>;
using Record = DrvPeripheralProfileCfg;

namespace {

constexpr int kDefaultPeriod = 10;
constexpr JobLine kNoLine = nullptr;

bool IsMode(const std::string& mode, bool isTaskBased) {
    return mode == (isTaskBased ? "task-based" : "sample-based");
}

// What a start operation is told of channel and period.
Record On(int channelId, int period = 0) {
    Record record;
    record.profChannel = channelId;
    record.profSamplePeriod = period;
    return record;
}

// ---- Which job runs ----------------------------------------------------------------------------

const ChannelChoice kTscpuChoice{CheckJobEventParam, nullptr, nullptr};
const ChannelChoice kTsTrackChoice{CheckJobCommonParam,
                                   [](const ProfileParams& p) {
                                       return IsOn(p.ts_task_track) || IsOn(p.ts_cpu_usage) ||
                                              IsOn(p.ai_core_status) || IsOn(p.ts_timeline) ||
                                              IsOn(p.ts_keypoint) || IsOn(p.ts_memcpy);
                                   },
                                   nullptr};
const ChannelChoice kAivTsTrackChoice{CheckJobCommonParam,
                                      [](const ProfileParams& p) {
                                          return IsOn(p.ts_task_track) || IsOn(p.ts_cpu_usage) ||
                                                 IsOn(p.ai_core_status) || IsOn(p.ts_timeline);
                                      },
                                      nullptr};
const ChannelChoice kStarsChoice{CheckJobCommonParam, nullptr, nullptr};
const ChannelChoice kFftsChoice{
    CheckJobEventParam,
    [](const ProfileParams& p) { return IsOn(p.ai_core_profiling) || IsOn(p.aiv_profiling); },
    [](int devId) { PROF_LOGI("Aicore not enable, devId:%d", devId); }};
const ChannelChoice kAicoreChoice{
    CheckJobEventParam,
    [](const ProfileParams& p) {
        return IsOn(p.ai_core_profiling) && IsMode(p.ai_core_profiling_mode, false);
    },
    [](int devId) { PROF_LOGI("Aicore sample-based not enable, devId:%d", devId); }};
const ChannelChoice kAivChoice{
    CheckJobEventParam,
    [](const ProfileParams& p) {
        return IsOn(p.aiv_profiling) && IsMode(p.aiv_profiling_mode, false);
    },
    [](int devId) { PROF_LOGI("Aivector core sample-based not enable, devId:%d", devId); }};
const ChannelChoice kAicoreTaskChoice{
    CheckJobEventParam,
    [](const ProfileParams& p) {
        return IsOn(p.ai_core_profiling) && IsMode(p.ai_core_profiling_mode, true);
    },
    [](int devId) { PROF_LOGI("Aicore task-based not enable, devId:%d", devId); }};
const ChannelChoice kAivTaskChoice{
    CheckJobEventParam,
    [](const ProfileParams& p) {
        return IsOn(p.aiv_profiling) && IsMode(p.aiv_profiling_mode, true);
    },
    [](int devId) { PROF_LOGI("Aivector core task-based not enable, devId:%d", devId); }};
const ChannelChoice kHwtsLogChoice{CheckJobContextParam,
                                   [](const ProfileParams& p) { return IsOn(p.hwts_log); },
                                   [](int) { PROF_LOGI("hwts_log not enabled"); }};
const ChannelChoice kAivHwtsLogChoice{CheckJobContextParam,
                                      [](const ProfileParams& p) { return IsOn(p.hwts_log1); },
                                      [](int) { PROF_LOGI("aiv_hwts_log not enabled"); }};
const ChannelChoice kFmkChoice{CheckJobContextParam, nullptr, nullptr};
const ChannelChoice kL2CacheChoice{
    CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.l2CacheTaskProfiling); },
    [](int) { PROF_LOGI("ProfL2CacheTaskJob Not Enabled"); }};

// ---- How its channel runs ----------------------------------------------------------------------

const JobLine kRetFailed = JOB_ERROR("Function ret check failed");

const ChannelRun kTscpuRun{
    CheckJobEventParam,
    {kNoLine, JOB_LINE("Begin to start profiling ts cpu, events:%s", facts.events.c_str()),
     JOB_LINE("start profiling ts cpu, events:%s, ret=%d", facts.events.c_str(), facts.ret),
     kRetFailed},
    {kNoLine, kNoLine,
     JOB_LINE("stop profiling ts cpu, events:%s, ret=%d", facts.events.c_str(), facts.ret),
     kNoLine},
    [](const Record& record, const CollectionJobCfg& cfg) {
        return DrvTscpuStart(record, ListOf(cfg.events));
    },
    true,
    false,
    false};

const ChannelRun kTsTrackRun{
    CheckJobCommonParam,
    {kNoLine, JOB_LINE("Begin to start profiling ts track, devId: %d", facts.devId),
     JOB_LINE("start profiling ts track, ret=%d", facts.ret),
     JOB_ERROR("[ProfTsTrackJob]Process, DrvTsFwStart failed")},
    {kNoLine, kNoLine, JOB_LINE("stop profiling ts track data, ret=%d", facts.ret),
     JOB_ERROR("[ProfTsTrackJob]Uninit, DrvStop failed")},
    [](const Record& record, const CollectionJobCfg& cfg) {
        return DrvTsFwStart(record, cfg.commonParams->params);
    },
    true,
    true,
    false};

const ChannelRun kStarsSocLogRun{
    CheckJobCommonParam,
    {kNoLine, JOB_LINE("Begin to start profiling stars soc log, devId: %d", facts.devId),
     JOB_LINE("start profiling stars soc log, ret=%d", facts.ret),
     JOB_ERROR("[ProfStarsSocLogJob]Process, DrvStarsSocLogStart failed")},
    {kNoLine, kNoLine, JOB_LINE("stop profiling stars soc log, ret=%d", facts.ret),
     JOB_ERROR("[ProfStarsSocLogJob]Uninit, DrvStop failed")},
    [](const Record& record, const CollectionJobCfg& cfg) {
        return DrvStarsSocLogStart(record, cfg.commonParams->params);
    },
    true,
    true,
    false};

const ChannelRun kFftsRun{
    CheckJobCommonParam,
    {kNoLine, JOB_LINE("Begin to start ffts profile buffer, devId: %d", facts.devId),
     JOB_LINE("start ffts profile buffer, ret=%d", facts.ret),
     JOB_ERROR("[ProfFftsProfileJob]Process, DrvFftsProfileStart failed")},
    {kNoLine, kNoLine, kNoLine, JOB_ERROR("[ProfFftsProfileJob]Uninit failed, ret:%d", facts.ret)},
    [](const Record& record, const CollectionJobCfg& cfg) {
        return DrvFftsProfileStart(record, ListOf(cfg.cores), ListOf(cfg.events),
                                   ListOf(cfg.aivCores), ListOf(cfg.aivEvents));
    },
    false,
    false,
    false};

const ChannelRun kAicoreRun{
    CheckJobEventParam,
    {kNoLine,
     JOB_LINE("Begin to start profiling ai core, taskType:%s, events:%s, cores:%s",
              facts.taskType.c_str(), facts.events.c_str(), facts.cores.c_str()),
     JOB_LINE("start profiling ai core, taskType:%s, events:%s, cores:%s, ret=%d",
              facts.taskType.c_str(), facts.events.c_str(), facts.cores.c_str(), facts.ret),
     kRetFailed},
    {kNoLine,
     JOB_LINE("begin to stop profiling %s, events:%s", facts.taskType.c_str(),
              facts.events.c_str()),
     JOB_LINE("stop profiling %s, events:%s, ret=%d", facts.taskType.c_str(), facts.events.c_str(),
              facts.ret),
     kNoLine},
    [](const Record& record, const CollectionJobCfg& cfg) {
        return DrvAicoreStart(record, ListOf(cfg.cores), ListOf(cfg.events));
    },
    true,
    false,
    true};

const ChannelRun kAicoreTaskRun{
    CheckJobEventParam,
    {kNoLine,
     JOB_LINE("Begin to start profiling AicoreTaskBase, taskType:%s, events:%s",
              facts.taskType.c_str(), facts.events.c_str()),
     JOB_LINE("start profiling AicoreTaskBase, taskType:%s, events:%s, ret=%d",
              facts.taskType.c_str(), facts.events.c_str(), facts.ret),
     kRetFailed},
    {kNoLine, kNoLine,
     JOB_LINE("stop profiling AicoreTaskBase, taskType:%s, events:%s, ret=%d",
              facts.taskType.c_str(), facts.events.c_str(), facts.ret),
     kNoLine},
    [](const Record& record, const CollectionJobCfg& cfg) {
        return DrvAicoreTaskBasedStart(record.profDeviceId, record.profChannel, ListOf(cfg.events));
    },
    false,
    false,
    false};

const ChannelRun kHwtsLogRun{
    CheckJobCommonParam,
    {JOB_LINE("[ProfHwtsLogJob]Process, hwts_log:%s, aiv_hwts_log:%s",
              facts.params.hwts_log.c_str(), facts.params.hwts_log1.c_str()),
     JOB_LINE("Begin to start profiling hwts log"),
     JOB_LINE("start profiling hwts log, ret=%d", facts.ret), kRetFailed},
    {JOB_LINE("[ProfHwtsLogJob]Uninit, hwts_log:%s, aiv_hwts_log:%s", facts.params.hwts_log.c_str(),
              facts.params.hwts_log1.c_str()),
     JOB_LINE("begin to stop profiling hwts_log data"),
     JOB_LINE("stop profiling hwts_log data, ret=%d", facts.ret), kNoLine},
    [](const Record& record, const CollectionJobCfg&) {
        return DrvHwtsLogStart(record.profDeviceId, record.profChannel);
    },
    false,
    true,
    false};

const ChannelRun kFmkRun{
    CheckJobCommonParam,
    {kNoLine, JOB_LINE("Begin to start profiling fmk log"),
     JOB_LINE("start profiling fmk log, ret=%d", facts.ret), kRetFailed},
    {kNoLine, kNoLine, JOB_LINE("stop profiling fmk data, ret=%d", facts.ret), kNoLine},
    [](const Record& record, const CollectionJobCfg&) {
        return DrvFmkDataStart(record.profDeviceId, record.profChannel);
    },
    false,
    true,
    false};

const ChannelRun kL2CacheRun{
    CheckJobEventParam,
    {kNoLine, JOB_LINE("Begin to start profiling L2 Cache, events:%s", facts.events.c_str()),
     JOB_LINE("start profiling L2 Cache task, events:%s, ret=%d", facts.events.c_str(), facts.ret),
     kRetFailed},
    {kNoLine, kNoLine,
     JOB_LINE("stop Profiling L2 Cache Task, events:%s, ret=%d", facts.events.c_str(), facts.ret),
     kNoLine},
    [](const Record& record, const CollectionJobCfg& cfg) {
        return DrvL2CacheTaskStart(record.profDeviceId, record.profChannel, ListOf(cfg.events));
    },
    false,
    false,
    false};

}  // namespace

// ---- Task scheduler ----------------------------------------------------------------------------

int ProfTscpuJob::Init(Cfg cfg) {
    return Decide(kTscpuChoice, std::move(cfg));
}

int ProfTscpuJob::Process() {
    if (!IsReady(CheckJobEventParam)) {
        return -1;
    }
    return StartChannel(
        kTscpuRun, On(kChannelTsCpu, PeriodOr(Params().cpu_sampling_interval, kDefaultPeriod)));
}

int ProfTscpuJob::Uninit() {
    return StopChannel(kTscpuRun, kChannelTsCpu);
}

int ProfTsTrackJob::Init(Cfg cfg) {
    return Decide(kTsTrackChoice, std::move(cfg));
}

int ProfTsTrackJob::Process() {
    if (!IsReady(CheckJobCommonParam)) {
        return -1;
    }
    return StartChannel(kTsTrackRun,
                        On(channelId_, PeriodOr(Params().cpu_sampling_interval, kDefaultPeriod)));
}

int ProfTsTrackJob::Uninit() {
    return StopChannel(kTsTrackRun, channelId_);
}

int ProfAivTsTrackJob::Init(Cfg cfg) {
    const int ret = Decide(kAivTsTrackChoice, std::move(cfg));
    if (ret == 0) {
        channelId_ = kChannelTsFw1;
        collectionJobCfg_->commonParams->params->ts_keypoint = "off";
    }
    return ret;
}

int ProfStarsSocLogJob::Init(Cfg cfg) {
    return Decide(kStarsChoice, std::move(cfg));
}

int ProfStarsSocLogJob::Process() {
    return StartChannel(kStarsSocLogRun, On(channelId_));
}

int ProfStarsSocLogJob::Uninit() {
    return StopChannel(kStarsSocLogRun, channelId_);
}

int ProfStarsBlockLogJob::Init(Cfg cfg) {
    return Decide(kStarsChoice, std::move(cfg));
}

int ProfFftsProfileJob::Init(Cfg cfg) {
    const int ret = Decide(kFftsChoice, std::move(cfg));
    if (ret != 0) {
        return ret;
    }
    const ProfileParams& params = Params();
    cfgMode = (IsOn(params.ai_core_profiling) ? 1u : 0u) | (IsOn(params.aiv_profiling) ? 2u : 0u);
    aicPeriod = PeriodOr(params.aicore_sampling_interval, kDefaultPeriod);
    aivPeriod = PeriodOr(params.aiv_sampling_interval, kDefaultPeriod);
    const bool isSampleBased =
        IsMode(params.ai_core_profiling_mode, false) && IsMode(params.aiv_profiling_mode, false);
    channelId_ = isSampleBased ? kChannelFftsProfileSample : kChannelFftsProfileTask;
    aicMode = isSampleBased ? 2 : 1;
    if (IsOn(params.taskBlock) && !isSampleBased) {
        aicMode |= 4;
    }
    aicMode |= 8;
    aivMode = aicMode;
    PROF_LOGI(
        "ffts profile init success, channelId_(0x%x), cfgMode(0x%x), aicMode(0x%x), aicPeriod(%u),"
        "aivMode(0x%x), aivPeriod(%u)",
        static_cast<unsigned>(channelId_), cfgMode, aicMode, static_cast<unsigned>(aicPeriod),
        aivMode, static_cast<unsigned>(aivPeriod));
    return 0;
}

int ProfFftsProfileJob::Process() {
    Record record = On(channelId_, aicPeriod);
    record.aivSamplePeriod = aivPeriod;
    record.cfgMode = cfgMode;
    record.aicMode = aicMode;
    record.aivMode = aivMode;
    return StartChannel(kFftsRun, record);
}

int ProfFftsProfileJob::Uninit() {
    if (collectionJobCfg_ != nullptr) {
        static_cast<void>(StopChannel(kFftsRun, channelId_));
    }
    return 0;
}

// ---- Cores -------------------------------------------------------------------------------------

int ProfAicoreJob::Init(Cfg cfg) {
    const int ret = Decide(kAicoreChoice, std::move(cfg));
    if (ret == 0) {
        taskType = "aicore sample based";
        period = PeriodOr(Params().aicore_sampling_interval, kDefaultPeriod);
    }
    return ret;
}

int ProfAicoreJob::Process() {
    return StartChannel(kAicoreRun, On(channelId_, period), taskType);
}

int ProfAicoreJob::Uninit() {
    return StopChannel(kAicoreRun, channelId_, taskType);
}

int ProfAivJob::Init(Cfg cfg) {
    const int ret = Decide(kAivChoice, std::move(cfg));
    if (ret == 0) {
        taskType = "ai vector core sample based";
        period = PeriodOr(Params().aiv_sampling_interval, kDefaultPeriod);
        channelId_ = kChannelAiVector;
    }
    return ret;
}

int ProfAicoreTaskBasedJob::Init(Cfg cfg) {
    PROF_LOGI("ProfAicoreTaskBasedJob init");
    taskType = "aicore task based";
    return Decide(kAicoreTaskChoice, std::move(cfg));
}

int ProfAicoreTaskBasedJob::Process() {
    return StartChannel(kAicoreTaskRun, On(channelId_), taskType);
}

int ProfAicoreTaskBasedJob::Uninit() {
    return StopChannel(kAicoreTaskRun, channelId_, taskType);
}

int ProfAivTaskBasedJob::Init(Cfg cfg) {
    PROF_LOGI("ProfAivTaskBasedJob init");
    taskType = "ai vector core task based";
    channelId_ = kChannelAiVector;
    return Decide(kAivTaskChoice, std::move(cfg));
}

// ---- Logs and caches ---------------------------------------------------------------------------

int ProfHwtsLogJob::Init(Cfg cfg) {
    return Decide(kHwtsLogChoice, std::move(cfg));
}

int ProfHwtsLogJob::Process() {
    return StartChannel(kHwtsLogRun, On(channelId_));
}

int ProfHwtsLogJob::Uninit() {
    return StopChannel(kHwtsLogRun, channelId_);
}

int ProfAivHwtsLogJob::Init(Cfg cfg) {
    channelId_ = kChannelAivHwtsLog;
    return Decide(kAivHwtsLogChoice, std::move(cfg));
}

int ProfFmkJob::Init(Cfg cfg) {
    return Decide(kFmkChoice, std::move(cfg));
}

bool ProfFmkJob::Collects() const {
    return IsOn(Params().ts_fw_training);
}

int ProfFmkJob::Process() {
    if (!IsReady(CheckJobCommonParam)) {
        return -1;
    }
    if (!Collects()) {
        PROF_LOGI("ts_fw_training not enabled");
        return 0;
    }
    return StartChannel(kFmkRun, On(kChannelFmk));
}

int ProfFmkJob::Uninit() {
    if (!IsReady(CheckJobCommonParam)) {
        return -1;
    }
    return Collects() ? StopChannel(kFmkRun, kChannelFmk) : 0;
}

int ProfL2CacheTaskJob::Init(Cfg cfg) {
    const int ret = Decide(kL2CacheChoice, std::move(cfg));
    if (ret != 0) {
        return ret;
    }
    const ParamValidation& validation = ParamValidation::instance();
    const std::vector<std::string> events = Utils::Split(Params().l2CacheTaskProfilingEvents);
    if (!validation.CheckL2CacheEventsValid(events) ||
        !validation.CheckEventsSize(static_cast<int>(events.size()))) {
        PROF_LOGE("ProfL2CacheTaskJob Exits Error Events Size %u",
                  static_cast<unsigned>(events.size()));
        return -1;
    }
    collectionJobCfg_->events = MakeShared<std::vector<std::string>>(events);
    return collectionJobCfg_->events == nullptr ? -1 : 0;
}

int ProfL2CacheTaskJob::Process() {
    return StartChannel(kL2CacheRun, On(kChannelL2CacheTask));
}

int ProfL2CacheTaskJob::Uninit() {
    return StopChannel(kL2CacheRun, kChannelL2CacheTask);
}

}  // namespace Analysis::Nedra::JobWrapper
