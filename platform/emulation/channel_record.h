// What a profiling channel of the emulated driver produces: records of 32 bytes, from which the
// receiving end can prove that nothing was lost, doubled, reordered or damaged on the way.
// docs/emulation.md describes the format for readers in other languages. Plain data without
// state; shared by the driver, the host tool's checker and tests.
//
//     0        4       6        8           16       24      28      32
//     | magic  |channel| device | sequence  | time   | start | check |     little-endian
//
// The stream of a channel is records one after another; a read, and so a chunk, may cut one.
// `start` counts the starts of that channel since the driver's process began, from 1; with each
// start `sequence` begins at 0 and rises by 1. A number that is missing is a record that a full
// buffer of the driver lost, or somebody after it.
#pragma once

#include <cstdint>
#include <type_traits>

namespace orla::emulation {

constexpr uint32_t kChannelRecordMagic = 0x4352524F;  // the bytes "ORRC"

struct ChannelRecord {
    uint32_t magic;
    uint16_t channel;   // 1..160
    uint16_t device;    // logical id
    uint64_t sequence;  // from 0 in each start
    uint64_t time;      // when it was produced: nanoseconds of CLOCK_MONOTONIC
    uint32_t start;     // from 1
    uint32_t check;     // CheckOf the rest
};
static_assert(sizeof(ChannelRecord) == 32);
static_assert(std::is_trivially_copyable_v<ChannelRecord>);

// The check sum is linear in the words of 64 bits before it, so that a writer of many records
// can carry it along. Each word has an odd factor of its own: words that are changed, swapped or
// taken from another record show.
constexpr uint64_t kHeadFactor = 0x9E3779B97F4A7C15;
constexpr uint64_t kSequenceFactor = 0xC2B2AE3D27D4EB4F;
constexpr uint64_t kTimeFactor = 0xD6E8FEB86659FD93;
constexpr uint64_t kStartFactor = 0xA0761D6478BD642F;

// Magic, channel and device as one word.
[[nodiscard]] constexpr uint64_t HeadOf(const ChannelRecord& record) {
    return record.magic | static_cast<uint64_t>(record.channel) << 32 |
           static_cast<uint64_t>(record.device) << 48;
}

[[nodiscard]] constexpr uint32_t FoldSum(uint64_t sum) {
    return static_cast<uint32_t>(sum ^ sum >> 32);
}

[[nodiscard]] constexpr uint32_t CheckOf(const ChannelRecord& record) {
    return FoldSum(HeadOf(record) * kHeadFactor + record.sequence * kSequenceFactor +
                   record.time * kTimeFactor + record.start * kStartFactor);
}

// True for a record that arrived as it was produced.
[[nodiscard]] constexpr bool IsIntact(const ChannelRecord& record) {
    return record.magic == kChannelRecordMagic && record.check == CheckOf(record);
}

}  // namespace orla::emulation
