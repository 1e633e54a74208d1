// A fixed number of workers, each with a bounded queue of its own, so that all tasks of one id
// can run one after another on one worker.
//
// The owner sets name and queue size, then calls Start and Stop, which must not overlap each
// other. Dispatch may be called on any thread at any time: before Start and after Stop it does
// nothing, and at the side of Stop the task is either run or dropped. No task may stop or
// destroy the pool that it runs in.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "profiling/datapath/task.h"

namespace analysis::nedra::common::thread {

// How Dispatch chooses a worker. Whatever is not by id goes round.
enum class LoadBalanceMethod : uint32_t { kRoundRobin = 0, kById = 1 };

class ThreadPool {
public:
    ThreadPool(LoadBalanceMethod method, uint32_t threadNum);
    virtual ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Before Start. Workers are named by the prefix and their number, from 0.
    void SetThreadPoolNamePrefix(const std::string& prefix) { namePrefix_ = prefix; }
    // Before Start. In tasks, per worker; 64 by default.
    void SetThreadPoolQueueSize(uint64_t size) { queueSize_ = size; }

    // 0, also when it runs already, and when workers could not be started: the others do their
    // work. -1 when the thread number is 0 or memory is out.
    [[nodiscard]] int Start();
    // Runs what is queued, ends the workers and forgets them. Always 0.
    int Stop();
    // Hands `task` to a worker, waiting while its queue is full. False when it will not run: before
    // Start, at the side of or after Stop, and, with a log line, when not one worker runs.
    bool Dispatch(std::shared_ptr<Task> task);

private:
    class InnnerThread;

    std::shared_ptr<InnnerThread> Choose(Task& task);
    // With the lock held.
    bool AddWorker(uint32_t index);

    const uint32_t threadNum_;
    const LoadBalanceMethod method_;
    std::atomic<uint32_t> dispatchCount_{0};
    std::atomic<bool> started_{false};
    // Unchanged from Start on.
    std::string namePrefix_;
    uint64_t queueSize_ = 64;

    std::mutex mutex_;  // a leaf: neither a push nor a join waits under it
    // Guarded by mutex_.
    std::vector<std::shared_ptr<InnnerThread>> workers_;
};

}  // namespace analysis::nedra::common::thread
