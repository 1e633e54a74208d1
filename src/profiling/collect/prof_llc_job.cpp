#include "profiling/collect/prof_llc_job.h"

#include <fstream>
#include <utility>

#include "profiling/collect/peripheral_records.h"
#include "profiling/config/config_manager.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/platform.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::memory::Chunk;
using analysis::nedra::common::utils::Utils;
using analysis::nedra::common::validation::ParamValidation;
using Common::Config::ConfigManager;
using Common::Platform::Platform;

namespace {

constexpr char kStatEnvironment[] = "PATH=/usr/bin/:/usr/sbin:/var";
constexpr int kDefaultIntervalMs = 100;
constexpr uint64_t kResultBufferSize = 0x40001;

const PeripheralChoice kLlc{
    {CheckJobEventParam, [](const ProfileParams& p) { return IsOn(p.tracelet_llc_profiling); },
     [](int) { PROF_LOGI("LLC Profiling not enabled"); }},
    [](const ProfileParams& p) { return FinePeriod(p.llc_interval); },
    nullptr};

bool IsByScript() {
    return ConfigManager::instance().GetPlatformType() == Common::Config::TYPE_0;
}

}  // namespace

ProfLlcJob::~ProfLlcJob() {
    if (llcPid_ > 0) {
        static_cast<void>(UninitByScript());
    }
}

int ProfLlcJob::Init(std::shared_ptr<CollectionJobCfg> cfg) {
    ReapScripts();
    if (!CheckJobEventParam(cfg) || !IsDeviceSideJob(*cfg)) {
        return -1;
    }
    if (!Platform::instance().PlatformIsDevice() && IsByScript()) {
        PROF_LOGI("Not in device Side, LLC Profiling not enabled");
        return -1;
    }
    const int ret = Decide(kLlc, std::move(cfg));
    // The engine places this job without a name for its file, and data without one is lost on the
    // host.
    if (ret == 0 && !IsByScript() && collectionJobCfg_->jobFileName.empty()) {
        collectionJobCfg_->jobFileName = COLLECTION_JOB_FILENAME[LLC_DRV_COLLECTION_JOB];
    }
    return ret;
}

bool ProfLlcJob::IsGlobalJobLevel() {
    return IsByScript();
}

int ProfLlcJob::Process() {
    return IsByScript() ? ProcessByScript() : ProfPeripheralJob::Process();
}

int ProfLlcJob::Uninit() {
    return IsByScript() ? UninitByScript() : ProfPeripheralJob::Uninit();
}

// ---- By driver ---------------------------------------------------------------------------------

int ProfLlcJob::SetPeripheralConfig() {
    const std::vector<std::string>& events = ListOf(collectionJobCfg_->events);
    eventsStr_ = GetEventsStr(events);
    TagLlcProfileConfig record{static_cast<uint32_t>(samplePeriod_), 0};
    for (const std::string& event : events) {
        if (event == "read" || event == "write") {
            record.mode = 1 + (event == "read" ? kReadEvent : kWriteEvent);
        } else {
            PROF_LOGW("LLC event:%s not support", event.c_str());
        }
    }
    if (!KeepConfig(&record, sizeof record)) {
        PROF_LOGE("ProfLlcJob ProfMalloc TagLlcProfileConfig failed");
        return -1;
    }
    return 0;
}

// ---- By script ---------------------------------------------------------------------------------

std::string ProfLlcJob::ResultPath() const {
    return collectionJobCfg_->jobFileName + "." + std::to_string(Common().devIdOnHost);
}

std::string ProfLlcJob::StatCommand() {
    const std::string dir =
        ConfigManager::instance().GetPerfDataDir(static_cast<uint32_t>(Common().devId));
    collectionJobCfg_->jobFileName = Utils::JoinPath({dir, "llc.data"});
    const std::string path = ResultPath();
    if (!MakeScriptDir(dir)) {
        return "";
    }
    if (!MakeEmptyFile(path)) {
        PROF_LOGE("Failed to open %s, devId=%d, devIdOnHost:%d", path.c_str(), Common().devId,
                  Common().devIdOnHost);
        return "";
    }
    const int interval = PeriodOr(Params().llc_interval, kDefaultIntervalMs);
    const std::string events = GetEventsStr(*collectionJobCfg_->events);
    if (events.empty() || !ParamValidation::instance().CheckLlcEventsIsValid(events)) {
        return "";
    }
    return std::string(kScriptSudo) + " " + kScriptPath + " --stat " + path + " " + events + " " +
           std::to_string(interval);
}

int ProfLlcJob::ProcessByScript() {
    if (!IsReady(CheckJobEventParam)) {
        return -1;
    }
    const std::string command = StatCommand();
    PROF_LOGI("llc_event:%s, profLlcCmd:%s", GetEventsStr(*collectionJobCfg_->events).c_str(),
              command.c_str());
    if (command.empty()) {
        return 0;
    }
    PROF_LOGI("Begin to start profiling llc, cmd=%s", command.c_str());
    const std::vector<std::string> words = Utils::Split(command, false, "", " ");
    if (words.empty()) {
        PROF_LOGE("profLlcCmd empty");
        return -1;
    }
    llcPid_ = -1;
    const int ret = StartScript(words, "", kStatEnvironment, llcPid_);
    PROF_LOGI("start profiling llc, pid = %u, ret=%d", static_cast<unsigned>(llcPid_), ret);
    if (ret != 0) {
        PROF_LOGE("Function ret check failed");
    }
    return ret;
}

int ProfLlcJob::UninitByScript() {
    const ScriptLimit isOver = LimitAfter(patience_);
    int ret = KillScript(isOver);
    if (llcPid_ > 0) {
        int exitCode = 0;
        ret = WaitScript(llcPid_, isOver, exitCode);
        if (ret != 0) {
            PROF_LOGE("Failed to wait process %d, ret=%d", llcPid_, ret);
        } else {
            PROF_LOGI("Process %d exited, exit code=%d", llcPid_, exitCode);
        }
        llcPid_ = -1;
    }
    UploadResult();
    return ret;
}

void ProfLlcJob::UploadResult() {
    if (collectionJobCfg_ == nullptr || Common().params == nullptr) {
        return;
    }
    std::ifstream in(ResultPath(), std::ios::binary);
    if (!in.is_open()) {
        return;
    }
    Chunk buffer(kResultBufferSize);
    if (!buffer.Init()) {
        PROF_LOGE("make shared failed, message: %s", "no memory for the llc data");
        return;
    }
    UploadScriptFile(in, buffer, "data/llc.data", Common().jobCtx, Params().job_id, [this] {
        PROF_LOGE("Upload llc data failed , jobId: %s", Params().job_id.c_str());
        return true;
    });
}

}  // namespace Analysis::Nedra::JobWrapper
