// The bytes that the driver is given by every start operation, and what becomes of its answers.

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

    // The next call of that operation.
    static void Answer(const std::string& call, int result) {
        orla::control::ClearFaults();
        ASSERT_TRUE(orla::control::InjectFault({call, {}, {}, result, 0, 1, 0}));
    }
};

struct Start {
    uint32_t channel, type, period;
};

// The start has succeeded, and this is what the driver was given.
void ExpectStart(int result, const Start& start, const Words& words) {
    SCOPED_TRACE(start.channel);
    EXPECT_EQ(result, 0);
    const auto given = orla::control::ProfStarts().back();
    EXPECT_EQ(given.channel, start.channel);
    EXPECT_EQ(given.para.channelType, start.type);
    EXPECT_EQ(given.para.samplePeriod, start.period);
    EXPECT_EQ(given.para.realTime, 1U);
    Words config(given.config.size() / sizeof(uint32_t));
    EXPECT_EQ(given.config.copy(reinterpret_cast<char*>(config.data()), config.size() * 4),
              given.config.size());
    EXPECT_EQ(config, words);
}

// What is not seen where the jobs start their channels: lists that are cut, and modes.
TEST_F(DrvProf, AStartGivesTheDriverWhatFitsIntoItsRecord) {
    const Events ten = {"0x1", "2", "0xffffffff", "zz", "0x10", "6", "7", "8", "9", "a"};
    const Events eight(ten.begin(), ten.begin() + 8);
    const Cores cores = {0, 31, 32, -1, 5};
    auto params = std::make_shared<message::ProfileParams>();
    params->ts_task_track = params->ai_core_status = params->ai_vector_status = "on";
    params->ts_memcpy = params->taskTsfw = params->stars_acsq_task = "on";
    params->ts_cpu_usage = params->ts_timeline = params->taskBlock = "On";
    DrvPeripheralProfileCfg base;
    base.profDeviceId = 0;
    base.profSamplePeriod = 20;
    base.aivSamplePeriod = 30;
    base.cfgMode = 3;
    base.aicMode = 4;
    base.aivMode = 5;
    const auto cfg = [&base](int channel) {
        base.profChannel = channel;
        return base;
    };

    ExpectStart(DrvAicoreStart(cfg(43), cores, eight), {43, 0, 20},
                {1, 0x6666, 20, 0x80000021, 8, 1, 2, 0xffffffff, 0, 16, 6, 7, 8, 1});
    ExpectStart(DrvAicoreTaskBasedStart(0, 85, ten), {85, 0, 0},
                {0, 0, 0, 0, 8, 1, 2, 0xffffffff, 0, 16, 6, 7, 8, 1});
    ExpectStart(DrvL2CacheTaskStart(0, 47, ten), {47, 0, 0},
                {10, 1, 2, 0xffffffff, 0, 16, 6, 7, 8, 9, 10});
    ExpectStart(DrvTsFwStart(cfg(44), params), {44, 0, 20}, {20, 1, 0, 1, 0, 1, 0, 0x87000001});
    EXPECT_THAT(log.Take("V"), Contains("V Succeeded to start profiling DrvTsFwStart, "
                                        "profDeviceId=0, profChannel=44, profSamplePeriod=20"));
    ExpectStart(DrvStarsSocLogStart(cfg(50), params), {50, 0, 20}, {1, 0, 0, 0, 0, 0, 1, 0, 0, 1});
    ExpectStart(DrvFftsProfileStart(cfg(54), cores, ten, {1}, {"0x12345"}), {54, 0, 0},
                {3, 4, 20, 0x80000021, 8, 0x20001, 0xffff, 0x60010, 0x80007, 4, 30, 2, 1, 0x2345, 0,
                 0, 0, 1});
    ExpectStart(DrvHwtsLogStart(0, 45), {45, 0, 0}, {1});
    setenv("PROFILING_MODE", "dynamic ", 1);
    ExpectStart(DrvHwtsLogStart(0, 48), {48, 0, 0}, {0});
    EXPECT_THAT(log.Take("E"), ElementsAre());

    const uint64_t calls = orla::control::CallCount("prof_drv_start");
    EXPECT_EQ(DrvAicoreStart(cfg(43), cores, Events(9, "1")), -1);
    EXPECT_EQ(DrvTsFwStart(cfg(44), nullptr), -1);
    EXPECT_EQ(DrvStarsSocLogStart(cfg(50), nullptr), -1);
    EXPECT_THAT(log.Take("E"), ElementsAre("E profiling events size over 8, event_num=9"));
    EXPECT_EQ(orla::control::CallCount("prof_drv_start"), calls);
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
    const Operation drain = {"prof_channel_read",
                             [&] { return DrvChannelRead(0, 7, bytes, 64, true); }};
    const Operation poll = {"prof_channel_poll", [&] { return DrvChannelPoll(events, 2, 1); }};
    const Operation flush = {"halProfDataFlush", [&] { return DrvProfFlush(0, 44, size); }};
    const Operation fmk = {"prof_drv_start", [] { return DrvFmkDataStart(0, 46); }};
    const Operation instr = {"prof_drv_start", [] { return DrvInstrProfileStart(0, 11, 3); }};
    const Operation stop = {"prof_stop", [] { return DrvStop(0, 7); }};
    const struct {
        const Operation& operation;
        int answer, result;
        const char* line;  // of errors and warnings
    } cases[] = {
        {fmk, -7, -1,
         "E Failed to start profiling DrvFmkDataStart, devId=0, profChannel=46, ret=-7"},
        {instr, 7, -1,
         "E Failed to start profiling DrvInstrProfileStart, ret=7, profDeviceId=0, profChannel=11, "
         "period=3"},
        {read, 64, 64, nullptr},
        {read, 65, -1,
         "E Failed to prof_channel_read, profDeviceId=0, profChannel=7, bufSize=64, ret=65"},
        {read, -3, -1,
         "E Failed to prof_channel_read, profDeviceId=0, profChannel=7, bufSize=64, ret=-3"},
        {read, -4, 0,
         "W profChannel has stopped already, profDeviceId=0, profChannel=7, bufSize=64"},
        {drain, -4, 0, nullptr},
        {poll, 2, 2, nullptr},
        {poll, 3, -1, "E Failed to prof_channel_poll, num=2, timeout=1, ret=3"},
        {poll, -1, -1, "E Failed to prof_channel_poll, num=2, timeout=1, ret=-1"},
        {poll, -4, -4, nullptr},
        {poll, -9, -9, nullptr},
        {flush, -4, -1,
         "E Failed to halProfDataFlush, channel already closed.deviceId=0, channelId=44"},
        {flush, 2, -1, "E Failed to halProfDataFlush.deviceId=0, channelId=44, ret=2"},
        {stop, 1, -1,
         "E Failed to stop profiling prof_stop DrvStop, profDeviceId=0, profChannel=7, ret=1"},
    };
    for (const auto& one : cases) {
        const char* call = one.operation.call;
        SCOPED_TRACE(std::string(call) + " answers " + std::to_string(one.answer));
        Answer(call, one.answer);
        log.Take();
        EXPECT_EQ(one.operation.run(), one.result);
        EXPECT_EQ(log.Take("EW"), one.line == nullptr ? Texts() : Texts{one.line});
    }
    EXPECT_EQ(DrvChannelRead(0, 7, nullptr, 64), -1);
    EXPECT_EQ(DrvChannelPoll(nullptr, 2, 1), -1);
}

// ---- Which channels there are -------------------------------------------------------------------

// Full of channels: these ids, then their own numbers. The driver claims `count` of them.
std::unique_ptr<ProfChannelList> List(uint32_t count, const Words& ids) {
    auto list = std::make_unique<ProfChannelList>();
    list->channelNum = count;
    for (uint32_t i = 0; i < PROF_CHANNEL_NUM_MAX; ++i) {
        ProfChannelInfo& entry = list->channels[i];
        entry.channelId = i < ids.size() ? ids[i] : i + 1;
        memset(entry.channelName, 'n', sizeof(entry.channelName));
    }
    return list;
}

TEST_F(DrvProf, ListsTheChannelsThatCanBe) {
    DrvProfChannelsInfo info;
    EXPECT_EQ(DrvGetChannels(info), -1);
    info.deviceId = 0;
    for (const uint32_t count : {0U, 161U}) {
        orla::control::SetChannelList(0, *List(count, {}));
        EXPECT_EQ(DrvGetChannels(info), -1) << count;
    }
    orla::control::SetChannelList(0, *List(160, {0, 161}));
    EXPECT_EQ(DrvGetChannels(info), 0);
    ASSERT_EQ(info.channels.size(), 158U);
    EXPECT_EQ(info.channels[0].channelId, 3U);
    EXPECT_EQ(info.channels[0].channelName, std::string(32, 'n'));
    EXPECT_EQ(info.channels[157].channelId, 160U);

    auto& mgr = DrvChannelsMgr::instance();  // keeps the last good list
    for (const auto& [count, valid] : {std::pair{1U, 1}, {0U, 1}, {2U, 2}}) {
        orla::control::SetChannelList(0, *List(count, {count + 6}));
        EXPECT_EQ(mgr.GetAllChannels(0), count == 0 ? -1 : 0);
        EXPECT_EQ(mgr.ChannelIsValid(0, 7), valid == 1);
        EXPECT_EQ(mgr.ChannelIsValid(0, 8), valid == 2);
    }
    EXPECT_FALSE(mgr.ChannelIsValid(61, 7));
}

}  // namespace
}  // namespace analysis::nedra::driver
