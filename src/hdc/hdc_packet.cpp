#include "hdc/hdc_packet.h"

#include <algorithm>
#include <cstring>

namespace orla {

namespace {

// No writer sends empty segments at all; a peer that sends nothing else must not hold a reader
// for ever.
constexpr uint32_t kMaxEmptySegments = 64;

}  // namespace

uint32_t CutSegment(const char* payload, uint32_t remaining, uint32_t limit,
                    IdeHdcPacket* segment) {
    const uint32_t taken = std::min(remaining, limit);
    segment->len = taken;
    segment->type = kSegmentType;
    segment->isLast = taken == remaining ? 1 : 0;
    if (segment->value != payload) {
        std::memcpy(segment->value, payload, taken);
    }
    return taken;
}

bool MessageJoiner::Add(const char* buffer, uint32_t size) {
    if (buffer == nullptr || size == 0) {
        return true;
    }
    if (finished_) {  // nobody may be given the head of the next message as a part of this one
        SIDE_LOG(side_, kError, "a segment comes after the last one of its message");
        return false;
    }
    if (size < sizeof(IdeHdcPacket)) {
        SIDE_LOG(side_, kError, "segment of %u bytes is shorter than its header", size);
        return false;
    }
    const auto* packet = reinterpret_cast<const IdeHdcPacket*>(buffer);
    if (packet->type != kSegmentType) {
        return false;
    }
    if (packet->len > size - sizeof(IdeHdcPacket)) {
        SIDE_LOG(side_, kError, "segment states %u bytes, its buffer holds %zu", packet->len,
                 size - sizeof(IdeHdcPacket));
        return false;
    }
    if (packet->len > limit_ - length_) {
        SIDE_LOG(side_, kError, "buf_len : %u, packet->len: %u", length_, packet->len);
        return false;
    }
    if (packet->len == 0 && ++emptySegments_ > kMaxEmptySegments) {
        SIDE_LOG(side_, kError, "more than %u empty segments in one message", kMaxEmptySegments);
        return false;
    }
    if (!Append(packet->value, packet->len)) {
        return false;
    }
    ++segments_;
    finished_ = finished_ || packet->isLast == 1;
    return true;
}

bool MessageJoiner::Append(const char* value, uint32_t len) {
    if (len == 0) {
        return true;
    }
    const uint32_t needed = length_ + len;
    if (needed > capacity_) {
        // Doubling keeps the copying linear in the message; a message of one segment, which is
        // nearly every request, gets exactly its size.
        const auto doubled =
            static_cast<uint32_t>(std::min<uint64_t>(uint64_t{capacity_} * 2, limit_));
        const uint32_t wanted = std::max(needed, doubled);
        void* grown = std::realloc(block_.get(), size_t{wanted} + 1);
        if (grown == nullptr) {
            SIDE_LOG(side_, kError, "Ide Xrmalloc Failed");
            return false;
        }
        static_cast<void>(block_.release());
        block_.reset(static_cast<char*>(grown));
        capacity_ = wanted;
    }
    std::memcpy(block_.get() + length_, value, len);
    length_ = needed;
    return true;
}

HeapBlock MessageJoiner::Take(uint32_t* length) {
    if (length_ == 0) {
        SIDE_LOG(side_, kError, "bufLen is nullptr");
        return nullptr;
    }
    *length = length_;
    block_.get()[length_] = '\0';
    return std::move(block_);
}

}  // namespace orla
