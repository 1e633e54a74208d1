// The timer and the jobs on it: who starts and ends it, what one job may do to another, what a
// handler that waits holds up.

#include "profiling/collect/prof_timer.h"

#include <gmock/gmock.h>

#include <condition_variable>
#include <thread>

#include "profiling/collect/proc_handlers.h"
#include "profiling/collect/prof_sys_info.h"
#include "profiling/collect/sample_test_support.h"
#include "profiling/config/device_test_support.h"
#include "profiling/config/platform.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/uploader_mgr.h"

namespace Analysis::Nedra::JobWrapper {
namespace {

using analysis::nedra::message::JobContext;
using analysis::nedra::message::ProfileParams;
using analysis::nedra::transport::Uploader;
using analysis::nedra::transport::UploaderMgr;
using orla::test::PacedHost;
using orla::test::RecordsOf;
using orla::test::WaitFor;
using std::chrono::steady_clock;
using testing::Contains;

class CountingHandler : public TimerHandler {
public:
    CountingHandler(uint32_t tag, uint64_t interval = 1) : TimerHandler(tag), interval_(interval) {}

    uint64_t Execute(uint64_t tick) override {
        std::unique_lock<std::mutex> lock(mutex_);
        ticks_.push_back(tick);
        changed_.notify_all();
        changed_.wait(lock, [this] { return !holds_; });
        EXPECT_FALSE(isTorn_);
        return tick + interval_;
    }
    int Init() override { return 0; }
    int Uninit() override {
        const std::lock_guard<std::mutex> lock(mutex_);
        isTorn_ = true;
        return 0;
    }
    void Hold(bool on) {
        const std::lock_guard<std::mutex> lock(mutex_);
        holds_ = on;
        changed_.notify_all();
    }
    void AwaitTurn() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this, before = ticks_.size()] { return ticks_.size() > before; });
    }
    std::vector<uint64_t> Ticks() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return ticks_;
    }
    bool IsTorn() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return isTorn_;
    }

private:
    const uint64_t interval_;  // ns
    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::vector<uint64_t> ticks_;
    bool holds_ = false;
    bool isTorn_ = false;
};

std::shared_ptr<CountingHandler> Register(ProfTimer* timer, uint32_t tag, uint64_t interval = 1) {
    auto handler = std::make_shared<CountingHandler>(tag, interval);
    timer->RegisterTimerHandler(tag, handler);
    return handler;
}

TEST(ProfTimer, AHandlerThatWaitsKeepsNoOtherFromEnding) {
    const orla::test::LogCapture log;
    ProfTimer timer(std::make_shared<TimerParam>(TimerParam{1000}));
    ASSERT_EQ(timer.Start(), 0);
    EXPECT_EQ(timer.Start(), -1);
    const auto waiting = Register(&timer, 0);
    const auto other = Register(&timer, 1);
    waiting->Hold(true);
    waiting->AwaitTurn();
    timer.RemoveTimerHandler(1, waiting);
    EXPECT_FALSE(other->IsTorn()) << "not the caller's own";
    timer.RemoveTimerHandler(1);
    EXPECT_TRUE(other->IsTorn());
    std::thread remover([&timer] { timer.RemoveTimerHandler(0); });
    EXPECT_TRUE(WaitFor([] {
        const auto lines = orla::control::CapturedLines();
        return lines.back().text.find("RemoveTimerHandler tag 0 begin") != std::string::npos;
    }));
    const auto last = Register(&timer, 2);
    EXPECT_FALSE(waiting->IsTorn()) << "while it is executed";
    waiting->Hold(false);
    remover.join();
    EXPECT_TRUE(waiting->IsTorn());
    last->AwaitTurn();
    EXPECT_EQ(timer.Stop(), 0);
    EXPECT_TRUE(last->IsTorn());
}

TEST(ProfTimer, NoTickIsTooShortOrTooLong) {
    for (const uint64_t tick : {uint64_t{0}, uint64_t{999}, uint64_t{0xFFFFFFFF}}) {
        SCOPED_TRACE(tick);
        const auto begin = steady_clock::now();
        ProfTimer timer(std::make_shared<TimerParam>(TimerParam{tick}));
        const auto handler = Register(&timer, 0);
        ASSERT_EQ(timer.Start(), 0);
        const int turns = tick < 1000 ? 20 : 1;
        for (int i = 0; i < turns; ++i) {
            handler->AwaitTurn();
        }
        EXPECT_EQ(timer.Stop(), 0);
        const auto taken = steady_clock::now() - begin;
        EXPECT_GE(taken, std::chrono::milliseconds(turns - 2));
        EXPECT_LT(taken, std::chrono::seconds(20));
    }
}

TEST(ProfTimer, CallsWhoIsDueAndSleepsMeanwhile) {
    constexpr uint64_t kMs = 1000000;
    ProfTimer timer(std::make_shared<TimerParam>(TimerParam{1000}));
    ASSERT_EQ(timer.Start(), 0);
    const auto rare = Register(&timer, 0, 3600000 * kMs);
    ASSERT_TRUE(WaitFor([&] { return rare->Ticks().size() == 1; }));
    const auto often = Register(&timer, 1, 5 * kMs);  // wakes a thread that sleeps for an hour
    ASSERT_TRUE(WaitFor([&] { return often->Ticks().size() > 20; }));
    const auto begin = steady_clock::now();
    EXPECT_EQ(timer.Stop(), 0);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::minutes(1));
    EXPECT_EQ(rare->Ticks().size(), 1U);
    uint64_t last = 0;
    for (const uint64_t tick : often->Ticks()) {
        EXPECT_EQ(tick % kMs, 0U);
        EXPECT_GE(tick, last + 5 * kMs) << "before it was due";
        last = tick;
    }
}

TEST(SampleGrid, NeverDriftsAndLeavesOutWhatIsMissed) {
    SampleGrid grid(100);
    const std::pair<uint64_t, uint64_t> rows[] = {{1000, 1100}, {1100, 1200}, {1203, 1300},
                                                  {1399, 1400}, {1400, 1500}, {1777, 1800}};
    for (const auto& [tick, due] : rows) {
        EXPECT_EQ(grid.After(tick), due);
    }
}

// One host reads nothing: the other's samples go on, while the first one's handler runs and while
// it is removed, and what was sampled for the first one is complete once it reads.
TEST(ProfTimer, AStalledHostHoldsUpNoOthersSamples) {
    constexpr uint64_t kMs = 1000000;
    ProfTimer timer(std::make_shared<TimerParam>(TimerParam{1000}));
    ASSERT_EQ(timer.Start(), 0);
    std::shared_ptr<PacedHost> hosts[2];
    std::shared_ptr<Uploader> uploaders[2];
    for (const uint32_t i : {0, 1}) {
        hosts[i] = std::make_shared<PacedHost>();
        hosts[i]->Read(i == 1);
        uploaders[i] = std::make_shared<Uploader>(hosts[i]);
        ASSERT_EQ(uploaders[i]->Init(1) + uploaders[i]->Start(), 0);
        const auto handler = std::make_shared<ProcMemFileHandler>(
            SampleSpec{i, 0, 64, kMs, "/proc/meminfo", "mem"},  // every sample is a message
            SampleRoad{std::make_shared<ProfileParams>(), nullptr,
                       std::make_shared<SampleSender>(uploaders[i])});
        ASSERT_EQ(handler->Init(), 0);
        timer.RegisterTimerHandler(i, handler);
    }
    const auto othersGoOn = [&] {
        const size_t before = hosts[1]->Got().size();
        return WaitFor([&] { return hosts[1]->Got().size() > before + 10; });
    };
    EXPECT_TRUE(WaitFor([&] { return uploaders[0]->GetQueueSize() == 1; }));
    EXPECT_TRUE(othersGoOn());
    std::thread remover([&timer] { timer.RemoveTimerHandler(0); });
    EXPECT_TRUE(othersGoOn());
    hosts[0]->Read(true);
    remover.join();
    EXPECT_EQ(timer.Stop(), 0);
    for (const uint32_t i : {0, 1}) {
        EXPECT_TRUE(uploaders[i]->Flush());
        const auto records = RecordsOf(*hosts[i])["data/mem"];
        EXPECT_GE(records.size(), i == 0 ? 3U : 20U) << "the queue's, the sent and the kept one";
        for (const auto& record : records) {
            EXPECT_NE(record.time, 0U) << "left out";
        }
    }
}

// ---- The jobs -----------------------------------------------------------------------------------

struct SamplingJobs : orla::device_test::DeviceTest {
    void SetUp() override {
        ASSERT_EQ(Common::Platform::Platform::instance().Init(), 0);
        params->job_id = "job";
        params->sys_profiling = "on";
        params->pid_profiling = "on";
        ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", host, 512), 0);
    }
    void TearDown() override { UploaderMgr::instance().DelUploader("job"); }
    std::shared_ptr<CollectionJobCfg> Cfg() const {
        auto cfg = std::make_shared<CollectionJobCfg>();
        cfg->commonParams = std::make_shared<CollectionJobCommonParams>();
        cfg->commonParams->params = params;
        cfg->commonParams->jobCtx = std::make_shared<JobContext>();
        cfg->commonParams->jobCtx->job_id = "job";
        return cfg;
    }
    size_t Records(const std::string& file) const { return RecordsOf(*host)[file].size(); }
    // Every handler that is registered has had a turn.
    static void AwaitTick() {
        const auto last = std::make_shared<CountingHandler>(9);
        TimerManager::instance().RegisterTimerHandler(9, last);
        last->AwaitTurn();
        TimerManager::instance().RemoveTimerHandler(9);
    }
    // Whether the timer's thread is there, by what it says when it comes and goes.
    std::string Timer() {
        std::string changes;
        for (const std::string& line : log.Take("I")) {
            changes += line == "I StartProfTimer end"  ? "+"
                       : line == "I StopProfTimer end" ? "-"
                                                       : "";
        }
        return changes;
    }

    const std::shared_ptr<ProfileParams> params = std::make_shared<ProfileParams>();
    const std::shared_ptr<PacedHost> host = std::make_shared<PacedHost>();
    ProfSysStatJob stat;
    ProfSysMemJob mem;
    ProfAllPidsJob pids;
};

TEST_F(SamplingJobs, RunOnlyWhereTheyAreAskedFor) {
    const auto expect = [this](ICollectionJob& job, int result, const std::string& line) {
        SCOPED_TRACE(line);
        EXPECT_EQ(job.Init(Cfg()), result);
        EXPECT_THAT(log.Take("EI"), Contains(line));
        EXPECT_EQ(job.Uninit(), 0);
    };
    params->tracelet = "on";
    expect(mem, -1, "I sys mem profiling not enabled");
    for (const auto& [asked, given] : {std::pair(-5, 100), {100, 100}, {101, 101}}) {
        params->cpu_sampling_interval = asked;
        expect(stat, 0,
               "I [ProfTimerJobCommonInit]devId:0, devIdOnHost:0, timerTag:0, "
               "sampleIntervalMs:" +
                   std::to_string(given));
    }
    params->sys_profiling = params->pid_profiling = "off";
    expect(stat, -1, "I sys_profiling not enabled");
    expect(mem, -1, "I sys mem profiling not enabled");
    expect(pids, -1, "I pid_profiling not enabled");
    params->pid_profiling = "on";
    params->job_id = "nobody";
    expect(pids, -1, "E Failed to get devId(0) upLoader, devIdOnHost : 0");
    orla::device_test::UseScenario(R"({"platform_info": 1})");
    static_cast<void>(Common::Platform::Platform::instance().Init());
    expect(stat, -1, "I Not in device Side, SysStat Profiling not enabled");
    expect(pids, -1, "I Not in device Side, AllPids Profiling not enabled");
    params->host_profiling = 1;
    EXPECT_EQ(stat.Init(Cfg()), -1);
    for (const bool withContext : {true, false}) {
        const auto cfg = Cfg();
        (withContext ? cfg->commonParams->params.reset() : cfg->commonParams->jobCtx.reset());
        EXPECT_EQ(pids.Init(cfg), -1);
    }
    EXPECT_EQ(stat.Init(nullptr), -1);
    EXPECT_EQ(ProfSysStatJob().Process(), -1) << "never inited";
}

TEST_F(SamplingJobs, TheTimerRunsFromTheFirstToTheLastOfThem) {
    auto& timers = TimerManager::instance();
    timers.StopProfTimer();  // without its start
    EXPECT_EQ(stat.Init(Cfg()) + mem.Init(Cfg()) + pids.Init(Cfg()), 0);
    EXPECT_EQ(mem.Process() + pids.Process(), 0);
    AwaitTick();
    EXPECT_EQ(stat.Uninit(), 0) << "which holds no use of the timer";
    EXPECT_EQ(mem.Uninit(), 0);
    EXPECT_EQ(mem.Uninit(), 0) << "and again";
    EXPECT_EQ(Timer(), "+");
    ASSERT_EQ(stat.Init(Cfg()) + stat.Process(), 0);
    AwaitTick();
    EXPECT_EQ(pids.Uninit(), 0);
    EXPECT_EQ(Timer(), "");
    EXPECT_EQ(stat.Init(nullptr), -1) << "which does not disturb it";
    params->sys_profiling = "off";
    EXPECT_EQ(stat.Init(Cfg()), -1) << "nor does this";
    EXPECT_EQ(stat.Uninit(), 0);
    EXPECT_EQ(Timer(), "-");
    ASSERT_TRUE(WaitFor([this] { return Records("data/SystemCpuUsage.data") > 0; }));
    EXPECT_EQ(Records("data/Memory.data"), 1U) << "the rest of the buffer goes out at the end";
}

}  // namespace
}  // namespace Analysis::Nedra::JobWrapper
