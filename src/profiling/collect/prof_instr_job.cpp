// The job of the instruction profiling, the one with many channels.

#include <utility>

#include "profiling/collect/prof_job.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::driver::DrvInstrProfileStart;

namespace {

constexpr const char* kColumns[] = {"aic", "aiv0", "aiv1"};

// Where the channels are, both ends included.
constexpr std::pair<int, int> kRanges[] = {{11, 42}, {55, 84}, {86, 98}};

const ChannelChoice kChoice{CheckJobContextParam,
                            [](const ProfileParams& p) { return IsOn(p.instrProfiling); }, nullptr};

}  // namespace

ProfInstrPerfJob::Table ProfInstrPerfJob::MakeTable() {
    Table table{};
    size_t n = 0;
    for (const auto& [first, last] : kRanges) {
        for (int channel = first; channel <= last; ++channel, ++n) {
            table[n / std::size(kColumns)][n % std::size(kColumns)] = channel;
        }
    }
    return table;
}

template <typename Act>
void ProfInstrPerfJob::ForEachChannel(const Act& act) const {
    for (const int group : groups) {
        for (size_t column = 0; column < std::size(kColumns); ++column) {
            const int channel = channels[static_cast<size_t>(group)][column];
            if (HasChannel(Common().devId, channel)) {
                act(channel, group, column);
            }
        }
    }
}

int ProfInstrPerfJob::Init(std::shared_ptr<CollectionJobCfg> cfg) {
    if (!kChoice.check(cfg)) {
        return -1;
    }
    period = cfg->commonParams->params->instrProfilingFreq;
    const int ret = Decide(kChoice, std::move(cfg));
    if (ret != 0) {
        return ret;
    }
    groups.clear();
    for (size_t group = 0; group < channels.size(); ++group) {
        groups.push_back(static_cast<int>(group));
    }
    PROF_LOGI("instr profiling profile init success, instr profiling groupId: %s.",
              Params().instrProfiling.c_str());
    return 0;
}

int ProfInstrPerfJob::Process() {
    if (!IsReady(CheckJobContextParam)) {
        return -1;
    }
    int ret = 0;
    ForEachChannel(
        [&](int channelId, int group, size_t column) { ret = StartOne(channelId, group, column); });
    return ret;
}

int ProfInstrPerfJob::StartOne(int channelId, int group, size_t column) {
    const int devId = Common().devId;
    PROF_LOGI("Begin to start bui profile buffer, devId:%d, channelId:%d", devId, channelId);
    AddReader(Params().job_id, devId, channelId,
              collectionJobCfg_->jobFileName + ".group_" + std::to_string(group) + "_" +
                  kColumns[column]);
    const int ret =
        DrvInstrProfileStart(static_cast<uint32_t>(devId), static_cast<uint32_t>(channelId),
                             static_cast<uint32_t>(period));
    PROF_LOGI("start instr profiling profile buffer, ret=%d, devId:%d, channelId:%d", ret, devId,
              channelId);
    if (ret != 0) {
        RemoveReader(Params().job_id, devId, channelId);
        PROF_LOGE("[ProfInstrPerfJob]Process, DrvInstrProfileStart failed. devId:%d, channelId:%d",
                  devId, channelId);
    }
    return ret;
}

int ProfInstrPerfJob::Uninit() {
    if (!IsReady(CheckJobContextParam)) {
        return -1;
    }
    ForEachChannel([this](int channelId, int, size_t) { StopOne(channelId); });
    collectionJobCfg_->events.reset();
    return 0;
}

void ProfInstrPerfJob::StopOne(int channelId) {
    const int devId = Common().devId;
    const int ret = StopAndDrain(devId, channelId);
    if (ret != 0) {
        PROF_LOGE("[ProfInstrPerfJob]DrvStop failed, ret:%d, devId:%d, channelId:%d", ret, devId,
                  channelId);
    }
    RemoveReader(Params().job_id, devId, channelId);
}

}  // namespace Analysis::Nedra::JobWrapper
