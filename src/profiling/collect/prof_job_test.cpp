// All jobs on driver channels, by one table: what each starts its channel with, what becomes of
// the data, and when none of that happens.

#include "profiling/collect/prof_job.h"

#include <gmock/gmock.h>

#include <cstring>

#include "platform/emulation/channel_record.h"
#include "profiling/collect/collect_engine.h"
#include "profiling/collect/collect_test_support.h"
#include "profiling/collect/prof_llc_job.h"
#include "profiling/config/device_test_support.h"
#include "profiling/config/json_parser.h"
#include "profiling/config/platform.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"

namespace Analysis::Nedra::JobWrapper {
namespace {

using analysis::nedra::device::CollectEngine;
using analysis::nedra::message::StatusInfo;
using analysis::nedra::transport::UploaderMgr;
using orla::test::PacedHost;
using testing::Contains;
using Texts = std::vector<std::string>;
using Words = std::vector<uint32_t>;

struct Kind {
    int tag;
    std::shared_ptr<ICollectionJob> (*make)();
    Texts events;
    const char* off;  // the line of a job that is off; "": none; null: it is never off
};

template <typename Job>
std::shared_ptr<ICollectionJob> Make() {
    return std::make_shared<Job>();
}

const std::vector<Kind> kKinds = {
    {0, Make<ProfDdrJob>, {"write", "read", "x", "master_id"}, "DDR Profiling not enabled"},
    {1, Make<ProfHbmJob>, {"read", "master_id"}, "HBM Profiling not enabled"},
    {2, Make<ProfLlcJob>, {"read", "write"}, "LLC Profiling not enabled"},
    {3, Make<ProfDvppJob>, {}, "DVPP Profiling not enabled"},
    {4, Make<ProfNicJob>, {}, "NIC Profiling not enabled"},
    {5, Make<ProfPcieJob>, {}, "PCIE Profiling not enabled"},
    {6, Make<ProfFabriclinkJob>, {}, "FABRICLINK Profiling not enabled"},
    {7, Make<ProfRoceJob>, {}, "ROCE Profiling not enabled"},
    {8, Make<ProfAppMemJob>, {}, "Application Memory not enabled."},
    {9, Make<ProfDevMemJob>, {}, "Device Memory not enabled"},
    {10, Make<ProfLpmFreqConvJob>, {}, "Frequency conversion is not enabled"},
    {11, Make<ProfTscpuJob>, {"0x8", "11"}, nullptr},
    {12, Make<ProfTsTrackJob>, {}, ""},
    {13, Make<ProfAivTsTrackJob>, {}, ""},
    {14, Make<ProfAicoreJob>, {"0x8", "0xa"}, "Aicore sample-based not enable, devId:0"},
    {15, Make<ProfAicoreTaskBasedJob>, {"0x8"}, "Aicore task-based not enable, devId:0"},
    {16, Make<ProfAivJob>, {"0x9"}, "Aivector core sample-based not enable, devId:0"},
    {17, Make<ProfAivTaskBasedJob>, {"0x9"}, "Aivector core task-based not enable, devId:0"},
    {18, Make<ProfHwtsLogJob>, {}, "hwts_log not enabled"},
    {19, Make<ProfAivHwtsLogJob>, {}, "aiv_hwts_log not enabled"},
    {20, Make<ProfFmkJob>, {}, nullptr},
    {21, Make<ProfL2CacheTaskJob>, {}, "ProfL2CacheTaskJob Not Enabled"},
    {22, Make<ProfStarsSocLogJob>, {}, nullptr},
    {23, Make<ProfStarsBlockLogJob>, {}, nullptr},
    {24, Make<ProfStarsSocProfileJob>, {}, nullptr},
    {25, Make<ProfFftsProfileJob>, {"0x8"}, "Aicore not enable, devId:0"},
    {26, Make<ProfInstrPerfJob>, {}, ""},
};

constexpr char kAllOn[] =
    R"("ddr_profiling": "on", "ddr_interval": 1000, "ddr_master_id": 7, "hbmProfiling": "on",
       "hbmInterval": 1001, "tracelet_llc_profiling": "on", "llc_interval": 5,
       "dvpp_profiling": "on", "dvpp_sampling_interval": 0, "nicProfiling": "on", "nicInterval": 4,
       "pcieProfiling": "on", "pcieInterval": 0, "fabriclinkProfiling": "on",
       "fabriclinkInterval": 6, "roceProfiling": "on", "roceInterval": -1, "app": "a",
       "memProfiling": "on", "memInterval": -3, "ai_core_lpm": "on", "cpu_sampling_interval": 0,
       "ts_task_track": "on", "ts_keypoint": "on", "ts_memcpy": "on", "hwts_log": "on",
       "hwts_log1": "on", "ts_fw_training": "on", "l2CacheTaskProfiling": "on",
       "l2CacheTaskProfilingEvents": "0x59,0x5b", "stars_acsq_task": "on", "taskBlock": "on",
       "hardware_mem": "on", "hardware_mem_sampling_interval": 33,
       "interconnection_profiling": "on", "interconnection_sampling_interval": 0,
       "instrProfiling": "on", "instrProfilingFreq": 300, "ai_core_profiling": "on",
       "aicore_sampling_interval": 12, "aiv_profiling": "on", "aiv_sampling_interval": 0)";
const std::string kSampleBased =
    R"(, "ai_core_profiling_mode": "sample-based", "aiv_profiling_mode": "sample-based")";
const std::string kTaskBased =
    R"(, "ai_core_profiling_mode": "task-based", "aiv_profiling_mode": "sample-based")";

std::shared_ptr<Texts> List(const Texts& texts) {
    return std::make_shared<Texts>(texts);
}

// An engine with all kinds of jobs in its array and a host for their data.
struct ProfJobs : orla::device_test::DeviceTest {
    // Read once in a process, as the daemon does.
    static void SetUpTestSuite() {
        Tracelets::Parser::JsonParser::instance().Load(
            R"({"device": {"channels": [{"channel": "TS_CPU", "peroid": 77},
                {"channel": "FABRICLINK", "peroid": 78}, {"channel": "HWTS_LOG", "peroid": 79},
                {"channel": "ROCE", "prof_switch": "off"}]}})",
            "tuning");
    }
    void SetUp() override {
        orla::device_test::ReadConfig(0x0500);
        ASSERT_EQ(engine.Init(0), 0);
        for (const Kind& kind : kKinds) {
            Place(kind);
        }
        ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", host, 512), 0);
    }
    void Place(const Kind& kind) {
        CollectionJobCfg source;
        source.jobFileName = COLLECTION_JOB_FILENAME[static_cast<size_t>(kind.tag)];
        source.events = List(kind.events);
        source.cores = std::make_shared<std::vector<int>>(std::vector<int>{0, 5});
        source.aivCores = std::make_shared<std::vector<int>>(1, 1);
        source.aivEvents = List({"0x1ffff"});
        ASSERT_EQ(engine.PlaceJob(kind.tag, kind.make(), source), 0);
    }
    void Run(const std::string& parameters) {
        ASSERT_EQ(engine.CollectStart(R"({"job_id": "job", )" + parameters + "}", status), 0);
        ASSERT_EQ(engine.Start(nullptr, status, List({"read", "write"})), 0) << status.info;
    }
    // What the host got, by file.
    std::map<std::string, std::string> Files() {
        std::map<std::string, std::string> files;
        for (const auto& chunk : orla::test::ChunksOf(*host)) {
            if (chunk != nullptr) {
                files[chunk->filename()] += chunk->chunk();
            }
        }
        return files;
    }

    StatusInfo status;
    std::shared_ptr<PacedHost> host = std::make_shared<PacedHost>();
    CollectEngine engine;
};

struct Start {
    uint32_t type;
    uint32_t period;
    Words words;
};

// By channel, in words of 32 bits.
std::map<uint32_t, Start> Starts() {
    std::map<uint32_t, Start> starts;
    for (const auto& start : orla::control::ProfStarts()) {
        Words words(start.config.size() / 4);
        start.config.copy(reinterpret_cast<char*>(words.data()), words.size() * 4);
        EXPECT_EQ(start.result, 0);
        EXPECT_EQ(start.config.size() % 4, 0U);
        EXPECT_TRUE(starts
                        .emplace(start.channel,
                                 Start{start.para.channelType, start.para.samplePeriod, words})
                        .second)
            << "channel " << start.channel << " started twice";
    }
    return starts;
}

void ExpectStarts(const std::map<uint32_t, Start>& expected, std::map<uint32_t, Start> starts) {
    for (const auto& [channel, start] : expected) {
        SCOPED_TRACE(channel);
        ASSERT_EQ(starts.count(channel), 1U);
        EXPECT_EQ(starts[channel].type, start.type);
        EXPECT_EQ(starts[channel].period, start.period);
        EXPECT_THAT(starts[channel].words, testing::ElementsAreArray(start.words));
    }
}

TEST_F(ProfJobs, EachStartsItsChannelWithItsRecord) {
    constexpr uint32_t kNone = UINT32_MAX;
    Run(kAllOn + kSampleBased);
    auto starts = Starts();
    Words socLog(10, 0);
    socLog[0] = socLog[6] = socLog[7] = 1;
    const Words ffts = {3, 10, 12, 33, 1, 8, 0, 0, 0, 10, 10, 2, 1, 0xffff, 0, 0, 0, 0};
    ExpectStarts({{7, {1, 1000, {1000, 7, 2, 1, 0}}},
                  {1, {1, 1, {1, kNone, 1, 0}}},
                  {8, {1, 5, {5, 2}}},
                  {6, {1, 10, {}}},
                  {135, {1, 10, {}}},
                  {141, {1, 10, {}}},
                  {4, {1, 4, {}}},
                  {3, {1, 1, {}}},
                  {9, {1, 78, {}}},
                  {130, {1, kNone - 2, {kNone - 2, 0, 0, 0}}},
                  {131, {1, kNone - 2, {kNone - 2, 0, 1, 0}}},
                  {132, {1, 100, {100, 0}}},
                  {52, {1, 100, {1, 20, 1, 33, 0, 0, 1, 20, 0, 0, 0, 0}}},
                  {10, {0, 77, {77, 2, 8, 0x11}}},
                  {44, {0, 10, {10, 1, 0, 0, 0, 0, 1, 0x86000001}}},
                  {49, {0, 10, {10, 1, 0, 0, 0, 0, 0, 0x86000001}}},
                  {43, {0, 12, {1, 0x6666, 12, 33, 2, 8, 10, 0, 0, 0, 0, 0, 0, 0}}},
                  {85, {0, 10, {1, 0x6666, 10, 33, 1, 9, 0, 0, 0, 0, 0, 0, 0, 0}}},
                  {45, {0, 0, {0}}},
                  {48, {0, 0, {0}}},
                  {46, {0, 0, {0}}},
                  {47, {0, 0, {2, 0x59, 0x5b}}},
                  {50, {0, 0, socLog}},
                  {54, {0, 0, ffts}},
                  {11, {0, 0, {300}}},
                  {98, {0, 0, {300}}}},
                 starts);
    EXPECT_EQ(starts.size(), 29U + 75U);
    EXPECT_EQ(starts.count(129) + starts.count(51) + starts.count(53), 0U);
    EXPECT_EQ(engine.CollectStop(status), 0);

    orla::control::Reset();
    for (const Kind& kind : kKinds) {
        Place(kind);
    }
    Run(kAllOn + kTaskBased);
    starts = Starts();
    Words fftsTask = ffts;
    fftsTask[1] = fftsTask[9] = 13;
    ExpectStarts({{43, {0, 0, {0, 0, 0, 0, 1, 8, 0, 0, 0, 0, 0, 0, 0, 0}}}, {53, {0, 0, fftsTask}}},
                 starts);
    EXPECT_EQ(starts.count(54), 0U);
    EXPECT_EQ(engine.CollectStop(status), 0);
}

TEST_F(ProfJobs, WhatTheDriverProducedReachesTheHostToTheLastRecord) {
    constexpr size_t kRecord = sizeof(orla::emulation::ChannelRecord);
    Run(kAllOn + kSampleBased);
    ASSERT_TRUE(orla::test::WaitFor([] { return orla::control::CountsOf(0, 98).delivered > 0; }));
    EXPECT_EQ(engine.CollectStop(status), 0);
    auto files = Files();
    EXPECT_EQ(files.size(), 29U + 75U);
    for (const auto& [channel, start] : Starts()) {
        SCOPED_TRACE(channel);
        const auto counts = orla::control::CountsOf(0, channel);
        EXPECT_FALSE(counts.started);
        EXPECT_GT(counts.delivered, 0U);
        const bool hasSideBuffer = channel == 44 || channel == 45;  // its last moment is lost
        EXPECT_TRUE(hasSideBuffer || counts.delivered == counts.produced);
    }
    for (const auto& [name, channel] : {std::pair("ddr.data", 7U),
                                        {"llc.data", 8U},
                                        {"dvpp.data", 6U},
                                        {"dvpp.png", 140U},
                                        {"nic.data", 4U},
                                        {"hwts.data", 45U},
                                        {"aicore.data", 43U},
                                        {"instr.group_0_aic", 11U},
                                        {"instr.group_24_aiv1", 98U}}) {
        SCOPED_TRACE(name);
        const std::string& bytes = files[std::string("data/") + name];
        orla::emulation::ChannelRecord last{};
        ASSERT_GE(bytes.size(), kRecord);
        memcpy(&last, bytes.data() + bytes.size() - kRecord, kRecord);
        EXPECT_EQ(last.channel, channel);
        EXPECT_EQ(last.sequence + 1, orla::control::CountsOf(0, channel).delivered);
        EXPECT_EQ(bytes.size(), (last.sequence + 1) * kRecord);
    }
}

// The job of the control CPU changes the directory that names are relative to.
TEST_F(ProfJobs, ASecondReplayBesideARecordingKeepsTheNamesOfItsFiles) {
    ASSERT_EQ(Common::Platform::Platform::instance().Init(), 0);
    ASSERT_EQ(engine.CollectStart(R"({"job_id": "job", )" + (kAllOn + kSampleBased) + "}", status),
              0);
    for (const int replay : {1, 2}) {
        SCOPED_TRACE(replay);
        for (const Kind& kind : kKinds) {
            Place(kind);
        }
        ASSERT_EQ(engine.Start(List({"0x11"}), status, List({"read"})), 0) << status.info;
        ASSERT_TRUE(
            orla::test::WaitFor([] { return orla::control::CountsOf(0, 98).delivered > 0; }));
        EXPECT_EQ(engine.Stop(status), 0) << status.info;
        orla::control::Reset();
    }
    EXPECT_EQ(engine.CollectStop(status), 0);
    auto files = Files();
    files.erase("data/ai_ctrl_cpu.data");  // too short a recording has no slice
    EXPECT_EQ(files.size(), 29U + 75U);
    EXPECT_EQ(files.count(""), 0U);
}

TEST_F(ProfJobs, ALinkInPlaceOfTheWorkDirectoryIsRefused) {
    const std::string link = orla::test::kWorkRoot + "job";
    std::filesystem::create_symlink("/tmp", link);
    EXPECT_EQ(engine.CollectStart(R"({"job_id": "job"})", status), -1);
    std::filesystem::remove(link);
    EXPECT_EQ(engine.CollectStart(R"({"job_id": "job"})", status), 0);
    EXPECT_EQ(engine.CollectStop(status), 0);
}

TEST_F(ProfJobs, AJobThatIsOffOrHasNoChannelTouchesNothing) {
    ProfChannelList none{};
    none.channelNum = 1;
    none.channels[0].channelId = 160;
    orla::control::SetChannelList(0, none);
    ASSERT_EQ(engine.CollectStart(R"({"job_id": "job"})", status), 0);
    const auto common = std::make_shared<CollectionJobCommonParams>();
    common->jobCtx = std::make_shared<analysis::nedra::message::JobContext>();
    for (const Kind& kind : kKinds) {
        SCOPED_TRACE(kind.tag);
        const auto cfg = std::make_shared<CollectionJobCfg>();
        const auto job = kind.make();
        const auto init = [&](const std::string& parameters) {
            common->params = std::make_shared<ProfileParams>();
            EXPECT_TRUE(common->params->FromString("{" + parameters + "}"));
            log.Take();
            return job->Init(cfg);
        };
        EXPECT_EQ(job->Init(nullptr), -1);
        EXPECT_EQ(job->Init(cfg), -1);
        cfg->commonParams = common;
        cfg->events = List(kind.events);
        common->params = nullptr;
        EXPECT_EQ(job->Init(cfg), -1);
        EXPECT_EQ(init(R"("host_profiling": 1, )" + (kAllOn + kSampleBased)), -1);
        EXPECT_EQ(init(""), kind.off == nullptr ? 0 : -1);
        if (kind.off != nullptr && *kind.off != 0) {
            EXPECT_THAT(log.Take("I"), Contains(std::string("I ") + kind.off));
        }
        if (kind.tag == 20) {
            EXPECT_EQ(job->Process() + job->Uninit(), 0);
            EXPECT_THAT(log.Take("WI"), testing::ElementsAre("I ts_fw_training not enabled"));
        }
        const std::string mode = kind.tag == 15 || kind.tag == 17 ? "task" : "sample";
        EXPECT_EQ(init(std::string(kAllOn) + R"(, "ai_core_profiling_mode": ")" + mode +
                       R"(-based", "aiv_profiling_mode": ")" + mode + "-based\""),
                  0);
        EXPECT_EQ(job->Process(), 0);
        EXPECT_EQ(job->Uninit(), 0);
        size_t invalid = 0;
        for (const std::string& line : log.Take("W")) {
            invalid += line.find("W Channel is invalid, devId:0, channelId") == 0 ? 1 : 0;
        }
        const size_t channels = kind.tag == 26 ? 75 : kind.tag == 3 ? 8 : kind.tag == 23 ? 0 : 1;
        EXPECT_EQ(invalid, 2 * channels);
    }
    EXPECT_EQ(orla::control::CallCount("prof_drv_start"), 0U);
    EXPECT_EQ(orla::control::CallCount("prof_stop"), 0U);
    EXPECT_EQ(engine.CollectStop(status), 0);
}

TEST_F(ProfJobs, AChannelThatFailsCostsItself) {
    ASSERT_TRUE(orla::control::InjectFault(
        {"prof_drv_start", 0, 136, 1, 0, orla::control::Fault::kForever, 0}));
    ASSERT_TRUE(orla::control::InjectFault({"prof_drv_start", 0, 12, 1, 0, 1, 0}));
    ASSERT_TRUE(orla::control::InjectFault({"prof_drv_start", 0, 47, 1, 0, 1, 0}));
    Run(kAllOn + kSampleBased);
    const Texts errors = log.Take("E");
    for (const char* line : {"E ProfDvppJob DrvPeripheralStart failed, channelId:136",
                             "E [ProfInstrPerfJob]Process, DrvInstrProfileStart failed. devId:0, "
                             "channelId:12",
                             "E Function ret check failed"}) {
        EXPECT_THAT(errors, Contains(line));
    }
    EXPECT_TRUE(orla::control::CountsOf(0, 137).started);
    EXPECT_TRUE(orla::control::CountsOf(0, 13).started);
    EXPECT_EQ(engine.CollectStop(status), 0);
    EXPECT_THAT(log.Take("E"),
                Contains("E [ProfInstrPerfJob]DrvStop failed, ret:-1, devId:0, channelId:12"));
    EXPECT_FALSE(orla::control::CountsOf(0, 137).started);
    EXPECT_FALSE(orla::control::CountsOf(0, 13).started);
}

TEST_F(ProfJobs, MediaEnginesFollowTheGenerationOfTheChip) {
    for (const auto& [chip, channels] :
         {std::pair{0x0205, 8U}, {0x0500, 8U}, {0x0204, 7U}, {0x0400, 7U}, {0x0100, 1U}}) {
        SCOPED_TRACE(chip);
        orla::control::Reset();
        orla::device_test::ReadConfig(chip);
        Run(R"("dvpp_profiling": "on")");
        auto starts = Starts();
        const auto engines = std::distance(starts.lower_bound(135), starts.upper_bound(141));
        EXPECT_EQ(static_cast<size_t>(engines) + starts.count(6), channels);
        EXPECT_EQ(engine.CollectStop(status), 0);
        ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", host, 512), 0);
    }
}

}  // namespace
}  // namespace Analysis::Nedra::JobWrapper
