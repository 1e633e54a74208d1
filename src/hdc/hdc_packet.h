// The byte formats of the session layer, and the two halves that work on them without I/O:
// cutting a message into segments and joining segments to a message. Writer and reader of
// both sides, the host tool included, use these structures; nothing else spells them out.
//
// A message travels as segments, each one driver buffer:
//
//     0        4        8  9                 9 + len      12 + len
//     | len    | 176    |L | value           | padding    |
//
// L is 1 in the last segment of a message. The header counts as 12 bytes: a segment hands
// len + 12 bytes to the driver and holds at most the maximum segment minus 12, although its
// payload starts at byte 9; the 3 bytes behind it have no meaning. All integers are
// little-endian, as every processor that this runs on stores them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "hdc/log_side.h"

#pragma pack(push, 1)

struct IdeHdcPacket {
    uint32_t len;  // payload bytes in this segment
    uint32_t type;
    uint8_t isLast;
    char value[];
};

// A message of service type 4, in both directions. `dev_id` is whatever its sender states; the
// daemon overwrites it with the physical id of the device that the session came in on.
struct IdeRequest {
    uint32_t type;
    uint32_t dev_id;
    uint32_t len;  // bytes of value: the length of the message minus 12
    char value[];
};

#pragma pack(pop)

static_assert(sizeof(IdeHdcPacket) == 9 && offsetof(IdeHdcPacket, type) == 4 &&
              offsetof(IdeHdcPacket, isLast) == 8);
static_assert(sizeof(IdeRequest) == 12 && offsetof(IdeRequest, dev_id) == 4 &&
              offsetof(IdeRequest, len) == 8);

namespace orla {

constexpr uint32_t kSegmentType = 176;
constexpr uint32_t kSegmentOverhead = 12;  // what a segment adds to its payload on the wire
// Where these bytes lie: the header in front of the payload, and the padding behind it.
constexpr uint32_t kSegmentFront = sizeof(IdeHdcPacket);
constexpr uint32_t kSegmentTail = kSegmentOverhead - kSegmentFront;
constexpr uint32_t kMinMaxSegment = 1024;
constexpr uint32_t kMaxMaxSegment = 0x80000;
constexpr uint32_t kMaxMessage = INT32_MAX;  // bytes; what one write can send

// Request types of service type 4.
constexpr uint32_t kRequestLog = 4;
constexpr uint32_t kRequestProfiling = 5;

struct FreeDeleter {
    void operator()(void* block) const { std::free(block); }
};
using HeapBlock = std::unique_ptr<char, FreeDeleter>;

// Fills `segment` with the next segment of a message: at most `limit` of the `remaining` bytes
// at `payload`, marked last when nothing remains. `segment` has room for the taken bytes plus
// 12; it may lie kSegmentFront bytes in front of the payload, which is then not moved. Returns the
// payload bytes taken; the caller hands that many plus 12 to the driver.
uint32_t CutSegment(const char* payload, uint32_t remaining, uint32_t limit, IdeHdcPacket* segment);

// Joins the segments of one message. Feed it driver buffers in the order of their arrival until
// it is finished or fails; then it is used up. Everything in the buffers is foreign: sizes are
// checked before they are used, and a message is never handed out in part.
//
// The bytes are kept in one growing block, which becomes the message: a message of one segment
// is copied once. The block never has more than `limit` bytes and one, however long a message is.
class MessageJoiner {
public:
    explicit MessageJoiner(const LogSide& side, uint32_t limit = kMaxMessage)
        : side_(side), limit_(limit) {}

    // Takes one driver buffer of `size` bytes; null or empty is skipped. False for anything
    // that is no segment, for a message of more than `limit` bytes, and when memory is out; a log
    // line of the side says which.
    [[nodiscard]] bool Add(const char* buffer, uint32_t size);

    // A segment marked last has been taken.
    bool finished() const { return finished_; }
    // Nothing of a message has been taken yet.
    bool untouched() const { return segments_ == 0; }

    // Hands out the message and its length, which does not count the zero byte that stands behind
    // it; null with a log line for an empty message.
    [[nodiscard]] HeapBlock Take(uint32_t* length);

private:
    bool Append(const char* value, uint32_t len);

    const LogSide& side_;
    const uint32_t limit_;
    HeapBlock block_;  // of capacity_ bytes and one
    uint32_t capacity_ = 0;
    uint32_t length_ = 0;
    uint64_t segments_ = 0;
    uint32_t emptySegments_ = 0;
    bool finished_ = false;
};

}  // namespace orla
