// A blocking first-in first-out queue of limited length: how the accepting thread of a server
// hands sessions to session threads. Any number of threads may push and pop.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

namespace Velt {

template <typename T>
class BoundQueue {
public:
    explicit BoundQueue(uint32_t capacity) : capacity_(capacity) {}
    virtual ~BoundQueue() = default;
    BoundQueue(const BoundQueue&) = delete;
    BoundQueue& operator=(const BoundQueue&) = delete;

    // Waits while the queue is full. False after Quit; the element is then not in the queue.
    [[nodiscard]] bool Push(T value) {
        std::unique_lock<std::mutex> lock(mutex_);
        notFull_.wait(lock, [this] { return quit_ || queue_.size() < capacity_; });
        if (quit_) {
            return false;
        }
        queue_.push_back(std::move(value));
        notEmpty_.notify_all();
        return true;
    }

    // Waits while the queue is empty. What is left at Quit is still handed out; false, with
    // `value` unchanged, when nothing is left.
    [[nodiscard]] bool Pop(T& value) {
        std::unique_lock<std::mutex> lock(mutex_);
        notEmpty_.wait(lock, [this] { return quit_ || !queue_.empty(); });
        if (queue_.empty()) {
            return false;
        }
        value = std::move(queue_.front());
        queue_.pop_front();
        notFull_.notify_all();
        return true;
    }

    // Lets nothing in from now on and wakes everybody who waits. There is no way back.
    void Quit() {
        const std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
        notFull_.notify_all();
        notEmpty_.notify_all();
    }

private:
    bool quit_ = false;  // this and queue_ guarded by mutex_
    std::mutex mutex_;
    std::deque<T> queue_;
    std::condition_variable notFull_;
    std::condition_variable notEmpty_;
    const uint32_t capacity_;
};

}  // namespace Velt
