#include "profiling/collect/prof_peripheral_job.h"

#include <secure_c.h>

#include <algorithm>
#include <climits>
#include <utility>

#include "profiling/collect/peripheral_records.h"
#include "profiling/config/config_manager.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using namespace analysis::nedra::driver;
using analysis::nedra::common::utils::Utils;
using Cfg = std::shared_ptr<CollectionJobCfg>;
using Common::Config::ConfigManager;

// ---- The road of all ---------------------------------------------------------------------------

ProfPeripheralJob::~ProfPeripheralJob() {
    FreeConfig();
}

int ProfPeripheralJob::Init(Cfg cfg) {
    return ProfDrvJob::Decide({CheckJobCommonParam, nullptr, nullptr}, std::move(cfg));
}

int ProfPeripheralJob::Decide(const PeripheralChoice& kind, Cfg cfg) {
    const int ret = ProfDrvJob::Decide(kind.choice, std::move(cfg));
    if (ret != 0) {
        return ret;
    }
    samplePeriod_ = kind.period(Params());
    if (kind.fileName != nullptr) {
        collectionJobCfg_->jobFileName =
            Utils::JoinPath({Common().resultDir, "data", kind.fileName});
    }
    FreeConfig();
    return 0;
}

int ProfPeripheralJob::SetPeripheralConfig() {
    FreeConfig();
    return 0;
}

int ProfPeripheralJob::Process() {
    if (!IsReady(CheckJobCommonParam)) {
        return -1;
    }
    if (!IsThere(channelId_)) {
        return 0;
    }
    PROF_LOGI("Begin to start profiling Channel %d, events:%s", channelId_, eventsStr_.c_str());
    int ret = SetPeripheralConfig();
    if (ret != 0) {
        PROF_LOGE("ProfPeripheralJob SetPeripheralConfig failed");
        return ret;
    }
    ret = StartReading(channelId_, collectionJobCfg_->jobFileName);
    if (ret != 0) {
        PROF_LOGE("Function ret check failed");
    }
    return ret;
}

int ProfPeripheralJob::Uninit() {
    if (!IsReady(CheckJobCommonParam)) {
        return -1;
    }
    if (IsThere(channelId_)) {
        StopReading(channelId_);
    }
    return 0;
}

bool ProfPeripheralJob::IsThere(int channelId) const {
    if (DrvChannelsMgr::instance().ChannelIsValid(Common().devId, channelId)) {
        return true;
    }
    PROF_LOGW("Channel is invalid, devId:%d, channelId:%d", Common().devId, channelId);
    return false;
}

int ProfPeripheralJob::StartReading(int channelId, const std::string& filePath) {
    AddReader(Params().job_id, Common().devId, channelId, filePath);
    PROF_LOGI("begin to start profiling Channel %d, devId :%d", channelId, Common().devIdOnHost);
    peripheralCfg_.profDeviceId = Common().devId;
    peripheralCfg_.profChannel = channelId;
    peripheralCfg_.profSamplePeriod = FilePeriodOr(channelId, samplePeriod_);
    const int ret = DrvPeripheralStart(peripheralCfg_);
    PROF_LOGI("start profiling Channel %d, events:%s, ret=%d", channelId, eventsStr_.c_str(), ret);
    FreeConfig();
    return ret;
}

void ProfPeripheralJob::StopReading(int channelId) {
    PROF_LOGI("begin to stop profiling Channel %d data", channelId);
    const int ret = StopAndDrain(Common().devId, channelId);
    PROF_LOGI("stop profiling Channel %d data, ret=%d", channelId, ret);
    RemoveReader(Params().job_id, Common().devId, channelId);
}

bool ProfPeripheralJob::KeepConfig(const void* bytes, size_t size) {
    FreeConfig();
    void* const record = Utils::ProfMalloc(size);
    if (record == nullptr || memcpy_s(record, size, bytes, size) != EOK) {
        return false;
    }
    peripheralCfg_.configP = record;
    peripheralCfg_.configSize = static_cast<uint32_t>(size);
    return true;
}

void ProfPeripheralJob::FreeConfig() {
    Utils::ProfFree(peripheralCfg_.configP);
    peripheralCfg_.configSize = 0;
}

// ---- Which job runs, how often it samples, into which file -------------------------------------

int FinePeriod(int interval) {
    constexpr int kMaxPeriod = 1000;
    return interval >= 1 && interval <= kMaxPeriod ? interval : 1;
}

namespace {

int CoarsePeriod(int interval) {
    return PeriodOr(interval, 10);
}

int FixedPeriod(const ProfileParams&) {
    return 100;
}

const PeripheralChoice kDdr{
    {CheckJobEventParam, [](const ProfileParams& p) { return IsOn(p.ddr_profiling); },
     [](int) { PROF_LOGI("DDR Profiling not enabled"); }},
    [](const ProfileParams& p) { return FinePeriod(p.ddr_interval); },
    nullptr};
const PeripheralChoice kHbm{
    {CheckJobEventParam, [](const ProfileParams& p) { return IsOn(p.hbmProfiling); },
     [](int) { PROF_LOGI("HBM Profiling not enabled"); }},
    [](const ProfileParams& p) { return FinePeriod(p.hbmInterval); },
    nullptr};
const PeripheralChoice kAppMem{
    {CheckJobCommonParam,
     [](const ProfileParams& p) { return !p.app.empty() && IsOn(p.memProfiling); },
     [](int) { PROF_LOGI("Application Memory not enabled."); }},
    [](const ProfileParams& p) { return int{p.memInterval}; },
    nullptr};
const PeripheralChoice kDevMem{
    {CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.memProfiling); },
     [](int) { PROF_LOGI("Device Memory not enabled"); }},
    [](const ProfileParams& p) { return int{p.memInterval}; },
    nullptr};
const PeripheralChoice kLpm{
    {CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.ai_core_lpm); },
     [](int) { PROF_LOGI("Frequency conversion is not enabled"); }},
    FixedPeriod,
    nullptr};
const PeripheralChoice kStarsSoc{{CheckJobCommonParam, nullptr, nullptr}, FixedPeriod, nullptr};
const PeripheralChoice kDvpp{
    {CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.dvpp_profiling); },
     [](int) { PROF_LOGI("DVPP Profiling not enabled"); }},
    [](const ProfileParams& p) { return CoarsePeriod(p.dvpp_sampling_interval); },
    "dvpp.data"};
const PeripheralChoice kNic{
    {CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.nicProfiling); },
     [](int) { PROF_LOGI("NIC Profiling not enabled"); }},
    [](const ProfileParams& p) { return CoarsePeriod(p.nicInterval); },
    "nic.data"};
const PeripheralChoice kPcie{
    {CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.pcieProfiling); },
     [](int) { PROF_LOGI("PCIE Profiling not enabled"); }},
    [](const ProfileParams& p) { return FinePeriod(p.pcieInterval); },
    "pcie.data"};
const PeripheralChoice kFabriclink{
    {CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.fabriclinkProfiling); },
     [](int) { PROF_LOGI("FABRICLINK Profiling not enabled"); }},
    [](const ProfileParams& p) { return FinePeriod(p.fabriclinkInterval); },
    "fabriclink.data"};
const PeripheralChoice kRoce{
    {CheckJobCommonParam, [](const ProfileParams& p) { return IsOn(p.roceProfiling); },
     [](int) { PROF_LOGI("ROCE Profiling not enabled"); }},
    [](const ProfileParams& p) { return CoarsePeriod(p.roceInterval); },
    "roce.data"};

// What the two memory controllers are started with: a head, and a code for each event that is
// known. `other` is asked about each other word.
template <typename Other>
std::vector<uint32_t> MemoryRecord(int period, const std::vector<std::string>& events,
                                   const Other& other) {
    TagDdrProfileConfig head{static_cast<uint32_t>(period), UINT32_MAX, 0};
    std::vector<uint32_t> codes;
    for (const std::string& event : events) {
        if (event == "read" || event == "write") {
            codes.push_back(event == "read" ? kReadEvent : kWriteEvent);
        } else {
            other(event, head.masterId);
        }
    }
    head.eventNum = static_cast<uint32_t>(codes.size());
    std::vector<uint32_t> record = {head.period, head.masterId, head.eventNum};
    record.insert(record.end(), codes.begin(), codes.end());
    return record;
}

bool IsSizeInRange(const std::vector<std::string>& events) {
    constexpr size_t kMaxEvents = INT_MAX / sizeof(uint32_t) - 3;
    if (events.size() > kMaxEvents) {
        PROF_LOGE("Profiling Config Size Out Range");
        return false;
    }
    return true;
}

size_t SizeOf(const std::vector<uint32_t>& words) {
    return words.size() * sizeof(uint32_t);
}

}  // namespace

// ---- Memory controllers ------------------------------------------------------------------------

int ProfDdrJob::Init(Cfg cfg) {
    return Decide(kDdr, std::move(cfg));
}

int ProfDdrJob::SetPeripheralConfig() {
    const std::vector<std::string>& events = ListOf(collectionJobCfg_->events);
    eventsStr_ = GetEventsStr(events);
    if (!IsSizeInRange(events)) {
        return -1;
    }
    const auto record =
        MemoryRecord(samplePeriod_, events, [this](const std::string& event, uint32_t& masterId) {
            if (event == "master_id") {
                masterId = static_cast<uint32_t>(Params().ddr_master_id);
            } else {
                PROF_LOGW("DDR event:%s not support", event.c_str());
            }
        });
    if (!KeepConfig(record.data(), SizeOf(record))) {
        PROF_LOGE("ProfDdrJob ProfMalloc TagDdrProfileConfig failed");
        return -1;
    }
    return 0;
}

int ProfHbmJob::Init(Cfg cfg) {
    return Decide(kHbm, std::move(cfg));
}

int ProfHbmJob::SetPeripheralConfig() {
    const std::vector<std::string>& events = ListOf(collectionJobCfg_->events);
    eventsStr_ = GetEventsStr(events);
    if (!IsSizeInRange(events)) {
        return -1;
    }
    const auto record =
        MemoryRecord(samplePeriod_, events, [](const std::string& event, uint32_t&) {
            PROF_LOGW("HBM event:%s not support", event.c_str());
        });
    if (!KeepConfig(record.data(), SizeOf(record))) {
        PROF_LOGE("ProfHbmJob ProfMalloc TagTsHbmProfileConfig failed");
        return -1;
    }
    return 0;
}

// ---- Memory of applications and of the device --------------------------------------------------

int ProfAppMemJob::Init(Cfg cfg) {
    return Decide(kAppMem, std::move(cfg));
}

int ProfAppMemJob::SetPeripheralConfig() {
    const TagMemProfileConfig record{static_cast<uint32_t>(samplePeriod_), 0, 0, 0};
    if (!KeepConfig(&record, sizeof record)) {
        PROF_LOGE("ProfAppMemJob ProfMalloc TagMemProfileConfig failed");
        return -1;
    }
    return 0;
}

int ProfDevMemJob::Init(Cfg cfg) {
    return Decide(kDevMem, std::move(cfg));
}

int ProfDevMemJob::SetPeripheralConfig() {
    const TagMemProfileConfig record{static_cast<uint32_t>(samplePeriod_), 0, 1, 0};
    if (!KeepConfig(&record, sizeof record)) {
        PROF_LOGE("ProfDevMemJob ProfMalloc TagMemProfileConfig failed");
        return -1;
    }
    return 0;
}

// ---- Frequencies and the whole chip ------------------------------------------------------------

int ProfLpmFreqConvJob::Init(Cfg cfg) {
    return Decide(kLpm, std::move(cfg));
}

int ProfLpmFreqConvJob::SetPeripheralConfig() {
    const LpmConvProfileConfig record{100, 0};
    if (!KeepConfig(&record, sizeof record)) {
        PROF_LOGE("ProfLpmFreqConvJob ProfMalloc LpmConvProfileConfig failed");
        return -1;
    }
    return 0;
}

int ProfStarsSocProfileJob::Init(Cfg cfg) {
    return Decide(kStarsSoc, std::move(cfg));
}

int ProfStarsSocProfileJob::SetPeripheralConfig() {
    constexpr int kDefault = 20;
    const ProfileParams& params = Params();
    StarsSocProfileConfig record{};
    if (IsOn(params.hardware_mem)) {
        const int period = PeriodOr(params.hardware_mem_sampling_interval, kDefault);
        record.accPmu = {1, kDefault};
        record.onChip = {1, static_cast<uint32_t>(period)};
    }
    if (IsOn(params.interconnection_profiling)) {
        const int period = PeriodOr(params.interconnection_sampling_interval, kDefault);
        record.interChip = {1, static_cast<uint32_t>(period)};
    }
    PROF_LOGI("SocProfileParam: acc_pmu:[%d, %d], on_chip:[%d, %d], inter_chip:[%d, %d]",
              static_cast<int>(record.accPmu.enable), static_cast<int>(record.accPmu.period),
              static_cast<int>(record.onChip.enable), static_cast<int>(record.onChip.period),
              static_cast<int>(record.interChip.enable), static_cast<int>(record.interChip.period));
    if (!KeepConfig(&record, sizeof record)) {
        PROF_LOGE("ProfStarsSocProfileJob ProfMalloc failed");
        return -1;
    }
    return 0;
}

// ---- Buses and network -------------------------------------------------------------------------

int ProfNicJob::Init(Cfg cfg) {
    const int ret = Decide(kNic, std::move(cfg));
    if (ret == 0) {
        PROF_LOGI("NIC Profiling samplePeriod_:%d", samplePeriod_);
    }
    return ret;
}

int ProfPcieJob::Init(Cfg cfg) {
    return Decide(kPcie, std::move(cfg));
}

int ProfFabriclinkJob::Init(Cfg cfg) {
    return Decide(kFabriclink, std::move(cfg));
}

int ProfRoceJob::Init(Cfg cfg) {
    const int ret = Decide(kRoce, std::move(cfg));
    if (ret == 0) {
        PROF_LOGI("ROCE Profiling enabled");
    }
    return ret;
}

// ---- Media engines -----------------------------------------------------------------------------

namespace {

// Which channels a generation of the chip has.
bool HasEngineChannels(uint32_t platform) {
    using namespace Common::Config;
    constexpr uint32_t kTypes[] = {HELPER_DEVICE_TYPE, TYPE_4, TYPE_5, TYPE_7};
    return std::find(std::begin(kTypes), std::end(kTypes), platform) != std::end(kTypes);
}

bool HasCommonChannel(uint32_t platform) {
    using namespace Common::Config;
    return !HasEngineChannels(platform) || platform == TYPE_5 || platform == TYPE_7;
}

}  // namespace

ProfDvppJob::ProfDvppJob()
    : ProfPeripheralJob(kChannelDvpp),
      channels_{kChannelDvppVenc, kChannelDvppJpege, kChannelDvppVdec, kChannelDvppJpegd,
                kChannelDvppVpc,  kChannelDvppPng,   kChannelDvppScd},
      channelFiles_{{kChannelDvppVenc, "data/dvpp.venc"}, {kChannelDvppJpege, "data/dvpp.jpege"},
                    {kChannelDvppVdec, "data/dvpp.vdec"}, {kChannelDvppJpegd, "data/dvpp.jpegd"},
                    {kChannelDvppVpc, "data/dvpp.vpc"},   {kChannelDvppPng, "data/dvpp.png"},
                    {kChannelDvppScd, "data/dvpp.scd"}} {}

int ProfDvppJob::Init(Cfg cfg) {
    return Decide(kDvpp, std::move(cfg));
}

int ProfDvppJob::Process() {
    const uint32_t platform = ConfigManager::instance().GetPlatformType();
    if (!HasEngineChannels(platform)) {
        return ProfPeripheralJob::Process();
    }
    if (!IsReady(CheckJobCommonParam)) {
        return -1;
    }
    static_cast<void>(SetPeripheralConfig());
    for (const int channel : channels_) {
        const std::string path = Common().resultDir + "/" + channelFiles_.at(channel);
        if (IsThere(channel) && StartReading(channel, path) != 0) {
            PROF_LOGE("ProfDvppJob DrvPeripheralStart failed, channelId:%d", channel);
        }
    }
    return HasCommonChannel(platform) ? ProfPeripheralJob::Process() : 0;
}

int ProfDvppJob::Uninit() {
    const uint32_t platform = ConfigManager::instance().GetPlatformType();
    if (!HasEngineChannels(platform)) {
        return ProfPeripheralJob::Uninit();
    }
    if (!IsReady(CheckJobCommonParam)) {
        return -1;
    }
    for (const int channel : channels_) {
        if (IsThere(channel)) {
            StopReading(channel);
        }
    }
    return HasCommonChannel(platform) ? ProfPeripheralJob::Uninit() : 0;
}

}  // namespace Analysis::Nedra::JobWrapper
