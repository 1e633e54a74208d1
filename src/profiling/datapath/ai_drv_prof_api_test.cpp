// Every start operation by one table: the bytes that the driver is given, and what the log says
// around the call; then what becomes of the driver's answers.

#include "profiling/datapath/ai_drv_prof_api.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>

#include "profiling/config/device_test_support.h"

namespace analysis::nedra::driver {
namespace {

using testing::Contains;
using testing::ElementsAre;
using Texts = std::vector<std::string>;
using Words = std::vector<uint32_t>;

struct DrvProf : orla::device_test::DeviceTest {
    DrvProf() { setenv("PROFILING_MODE", "dynamic", 1); }
    ~DrvProf() override { unsetenv("PROFILING_MODE"); }

    static void Fail(const std::string& call, int result) {
        orla::control::ClearFaults();
        ASSERT_TRUE(orla::control::InjectFault({call, 0, {}, result, 0, 1, 0}));
    }
};

const Events kTenEvents = {"0x1", "2", "0xffffffff", "zz", "0x10", "6", "7", "8", "9", "a"};
const Events kEight(kTenEvents.begin(), kTenEvents.begin() + 8);
const Cores kCores = {0, 31, 32, -1, 5};

DrvPeripheralProfileCfg Cfg(int channel) {
    static uint32_t record[] = {0x11, 0x22};
    DrvPeripheralProfileCfg cfg;
    cfg.profDeviceId = 0;
    cfg.profChannel = channel;
    cfg.profSamplePeriod = 20;
    cfg.aivSamplePeriod = 30;
    cfg.configP = record;
    cfg.configSize = sizeof(record);
    cfg.cfgMode = 3;
    cfg.aicMode = 4;
    cfg.aivMode = 5;
    return cfg;
}

std::shared_ptr<message::ProfileParams> Params() {
    auto params = std::make_shared<message::ProfileParams>();
    params->ts_task_track = params->ai_core_status = params->ai_vector_status = "on";
    params->ts_memcpy = params->taskTsfw = params->stars_acsq_task = "on";
    params->ts_cpu_usage = params->ts_timeline = params->taskBlock = "On";
    return params;
}

int StartChannel(uint32_t channel) {
    const auto cfg = Cfg(static_cast<int>(channel));
    switch (channel) {
        case 7:
            return DrvPeripheralStart(cfg);
        case 10:
            return DrvTscpuStart(cfg, {"0x8"});
        case 43:
            return DrvAicoreStart(cfg, kCores, kEight);
        case 44:
            return DrvTsFwStart(cfg, Params());
        case 45:
            return DrvHwtsLogStart(0, 45);
        case 46:
            return DrvFmkDataStart(0, 46);
        case 47:
            return DrvL2CacheTaskStart(0, 47, kTenEvents);
        case 50:
            return DrvStarsSocLogStart(cfg, Params());
        case 54:
            return DrvFftsProfileStart(cfg, kCores, kTenEvents, {1}, {"0x12345"});
        default:
            return DrvAicoreTaskBasedStart(0, static_cast<int>(channel), kTenEvents);
    }
}

// The record, and what the lines of success and failure name: `more` stands in the former only.
struct Start {
    uint32_t channel, type, period;
    Words words;
    std::string name, where, more;
};

const std::string kPeriod = ", profSamplePeriod=20";
const std::vector<Start> kStarts = {
    {7, 1, 20, {0x11, 0x22}, "DrvPeripheralStart", kPeriod, ""},
    {10, 0, 20, {20, 1, 8}, "DoProfTsCpuStart", kPeriod, ""},
    {43,
     0,
     20,
     {1, 0x6666, 20, 0x80000021, 8, 1, 2, 0xffffffff, 0, 16, 6, 7, 8, 1},
     "DrvAicoreStart",
     kPeriod,
     ""},
    {44, 0, 20, {20, 1, 0, 1, 0, 1, 0, 0x87000001}, "DrvTsFwStart", "", kPeriod},
    {45, 0, 0, {1}, "DrvHwtsLogStart", "", ""},
    {46, 0, 0, {0}, "DrvFmkDataStart", "", ""},
    {47, 0, 0, {10, 1, 2, 0xffffffff, 0, 16, 6, 7, 8, 9, 10}, "DrvL2CacheTaskStart", "", ""},
    {50, 0, 20, {1, 0, 0, 0, 0, 0, 1, 0, 0, 1}, "DrvStarsSocLogStart", "", kPeriod},
    {54,
     0,
     0,
     {3, 4, 20, 0x80000021, 8, 0x20001, 0xffff, 0x60010, 0x80007, 4, 30, 2, 1, 0x2345, 0, 0, 0, 1},
     "DrvFftsProfileStart",
     "",
     ""},
    {85,
     0,
     0,
     {0, 0, 0, 0, 8, 1, 2, 0xffffffff, 0, 16, 6, 7, 8, 1},
     "DrvAicoreTaskBasedStart",
     "",
     ""},
};

std::string Bytes(const Words& words) {
    return {reinterpret_cast<const char*>(words.data()), words.size() * sizeof(uint32_t)};
}

TEST_F(DrvProf, EachStartGivesTheDriverItsRecord) {
    for (const Start& start : kStarts) {
        SCOPED_TRACE(start.name);
        Fail("prof_drv_start", -7);
        EXPECT_EQ(StartChannel(start.channel), -1);
        EXPECT_EQ(StartChannel(start.channel), 0);
        const Texts lines = log.Take("EV");
        const std::string where = start.name +
                                  (start.channel == 46 ? ", devId=" : ", profDeviceId=") +
                                  "0, profChannel=" + std::to_string(start.channel) + start.where;
        EXPECT_THAT(lines, Contains("E Failed to start profiling " + where + ", ret=-7"));
        EXPECT_EQ(lines.back(), "V Succeeded to start profiling " + where + start.more);
        const auto given = orla::control::ProfStarts().back();
        EXPECT_EQ(given.channel, start.channel);
        EXPECT_EQ(given.para.channelType, start.type);
        EXPECT_EQ(given.para.samplePeriod, start.period);
        EXPECT_EQ(given.para.realTime, 1U);
        EXPECT_EQ(given.config, Bytes(start.words));
    }
    Fail("prof_drv_start", -7);
    EXPECT_EQ(DrvInstrProfileStart(0, 11, 300), -1);
    EXPECT_EQ(DrvInstrProfileStart(0, 11, 300), 0);
    EXPECT_EQ(orla::control::ProfStarts().back().config, Bytes({300}));
    EXPECT_THAT(log.Take("E"), ElementsAre("E Failed to start profiling DrvInstrProfileStart, "
                                           "ret=-7, profDeviceId=0, profChannel=11, period=300"));
}

TEST_F(DrvProf, StartsRefuseWhatNoRecordCanHold) {
    EXPECT_EQ(DrvAicoreStart(Cfg(43), kCores, Events(9, "1")), -1);
    EXPECT_EQ(DrvTsFwStart(Cfg(44), nullptr), -1);
    EXPECT_EQ(DrvStarsSocLogStart(Cfg(50), nullptr), -1);
    EXPECT_THAT(log.Take("EV"), ElementsAre("E profiling events size over 8, event_num=9"));
    EXPECT_EQ(orla::control::CallCount("prof_drv_start"), 0U);
    for (const char* mode : {"dynamic ", "static", ""}) {
        setenv("PROFILING_MODE", mode, 1);
        EXPECT_EQ(DrvHwtsLogStart(0, 45) + DrvStop(0, 45), 0);
        EXPECT_EQ(orla::control::ProfStarts().back().config, std::string(4, '\0')) << mode;
    }
}

TEST_F(DrvProf, AnswersOfTheDriverBecomeThoseOfTheAgent) {
    char bytes[64];
    ProfPollInfo events[2];
    uint32_t size = 5;
    struct Operation {
        const char* call;
        std::function<int()> run;
    };
    const Operation read = {"prof_channel_read", [&] { return DrvChannelRead(0, 7, bytes, 64); }};
    const Operation poll = {"prof_channel_poll", [&] { return DrvChannelPoll(events, 2, 1); }};
    const Operation flush = {"halProfDataFlush", [&] { return DrvProfFlush(0, 44, size); }};
    const Operation stop = {"prof_stop", [] { return DrvStop(0, 7); }};
    const struct {
        const Operation& operation;
        int answer, result;
        const char* line;  // of errors and warnings
    } cases[] = {
        {read, 64, 64, nullptr},
        {read, 65, -1,
         "E Failed to prof_channel_read, profDeviceId=0, profChannel=7, bufSize=64, ret=65"},
        {read, -3, -1,
         "E Failed to prof_channel_read, profDeviceId=0, profChannel=7, bufSize=64, ret=-3"},
        {read, -4, 0,
         "W profChannel has stopped already, profDeviceId=0, profChannel=7, bufSize=64"},
        {poll, 2, 2, nullptr},
        {poll, 3, -1, "E Failed to prof_channel_poll, num=2, timeout=1, ret=3"},
        {poll, -1, -1, "E Failed to prof_channel_poll, num=2, timeout=1, ret=-1"},
        {poll, -4, -4, nullptr},
        {poll, -9, -9, nullptr},
        {flush, -4, -1,
         "E Failed to halProfDataFlush, channel already closed.deviceId=0, channelId=44"},
        {flush, 2, -1, "E Failed to halProfDataFlush.deviceId=0, channelId=44, ret=2"},
        {flush, 0, 0, nullptr},
        {stop, 1, -1,
         "E Failed to stop profiling prof_stop DrvStop, profDeviceId=0, profChannel=7, ret=1"},
        {stop, 0, 0, nullptr},
    };
    for (const auto& one : cases) {
        const char* call = one.operation.call;
        SCOPED_TRACE(std::string(call) + " answers " + std::to_string(one.answer));
        orla::control::ClearFaults();
        ASSERT_TRUE(orla::control::InjectFault({call, {}, {}, one.answer, 0, 1, 0}));
        log.Take();
        EXPECT_EQ(one.operation.run(), one.result);
        EXPECT_EQ(log.Take("EW"), one.line == nullptr ? Texts() : Texts{one.line});
    }
    log.Take();
    EXPECT_EQ(DrvChannelRead(0, 7, nullptr, 64), -1);
    EXPECT_EQ(DrvChannelPoll(nullptr, 2, 1), -1);
    EXPECT_THAT(log.Take(), ElementsAre("E outBuf is nullptr", "E outBuf is nullptr"));
}

// ---- Which channels there are -------------------------------------------------------------------

// Ids from `ids`, and so many entries that the driver claims to have filled.
std::unique_ptr<ProfChannelList> List(uint32_t count, const Words& ids) {
    auto list = std::make_unique<ProfChannelList>();
    list->chipType = 3;
    list->channelNum = count;
    for (size_t i = 0; i < PROF_CHANNEL_NUM_MAX; ++i) {
        ProfChannelInfo& entry = list->channels[i];
        entry.channelId = i < ids.size() ? ids[i] : static_cast<uint32_t>(i + 1);
        entry.channelType = 9;
        memset(entry.channelName, 'n', sizeof(entry.channelName));
    }
    return list;
}

TEST_F(DrvProf, ListsTheChannelsThatCanBe) {
    for (const uint32_t count : {0U, 161U}) {
        orla::control::SetChannelList(0, *List(count, {}));
        DrvProfChannelsInfo info;
        info.deviceId = 0;
        EXPECT_EQ(DrvGetChannels(info), -1);
        EXPECT_THAT(log.Take("E"), ElementsAre("E DrvGetChannels channel num is invalid, "
                                               "channelNum=" +
                                               std::to_string(count)));
    }
    orla::control::SetChannelList(0, *List(160, {0, 161}));
    DrvProfChannelsInfo info;
    EXPECT_EQ(DrvGetChannels(info), -1);
    info.deviceId = 0;
    EXPECT_EQ(DrvGetChannels(info), 0);
    EXPECT_THAT(log.Take("E"), ElementsAre("E DrvGetChannels, devId is invalid, deviceId=-1",
                                           "E Channel id is invalid, channelId=0, i=0",
                                           "E Channel id is invalid, channelId=161, i=1"));
    EXPECT_EQ(info.chipType, 3U);
    ASSERT_EQ(info.channels.size(), 158U);
    EXPECT_EQ(info.channels[0].channelId, 3U);
    EXPECT_EQ(info.channels[0].channelType, 9U);
    EXPECT_EQ(info.channels[0].channelName, std::string(32, 'n'));
    EXPECT_EQ(info.channels[157].channelId, 160U);
}

TEST_F(DrvProf, AChannelIsValidWhenTheLastGoodListHasIt) {
    auto& mgr = DrvChannelsMgr::instance();
    EXPECT_FALSE(mgr.ChannelIsValid(61, 7));
    orla::device_test::UseScenario(R"({"devices": [{"logical": 0}, {"logical": 61}]})");
    orla::control::SetChannelList(61, *List(1, {7}));
    EXPECT_EQ(mgr.GetAllChannels(61), 0);
    orla::control::SetChannelList(61, *List(0, {}));
    EXPECT_EQ(mgr.GetAllChannels(61), -1);  // the old list stays
    EXPECT_TRUE(mgr.ChannelIsValid(61, 7));
    EXPECT_FALSE(mgr.ChannelIsValid(61, 8));
    orla::control::SetChannelList(61, *List(1, {8}));
    EXPECT_EQ(mgr.GetAllChannels(61), 0);
    EXPECT_FALSE(mgr.ChannelIsValid(61, 7));
    EXPECT_TRUE(mgr.ChannelIsValid(61, 8));
}

}  // namespace
}  // namespace analysis::nedra::driver
