#include "profiling/collect/prof_drv_job.h"

#include <utility>

#include "profiling/config/json_parser.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/utils.h"
#include "profiling/datapath/prof_channel_manager.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::MakeShared;
using analysis::nedra::common::utils::Utils;
using analysis::nedra::driver::DrvChannelsMgr;
using analysis::nedra::driver::DrvHasProfFlush;
using analysis::nedra::driver::DrvStop;
using analysis::nedra::transport::ChannelReader;
using Tracelets::Parser::JsonParser;

namespace {

void Say(JobLine line, const JobFacts& facts) {
    if (line != nullptr) {
        line(facts);
    }
}

std::string JoinCores(const std::vector<int>& cores) {
    std::vector<std::string> texts;
    for (const int core : cores) {
        texts.push_back(std::to_string(core));
    }
    return ProfDrvJob::GetEventsStr(texts);
}

}  // namespace

bool HasChannel(int devId, int channelId) {
    if (DrvChannelsMgr::instance().ChannelIsValid(devId, channelId)) {
        return true;
    }
    PROF_LOGW("Channel is invalid, devId:%d, channelId_:%d", devId, channelId);
    return false;
}

int FilePeriodOr(int channelId, int otherwise) {
    const uint32_t period =
        JsonParser::instance().GetChannelPeriod(static_cast<uint32_t>(channelId));
    return PeriodOr(static_cast<int>(period), otherwise);
}

std::string ProfDrvJob::GetEventsStr(const std::vector<std::string>& events,
                                     const std::string& separator) {
    return Utils::Join(events, separator);
}

// ---- Readers -----------------------------------------------------------------------------------

void ProfDrvJob::AddReader(const std::string& key, int devId, int channelId,
                           const std::string& filePath) {
    std::string relative = filePath;
    if (!filePath.empty() && filePath.front() == '/') {
        relative.clear();
        Utils::GetRelativePath(filePath, Common().resultDir, relative);
    }
    const auto reader = MakeShared<ChannelReader>(devId, channelId, relative, Common().jobCtx);
    if (reader == nullptr || reader->Init() != 0) {
        return;
    }
    const auto poller = ProfChannelManager::instance().GetChannelPoller();
    if (poller == nullptr) {
        PROF_LOGI("ProfDrvJob AddReader failed, key:%s, devId:%d, channel:%d, filepath:%s",
                  key.c_str(), devId, channelId, Utils::BaseName(filePath).c_str());
        return;
    }
    poller->AddReader(static_cast<uint32_t>(devId), static_cast<uint32_t>(channelId), reader);
}

int ProfDrvJob::RemoveReader(const std::string& key, int devId, int channelId) {
    PROF_LOGI("ProfDrvJob RemoveReader, key:%s, devId:%d, channel:%d", key.c_str(), devId,
              channelId);
    const auto poller = ProfChannelManager::instance().GetChannelPoller();
    if (poller != nullptr) {
        poller->RemoveReader(static_cast<uint32_t>(devId), static_cast<uint32_t>(channelId));
    }
    return 0;
}

int ProfDrvJob::StopAndDrain(int devId, int channelId) {
    const auto poller = ProfChannelManager::instance().GetChannelPoller();
    const auto reader = poller == nullptr ? nullptr
                                          : poller->GetReader(static_cast<uint32_t>(devId),
                                                              static_cast<uint32_t>(channelId));
    if (reader != nullptr && DrvHasProfFlush()) {
        reader->FlushDrvBuff();  // a side buffer does not outlive the stop
    }
    const int ret = DrvStop(devId, channelId);
    if (ret == 0 && reader != nullptr) {
        reader->Drain();  // of a channel that goes on there would be no end
    }
    return ret;
}

// ---- The flow ----------------------------------------------------------------------------------

int ProfDrvJob::Decide(const ChannelChoice& choice, std::shared_ptr<CollectionJobCfg> cfg) {
    if (!choice.check(cfg) || !IsDeviceSideJob(*cfg)) {
        return -1;
    }
    collectionJobCfg_ = std::move(cfg);
    if (choice.isOn != nullptr && !choice.isOn(Params())) {
        if (choice.off != nullptr) {
            choice.off(Common().devId);
        }
        return -1;
    }
    return 0;
}

int ProfDrvJob::StartChannel(const ChannelRun& run, DrvPeripheralProfileCfg record,
                             const std::string& taskType) {
    if (!IsReady(run.check)) {
        return -1;
    }
    JobFacts facts = Facts(record.profChannel, taskType);
    Say(run.start.head, facts);
    if (!HasChannel(facts.devId, facts.channelId)) {
        return 0;
    }
    Say(run.start.begin, facts);
    AddReader(Params().job_id, facts.devId, facts.channelId, collectionJobCfg_->jobFileName);
    record.profDeviceId = facts.devId;
    if (run.takesFilePeriod) {
        record.profSamplePeriod = FilePeriodOr(facts.channelId, record.profSamplePeriod);
    }
    facts.ret = run.startChannel(record, *collectionJobCfg_);
    Say(run.start.done, facts);
    if (facts.ret != 0) {
        Say(run.start.failed, facts);
    }
    return facts.ret;
}

int ProfDrvJob::StopChannel(const ChannelRun& run, int channelId, const std::string& taskType) {
    if (!IsReady(run.check)) {
        return -1;
    }
    JobFacts facts = Facts(channelId, taskType);
    Say(run.stop.head, facts);
    if (!HasChannel(facts.devId, channelId)) {
        return 0;
    }
    Say(run.stop.begin, facts);
    facts.ret = StopAndDrain(facts.devId, channelId);
    Say(run.stop.done, facts);
    if (facts.ret != 0) {
        Say(run.stop.failed, facts);
    }
    RemoveReader(Params().job_id, facts.devId, channelId);
    if (!run.keepsEvents) {
        collectionJobCfg_->events.reset();
    }
    if (run.releasesCores) {
        collectionJobCfg_->cores.reset();
    }
    return facts.ret;
}

JobFacts ProfDrvJob::Facts(int channelId, const std::string& taskType) const {
    return {Common().devId,
            channelId,
            0,
            GetEventsStr(ListOf(collectionJobCfg_->events)),
            JoinCores(ListOf(collectionJobCfg_->cores)),
            taskType,
            Params()};
}

// Init has seen the parameters; the engine may have replaced them since.
bool ProfDrvJob::IsReady(JobCheck check) const {
    return check(collectionJobCfg_) && Common().params != nullptr;
}

}  // namespace Analysis::Nedra::JobWrapper
