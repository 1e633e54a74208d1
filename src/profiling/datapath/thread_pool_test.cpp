#include "profiling/datapath/thread_pool.h"

#include <gmock/gmock.h>

#include <set>
#include <stdexcept>

#include "profiling/datapath/thread_test_support.h"

namespace analysis::nedra::common::thread {
namespace {

using orla::test::LogCapture;
using orla::test::ThreadsLeft;
using orla::test::WaitFor;
using testing::ElementsAre;
using testing::IsEmpty;

class Probe : public Task {
public:
    explicit Probe(
        uint64_t id, std::function<void()> body = [] {})
        : id_(id), body_(std::move(body)) {}

    int Execute() override {
        EXPECT_FALSE(running.exchange(true)) << "two runs of one task side by side";
        body_();
        tid = mmGetTid();
        running = false;
        ++runs;
        return 0;
    }
    uint64_t HashId() override { return id_; }

    std::atomic<bool> running{false};
    std::atomic<int> runs{0};
    std::atomic<int> tid{0};

private:
    const uint64_t id_;
    const std::function<void()> body_;
};

// The different threads that ran one task for each id.
std::set<int> ThreadsOf(ThreadPool& pool, const std::vector<uint64_t>& ids) {
    std::vector<std::shared_ptr<Probe>> tasks;
    for (const uint64_t id : ids) {
        tasks.push_back(std::make_shared<Probe>(id));
        pool.Dispatch(tasks.back());
    }
    std::set<int> threads;
    for (const auto& task : tasks) {
        EXPECT_TRUE(WaitFor([&] { return task->runs == 1; }));
        threads.insert(task->tid);
    }
    return threads;
}

TEST(ThreadPool, ChoosesWorkersByIdOrInTurn) {
    ThreadPool byId(LoadBalanceMethod::kById, 4);
    ThreadPool inTurn(LoadBalanceMethod::kRoundRobin, 4);
    ASSERT_EQ(0, byId.Start());
    ASSERT_EQ(0, byId.Start());
    ASSERT_EQ(0, inTurn.Start());
    EXPECT_EQ(1u, ThreadsOf(byId, {3, 7, 11, 0x100000003}).size());
    EXPECT_EQ(4u, ThreadsOf(byId, {0, 1, 2, 3, 4, 5, 6, 7}).size());
    EXPECT_EQ(4u, ThreadsOf(inTurn, {3, 3, 3, 3}).size());
}

TEST(ThreadPool, WorksWithTheWorkersThatItGot) {
    LogCapture log;
    ThreadPool pool(LoadBalanceMethod::kById, 4);
    pool.SetThreadPoolNamePrefix("P_");
    {
        const ThreadsLeft two(2);
        ASSERT_EQ(0, pool.Start());
    }
    EXPECT_EQ(2u, ThreadsOf(pool, {0, 1, 2, 3, 4, 5, 6, 7}).size());
    EXPECT_EQ(0, pool.Stop());
    EXPECT_THAT(log.Take("EW"), IsEmpty());
    {
        const ThreadsLeft none(0);
        ASSERT_EQ(0, pool.Start());
    }
    const auto task = std::make_shared<Probe>(1);
    pool.Dispatch(task);
    EXPECT_THAT(log.Take("EW"), ElementsAre("E No worker of thread pool P_ runs, task refused"));
    EXPECT_EQ(1, task.use_count());
    pool.Stop();
    EXPECT_EQ(0, task->runs);
}

TEST(ThreadPool, DoesNothingUnlessItRuns) {
    LogCapture log;
    const auto task = std::make_shared<Probe>(1);
    ThreadPool none(LoadBalanceMethod::kById, 0);
    EXPECT_EQ(-1, none.Start());
    none.Dispatch(task);
    ThreadPool pool(LoadBalanceMethod::kById, 1);
    pool.Dispatch(task);
    for (int round = 1; round <= 2; ++round) {
        ASSERT_EQ(0, pool.Start());
        pool.Dispatch(nullptr);
        pool.Dispatch(task);
        EXPECT_EQ(0, pool.Stop());
        EXPECT_EQ(round, task->runs) << "dispatched before Stop, so run before its end";
        pool.Dispatch(task);
    }
    EXPECT_EQ(2, task->runs);
    EXPECT_EQ(1, task.use_count());
    EXPECT_THAT(log.Take("EW"), IsEmpty());
}

// The worker has found its queue empty, and before it goes on a task comes and the pool stops.
TEST(ThreadPool, RunsWhatComesBetweenTheLastLookAndTheQuit) {
    for (int round = 0; round < 20; ++round) {
        ThreadPool pool(LoadBalanceMethod::kById, 1);
        ASSERT_EQ(0, pool.Start());
        const auto first = std::make_shared<Probe>(0, [] { orla::test::restsAfterUnlock = true; });
        const auto last = std::make_shared<Probe>(0);
        pool.Dispatch(first);
        ASSERT_TRUE(WaitFor([&] { return first->runs == 1; }));
        pool.Dispatch(last);
        pool.Stop();
        EXPECT_EQ(1, last->runs);
    }
}

TEST(ThreadPool, OneBadTaskCostsItselfOnly) {
    LogCapture log;
    ThreadPool pool(LoadBalanceMethod::kById, 1);
    ASSERT_EQ(0, pool.Start());
    pool.Dispatch(std::make_shared<Probe>(1, [] { throw std::runtime_error("reason"); }));
    pool.Dispatch(std::make_shared<Probe>(1, [] { throw 5; }));
    const auto good = std::make_shared<Probe>(1);
    pool.Dispatch(good);
    pool.Stop();
    EXPECT_EQ(1, good->runs);
    EXPECT_THAT(log.Take("E"), ElementsAre("E Task ends by an exception, message: reason",
                                           "E Task ends by an unknown exception"));
}

TEST(ThreadPool, AFullWorkerHoldsOnlyItsOwnDispatchersUp) {
    LogCapture log;
    ThreadPool pool(LoadBalanceMethod::kById, 2);
    pool.SetThreadPoolNamePrefix("P_");
    pool.SetThreadPoolQueueSize(1);
    ASSERT_EQ(0, pool.Start());
    std::atomic<bool> go{false};
    std::atomic<bool> isHeld{false};
    pool.Dispatch(std::make_shared<Probe>(0, [&] {
        isHeld = true;
        EXPECT_TRUE(WaitFor([&] { return go.load(); }));
    }));
    ASSERT_TRUE(WaitFor([&] { return isHeld.load(); }));
    const auto queued = std::make_shared<Probe>(0);
    const auto blocked = std::make_shared<Probe>(0);
    pool.Dispatch(queued);
    std::thread dispatcher([&] { pool.Dispatch(blocked); });
    ASSERT_TRUE(orla::control::WaitForLine(
        [](const orla::control::LogLine& line) {
            return line.text.find("QueueFull,QueueName: P_0, QueueCapacity:1, QueueSize:1, ") !=
                   std::string::npos;
        },
        std::chrono::minutes(1)));
    EXPECT_EQ(1u, ThreadsOf(pool, {1, 3}).size()) << "the other worker was held up";
    EXPECT_EQ(0, queued->runs + blocked->runs);
    go = true;
    dispatcher.join();
    pool.Stop();
    EXPECT_EQ(2, queued->runs + blocked->runs);
}

// Dispatchers that hammer the pool while it stops: what was handed over before the stop runs,
// what comes at its side runs or is dropped, and nothing runs or is held after it.
TEST(ThreadPool, StopsAtEveryPoint) {
    constexpr int kDispatchers = 4;
    for (int stopAfter = 0; stopAfter < 60; ++stopAfter) {
        ThreadPool pool(LoadBalanceMethod::kById, 3);
        pool.SetThreadPoolQueueSize(4);
        ASSERT_EQ(0, pool.Start());
        const auto early = std::make_shared<Probe>(2);
        pool.Dispatch(early);
        std::vector<std::shared_ptr<Probe>> tasks;
        for (uint64_t id = 0; id < 6; ++id) {
            tasks.push_back(std::make_shared<Probe>(id));
        }
        std::atomic<bool> stopped{false};
        std::atomic<int> dispatched{0};
        std::vector<std::thread> dispatchers;
        for (int i = 0; i < kDispatchers; ++i) {
            dispatchers.emplace_back([&] {
                while (!stopped) {
                    pool.Dispatch(tasks[static_cast<size_t>(dispatched++) % tasks.size()]);
                }
            });
        }
        EXPECT_TRUE(WaitFor([&] { return dispatched >= stopAfter; }));
        pool.Stop();
        int runs = 0;
        for (const auto& task : tasks) {
            runs += task->runs;
        }
        stopped = true;
        for (std::thread& dispatcher : dispatchers) {
            dispatcher.join();
        }
        EXPECT_EQ(1, early->runs);
        for (const auto& task : tasks) {
            runs -= task->runs;
            EXPECT_EQ(1, task.use_count()) << stopAfter;
        }
        EXPECT_EQ(0, runs) << "a task ran after Stop";
    }
}

}  // namespace
}  // namespace analysis::nedra::common::thread
