#include "profiling/collect/collect_engine.h"

#include <gmock/gmock.h>

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
using testing::ElementsAre;
using testing::IsEmpty;
using Names = std::set<std::string>;
using Texts = std::vector<std::string>;
using transport::Uploader;
using transport::UploaderMgr;

constexpr int kOwnTags[] = {2, 27, 28, 29, 30};

std::string Config(const std::string& jobId) {
    return R"({"job_id": ")" + jobId + R"("})";
}

CollectEngine::Events List(Texts events) {
    return std::make_shared<Texts>(std::move(events));
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
    int Start() { return engine.Start(List({}), status, List({})); }
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
    struct Row {
        std::string config;
        const char* info;
    };
    constexpr char kNoDirectory[] = "Failed to create tmp root result directory.";
    CollectEngine engine;
    message::StatusInfo early;
    EXPECT_EQ(engine.CollectStart(Config("job"), early), -1);
    EXPECT_EQ(early.info, "Collection engine was not initialized.");
    EXPECT_EQ(engine.PlaceJob(5, std::make_shared<ScriptedJob>()), -1);
    ASSERT_EQ(engine.Init(0), 0);
    for (const Row& row :
         {Row{"", "invalid sample configuration"}, Row{"{", "invalid sample configuration"},
          Row{R"({"job_id": "other", "host_profiling": "x"})", "invalid sample configuration"},
          Row{Config("../profiling/other"), kNoDirectory}, Row{Config("."), kNoDirectory},
          Row{Config("other/"), kNoDirectory}, Row{Config(std::string(300, 'a')), kNoDirectory},
          Row{Config("good"), ""}}) {
        SCOPED_TRACE(row.config);
        orla::device_test::FailAlways("prof_drv_get_channels", 1);
        message::StatusInfo status;
        EXPECT_EQ(engine.CollectStart(row.config, status), -1);
        EXPECT_EQ(status.status, 1);
        EXPECT_EQ(status.info, row.info);
        EXPECT_FALSE(ChannelPollRuns());
        EXPECT_EQ(WorkDirs(), Names{"other"});
        EXPECT_EQ(engine.Start(List({}), status, List({})), -1);
        EXPECT_EQ(status.info, "collection engine has not been started");
        EXPECT_EQ(engine.Stop(status), -1);
    }
}

TEST_F(CollectEngineTest, WorkDirectoriesAndChannelPollGoWithTheirLastUser) {
    ScriptedEngine a(0);
    ScriptedEngine sameDevice(0);
    ScriptedEngine sameJob(1);
    ScriptedEngine noName(0);
    EXPECT_EQ(a.Open("a") + sameDevice.Open("b") + sameJob.Open("a") + noName.Open(""), 0);
    EXPECT_EQ(WorkDirs(), (Names{"0", "1", "a", "b", "other"}));
    EXPECT_EQ(a.engine.CollectStop(a.status), 0);
    EXPECT_EQ(a.engine.CollectStop(a.status), 0) << "a second stop must not take others' uses";
    EXPECT_EQ(a.engine.CollectStop(a.status), 0);
    EXPECT_EQ(sameDevice.engine.CollectStop(sameDevice.status), 0);
    EXPECT_EQ(WorkDirs(), (Names{"0", "1", "a", "other"}));
    EXPECT_EQ(noName.engine.CollectStop(noName.status), 0);
    EXPECT_TRUE(ChannelPollRuns());
    EXPECT_EQ(WorkDirs(), (Names{"1", "a", "other"}));
    EXPECT_EQ(sameJob.engine.CollectStop(sameJob.status), 0);
}

TEST_F(CollectEngineTest, AReplayStartsInRisingOrderAndFailsOnlyWithoutAJob) {
    ScriptedEngine own;
    ASSERT_EQ(own.Open("job"), 0);
    const auto refusal = [&](const Texts& ctrlCpu, const Texts& llc) {
        own.status = {};
        EXPECT_EQ(own.engine.Start(List(ctrlCpu), own.status, List(llc)), -1);
        return own.status.info;
    };
    constexpr char kBadEvents[] = "[CollectStart] pmu event is not valid.";
    EXPECT_EQ(refusal({"11"}, {}), kBadEvents);
    EXPECT_EQ(refusal(Texts(9, "0x11"), {}), kBadEvents);
    EXPECT_EQ(refusal({}, {"read", "a;b"}), kBadEvents);
    EXPECT_THAT(own.Calls(), ElementsAre("", "", "", "", ""));
    for (const int tag : kOwnTags) {
        own.jobs[tag]->initResult = -1;
    }
    EXPECT_EQ(refusal({}, {}), "");
    EXPECT_THAT(log.Take("E"),
                testing::Contains("E CollectionJobRegisterAndRun failed, fail_cnt:5"));
    EXPECT_EQ(own.engine.Stop(own.status), 0);

    own.jobs[2]->initResult = own.jobs[28]->initResult = own.jobs[30]->initResult = 0;
    own.jobs[28]->processResult = 3;
    JobLines();
    EXPECT_EQ(own.engine.Start(List({"0x11"}), own.status, List({"read", "write"})), 0);
    EXPECT_EQ(own.status.status, 0);
    EXPECT_THAT(JobLines(),
                ElementsAre("Collection Job 2 Register", "Collection Job 27 No Run; Total: 0",
                            "Collection Job 28 Register", "Collection Job 28 No Run; Total: 1",
                            "Collection Job 29 No Run; Total: 2", "Collection Job 30 Register",
                            "Total count of job registered: 2,30"));
    EXPECT_THAT(*own.jobs[27]->config->events, ElementsAre("0x11"));
    EXPECT_THAT(*own.jobs[2]->config->events, ElementsAre("read", "write"));
    EXPECT_EQ(own.jobs[30]->config->jobTag, 30);
    const auto common = own.jobs[2]->config->commonParams;
    EXPECT_EQ(common->jobCtx->dev_id, "7");
    EXPECT_EQ(common->jobCtx->job_id, "job");
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
    source.jobFileName = "data/pcie.data";
    source.cores = std::make_shared<std::vector<int>>(1, 3);
    EXPECT_EQ(own.engine.PlaceJob(37, placed), -1);
    EXPECT_EQ(own.engine.PlaceJob(5, placed, source), 0);
    own.jobs[27]->initResult = -1;
    ASSERT_EQ(own.Open("job"), 0);
    ASSERT_EQ(own.engine.Start(List({}), own.status, List({"read"})), 0);
    EXPECT_EQ(own.engine.PlaceJob(5, std::make_shared<ScriptedJob>()), -1) << "it runs";
    EXPECT_EQ(placed->config->jobFileName, "data/pcie.data");
    EXPECT_THAT(*placed->config->cores, ElementsAre(3));

    EXPECT_EQ(own.Start(), -1) << "nothing new ran";
    own.jobs[27]->initResult = 0;
    EXPECT_EQ(own.engine.Start(List({"0x1"}), own.status, List({})), 0);
    EXPECT_THAT(own.Calls(), ElementsAre("IP", "IIIP", "IP", "IP", "IP"));
    EXPECT_THAT(*own.jobs[2]->config->events, ElementsAre("read"));
    EXPECT_THAT(*own.jobs[27]->config->events, ElementsAre("0x1"));
    EXPECT_EQ(own.engine.CollectStop(own.status), 0);
    EXPECT_EQ(placed->calls, "IPU");
    EXPECT_EQ(placed->config->cores, nullptr);
}

TEST_F(CollectEngineTest, AnotherModeOnTheDeviceStopsItsOwnJobsOnly) {
    ScriptedEngine first;
    first.jobs[28]->isGlobal = true;
    ASSERT_EQ(first.Open("first") + first.Start(), 0);
    {
        ScriptedEngine second;
        ASSERT_EQ(second.Open("second"), 0);
        EXPECT_EQ(second.Start(), -1);
        EXPECT_THAT(second.Calls(), testing::Each("I"));
    }  // stops what it has
    EXPECT_THAT(first.Calls(), testing::Each("IP"));
    first.engine.Uninit();
    EXPECT_THAT(first.Calls(), testing::Each("IPU"));
    log.Take();
    first.engine.Uninit();
    EXPECT_THAT(log.Take(), IsEmpty());
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
    const Texts got = host->Got();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0], "last data");
    const auto finish =
        std::dynamic_pointer_cast<proto::DataChannelFinish>(message::DecodeMessage(got[1]));
    ASSERT_NE(finish, nullptr);
    message::JobContext expected;
    expected.dev_id = "7";
    expected.job_id = "job";
    EXPECT_EQ(finish->hdr().job_ctx(), expected.ToString());
    std::shared_ptr<Uploader> uploader;
    UploaderMgr::instance().GetUploader("job", uploader);
    EXPECT_EQ(uploader, nullptr);
}

TEST_F(CollectEngineTest, AHostThatDoesNotReadCannotHoldUpAStop) {
    constexpr milliseconds kLimit{20};
    ScriptedEngine own;
    ASSERT_EQ(own.Open("job") + own.Start(), 0);
    // Begins to read again after three times the limit, or never.
    const auto slow = std::make_shared<PacedHost>(3 * kLimit);
    const auto silent = std::make_shared<PacedHost>(std::chrono::hours(1));
    const auto use = [&](const std::shared_ptr<PacedHost>& host) {
        const auto uploader = std::make_shared<Uploader>(host, kLimit);
        EXPECT_EQ(uploader->Init(1) + uploader->Start(), 0);
        UploaderMgr::instance().AddUploader("job", uploader);
        return uploader;
    };
    const auto patient = use(slow);
    EXPECT_EQ(own.engine.Stop(own.status) + own.Start(), 0);
    EXPECT_EQ(patient->UploadData("late", 4), 0);
    EXPECT_TRUE(orla::test::WaitFor([&] { return !slow->Got().empty(); })) << "it only pauses";
    EXPECT_EQ(patient->Stop(true), 0);

    use(silent);
    own.jobs[30]->onUninit = [] {  // one in the host's hands, one queued, one that has to wait
        while (UploaderMgr::instance().UploadData("job", "data", 4) == 0) {
        }
    };
    EXPECT_EQ(own.engine.CollectStop(own.status), -1);
    EXPECT_EQ(own.status.info, "Stop profiling failed, please check it or see log for more info");
    UploaderMgr::instance().DelUploader("job");
}

}  // namespace
}  // namespace analysis::nedra::device
