// The memory that the queues of all jobs may hold together. A host that stands still fills its
// queue, and each device may have such a host: without a common bound their number times a full
// queue decides how much of the card the agent takes.
//
// Each queue has a Share. A share may grow to half of what the others leave. So one queue alone
// gets half of the limit, the next one half of the rest, and something is always left for the next
// job:
//
//     |<------------------------- limit ------------------------->|
//     | share of a        | share of b        | free              |
//
// A message that finds its own queue empty always goes in, or a job with messages larger than
// what is free would never move. Such messages, one for each queue, come on top of the limit.
//
// Any thread. The mutex is a leaf.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace analysis::nedra::transport {

class QueueBudget {
public:
    // `limit`: bytes of all queues together.
    explicit QueueBudget(size_t limit) : limit_(limit) {}
    QueueBudget(const QueueBudget&) = delete;
    QueueBudget& operator=(const QueueBudget&) = delete;

    // A quarter of the memory that this process may use, at least 64 MiB.
    [[nodiscard]] static size_t LimitOfProcess();

    [[nodiscard]] size_t limit() const { return limit_; }
    // Bytes that all shares hold now.
    [[nodiscard]] size_t used() const;

    // What one queue holds. Its owner calls it under the lock of the queue; it gives everything
    // back at its end.
    class Share {
    public:
        // `budget` must not be null.
        explicit Share(std::shared_ptr<QueueBudget> budget) : budget_(std::move(budget)) {}
        ~Share() { Give(held_); }
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;

        // False, and nothing is taken, when the share is as large as it may be.
        [[nodiscard]] bool TryTake(size_t bytes);
        // Gives `bytes` back, which TryTake has taken.
        void Give(size_t bytes);

    private:
        const std::shared_ptr<QueueBudget> budget_;
        size_t held_ = 0;  // bytes
    };

private:
    const size_t limit_;
    mutable std::mutex mutex_;
    size_t used_ = 0;  // guarded by mutex_
};

// The path of the process's own control group below the root of the memory hierarchy, from the
// text of /proc/self/cgroup, such as "/system.slice/x"; empty when there is none.
[[nodiscard]] std::string MemoryGroupPath(std::string_view cgroupText);
// Bytes, from the text of a memory limit file; 0 for "max" and for whatever is no number.
[[nodiscard]] uint64_t MemoryLimitOf(std::string_view limitText);

}  // namespace analysis::nedra::transport
