#include "profiling/control/task_manager.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <future>
#include <thread>

#include "profiling/collect/collect_test_support.h"
#include "profiling/config/device_test_support.h"
#include "profiling/config/platform.h"
#include "profiling/control/task_relationship_mgr.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"

namespace analysis::nedra::device {
namespace {

using Analysis::Nedra::TaskHandle::TaskRelationshipMgr;
using orla::test::PacedHost;
using orla::test::WorkDirs;
using transport::UploaderMgr;
using Events = std::shared_ptr<proto::ReplayStartReq>;
using Task = std::shared_ptr<IJobCallback>;

bool IsStarted(const std::string& jobId) {
    return WorkDirs().count(jobId) != 0;
}

struct TaskTest : orla::device_test::DeviceTest {
    TaskTest() {
        std::filesystem::create_directories(orla::test::kWorkRoot);
        EXPECT_EQ(Analysis::Nedra::Common::Platform::Platform::instance().Init(), 0);
        manager.Init();
    }
    ~TaskTest() override {
        manager.Uninit();
        EXPECT_THAT(WorkDirs(), testing::IsEmpty());
    }
    Task Create(const std::string& key, int hostId = 0) {
        return manager.CreateTask(hostId, key, host);
    }
    // A task whose job of the same name has started.
    Task Begin(const std::string& key) {
        const Task task = Create(key);
        EXPECT_EQ(JobStart(task, R"({"job_id": ")" + key + R"("})"), "done, started");
        return task;
    }

    // What the host would hear, and what the job "job" does afterwards.
    template <typename Operation>
    std::string Told(Operation operation) {
        message::StatusInfo status;
        const bool succeeds = operation(status) == 0;
        EXPECT_EQ(status.status == 0, succeeds);
        return (succeeds ? "done, " : "refused, ") +
               std::string(WorkDirs().empty() ? "idle" : "started") +
               (status.info.empty() ? "" : ": " + status.info);
    }
    std::string JobStart(const Task& task, const std::string& config) {
        EXPECT_EQ(UploaderMgr::instance().CreateUploader("job", std::make_shared<PacedHost>(), 512),
                  0);
        const auto message = std::make_shared<proto::JobStartReq>();
        message->set_sampleconfig(config);
        return Told([&](auto& status) { return task->OnJobStart(message, status); });
    }
    std::string JobEnd(const Task& task) {
        return Told([&](auto& status) { return task->OnJobEnd(status); });
    }
    std::string Start(const Task& task, const Events& events) {
        return Told([&](auto& status) { return task->Start(events, status); });
    }
    std::string End(const Task& task, const std::shared_ptr<proto::ReplayStopReq>& message) {
        return Told([&](auto& status) { return task->End(message, status); });
    }

    TaskManager& manager = TaskManager::instance();
    std::shared_ptr<PacedHost> host = std::make_shared<PacedHost>();
};

TEST_F(TaskTest, AJobGoesThroughItsStates) {
    constexpr char kNotStarted[] = "refused, idle: Profiling is not started on device";
    constexpr char kNoStop[] = "refused, idle: StopReq message is nullptr";
    const std::string config = R"({"job_id": "job", "sys_profiling": "on"})";
    const auto events = std::make_shared<proto::ReplayStartReq>();
    const auto stop = std::make_shared<proto::ReplayStopReq>();
    const Task task = Create("job");
    EXPECT_EQ(Start(task, events), kNotStarted);
    EXPECT_EQ(End(task, stop), kNotStarted);
    EXPECT_EQ(End(task, nullptr), kNoStop);
    EXPECT_EQ(JobEnd(task), kNotStarted);
    EXPECT_EQ(JobStart(task, "{"), "refused, idle: invalid sample configuration");
    EXPECT_EQ(JobStart(task, config), "done, started");
    EXPECT_EQ(JobStart(task, config), "refused, started: Profiling is already running on device");
    EXPECT_EQ(Start(task, events), "done, started");
    EXPECT_EQ(End(task, stop), "done, started");
    EXPECT_EQ(Start(task, events), "done, started");
    EXPECT_EQ(JobEnd(task), "done, idle");
    EXPECT_EQ(JobEnd(task), kNotStarted);
    EXPECT_EQ(JobStart(task, config), "done, started");
    EXPECT_EQ(End(task, nullptr), kNoStop);
    EXPECT_EQ(JobStart(task, config), "done, started");
    EXPECT_EQ(Start(task, nullptr), "refused, idle: [Start] pmu event size is not valid!");
    EXPECT_EQ(JobStart(task, config), "done, started");
    EXPECT_EQ(Start(task, events), "done, started");
    EXPECT_EQ(Start(task, events), "refused, idle") << "nothing new ran";
    EXPECT_EQ(task->OnConnectionReset(), 0);
}

TEST_F(TaskTest, NoneOfFourListsMayHaveNineEvents) {
    using Request = proto::ReplayStartReq;
    constexpr void (*kAdd[])(Request&) = {[](Request& list) { list.add_ctrl_cpu_events("?"); },
                                          [](Request& list) { list.add_ts_cpu_events("?"); },
                                          [](Request& list) { list.add_ai_cpu_events("?"); },
                                          [](Request& list) { list.add_llc_events("?"); }};
    constexpr char kTooMany[] = "refused, idle: [Start] pmu event size is not valid!";
    for (const auto add : kAdd) {
        const auto request = std::make_shared<Request>();
        for (int i = 0; i < 8; ++i) {
            add(*request);
        }
        EXPECT_NE(Start(Begin("job"), request), kTooMany);
        EXPECT_TRUE(manager.DeleteTask("job"));
        add(*request);
        EXPECT_EQ(Start(Begin("job"), request), kTooMany);
        EXPECT_TRUE(manager.DeleteTask("job"));
    }
}

TEST_F(TaskTest, AKeyHasOneTaskOnTheDeviceThatItsHostMeans) {
    TaskRelationshipMgr::instance().AddHostIdDevIdRelation(5, 3);
    TaskRelationshipMgr::instance().AddHostIdDevIdRelation(5, 2);
    EXPECT_EQ(Create("a_9", 9)->GetDevId(), 9) << "nobody told";
    EXPECT_EQ(Create("a_5", 5)->GetDevId(), 2);
    EXPECT_EQ(Create("a_5", 9), nullptr);
    EXPECT_EQ(manager.GetTask("a_5", host)->GetDevId(), 2);
    EXPECT_EQ(manager.GetTask("a_5", std::make_shared<PacedHost>()), nullptr) << "not its own";
    EXPECT_EQ(manager.CreateTask(5, "b_5", host, 7)->GetDevId(), 7) << "its session knows better";
    EXPECT_TRUE(manager.DeleteTask("a_5"));
    EXPECT_FALSE(manager.DeleteTask("a_5"));
    EXPECT_EQ(manager.CreateTask(0, "b", nullptr), nullptr);
    manager.Uninit();
    EXPECT_EQ(Create("c"), nullptr);
    EXPECT_EQ(manager.GetTask("a_9"), nullptr);
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
    const Task mine = Begin("mine");
    Create("idle");
    host = std::make_shared<PacedHost>();
    const Task other = Begin("other");
    manager.ConnectionReset(nullptr);
    manager.ConnectionReset(host);
    EXPECT_FALSE(IsStarted("other"));
    EXPECT_TRUE(IsStarted("mine"));
    EXPECT_EQ(manager.GetTask("other"), nullptr);
    EXPECT_EQ(manager.GetTask("mine"), mine);
    EXPECT_EQ(Start(other, nullptr), "refused, started: [Start] pmu event size is not valid!");
    manager.Uninit();
    EXPECT_FALSE(IsStarted("mine"));
}

TEST_F(TaskTest, AJobThatEndsKeepsItsKeyAndHoldsNobodyUp) {
    const Task task = Begin("first");
    const auto stalled = std::make_shared<PacedHost>();
    stalled->Read(false);
    ASSERT_EQ(UploaderMgr::instance().CreateUploader("first", stalled, 512), 0);
    auto reset = std::async(std::launch::async, [&] { manager.ConnectionReset(host); });
    EXPECT_TRUE(orla::test::WaitFor([&] { return stalled->Begun() == 1; }));  // the finish message
    EXPECT_EQ(manager.GetTask("first"), nullptr);
    EXPECT_FALSE(manager.DeleteTask("first"));
    EXPECT_EQ(Create("first"), nullptr) << "its key is taken to the end";
    host = std::make_shared<PacedHost>();
    EXPECT_EQ(JobEnd(Begin("other")), "done, idle");
    EXPECT_TRUE(manager.DeleteTask("other"));
    EXPECT_EQ(reset.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    stalled->Read(true);
    reset.get();
    EXPECT_NE(Create("first"), nullptr);
}

TEST_F(TaskTest, StalledHostsLeaveNothing) {
    constexpr char kLost[] =
        "refused, idle: Stop profiling failed, please check it or see log for more info";
    const auto threads = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const auto before = threads();
    for (int i = 0; i < 20; ++i) {
        const std::string id = "stalled" + std::to_string(i);
        const Task task = Begin(id);
        const auto stalled = std::make_shared<PacedHost>();
        stalled->Read(false);
        auto uploader =
            std::make_shared<transport::Uploader>(stalled, std::chrono::milliseconds(20));
        ASSERT_EQ(uploader->Init(4), 0);
        ASSERT_EQ(uploader->Start(), 0);
        UploaderMgr::instance().AddUploader(id, std::exchange(uploader, nullptr));
        EXPECT_EQ(JobEnd(task), kLost);
        EXPECT_TRUE(stalled->Closed());
        EXPECT_TRUE(manager.DeleteTask(id));
        EXPECT_EQ(UploaderMgr::instance().UploadData(id, "x", 1), -1) << "it is gone";
    }
    UploaderMgr::instance().DelUploader("job");
    EXPECT_TRUE(orla::test::WaitFor([&] { return threads() <= before; }));
}

TEST_F(TaskTest, AResetInTheMiddleOfAStopWaitsForItAndFindsNothingToDo) {
    const auto slow = std::make_shared<PacedHost>(std::chrono::milliseconds(50));
    const Task task = Begin("job");
    ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", slow, 512), 0);
    ASSERT_EQ(UploaderMgr::instance().UploadData("job", "data", 4), 0);
    auto stop = std::async(std::launch::async, [&] { return JobEnd(task); });
    EXPECT_TRUE(orla::test::WaitFor([] { return !IsStarted("job"); }));  // it waits for the host
    manager.ConnectionReset(host);
    EXPECT_EQ(stop.get(), "done, idle");
    EXPECT_EQ(slow->Got().size(), 2u) << "one finish message";
    EXPECT_EQ(manager.GetTask("job"), nullptr);
}

}  // namespace
}  // namespace analysis::nedra::device
