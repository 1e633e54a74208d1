// The timer and the jobs on it: who starts and ends it, what one job may do to another, what a
// handler that waits holds up.

#include "profiling/collect/prof_timer.h"

#include <gmock/gmock.h>

#include <condition_variable>
#include <thread>

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
using analysis::nedra::transport::UploaderMgr;
using orla::test::PacedHost;
using orla::test::RecordsOf;
using orla::test::WaitFor;
using std::chrono::steady_clock;
using testing::Contains;

class CountingHandler : public TimerHandler {
public:
    using TimerHandler::TimerHandler;

    int Execute() override {
        std::unique_lock<std::mutex> lock(mutex_);
        ++executed_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !holds_; });
        EXPECT_FALSE(isTorn_);
        return 0;
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
        changed_.wait(lock, [this, before = executed_] { return executed_ > before; });
    }
    bool IsTorn() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return isTorn_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    int executed_ = 0;
    bool holds_ = false;
    bool isTorn_ = false;
};

std::shared_ptr<CountingHandler> Register(ProfTimer* timer, uint32_t tag) {
    auto handler = std::make_shared<CountingHandler>(tag);
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
