// The profiling channels of all devices, with what tests are told about them.
//
// One of each process, never destroyed. Every operation may be called on any thread at any time;
// the results are those of prof_driver.h. One mutex guards everything and is held for a few
// instructions per channel: a read takes its records under it and writes them down without it.
#pragma once

#include <prof_driver.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "control.h"
#include "prof_channel.h"

namespace orla::emulation {

class ProfChannels {
public:
    using Key = std::pair<uint32_t, uint32_t>;  // logical device, channel

    [[nodiscard]] static ProfChannels& Get();

    [[nodiscard]] int Start(uint32_t device, const SimulatedChannel& config);
    [[nodiscard]] int Stop(const Key& key);
    [[nodiscard]] int Read(const Key& key, char* buffer, uint32_t size);
    // `idle`: the answer while no channel is started; none waits.
    [[nodiscard]] int Poll(ProfPollInfo* events, int num, int timeout, std::optional<int> idle);
    [[nodiscard]] int Flush(const Key& key, uint32_t* size);

    // Stops all channels of a device that goes away; their data is gone.
    void EndDevice(uint32_t device);
    // Stops all channels and forgets them, the start records and the lists.
    void Reset();

    void KeepStart(control::ProfStart start);
    [[nodiscard]] std::vector<control::ProfStart> Starts() const;
    [[nodiscard]] control::ChannelCounts CountsOf(const Key& key);
    void SetList(uint32_t device, const ProfChannelList& channels);
    [[nodiscard]] std::optional<ProfChannelList> ListOf(uint32_t device) const;

private:
    using Clock = std::chrono::steady_clock;

    ProfChannels() = default;

    [[nodiscard]] static uint64_t Now();
    void EndAll(const std::optional<uint32_t>& device, uint64_t now);
    [[nodiscard]] int CollectDue(ProfPollInfo* events, int num, bool all, uint64_t now);
    [[nodiscard]] uint64_t NextDue(uint64_t now);

    mutable std::mutex mutex_;
    std::condition_variable changed_;  // for polls: something may be due earlier than it was
    // Guarded by mutex_.
    std::map<Key, ProfChannel> channels_;  // all that were ever started
    size_t started_ = 0;
    uint64_t stops_ = 0;  // counts on with each stop
    int polls_ = 0;       // polls that wait
    Key lastTold_ = {};   // where the next poll goes on, so that none starves
    std::deque<control::ProfStart> starts_;
    std::map<uint32_t, ProfChannelList> lists_;  // by device
};

}  // namespace orla::emulation
