#include "profiling/datapath/ai_drv_prof_api.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "hdc/log_side.h"
#include "profiling/config/json_parser.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::driver {
namespace {

using common::utils::Utils;
using message::IsOn;
using message::ProfileParams;

constexpr size_t kMaxEvents = PROF_EVENT_NUM_MAX;

uint32_t DynamicTag() {
    return Utils::IsDynProfMode() ? 1 : 0;
}

uint32_t EventCode(const std::string& event) {
    return static_cast<uint32_t>(std::strtol(event.c_str(), nullptr, 16));
}

uint32_t CoreMask(const Cores& cores) {
    uint32_t mask = 0;
    for (const int core : cores) {
        mask |= core >= 0 && core < 32 ? uint32_t{1} << core : 0;
    }
    return mask;
}

std::string JoinEvents(const Events& events) {
    std::string text;
    for (const std::string& event : events) {
        text += event + ",";
    }
    return text;
}

std::string Place(int device, int channel) {
    return "profDeviceId=" + std::to_string(device) + ", profChannel=" + std::to_string(channel);
}

std::string Period(const DrvPeripheralProfileCfg& cfg) {
    return ", profSamplePeriod=" + std::to_string(cfg.profSamplePeriod);
}

// One start as the driver sees it, and as the log tells it: `where` names device, channel and,
// for most that have one, the period. Where the lines before the call say it another way,
// `period` adds it to the line of success.
struct StartCall {
    const char* operation;
    std::string where;
    int device;
    int channel;
    uint32_t channelType;
    uint32_t samplePeriod;
    std::string period = {};

    // The driver's answer.
    int operator()(void* record, size_t size) const {
        ProfStartPara para = {};
        para.channelType = channelType;
        para.samplePeriod = samplePeriod;
        para.realTime = 1;
        para.userData = record;
        para.userDataSize = static_cast<uint32_t>(size);
        const int ret =
            prof_drv_start(static_cast<uint32_t>(device), static_cast<uint32_t>(channel), &para);
        if (ret != 0) {
            PROF_LOGE("Failed to start profiling %s, %s, ret=%d", operation, where.c_str(), ret);
        } else {
            PROF_EVENT("Succeeded to start profiling %s, %s%s", operation, where.c_str(),
                       period.c_str());
        }
        return ret;
    }
};

StartCall PeriodicCall(const char* operation, const DrvPeripheralProfileCfg& cfg,
                       uint32_t channelType = PROF_START_TS) {
    return {operation,        Place(cfg.profDeviceId, cfg.profChannel) + Period(cfg),
            cfg.profDeviceId, cfg.profChannel,
            channelType,      static_cast<uint32_t>(cfg.profSamplePeriod)};
}

StartCall PlainCall(const char* operation, int device, int channel) {
    return {operation, Place(device, channel), device, channel, PROF_START_TS, 0};
}

StartCall PlainPeriodicCall(const char* operation, const DrvPeripheralProfileCfg& cfg) {
    StartCall start = PeriodicCall(operation, cfg);
    start.where = Place(cfg.profDeviceId, cfg.profChannel);
    start.period = Period(cfg);
    return start;
}

int AsResult(int ret) {
    return ret == 0 ? 0 : -1;
}

// Records that end in as many events as there are: words, of which the first are the head.
using Words = std::vector<uint32_t>;

bool AppendEvents(const Events& events, Words* words) {
    try {
        words->push_back(static_cast<uint32_t>(events.size()));
        for (const std::string& event : events) {
            words->push_back(EventCode(event));
        }
    } catch (const std::exception&) {
        return false;
    }
    return true;
}

size_t Size(const Words& words) {
    return words.size() * sizeof(uint32_t);
}

}  // namespace

// ---- Start --------------------------------------------------------------------------------------

int DrvPeripheralStart(const DrvPeripheralProfileCfg& cfg) {
    const StartCall start = PeriodicCall("DrvPeripheralStart", cfg, PROF_START_PERIPHERAL);
    PROF_EVENT("Begin to start profiling DrvPeripheralStart, %s", start.where.c_str());
    return AsResult(start(cfg.configP, cfg.configSize));
}

int DrvAicoreStart(const DrvPeripheralProfileCfg& cfg, const Cores& cores, const Events& events) {
    if (events.size() > kMaxEvents) {
        PROF_LOGE("profiling events size over %d, event_num=%d", static_cast<int>(kMaxEvents),
                  static_cast<int>(events.size()));
        return -1;
    }
    ProfAicoreConfig record = {};
    record.type = PROF_AICORE_SAMPLE;
    record.mark = PROF_AICORE_SAMPLE_MARK;
    record.period = static_cast<uint32_t>(cfg.profSamplePeriod);
    record.coreMask = CoreMask(cores);
    record.eventNum = static_cast<uint32_t>(events.size());
    std::transform(events.begin(), events.end(), record.events, EventCode);
    record.tag = DynamicTag();
    const StartCall start = PeriodicCall("DrvAicoreStart", cfg);
    PROF_EVENT("Begin to start profiling DrvAicoreStart, %s", start.where.c_str());
    PROF_EVENT("DrvAicoreStart, period=%d, event_num=%d, events=%s, tag=%d", cfg.profSamplePeriod,
               static_cast<int>(events.size()), JoinEvents(events).c_str(),
               static_cast<int>(record.tag));
    return AsResult(start(&record, sizeof(record)));
}

int DrvAicoreTaskBasedStart(int devId, int channel, const Events& events) {
    const Events taken(events.begin(), events.begin() + std::min(events.size(), kMaxEvents));
    ProfAicoreConfig record = {};
    record.eventNum = static_cast<uint32_t>(taken.size());
    std::transform(taken.begin(), taken.end(), record.events, EventCode);
    record.tag = DynamicTag();
    const StartCall start = PlainCall("DrvAicoreTaskBasedStart", devId, channel);
    PROF_EVENT("Begin to start profiling DrvAicoreTaskBasedStart, %s, configSize:%d",
               start.where.c_str(), static_cast<int>(sizeof(record)));
    PROF_EVENT("DrvAicoreTaskBasedStart, event_num=%d, events=%s, tag=%d",
               static_cast<int>(taken.size()), JoinEvents(taken).c_str(),
               static_cast<int>(record.tag));
    return AsResult(start(&record, sizeof(record)));
}

int DrvL2CacheTaskStart(int devId, int channel, const Events& events) {
    Words record;
    if (!AppendEvents(events, &record)) {
        return -1;
    }
    for (size_t i = 0; i < events.size(); ++i) {
        PROF_LOGD("Receice DrvL2CacheTaskEvent EventId=%d, EventCode=0x%x", static_cast<int>(i),
                  record[i + 1]);
    }
    const StartCall start = PlainCall("DrvL2CacheTaskStart", devId, channel);
    PROF_EVENT("Begin to start profiling DrvL2CacheTaskStart, %s", start.where.c_str());
    PROF_EVENT("DrvL2CacheTaskStart, eventNum=%d, events=%s", static_cast<int>(events.size()),
               JoinEvents(events).c_str());
    return AsResult(start(record.data(), Size(record)));
}

int DrvTscpuStart(const DrvPeripheralProfileCfg& cfg, const Events& events) {
    Words record = {static_cast<uint32_t>(cfg.profSamplePeriod)};
    if (!AppendEvents(events, &record)) {
        return -1;
    }
    const StartCall start = PeriodicCall("DoProfTsCpuStart", cfg);
    PROF_EVENT("Begin to start profiling DoProfTsCpuStart, %s", start.where.c_str());
    PROF_EVENT("DoProfTsCpuStart, period=%d, event_num=%d, events=%s", cfg.profSamplePeriod,
               static_cast<int>(events.size()), JoinEvents(events).c_str());
    return AsResult(start(record.data(), Size(record)));
}

namespace {

ProfTsFwConfig TsFwRecord(const DrvPeripheralProfileCfg& cfg, const ProfileParams& params) {
    ProfTsFwConfig record = {};
    record.period = static_cast<uint32_t>(cfg.profSamplePeriod);
    record.taskTrack = IsOn(params.ts_task_track);
    record.cpuUsage = IsOn(params.ts_cpu_usage);
    record.aiCoreStatus = IsOn(params.ai_core_status);
    record.timeLine = IsOn(params.ts_timeline);
    record.aiVecStatus = IsOn(params.ai_vector_status);
    record.keyPoint = IsOn(params.ts_keypoint);
    if (IsOn(params.ts_memcpy)) {
        record.memCpy |= PROF_TSFW_MEMCPY_0 | PROF_TSFW_MEMCPY_1;
    }
    if (IsOn(params.taskTsfw)) {
        record.memCpy |= PROF_TSFW_TASK;
    }
    return record;
}

}  // namespace

int DrvTsFwStart(const DrvPeripheralProfileCfg& cfg, const std::shared_ptr<ProfileParams>& params) {
    if (params == nullptr) {
        return -1;
    }
    ProfTsFwConfig record = TsFwRecord(cfg, *params);
    const StartCall start = PlainPeriodicCall("DrvTsFwStart", cfg);
    PROF_EVENT("Begin to start profiling DrvTsFwStart, %s", start.where.c_str());
    PROF_EVENT(
        "DrvTsFwStart profDeviceId=%d, profChannel=%d, taskTrack=%u, cpuUsage=%u, "
        "aiCoreStatus=%u, timeLine=%u, aiVecStatus=%u, keyPoint=%u, memCpy=%x",
        cfg.profDeviceId, cfg.profChannel, record.taskTrack, record.cpuUsage, record.aiCoreStatus,
        record.timeLine, record.aiVecStatus, record.keyPoint, record.memCpy);
    return AsResult(start(&record, sizeof(record)));
}

int DrvStarsSocLogStart(const DrvPeripheralProfileCfg& cfg,
                        const std::shared_ptr<ProfileParams>& params) {
    if (params == nullptr) {
        return -1;
    }
    ProfStarsSocLogConfig record = {};
    record.acsqTask = IsOn(params->stars_acsq_task);
    record.fftsContextTask = IsOn(params->stars_acsq_task);
    record.fftsBlock = IsOn(params->taskBlock);
    record.tag = DynamicTag();
    const StartCall start = PlainPeriodicCall("DrvStarsSocLogStart", cfg);
    PROF_EVENT(
        "DrvStarsSocLogStart profDeviceId=%u, profChannel=%d, acsq_task=%u, acc_pmu=%u, "
        "cdqm_reg=%u, dvpp_vpc_block=%u, dvpp_jpegd_block=%u, dvpp_jpede_block=%u, "
        "ffts_context_task=%u, ffts_block=%u, sdma_dmu=%u, tag=%d",
        static_cast<uint32_t>(cfg.profDeviceId), cfg.profChannel, record.acsqTask, record.accPmu,
        record.cdqmReg, record.dvppVpcBlock, record.dvppJpegdBlock, record.dvppJpedeBlock,
        record.fftsContextTask, record.fftsBlock, record.sdmaDmu, static_cast<int>(record.tag));
    return AsResult(start(&record, sizeof(record)));
}

namespace {

enum PmuMode : int { kAiCore = 0, kVectorCore = 1 };

ProfPmuConfig DrvPackPmuParam(int mode, const DrvPeripheralProfileCfg& cfg, const Cores& cores,
                              const Events& events) {
    const Events taken(events.begin(), events.begin() + std::min(events.size(), kMaxEvents));
    const int period = mode == kAiCore ? cfg.profSamplePeriod : cfg.aivSamplePeriod;
    ProfPmuConfig record = {};
    record.mode = cfg.aicMode;  // the driver takes one mode for both
    record.period = static_cast<uint32_t>(period);
    record.coreMask = CoreMask(cores);
    record.eventNum = static_cast<uint32_t>(taken.size());
    std::transform(taken.begin(), taken.end(), record.events, [](const std::string& event) {
        return static_cast<uint16_t>(EventCode(event));
    });
    PROF_EVENT("DrvPackPmuParam, mode:%d, period=%d, event_num=%d, events=%s", mode, period,
               static_cast<int>(taken.size()), JoinEvents(taken).c_str());
    return record;
}

}  // namespace

int DrvFftsProfileStart(const DrvPeripheralProfileCfg& cfg, const Cores& aicCores,
                        const Events& aicEvents, const Cores& aivCores, const Events& aivEvents) {
    ProfFftsConfig record = {};
    record.tag = DynamicTag();
    record.cfgMode = cfg.cfgMode;
    record.aiCore = DrvPackPmuParam(kAiCore, cfg, aicCores, aicEvents);
    record.vectorCore = DrvPackPmuParam(kVectorCore, cfg, aivCores, aivEvents);
    PROF_EVENT("DrvFftsProfileStart : cfgMode=%u, tag=%d", record.cfgMode,
               static_cast<int>(record.tag));
    const StartCall start = PlainCall("DrvFftsProfileStart", cfg.profDeviceId, cfg.profChannel);
    return AsResult(start(&record, sizeof(record)));
}

int DrvInstrProfileStart(uint32_t devId, uint32_t channel, uint32_t period) {
    ProfWordConfig record = {period};
    PROF_EVENT(
        "Begin to start profiling DrvInstrProfileStart: profDeviceId=%u, profChannel=%u, "
        "period=%u",
        devId, channel, period);
    ProfStartPara para = {PROF_START_TS, 0, 1, 0, &record, sizeof(record), 0};
    const int ret = prof_drv_start(devId, channel, &para);
    if (ret != 0) {
        PROF_LOGE(
            "Failed to start profiling DrvInstrProfileStart, ret=%d, profDeviceId=%u, "
            "profChannel=%u, period=%u",
            ret, devId, channel, period);
        return -1;
    }
    PROF_EVENT(
        "Succeeded to start profiling DrvInstrProfileStart, profDeviceId=%u, "
        "profChannel=%u, period=%u",
        devId, channel, period);
    return 0;
}

int DrvHwtsLogStart(int devId, int channel) {
    ProfWordConfig record = {DynamicTag()};
    const StartCall start = PlainCall("DrvHwtsLogStart", devId, channel);
    PROF_EVENT("Begin to start profiling DrvHwtsLogStart, %s, tag=%d", start.where.c_str(),
               static_cast<int>(record.value));
    return AsResult(start(&record, sizeof(record)));
}

int DrvFmkDataStart(int devId, int channel) {
    ProfWordConfig record = {0};
    StartCall start = PlainCall("DrvFmkDataStart", devId, channel);
    start.where = "devId=" + std::to_string(devId) + ", profChannel=" + std::to_string(channel);
    PROF_EVENT("Begin to start profiling DrvFmkDataStart, %s", start.where.c_str());
    return AsResult(start(&record, sizeof(record)));
}

// ---- Data and stop ------------------------------------------------------------------------------

int DrvStop(int devId, int channel) {
    const std::string where = Place(devId, channel);
    PROF_EVENT("Begin to stop profiling prof_stop DrvStop, %s", where.c_str());
    const int ret = prof_stop(static_cast<uint32_t>(devId), static_cast<uint32_t>(channel));
    if (ret != 0) {
        PROF_LOGE("Failed to stop profiling prof_stop DrvStop, %s, ret=%d", where.c_str(), ret);
        return -1;
    }
    PROF_EVENT("Succeeded to stop profiling prof_stop DrvStop, %s", where.c_str());
    return 0;
}

int DrvChannelRead(int devId, int channel, void* outBuf, uint32_t bufSize, bool isStopped) {
    if (outBuf == nullptr) {
        PROF_LOGE("outBuf is nullptr");
        return -1;
    }
    const int ret = prof_channel_read(static_cast<uint32_t>(devId), static_cast<uint32_t>(channel),
                                      static_cast<char*>(outBuf), bufSize);
    if (ret == PROF_STOPPED_ALREADY && isStopped) {
        PROF_LOGD("profChannel has no more data, profDeviceId=%d, profChannel=%d", devId, channel);
        return 0;
    }
    if (ret == PROF_STOPPED_ALREADY) {
        PROF_LOGW("profChannel has stopped already, profDeviceId=%d, profChannel=%d, bufSize=%d",
                  devId, channel, static_cast<int>(bufSize));
        return 0;
    }
    // More than was asked for is a lie that would be followed by reads beyond the buffer.
    if (ret < 0 || static_cast<uint32_t>(ret) > bufSize) {
        PROF_LOGE(
            "Failed to prof_channel_read, profDeviceId=%d, profChannel=%d, bufSize=%d, "
            "ret=%d",
            devId, channel, static_cast<int>(bufSize), ret);
        return -1;
    }
    return ret;
}

int DrvChannelPoll(ProfPollInfo* pollInfo, int num, int timeout) {
    if (pollInfo == nullptr) {
        PROF_LOGE("outBuf is nullptr");
        return -1;
    }
    const int ret = prof_channel_poll(pollInfo, num, timeout);
    if (ret == PROF_ERROR || ret > num) {
        PROF_LOGE("Failed to prof_channel_poll, num=%d, timeout=%d, ret=%d", num, timeout, ret);
        return -1;
    }
    return ret;
}

bool DrvHasProfFlush() {
    return halProfDataFlush != nullptr;
}

int DrvProfFlush(uint32_t devId, uint32_t channel, uint32_t& bufSize) {
    if (!DrvHasProfFlush()) {
        PROF_LOGW("Function halProfDataFlush not supported, deviceId=%u, channelId=%u", devId,
                  channel);
        return -1;
    }
    PROF_LOGI("Begin to flush drv buff. deviceId=%u, channelId=%u", devId, channel);
    const int ret = halProfDataFlush(devId, channel, &bufSize);
    if (ret == PROF_STOPPED_ALREADY) {
        PROF_LOGE("Failed to halProfDataFlush, channel already closed.deviceId=%u, channelId=%u",
                  devId, channel);
        return -1;
    }
    if (ret != 0) {
        PROF_LOGE("Failed to halProfDataFlush.deviceId=%u, channelId=%u, ret=%d", devId, channel,
                  ret);
        return -1;
    }
    PROF_LOGI("End to flush drv buff. deviceId=%u, channelId=%u, bufSize=%u", devId, channel,
              bufSize);
    return 0;
}

// ---- Which channels there are -------------------------------------------------------------------

namespace {

// The record is too large for the stack of a thread.
std::unique_ptr<ProfChannelList> ReadChannelList(int deviceId) {
    std::unique_ptr<ProfChannelList> list(new (std::nothrow) ProfChannelList());
    if (list == nullptr ||
        prof_drv_get_channels(static_cast<uint32_t>(deviceId), list.get()) != 0) {
        PROF_LOGE("DrvGetChannels get channels failed, deviceId=%d", deviceId);
        return nullptr;
    }
    if (list->channelNum == 0 || list->channelNum > PROF_CHANNEL_NUM_MAX) {
        PROF_LOGE("DrvGetChannels channel num is invalid, channelNum=%u", list->channelNum);
        return nullptr;
    }
    return list;
}

void AppendChannel(const ProfChannelList& list, uint32_t i, DrvProfChannelsInfo* out) {
    const ProfChannelInfo& entry = list.channels[i];
    if (entry.channelId == 0 || entry.channelId > PROF_CHANNEL_NUM_MAX) {
        PROF_LOGE("Channel id is invalid, channelId=%u, i=%d", entry.channelId,
                  static_cast<int>(i));
        return;
    }
    DrvProfChannelInfo info;
    info.channelId = entry.channelId;
    info.channelType = entry.channelType;
    info.channelName.assign(entry.channelName, sizeof(entry.channelName));
    PROF_LOGI("i:%d,chipType:%u,channelNum:%u,channelId=%u,channelName:%s,channelType:%u",
              static_cast<int>(i), list.chipType, list.channelNum, info.channelId,
              info.channelName.c_str(), info.channelType);
    out->channels.push_back(std::move(info));
}

}  // namespace

int DrvGetChannels(DrvProfChannelsInfo& channels) {
    PROF_LOGI("Begin to get channels, deviceId=%d", channels.deviceId);
    if (channels.deviceId < 0) {
        PROF_LOGE("DrvGetChannels, devId is invalid, deviceId=%d", channels.deviceId);
        return -1;
    }
    const auto list = ReadChannelList(channels.deviceId);
    if (list == nullptr) {
        return -1;
    }
    channels.chipType = list->chipType;
    for (uint32_t i = 0; i < list->channelNum; ++i) {
        AppendChannel(*list, i, &channels);
    }
    PROF_LOGI("End to get channels, deviceId=%d", channels.deviceId);
    return 0;
}

int DrvChannelsMgr::GetAllChannels(int devIndexId) {
    const std::lock_guard<std::mutex> lock(mutex_);
    PROF_LOGI("Begin to GetAllChannels, devIndexId %d", devIndexId);
    DrvProfChannelsInfo channels;
    channels.deviceId = devIndexId;
    if (DrvGetChannels(channels) != 0) {
        PROF_LOGE("DrvGetChannels failed, devId:%d", devIndexId);
        return -1;
    }
    PROF_LOGI("GetAllChannels, devId:%d", devIndexId);
    channels_[devIndexId] = std::move(channels);
    return 0;
}

bool DrvChannelsMgr::ChannelIsValid(int devId, int channelId) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto device = channels_.find(devId);
    if (device == channels_.end()) {
        PROF_LOGI("ChannelIsValid not find channel map, devId:%d", devId);
        return false;
    }
    const auto& tuning = Tracelets::Parser::JsonParser::instance();
    if (!tuning.GetChannelProfSwitch(static_cast<uint32_t>(channelId))) {
        PROF_LOGI("devId:%d, channelId:%d in Json file is configured to off", devId, channelId);
        return false;
    }
    for (const DrvProfChannelInfo& channel : device->second.channels) {
        if (channel.channelId == static_cast<uint32_t>(channelId)) {
            PROF_LOGI("ChannelIsValid find channel map, devId:%d, channelId:%d", devId, channelId);
            return true;
        }
    }
    PROF_LOGI("ChannelIsValid not find channel map, devid:%d", devId);
    return false;
}

}  // namespace analysis::nedra::driver
