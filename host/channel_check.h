// Proves of a received channel file that every record of the simulated driver arrived once, in
// order and whole, or tells what did not. Feed it the bytes in pieces of any size, in their
// order. No I/O; one thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include "emulation/channel_record.h"

namespace orla::host {

// The records of one start of one channel.
struct ChannelCounts {
    uint64_t records = 0;    // that arrived whole, doubled ones included
    uint64_t lost = 0;       // numbers that never came
    uint64_t doubled = 0;    // came again
    uint64_t reordered = 0;  // came behind a later one
    uint64_t clockBack = 0;  // in order, but older than the one before

    bool clean() const { return lost + doubled + reordered + clockBack == 0; }
};

class ChannelCheck {
public:
    struct Stream {
        uint16_t device;
        uint16_t channel;
        uint32_t start;

        bool operator<(const Stream& other) const {
            return std::tie(device, channel, start) <
                   std::tie(other.device, other.channel, other.start);
        }
    };

    void Take(std::string_view bytes);
    // What is left over belongs to no record.
    void Finish();

    const std::map<Stream, ChannelCounts>& streams() const { return streams_; }
    // Stretches that belong to no whole record, in records of that size, begun ones counted.
    uint64_t damaged() const { return damaged_; }
    // Something came, and nothing is wrong with it.
    [[nodiscard]] bool clean() const;

private:
    struct Order {
        uint64_t next = 0;  // the number after the highest
        uint64_t time = 0;
        std::map<uint64_t, uint64_t> missing;  // first number to the one behind the last
    };

    void Count(const emulation::ChannelRecord& record);
    void EndDamage();

    std::string rest_;           // bytes that are no record yet
    uint64_t damagedBytes_ = 0;  // of the stretch that the next whole record ends
    uint64_t damaged_ = 0;
    std::map<Stream, ChannelCounts> streams_;
    std::map<Stream, Order> orders_;
};

}  // namespace orla::host
