// For the tests of threads: a system that runs out of threads, and one that takes a thread off its
// processor at a bad moment. thread_test.cpp holds the system's side.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "hdc/test_support.h"

namespace orla::test {

// How many more threads the system gives; negative: as many as are wanted.
extern std::atomic<int> threadsLeft;

// Whether the thread rests for a millisecond whenever it has unlocked a mutex, so that others do
// what they can in between.
extern thread_local bool restsAfterUnlock;

}  // namespace orla::test
