// The bounded blocking queue that everything passes through on its way between two threads of
// the profiling agent: messages to an uploader, tasks to a worker.
//
// Any number of threads push and pop at the same time. A full queue holds its producers up, for
// as long as it takes, or tells those that may not wait; that is the back-pressure of the data
// road, and nothing is dropped for lack of room. Quit is for ever: it wakes everybody, refuses what
// is pushed from then on, and leaves what is queued to be popped. One mutex guards everything. It
// is innermost: nothing else is locked under it but what the log needs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory_resource>
#include <mutex>
#include <string>
#include <utility>

#include "hdc/log_side.h"

namespace analysis::nedra::common::queue {

template <typename T>
class QueueBase {
public:
    explicit QueueBase(uint64_t capacity) : capacity_(capacity) {}
    virtual ~QueueBase() = default;
    QueueBase(const QueueBase&) = delete;
    QueueBase& operator=(const QueueBase&) = delete;

protected:
    const uint64_t capacity_;  // elements
    // Guarded by the lock of the derived class.
    // Blocks that the queue has used serve it again: it allocates nothing once it has been full.
    std::pmr::unsynchronized_pool_resource blocks_;
    std::pmr::deque<T> queue_{&blocks_};
    std::string queueName_;
};

template <typename T>
class BoundQueue : public QueueBase<T> {
public:
    explicit BoundQueue(uint64_t capacity) : QueueBase<T>(capacity) {}

    // The name in log lines; an empty one leaves the old one.
    void SetQueueName(const std::string& name) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!name.empty()) {
            queueName_ = name;
        }
    }

    // Appends `data`, waiting while the queue is full. False when the queue has quit: `data` is
    // dropped then, and the caller says so.
    [[nodiscard]] bool Push(T data) {
        return Push(std::move(data), std::chrono::hours(1), [] {});
    }

    // The same, and calls `whileFull` after each `period` of waiting, on this thread and without
    // the lock: it may look after whoever should empty the queue, and may make the queue quit.
    template <typename WhileFull>
    [[nodiscard]] bool Push(T data, std::chrono::milliseconds period, const WhileFull& whileFull) {
        std::unique_lock<std::mutex> lock(mutex_);
        CountPush();
        bool isIn = TryEnter(data);
        if (!isIn) {
            LogFull();
        }
        while (!isIn && !quit_ && !(isIn = TryEnter(data))) {
            AwaitPop(lock, period, whileFull);
        }
        if (quit_) {
            if (isIn) {
                Leave(data);
            }
            return false;
        }
        Append(data);
        return true;
    }

    enum class Entry { kIn, kFull, kQuit };

    // Appends `data` if there is room, without waiting. Unless kIn, `data` stays as it was. That
    // the queue is full is logged once until something goes in again.
    [[nodiscard]] Entry TryPush(T& data) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (quit_) {
            return Entry::kQuit;
        }
        if (queue_.size() == capacity_ || !Admit(data)) {
            if (!std::exchange(isToldFull_, true)) {
                LogIsFull();
                LogFull();
            }
            return Entry::kFull;
        }
        isToldFull_ = false;
        CountPush();
        Append(data);
        return Entry::kIn;
    }

    // Moves the oldest element to `out`; false, with `out` as it was, when there is none. Also
    // after Quit.
    [[nodiscard]] bool TryPop(T& out) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return TakeFront(out);
    }

    // The same, waiting while the queue is empty. `out` stays as it was when the queue has quit
    // and holds nothing more.
    void Pop(T& out) {
        std::unique_lock<std::mutex> lock(mutex_);
        notEmpty_.wait(lock, [this] { return !queue_.empty() || quit_; });
        TakeFront(out);
    }

    // Wakes all that wait and refuses every Push from now on.
    void Quit() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!quit_) {
            quit_ = true;
            notEmpty_.notify_all();
            notFull_.notify_all();
        }
    }

    [[nodiscard]] uint64_t Size() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return queue_.size();
    }

protected:
    // For a queue that is bounded in more than its number of elements. Both are called with the
    // lock held. Admit tells whether there is room for `data`, and accounts for it if so; Leave
    // takes that back, when the element is popped or was not queued after all.
    [[nodiscard]] virtual bool Admit(const T& /*data*/) { return true; }
    virtual void Leave(const T& /*data*/) {}

private:
    using QueueBase<T>::capacity_;
    using QueueBase<T>::queue_;
    using QueueBase<T>::queueName_;

    static constexpr uint64_t kPushesPerReport = 500;

    // All that follows is called with the lock held. Waiters are notified with it held as well:
    // whoever got the last element may destroy the queue at once.

    static unsigned long long Number(uint64_t value) { return value; }

    double Percent() const {
        return static_cast<double>(queue_.size()) / static_cast<double>(capacity_) * 100;
    }

    void LogFull() const {
        if (capacity_ != 0) {
            PROF_LOGW(
                "QueueFull,QueueName: %s, QueueCapacity:%llu, QueueSize:%llu, Percent:%-7.4f%%",
                queueName_.c_str(), Number(capacity_), Number(queue_.size()), Percent());
        }
    }

    void LogIsFull() const {
        if (queue_.size() == capacity_) {
            PROF_LOGW("IsFULL, QueueName: %s, QueueCapacity:%llu, QueueSize:%llu",
                      queueName_.c_str(), Number(capacity_), Number(capacity_));
        }
    }

    bool TryEnter(const T& data) {
        LogIsFull();
        return queue_.size() != capacity_ && Admit(data);
    }

    // Takes in what Admit has accounted for.
    void Append(T& data) {
        try {
            queue_.push_back(std::move(data));
        } catch (...) {  // out of memory, and `data` is as it was
            Leave(data);
            throw;
        }
        notEmpty_.notify_all();
    }

    // Returns when an element was popped, when the queue has quit, or after a `period` in which
    // only `Admit` may have changed its mind.
    template <typename WhileFull>
    void AwaitPop(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds period,
                  const WhileFull& whileFull) {
        while (notFull_.wait_for(lock, period) == std::cv_status::timeout && !quit_) {
            lock.unlock();
            whileFull();
            lock.lock();
            if (queue_.size() != capacity_) {
                return;
            }
        }
    }

    void CountPush() {
        ++pushCount_;
        historicMax_ = queue_.size() > historicMax_ ? queue_.size() : historicMax_;
        if (pushCount_ % kPushesPerReport != 0) {
            return;
        }
        pushCount_ = 0;
        if (capacity_ != 0) {
            PROF_LOGI(
                "QueueName: %s, QueueCapacity:%llu, QueueSize:%llu, HisMaxCut:%llu, "
                "Percent:%-7.4f%%",
                queueName_.c_str(), Number(capacity_), Number(queue_.size()), Number(historicMax_),
                Percent());
        }
    }

    bool TakeFront(T& out) {
        if (queue_.empty()) {
            return false;
        }
        out = std::move(queue_.front());
        queue_.pop_front();
        Leave(out);
        notFull_.notify_all();
        return true;
    }

    mutable std::mutex mutex_;
    std::condition_variable notEmpty_;
    std::condition_variable notFull_;
    // Guarded by mutex_, as are the members of the base.
    bool quit_ = false;
    bool isToldFull_ = false;   // by TryPush
    uint64_t pushCount_ = 0;    // since the last report
    uint64_t historicMax_ = 0;  // the most elements that any Push has met
};

}  // namespace analysis::nedra::common::queue
