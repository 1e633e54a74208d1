// Results of the emulated driver without a special meaning to its callers; those that have one
// stand in hdc_driver.h. A log line with one of these numbers tells a developer what happened.
#pragma once

namespace orla::emulation {

constexpr int kDone = 0;
constexpr int kInvalidArgument = 3;
constexpr int kInvalidHandle = 4;  // never given out, or given back already
constexpr int kNoMemory = 6;
constexpr int kNoDevice = 7;      // the scenario has no such device, or it is down
constexpr int kAddressInUse = 8;  // another server listens for this device and service
constexpr int kSystemError = 9;   // errno tells
constexpr int kBadFrame = 10;     // the peer broke the stream's format; the session has ended
constexpr int kTooLarge = 11;     // the next buffer exceeds the size asked for, and waits
constexpr int kTooManySessions = 12;
constexpr int kServerStopped = 13;
constexpr int kNoScenario = 14;  // the scenario file is malformed
constexpr int kInternal = 15;
constexpr int kNotWatched = 17;  // the application monitor refused, or was not asked

// What the frame of an operation answers in its place. Callers of the profiling calls take a
// positive number for a success.
struct FrameResults {
    int noScenario = kNoScenario;
    int noMemory = kNoMemory;
    int internal = kInternal;
};

}  // namespace orla::emulation
