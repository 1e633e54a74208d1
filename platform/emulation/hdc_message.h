// A driver message: the carrier of buffers on their way out, which stay the caller's, or of the
// one that was received, which belongs to the message. Used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "buffer_pool.h"
#include "handle_table.h"

namespace orla::emulation {

struct OutgoingBuffer {
    const char* data;
    uint32_t length;
};

class Message {
public:
    static constexpr int kMaxBuffers = 64;

    // `count`: buffers to send at once, 1..kMaxBuffers. `maxSegment`: bytes of one, at most.
    Message(HandleValue session, std::shared_ptr<BufferPool> pool, int count, uint32_t maxSegment)
        : session_(session), pool_(std::move(pool)), count_(count), maxSegment_(maxSegment) {}
    ~Message() { pool_->Give(std::move(received_)); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // The session that it was allocated for.
    [[nodiscard]] HandleValue session() const { return session_; }
    [[nodiscard]] bool empty() const { return outgoing_.empty() && receivedLength_ == 0; }
    [[nodiscard]] const std::vector<OutgoingBuffer>& outgoing() const { return outgoing_; }

    // False when the message is full or carries what was received, or the length is out of range.
    [[nodiscard]] bool AddOutgoing(const char* data, int length);
    void SetReceived(Buffer buffer, uint32_t length);
    // False without a received buffer of that index.
    [[nodiscard]] bool GetReceived(int index, char** data, int* length) const;
    void Clear();

private:
    const HandleValue session_;
    const std::shared_ptr<BufferPool> pool_;
    const int count_;
    const uint32_t maxSegment_;
    std::vector<OutgoingBuffer> outgoing_;
    Buffer received_;
    uint32_t receivedLength_ = 0;  // 0: nothing received
};

}  // namespace orla::emulation
