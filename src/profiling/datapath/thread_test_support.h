// For the tests of threads: a system that runs out of threads, and one that takes a thread off its
// processor at a bad moment. thread_limit_test_support.h holds the system's side of the first,
// thread_test.cpp that of the second.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "hdc/test_support.h"

namespace orla::test {

// How many more threads the system gives; negative: as many as are wanted.
inline std::atomic<int> threadsLeft{-1};
// What happens in the meantime when it gives none.
inline std::function<void()> onRefused = [] {};

// Whether the thread rests for a millisecond whenever it has unlocked a mutex, so that others do
// what they can in between.
inline thread_local bool restsAfterUnlock = false;

}  // namespace orla::test
