// For the tests of threads: a system that takes a thread off its processor at a bad moment.
// thread_test.cpp holds the system's side.
#pragma once

#include <chrono>
#include <thread>

#include "hdc/test_support.h"

namespace orla::test {

// Whether the thread rests for a millisecond whenever it has unlocked a mutex, so that others do
// what they can in between.
inline thread_local bool restsAfterUnlock = false;

}  // namespace orla::test
