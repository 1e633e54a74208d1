#include "profiling/collect/collect_engine.h"

#include <gmock/gmock.h>

#include <fstream>

#include "profiling/collect/collect_test_support.h"
#include "profiling/config/device_test_support.h"
#include "profiling/datapath/prof_channel_manager.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::device {
namespace {

using namespace Analysis::Nedra::JobWrapper;
using orla::test::PacedHost;
using orla::test::ScriptedJob;
using orla::test::WorkDirs;
using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;
using Names = std::set<std::string>;
using Texts = std::vector<std::string>;
using transport::Uploader;
using transport::UploaderMgr;

constexpr int kOwnTags[] = {2, 27, 28, 29, 30};

std::string Config(const std::string& jobId) {
    return R"({"job_id": ")" + jobId + R"("})";
}

bool ChannelPollRuns() {
    return ProfChannelManager::instance().GetChannelPoller() != nullptr;
}

// An engine whose jobs are all scripted, on a device that the host calls 7 more than it is.
struct ScriptedEngine {
    explicit ScriptedEngine(int devId = 0) {
        EXPECT_EQ(engine.Init(devId), 0);
        engine.SetDevIdOnHost(static_cast<uint32_t>(devId) + 7);
        for (const int tag : kOwnTags) {
            jobs[tag] = std::make_shared<ScriptedJob>();
            EXPECT_EQ(engine.PlaceJob(tag, jobs[tag]), 0);
        }
    }
    int Open(const std::string& jobId) { return engine.CollectStart(Config(jobId), status); }
    int Start(const Texts& ctrlCpuEvents = {}, const Texts& llcEvents = {}) {
        return engine.Start(std::make_shared<Texts>(ctrlCpuEvents), status,
                            std::make_shared<Texts>(llcEvents));
    }
    // What the jobs were told, a word each.
    Texts Calls() {
        Texts calls;
        for (const auto& [tag, job] : jobs) {
            calls.push_back(job->calls);
        }
        return calls;
    }

    std::map<int, std::shared_ptr<ScriptedJob>> jobs;
    message::StatusInfo status;
    CollectEngine engine;
};

struct CollectEngineTest : orla::device_test::DeviceTest {
    void SetUp() override {
        std::filesystem::create_directories(orla::test::kWorkRoot + "other");
        orla::device_test::UseScenario(R"({"devices": [{"logical": 0}, {"logical": 1}]})");
    }
    void TearDown() override {
        EXPECT_FALSE(ChannelPollRuns());
        EXPECT_EQ(WorkDirs(), Names{"other"});
    }
    // Lines of the loops that start and stop jobs.
    Texts JobLines() {
        Texts lines;
        for (const std::string& line : log.Take("EI")) {
            if (line.find("Collection Job ") != std::string::npos ||
                line.find("Total count") != std::string::npos) {
                lines.push_back(line.substr(2));
            }
        }
        return lines;
    }
};

TEST_F(CollectEngineTest, ARefusedSessionLeavesNothingBehind) {
    using Row = std::pair<std::string, const char*>;
    constexpr char kNoDirectory[] = "Failed to create tmp root result directory.";
    constexpr char kInvalid[] = "invalid sample configuration";
    CollectEngine engine;
    message::StatusInfo status;
    EXPECT_EQ(engine.CollectStart(Config("job"), status), -1);
    EXPECT_EQ(status.info, "Collection engine was not initialized.");
    ASSERT_EQ(engine.Init(0), 0);
    orla::device_test::FailAlways("prof_drv_get_channels", 1);
    for (const auto& [config, info] :
         {Row{"", kInvalid}, Row{R"({"job_id": "other", "host_profiling": "x"})", kInvalid},
          Row{Config("../profiling/other"), kNoDirectory}, Row{Config("."), kNoDirectory},
          Row{Config("other/"), kNoDirectory}, Row{Config(std::string(300, 'a')), kNoDirectory},
          Row{Config("good"), ""}}) {
        SCOPED_TRACE(config);
        status = {};
        EXPECT_EQ(engine.CollectStart(config, status), -1);
        EXPECT_EQ(status.info, info);
        EXPECT_FALSE(ChannelPollRuns());
        EXPECT_EQ(WorkDirs(), Names{"other"});
        EXPECT_EQ(engine.Start(nullptr, status, nullptr), -1);
        EXPECT_EQ(status.info, "collection engine has not been started");
    }
}

TEST_F(CollectEngineTest, AnEngineEndsNothingThatAnotherUses) {
    ScriptedEngine sameDevice(0);
    ScriptedEngine sameJob(1);
    ScriptedEngine noName(0);
    {
        ScriptedEngine own(0);
        EXPECT_EQ(sameDevice.Open("b") + sameJob.Open("a") + noName.Open("") + own.Open("a"), 0);
        EXPECT_EQ(sameDevice.Start(), 0);
        EXPECT_EQ(own.Start(), -1) << "the other mode's jobs hold the device";
        EXPECT_EQ(WorkDirs(), (Names{"0", "1", "a", "b", "other"}));
        for (int i = 0; i < 5; ++i) {  // more stops than starts
            EXPECT_EQ(own.engine.CollectStop(own.status), 0);
        }
        EXPECT_THAT(own.Calls(), Each("I"));
    }
    EXPECT_TRUE(ChannelPollRuns());
    EXPECT_THAT(sameDevice.Calls(), Each("IP"));
    sameDevice.engine.Uninit();
    sameDevice.engine.Uninit();
    EXPECT_THAT(sameDevice.Calls(), Each("IPU"));
    EXPECT_EQ(WorkDirs(), (Names{"0", "1", "a", "other"}));
    noName.engine.Uninit();
    EXPECT_EQ(WorkDirs(), (Names{"1", "a", "other"}));
}

TEST_F(CollectEngineTest, AJobIdIsOneOwnersUntilItsSessionHasEnded) {
    const auto owner = std::make_shared<int>();
    ScriptedEngine own(0);
    ScriptedEngine sameOwner(1);
    ScriptedEngine other(1);
    own.engine.SetOwner(owner);
    sameOwner.engine.SetOwner(owner);
    other.engine.SetOwner(std::make_shared<int>());
    EXPECT_EQ(own.Open("job"), 0);
    EXPECT_EQ(sameOwner.Open("job"), 0);
    EXPECT_EQ(other.Open("job"), -1);
    EXPECT_EQ(other.status.info, "Failed to create tmp root result directory.");
    EXPECT_EQ(WorkDirs(), (Names{"0", "1", "job", "other"}));
    EXPECT_EQ(sameOwner.engine.CollectStop(sameOwner.status), 0);
    EXPECT_EQ(other.Open("job"), -1);
    EXPECT_EQ(own.engine.CollectStop(own.status), 0);
    EXPECT_EQ(other.Open("job"), 0);
    EXPECT_EQ(other.engine.CollectStop(other.status), 0);
}

TEST_F(CollectEngineTest, WhatAKilledAgentLeftIsNobodysData) {
    const auto slice = [](const char* dir) {
        std::filesystem::create_directories(orla::test::kWorkRoot + dir);
        const std::string path = orla::test::kWorkRoot + dir + "/ai_ctrl_cpu.data.7.1";
        std::ofstream(path) << "recorded";
        return path;
    };
    const std::string ofDevice = slice("0");
    const std::string ofJob = slice("job");
    ScriptedEngine own;
    ASSERT_EQ(own.Open("job"), 0);
    EXPECT_FALSE(std::filesystem::exists(ofDevice) || std::filesystem::exists(ofJob));
    slice("0");
    ScriptedEngine otherMode;
    ASSERT_EQ(otherMode.Open("b"), 0);
    EXPECT_TRUE(std::filesystem::exists(ofDevice)) << "of a job that runs";
}

TEST_F(CollectEngineTest, AReplayStartsInRisingOrderAndFailsOnlyWithoutAJob) {
    ScriptedEngine own;
    ASSERT_EQ(own.Open("job"), 0);
    const std::pair<Texts, Texts> badEvents[] = {
        {{"11"}, {}}, {Texts(9, "0x11"), {}}, {{}, {"read", "a;b"}}};
    for (const auto& [ctrlCpu, llc] : badEvents) {
        EXPECT_EQ(own.Start(ctrlCpu, llc), -1);
        EXPECT_EQ(own.status.info, "[CollectStart] pmu event is not valid.");
    }
    for (const int tag : kOwnTags) {
        own.jobs[tag]->initResult = -1;
    }
    own.status.info.clear();
    EXPECT_EQ(own.Start(), -1);
    EXPECT_EQ(own.status.info, "");
    EXPECT_THAT(log.Take("E"),
                testing::Contains("E CollectionJobRegisterAndRun failed, fail_cnt:5"));

    own.jobs[2]->initResult = own.jobs[28]->initResult = own.jobs[30]->initResult = 0;
    own.jobs[28]->processResult = 3;
    EXPECT_EQ(own.Start({"0x11"}, {"read", "write"}), 0);
    EXPECT_EQ(own.status.status, 0);
    EXPECT_THAT(JobLines(),
                ElementsAre("Collection Job 2 Register", "Collection Job 27 No Run; Total: 0",
                            "Collection Job 28 Register", "Collection Job 28 No Run; Total: 1",
                            "Collection Job 29 No Run; Total: 2", "Collection Job 30 Register",
                            "Total count of job registered: 2,30"));
    EXPECT_THAT(*own.jobs[27]->config->events, ElementsAre("0x11"));
    EXPECT_THAT(*own.jobs[2]->config->events, ElementsAre("read", "write"));
    const auto common = own.jobs[2]->config->commonParams;
    EXPECT_EQ(common->jobCtx->dev_id + common->jobCtx->job_id, "7job");
    EXPECT_EQ(own.engine.Stop(own.status), 0);
    EXPECT_THAT(JobLines(), ElementsAre("Device 7 Collection Job 27 Unregister",
                                        "Device 7 Collection Job 29 Unregister"));
    EXPECT_THAT(own.Calls(), ElementsAre("IIPU", "II", "IIPU", "II", "IIPU"));
    EXPECT_EQ(own.jobs[2]->config->events, nullptr);
    EXPECT_EQ(common->jobCtx, nullptr);
}

TEST_F(CollectEngineTest, ASecondStartLeavesRunningJobsAlone) {
    ScriptedEngine own;
    const auto placed = std::make_shared<ScriptedJob>();
    CollectionJobCfg source;
    source.cores = std::make_shared<std::vector<int>>(1, 3);
    EXPECT_EQ(own.engine.PlaceJob(37, placed), -1);
    EXPECT_EQ(own.engine.PlaceJob(5, placed, source), 0);
    own.jobs[27]->initResult = -1;
    ASSERT_EQ(own.Open("job") + own.Start({}, {"read"}), 0);
    EXPECT_EQ(own.engine.PlaceJob(5, own.jobs[27]), -1) << "its job runs";
    EXPECT_THAT(*placed->config->cores, ElementsAre(3));

    EXPECT_EQ(own.Start(), -1) << "nothing new ran";
    own.jobs[27]->initResult = 0;
    EXPECT_EQ(own.Start({"0x1"}, {}), 0);
    EXPECT_THAT(own.Calls(), ElementsAre("IP", "IIIP", "IP", "IP", "IP"));
    EXPECT_THAT(*own.jobs[2]->config->events, ElementsAre("read"));
    EXPECT_THAT(*own.jobs[27]->config->events, ElementsAre("0x1"));
    EXPECT_EQ(own.engine.CollectStop(own.status), 0);
    EXPECT_EQ(placed->calls, "IPU");
    EXPECT_EQ(placed->config->cores, nullptr);
}

TEST_F(CollectEngineTest, TheFinishMessageComesBehindAllData) {
    ScriptedEngine own;
    ASSERT_EQ(own.Open("job") + own.Start(), 0);
    const auto host = std::make_shared<PacedHost>();
    ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", host, 512), 0);
    own.jobs[29]->onUninit = [] {
        EXPECT_EQ(UploaderMgr::instance().UploadData("job", "last data", 9), 0);
    };
    EXPECT_EQ(own.engine.CollectStop(own.status), 0);
    message::JobContext context;
    context.dev_id = "7";
    context.job_id = "job";
    const auto finish = std::make_shared<proto::DataChannelFinish>();
    finish->mutable_hdr()->set_job_ctx(context.ToString());
    EXPECT_THAT(host->Got(), ElementsAre("last data", message::EncodeMessage(finish)));
    EXPECT_EQ(UploaderMgr::instance().UploadData("job", "data", 4), -1) << "let go";
}

TEST_F(CollectEngineTest, TheBoundOfAStopIsLiftedBehindIt) {
    constexpr milliseconds kLimit{20};
    ScriptedEngine own;
    ASSERT_EQ(own.Open("job") + own.Start(), 0);
    const auto slow = std::make_shared<PacedHost>(3 * kLimit);
    const auto uploader = std::make_shared<Uploader>(slow, kLimit);
    EXPECT_EQ(uploader->Init(1) + uploader->Start(), 0);
    UploaderMgr::instance().AddUploader("job", uploader);
    EXPECT_EQ(own.engine.Stop(own.status) + own.Start(), 0);
    EXPECT_EQ(uploader->UploadData("late", 4), 0);
    EXPECT_TRUE(orla::test::WaitFor([&] { return !slow->Got().empty(); })) << "it only pauses";
    slow->Read(true);
    EXPECT_EQ(own.engine.CollectStop(own.status), 0);
    UploaderMgr::instance().DelUploader("job");
}

}  // namespace
}  // namespace analysis::nedra::device
