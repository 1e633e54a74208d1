#include "profiling/collect/prof_ctrlcpu_job.h"

#include <utility>

#include "hdc/log_side.h"
#include "profiling/collect/prof_drv_job.h"
#include "profiling/config/config_manager.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/platform.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::MakeShared;
using analysis::nedra::common::utils::Utils;
using analysis::nedra::common::validation::ParamValidation;
using Common::Config::ConfigManager;
using Common::Platform::Platform;

namespace {

constexpr uint64_t kTextBufferSize = 0x40001;
constexpr int kDefaultIntervalMs = 10;
constexpr int kMsPerSecond = 1000;
constexpr char kThreadName[] = "TLET_PerfScript";

std::string PerfDataDir(int devId) {
    return ConfigManager::instance().GetPerfDataDir(static_cast<uint32_t>(devId));
}

// "{r11,r8}" of "0x11" and "0x8". Every valid event has two characters and more.
std::string RawEvents(std::vector<std::string> events) {
    for (std::string& event : events) {
        event.replace(0, 2, "r");
    }
    return "{" + ProfDrvJob::GetEventsStr(events) + "}";
}

}  // namespace

ProfCtrlcpuJob::~ProfCtrlcpuJob() {
    if (ctrlCpuPid_ > 0) {
        static_cast<void>(ProfCtrlcpuJob::Uninit());
    }
}

int ProfCtrlcpuJob::Init(std::shared_ptr<CollectionJobCfg> cfg) {
    ReapScripts();
    if (!CheckJobEventParam(cfg) || !IsDeviceSideJob(*cfg)) {
        return -1;
    }
    if (!Platform::instance().PlatformIsDevice()) {
        PROF_LOGI("Not in device Side, aiCtrlcpu Profiling not enabled");
        return -1;
    }
    collectionJobCfg_ = std::move(cfg);
    CollectionJobCommonParams& common = *collectionJobCfg_->commonParams;
    common.resultDir = PerfDataDir(common.devId);
    const int ret = Utils::CreateDir(common.resultDir);
    if (ret != 0) {
        PROF_LOGE("Creating dir failed: %s", Utils::BaseName(common.resultDir).c_str());
        Utils::PrintSysErrorMsg();
        return ret;
    }
    perfExtraTask_ = MakeShared<PerfExtraTask>(kTextBufferSize, common.resultDir, common.jobCtx,
                                               common.params, limits_);
    return perfExtraTask_ == nullptr ? -1 : 0;
}

std::string ProfCtrlcpuJob::RecordCommand() const {
    const CollectionJobCommonParams& common = *collectionJobCfg_->commonParams;
    const std::vector<std::string>& events = *collectionJobCfg_->events;
    const std::string dir = PerfDataDir(common.devId);
    if (events.empty() || !ParamValidation::instance().CheckCtrlCpuEventIsValid(events) ||
        !MakeScriptDir(dir)) {
        return "";
    }
    const std::string path =
        Utils::JoinPath({dir, "ai_ctrl_cpu.data"}) + "." + std::to_string(common.devIdOnHost);
    if (!MakeEmptyFile(path)) {
        PROF_LOGE("Failed to open %s, dev_id=%d", path.c_str(), common.devIdOnHost);
        return "";
    }
    const int asked = common.params == nullptr ? 0 : common.params->cpu_sampling_interval;
    const int frequency = kMsPerSecond / (asked > 0 ? asked : kDefaultIntervalMs);
    return std::string(kScriptSudo) + " " + kScriptPath + " --record " + path + " " +
           std::to_string(frequency) + " " + RawEvents(events);
}

int ProfCtrlcpuJob::Process() {
    if (!CheckJobCommonParam(collectionJobCfg_)) {
        return -1;
    }
    const auto& events = collectionJobCfg_->events;
    const std::string command = events == nullptr || events->empty() ? "" : RecordCommand();
    if (command.empty()) {
        return 0;
    }
    PROF_LOGI("start profiling ctrl cpu, cmd=%s", command.c_str());
    const std::vector<std::string> words = Utils::Split(command, false, "", " ");
    if (words.empty()) {
        PROF_LOGE("ProfCtrlcpuJob params empty");
        return -1;
    }
    PROF_LOGI("Begin to start profiling ctrl cpu");
    ctrlCpuPid_ = -1;
    const std::string log = PerfDataDir(collectionJobCfg_->commonParams->devId) + "/perf.log";
    const int ret = StartScript(words, log, kScriptEnvironment, ctrlCpuPid_);
    PROF_LOGI("start profiling ctrl cpu, pid=%u, ret=%d", static_cast<unsigned>(ctrlCpuPid_), ret);
    if (ret != 0) {
        PROF_LOGE("Function ret check failed");
        return ret;
    }
    return StartTask();
}

int ProfCtrlcpuJob::StartTask() {
    if (perfExtraTask_ == nullptr || perfExtraTask_->Init() != 0) {
        return 0;  // the recording runs, and nobody reads it
    }
    perfExtraTask_->SetJobCtx(collectionJobCfg_->commonParams->jobCtx);
    perfExtraTask_->SetThreadName(kThreadName);
    const int ret = perfExtraTask_->Start();
    if (ret != 0) {
        PROF_LOGE("[ProfCtrlcpuJob::Process]Failed to start perfExtraTask_ thread, ret=%d", ret);
    }
    return ret;
}

int ProfCtrlcpuJob::Uninit() {
    const ScriptLimit isOver = LimitAfter(limits_.patience);
    int ret = KillScript(isOver);
    if (ctrlCpuPid_ > 0) {
        ret = EndRecording(isOver);
    }
    if (collectionJobCfg_ != nullptr) {
        collectionJobCfg_->events.reset();
    }
    return ret;
}

int ProfCtrlcpuJob::EndRecording(const ScriptLimit& isOver) {
    int exitCode = 0;
    const int ret = WaitScript(ctrlCpuPid_, isOver, exitCode);
    if (ret != 0) {
        PROF_LOGE("Failed to wait process %u, ret=%d", static_cast<unsigned>(ctrlCpuPid_), ret);
    } else {
        PROF_LOGI("Process %u exited, exit code=%d", static_cast<unsigned>(ctrlCpuPid_), exitCode);
    }
    ctrlCpuPid_ = -1;
    if (perfExtraTask_ != nullptr) {
        static_cast<void>(perfExtraTask_->Stop());
        perfExtraTask_->Uninit();
    }
    return ret;
}

}  // namespace Analysis::Nedra::JobWrapper
