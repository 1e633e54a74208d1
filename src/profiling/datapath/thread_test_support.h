// For the tests of threads: waiting for a condition, and a system that runs out of threads.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "hdc/test_support.h"

namespace orla::test {

// How many more threads the system gives; negative: as many as are wanted. thread_test.cpp holds
// the pthread_create that heeds it.
extern std::atomic<int> threadsLeft;

class ThreadsLeft {
public:
    explicit ThreadsLeft(int count) { threadsLeft = count; }
    ~ThreadsLeft() { threadsLeft = -1; }
    ThreadsLeft(const ThreadsLeft&) = delete;
    ThreadsLeft& operator=(const ThreadsLeft&) = delete;
};

// Waits until `condition` holds. False after a minute, which only a fault takes.
[[nodiscard]] inline bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

}  // namespace orla::test
