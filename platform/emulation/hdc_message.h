// A driver message: the carrier of one buffer on its way out, which stays the caller's, or of
// what was received, which belongs to the message. Used by one thread at a time.
//
// A caller's buffer must be there, and unchanged, until the message is given back. So its ends are
// kept, and held against the buffer whenever the message is used: what differs is a breach, and
// what was freed is met by a sanitizer.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "breach.h"
#include "buffer_pool.h"
#include "handle_table.h"

namespace orla::emulation {

class OutgoingBuffer {
public:
    // `data` has `length` bytes, at least 1; `adder` is the call that brought it.
    OutgoingBuffer(const char* data, uint32_t length, const Caller& adder);

    [[nodiscard]] const char* data() const { return data_; }
    [[nodiscard]] uint32_t length() const { return length_; }
    [[nodiscard]] const Caller& adder() const { return adder_; }
    // Returns false when the buffer has changed since it was added.
    [[nodiscard]] bool IsIntact() const;

private:
    static constexpr uint32_t kKept = 16;  // bytes of each end

    [[nodiscard]] uint32_t Kept() const { return length_ < kKept ? length_ : kKept; }

    const char* data_;
    uint32_t length_;
    Caller adder_;
    std::array<char, kKept> first_;
    std::array<char, kKept> last_;
};

class Message {
public:
    static constexpr size_t kMaxReceived = 4;  // buffers of one receive

    // `maxSegment`: bytes of a buffer, at most.
    Message(HandleValue session, std::shared_ptr<BufferPool> pool, uint32_t maxSegment)
        : session_(session), pool_(std::move(pool)), maxSegment_(maxSegment) {}
    ~Message() { Clear(); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // The session that it was allocated for.
    [[nodiscard]] HandleValue session() const { return session_; }
    [[nodiscard]] bool empty() const { return !outgoing_ && receivedCount_ == 0; }
    [[nodiscard]] const std::optional<OutgoingBuffer>& outgoing() const { return outgoing_; }
    [[nodiscard]] size_t receivedCount() const { return receivedCount_; }

    // Returns false when the message isn't empty, or the length is out of range.
    [[nodiscard]] bool SetOutgoing(const char* data, int length, const Caller& adder);
    // Ends the process when the caller's buffer isn't what it was.
    void CheckOutgoing(HandleValue handle, const Caller& caller) const;

    // At most kMaxReceived. The bytes begin at `offset` of the buffer; none is without one.
    void AddReceived(Buffer buffer, uint32_t offset, uint32_t length);
    // False without a received buffer of that index.
    [[nodiscard]] bool GetReceived(int index, char** data, int* length) const;
    void Clear();

private:
    struct Received {
        Buffer buffer;
        uint32_t offset;
        uint32_t length;
    };

    const HandleValue session_;
    const std::shared_ptr<BufferPool> pool_;
    const uint32_t maxSegment_;
    std::optional<OutgoingBuffer> outgoing_;
    std::array<Received, kMaxReceived> received_ = {};
    size_t receivedCount_ = 0;
};

}  // namespace orla::emulation
