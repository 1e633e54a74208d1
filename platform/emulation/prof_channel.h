// The data of one profiling channel: what it has produced at a given time, what of that waits to
// be read, what was lost. Nothing runs in the background; everything follows from the clock, so a
// channel that nobody asks costs nothing and its sequence numbers are exact at any rate.
//
// As on hardware data becomes visible in blocks, at the edges of a tick of 10 ms that all channels
// share, or as soon as a quarter of the buffer is full; what is produced beyond the buffer's size
// overwrites the oldest records, which count as lost. A channel with a side buffer fills that
// first: it moves into the channel when it is full, or by a flush. A channel without a rate limit
// produces what is read, when it is read.
//
// No lock of its own: ProfChannels calls everything under its mutex, except RecordRun::Fill.
// Times are nanoseconds of CLOCK_MONOTONIC and never go back.
#pragma once

#include <cstdint>

#include "channel_record.h"
#include "control.h"
#include "scenario.h"

namespace orla::emulation {

constexpr uint64_t kNever = UINT64_MAX;

// Consecutive records that a read has taken and that are yet to be written down.
struct RecordRun {
    static constexpr int kStepShift = 12;  // fraction bits of `step`

    char* at = nullptr;
    uint64_t count = 0;
    ChannelRecord first = {};  // without time and check
    uint64_t time = 0;         // of the first
    uint64_t step = 0;         // of time from one to the next, shifted

    // Writes them to `at`. Needs no lock: the records belong to this read alone.
    void Fill() const;
};

class ProfChannel {
public:
    // Begins a new stream. Only while it is not started.
    void Start(uint32_t device, const SimulatedChannel& config, uint64_t now);
    // Ends the production. What is visible stays readable if `keep` and the scenario say so.
    void Stop(bool keep, uint64_t now);

    [[nodiscard]] bool started() const { return started_; }
    [[nodiscard]] bool HasData(uint64_t now);
    // HasData, and it is time to tell a poll: after a read, else once a tick, so that a poll
    // doesn't spin while a slow reader lets data lie.
    [[nodiscard]] bool IsDue(uint64_t now);
    void MarkTold(uint64_t now);
    // When IsDue turns true if nothing happens before, kNever for not at all.
    [[nodiscard]] uint64_t NextDue(uint64_t now);

    // Takes at most `size` bytes and returns how many; `run` then holds what the caller has to
    // fill in, the rest is in `buffer` already.
    [[nodiscard]] uint64_t Take(char* buffer, uint64_t size, uint64_t now, RecordRun* run);
    // Moves the side buffer into the channel; its size in bytes.
    [[nodiscard]] uint32_t Flush(uint64_t now);

    [[nodiscard]] control::ChannelCounts Counts(uint64_t now);

private:
    [[nodiscard]] bool IsUnlimited() const {
        return config_.bytesPerSecond == SimulatedChannel::kUnlimited;
    }
    [[nodiscard]] uint64_t Produced(uint64_t now) const;
    [[nodiscard]] uint64_t Visible(uint64_t now) const;
    [[nodiscard]] uint64_t CompletedAt(uint64_t sequence) const;
    [[nodiscard]] uint64_t NextVisible() const;
    void Settle(uint64_t now);
    [[nodiscard]] RecordRun Run(uint64_t count, uint64_t now, char* at) const;
    [[nodiscard]] uint64_t TakePartial(char* buffer, uint64_t size);

    // Of the current or last start.
    SimulatedChannel config_;
    ChannelRecord pattern_ = {};  // what all its records have in common; `start` counts on
    uint64_t startTime_ = 0;
    bool started_ = false;
    uint64_t produced_ = 0;  // at the stop
    uint64_t visible_ = 0;   // at the stop
    uint64_t moved_ = 0;     // records that have left the side buffer
    uint64_t next_ = 0;      // the next record to hand out
    uint64_t lost_ = 0;
    // A record that a read has cut, and how much of it is out; 0 for none.
    ChannelRecord partial_ = {};
    uint64_t partialUsed_ = 0;
    // What polls know.
    bool readSinceTold_ = true;
    uint64_t toldTick_ = 0;
};

}  // namespace orla::emulation
