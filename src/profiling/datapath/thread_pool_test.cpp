#include "profiling/datapath/thread_pool.h"

#include <gmock/gmock.h>

#include <set>
#include <stdexcept>

#include "profiling/datapath/thread_test_support.h"

namespace analysis::nedra::common::thread {
namespace {

using orla::test::LogCapture;
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
    const auto task = std::make_shared<Probe>(1);
    for (const int threads : {2, 0}) {
        ThreadPool pool(LoadBalanceMethod::kById, 4);
        pool.SetThreadPoolNamePrefix("P_");
        orla::test::threadsLeft = threads;
        EXPECT_EQ(0, pool.Start());
        orla::test::threadsLeft = -1;
        if (threads > 0) {
            EXPECT_EQ(2u, ThreadsOf(pool, {0, 1, 2, 3, 4, 5, 6, 7}).size());
            EXPECT_THAT(log.Take("EW"), IsEmpty());
        } else {
            pool.Dispatch(task);
        }
    }
    EXPECT_THAT(log.Take("EW"), ElementsAre("E No worker of thread pool P_ runs, task refused"));
    EXPECT_EQ(0, task->runs);
    EXPECT_EQ(1, task.use_count());
}

TEST(ThreadPool, DoesNothingUnlessItRuns) {
    LogCapture log;
    const auto task = std::make_shared<Probe>(0);
    EXPECT_EQ(-1, ThreadPool(LoadBalanceMethod::kById, 0).Start());
    ThreadPool pool(LoadBalanceMethod::kById, 1);
    for (int round = 0; round < 2; ++round) {
        pool.Dispatch(task);
        EXPECT_EQ(round, task->runs);
        ASSERT_EQ(0, pool.Start());
        pool.Dispatch(nullptr);
        pool.Dispatch(std::make_shared<Probe>(1, [] { throw std::runtime_error("reason"); }));
        pool.Dispatch(task);
        EXPECT_EQ(0, pool.Stop());
        EXPECT_EQ(round + 1, task->runs) << "dispatched before Stop, so run before its end";
    }
    EXPECT_EQ(1, task.use_count());
    const std::string line = "E Task ends by an exception, message: reason";
    EXPECT_THAT(log.Take("EW"), ElementsAre(line, line));
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

// While four threads dispatch, the pool stops: what was handed over before runs, what comes at
// the same time runs or is dropped, and nothing runs or is held afterwards.
TEST(ThreadPool, StopsAtEveryPoint) {
    for (int stopAfter = 0; stopAfter < 60; ++stopAfter) {
        ThreadPool pool(LoadBalanceMethod::kById, 3);
        pool.SetThreadPoolQueueSize(4);
        ASSERT_EQ(0, pool.Start());
        const auto early = std::make_shared<Probe>(1);
        const auto task = std::make_shared<Probe>(1);
        pool.Dispatch(early);
        std::atomic<bool> stopped{false};
        std::atomic<int> dispatched{0};
        std::vector<std::thread> dispatchers(4);
        for (std::thread& dispatcher : dispatchers) {
            dispatcher = std::thread([&] {
                for (; !stopped; ++dispatched) {
                    pool.Dispatch(task);
                    pool.Dispatch(std::make_shared<Probe>(0));
                }
            });
        }
        EXPECT_TRUE(WaitFor([&] { return dispatched >= stopAfter; }));
        pool.Stop();
        const int runs = task->runs;
        stopped = true;
        for (std::thread& dispatcher : dispatchers) {
            dispatcher.join();
        }
        EXPECT_EQ(1, early->runs);
        EXPECT_EQ(runs, task->runs) << "a task ran after Stop";
        EXPECT_EQ(1, task.use_count()) << stopAfter;
    }
}

}  // namespace
}  // namespace analysis::nedra::common::thread
