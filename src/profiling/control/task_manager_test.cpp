#include "profiling/control/task_manager.h"

#include <gmock/gmock.h>

#include <functional>
#include <future>
#include <thread>

#include "profiling/collect/collect_test_support.h"
#include "profiling/config/device_test_support.h"
#include "profiling/control/task_relationship_mgr.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"

namespace analysis::nedra::device {
namespace {

using Analysis::Nedra::TaskHandle::TaskRelationshipMgr;
using orla::test::PacedHost;
using orla::test::WorkDirs;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Status = message::StatusInfo;
using transport::UploaderMgr;

constexpr char kNotStarted[] = "Profiling is not started on device";

std::shared_ptr<proto::JobStartReq> JobStart(const std::string& config) {
    const auto message = std::make_shared<proto::JobStartReq>();
    message->set_sampleconfig(config);
    return message;
}

std::shared_ptr<proto::JobStartReq> SampleSystem(const std::string& jobId) {
    return JobStart(R"({"job_id": ")" + jobId +
                    R"(", "sys_profiling": "on", "sys_sampling_interval": 100})");
}

bool IsStarted(const std::string& jobId) {
    return WorkDirs().count(jobId) != 0;
}

struct TaskTest : orla::device_test::DeviceTest {
    TaskTest() {
        std::filesystem::create_directories(orla::test::kWorkRoot);
        manager.Init();
    }
    ~TaskTest() override {
        manager.Uninit();
        EXPECT_THAT(WorkDirs(), IsEmpty());
    }
    std::shared_ptr<IJobCallback> Create(const std::string& key, int hostId = 0) {
        return manager.CreateTask(hostId, key, host);
    }
    // A task whose job of the same name has started.
    std::shared_ptr<IJobCallback> Begin(const std::string& key) {
        const auto task = Create(key);
        Status status;
        EXPECT_EQ(task->OnJobStart(SampleSystem(key), status), 0);
        EXPECT_EQ(status.status, 0);
        return task;
    }

    TaskManager& manager = TaskManager::instance();
    std::shared_ptr<PacedHost> host = std::make_shared<PacedHost>();
};

// ---- One job
// -------------------------------------------------------------------------------------

struct ProfJobHandlerTest : TaskTest {
    std::shared_ptr<proto::ReplayStartReq> replay = std::make_shared<proto::ReplayStartReq>();
    std::shared_ptr<proto::ReplayStopReq> replayEnd = std::make_shared<proto::ReplayStopReq>();
};

TEST_F(ProfJobHandlerTest, GoesThroughItsStates) {
    const auto task = Create("job");
    const auto jobStart = [&](Status& status) {
        return task->OnJobStart(SampleSystem("job"), status);
    };
    const auto badStart = [&](Status& status) { return task->OnJobStart(JobStart("{"), status); };
    const auto noStart = [&](Status& status) { return task->OnJobStart(nullptr, status); };
    const auto jobEnd = [&](Status& status) { return task->OnJobEnd(status); };
    const auto start = [&](Status& status) { return task->Start(replay, status); };
    const auto startNothing = [&](Status& status) { return task->Start(nullptr, status); };
    const auto end = [&](Status& status) { return task->End(replayEnd, status); };
    const auto endNothing = [&](Status& status) { return task->End(nullptr, status); };
    struct Row {
        const char* event;
        std::function<int(Status&)> run;
        bool succeeds;
        std::string info;
        bool startedAfter;
    };
    const Row rows[] = {
        {"replay start, idle", start, false, kNotStarted, false},
        {"replay stop, idle", end, false, kNotStarted, false},
        {"replay stop without a message, idle", endNothing, false, "StopReq message is nullptr",
         false},
        {"job stop, idle", jobEnd, false, kNotStarted, false},
        {"job start without a message", noStart, false, "", false},
        {"job start that fails", badStart, false, "invalid sample configuration", false},
        {"job start", jobStart, true, "", true},
        {"job start, started", jobStart, false, "Profiling is already running on device", true},
        {"replay stop", end, true, "", true},
        {"replay stop again", end, true, "", true},
        {"job stop in a replay", jobEnd, true, "", false},
        {"job stop again", jobEnd, false, kNotStarted, false},
        {"new job start", jobStart, true, "", true},
        {"replay start without a message", startNothing, false,
         "[Start] pmu event size is not valid!", false},
        {"job start after that", jobStart, true, "", true},
        {"replay stop without a message", endNothing, false, "StopReq message is nullptr", false},
        {"the last job start", jobStart, true, "", true},
        {"a replay start that runs nothing new", start, false, "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.event);
        Status status;
        EXPECT_EQ(row.run(status) == 0, row.succeeds);
        EXPECT_EQ(status.status, row.succeeds ? 0 : 1);
        EXPECT_EQ(status.info, row.info);
        EXPECT_EQ(IsStarted("job"), row.startedAfter);
    }
    EXPECT_EQ(task->OnConnectionReset(), 0) << "idle";
}

TEST_F(ProfJobHandlerTest, CountsTheEventsOfFourLists) {
    using Request = proto::ReplayStartReq;
    struct Row {
        const char* name;
        void (*add)(Request& request);
        const char* infoOfEight;  // what stops eight of them is another check, or that no job runs
    };
    constexpr char kBadEvents[] = "[CollectStart] pmu event is not valid.";
    for (const Row& row :
         {Row{"ctrl_cpu_events", [](Request& list) { list.add_ctrl_cpu_events("?"); }, kBadEvents},
          Row{"ts_cpu_events", [](Request& list) { list.add_ts_cpu_events("?"); }, ""},
          Row{"ai_cpu_events", [](Request& list) { list.add_ai_cpu_events("?"); }, ""},
          Row{"llc_events", [](Request& list) { list.add_llc_events("?"); }, kBadEvents}}) {
        SCOPED_TRACE(row.name);
        const auto request = std::make_shared<Request>();
        const auto task = Create("job");
        const auto info = [&](int toAdd) {
            for (int i = 0; i < toAdd; ++i) {
                row.add(*request);
            }
            Status status;
            EXPECT_EQ(task->OnJobStart(JobStart(R"({"job_id": "job"})"), status), 0);
            EXPECT_EQ(task->Start(request, status), -1);
            EXPECT_FALSE(IsStarted("job")) << "the job ends before the host hears of it";
            return status.info;
        };
        EXPECT_EQ(info(8), row.infoOfEight);
        EXPECT_EQ(info(1), "[Start] pmu event size is not valid!");
        EXPECT_THAT(log.Take("E"),
                    Contains("E " + std::string(row.name) + "_size(9) is not valid!"));
        EXPECT_TRUE(manager.DeleteTask("job"));
    }
}

// ---- The table of tasks
// --------------------------------------------------------------------------

TEST_F(TaskTest, AKeyHasOneTaskOnTheDeviceThatItsHostMeans) {
    TaskRelationshipMgr::instance().AddHostIdDevIdRelation(5, 3);
    TaskRelationshipMgr::instance().AddHostIdDevIdRelation(5, 2);
    EXPECT_EQ(Create("a_5", 5)->GetDevId(), 2);
    EXPECT_EQ(Create("a_9", 9)->GetDevId(), 9) << "nobody told";
    EXPECT_EQ(Create("a_5", 9), nullptr);
    EXPECT_EQ(manager.GetTask("a_5")->GetDevId(), 2);
    EXPECT_EQ(manager.CreateTask(0, "b", nullptr), nullptr);
    EXPECT_TRUE(manager.DeleteTask("a_5"));
    EXPECT_FALSE(manager.DeleteTask("a_5"));
    EXPECT_EQ(manager.GetTask("a_5"), nullptr);
    manager.Uninit();
    log.Take();
    EXPECT_EQ(Create("c"), nullptr);
    EXPECT_EQ(manager.GetTask("a_9"), nullptr);
    EXPECT_FALSE(manager.DeleteTask("a_9"));
    EXPECT_THAT(log.Take(), testing::AllOf(testing::SizeIs(3),
                                           testing::Each("E TaskManager is not inited yet")));
}

TEST_F(TaskTest, OneOfManySimultaneousCreationsWins) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> ready{0};
        std::atomic<int> winners{0};
        std::vector<std::thread> hosts;
        for (int i = 0; i < 4; ++i) {
            hosts.emplace_back([&] {
                ++ready;
                EXPECT_TRUE(orla::test::WaitFor([&] { return ready == 4; }));
                winners += Create("job") != nullptr;
            });
        }
        for (std::thread& thread : hosts) {
            thread.join();
        }
        ASSERT_EQ(winners, 1);
        EXPECT_TRUE(manager.DeleteTask("job"));
    }
}

TEST_F(TaskTest, AResetEndsTheJobsOfItsSessionOnly) {
    const auto mine = Begin("mine");
    Create("idle");
    host = std::make_shared<PacedHost>();
    const auto other = Begin("other");
    manager.ConnectionReset(nullptr);
    manager.ConnectionReset(std::make_shared<PacedHost>());
    EXPECT_EQ(WorkDirs().size(), 3u);
    manager.ConnectionReset(host);
    EXPECT_FALSE(IsStarted("other"));
    EXPECT_TRUE(IsStarted("mine"));
    EXPECT_EQ(manager.GetTask("other"), nullptr);
    EXPECT_EQ(manager.GetTask("mine"), mine);
    Status status;
    EXPECT_EQ(other->Start(std::make_shared<proto::ReplayStartReq>(), status), -1);
    EXPECT_EQ(status.info, "[Start] Start Engine is null!");
    manager.Uninit();
    EXPECT_FALSE(IsStarted("mine"));
}

TEST_F(TaskTest, AResetInTheMiddleOfAStopWaitsForItAndFindsNothingToDo) {
    const auto slow = std::make_shared<PacedHost>(std::chrono::milliseconds(50));
    const auto task = Begin("job");
    ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", slow, 512), 0);
    ASSERT_EQ(UploaderMgr::instance().UploadData("job", "data", 4), 0);
    auto stop = std::async(std::launch::async, [&] {
        Status status;
        return task->OnJobEnd(status);
    });
    EXPECT_TRUE(orla::test::WaitFor([] { return !IsStarted("job"); }));  // it waits for the host
    manager.ConnectionReset(host);
    EXPECT_EQ(stop.get(), 0);
    EXPECT_EQ(slow->Got().size(), 2u) << "one finish message";
    EXPECT_EQ(manager.GetTask("job"), nullptr);
}

}  // namespace
}  // namespace analysis::nedra::device
