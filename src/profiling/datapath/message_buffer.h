// The buffers in which messages wait for their way to the host, and the room in them that spares
// every copy on that way.
//
//     0                        begin                 end of the message
//     | heads of packet and    | message             | end of the last      |
//     | first segment          |                     | segment              |
//
// A producer takes a buffer, which holds the front room and nothing more, and appends its message
// (AppendEnvelope does so), or writes the message anywhere after the front room. The uploader
// adds the tail room, and the transport writes the heads in front of the message where it lies.
// When its owner lets a buffer go it returns to a list and serves the next message: to fault in the
// pages of a fresh block takes longer than to copy into them, and a sampler allocates nothing once
// it has sent its first messages. A block serves only messages of at least half its size, so that
// a queue of small ones doesn't hold large blocks.
//
// Any thread may take a buffer and any thread may release it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace analysis::nedra::transport {

constexpr size_t kFrontRoom = 24;  // bytes; at least what ITransport::SendInPlace overwrites
constexpr size_t kTailRoom = 3;

struct MessageBlock {
    std::string bytes;
    size_t begin = kFrontRoom;  // of the message in `bytes`; kFrontRoom at least

    [[nodiscard]] char* data() { return bytes.data() + begin; }
    [[nodiscard]] size_t size() const { return bytes.size() - begin; }
};

// Gives a block back to the list.
struct ReturnBlock {
    void operator()(MessageBlock* block) const;
};
using MessageBuffer = std::unique_ptr<MessageBlock, ReturnBlock>;

// A buffer that holds kFrontRoom bytes and has the capacity for `messageSize` bytes more and the
// tail room. Null, with a log line, when memory is out.
[[nodiscard]] MessageBuffer TakeMessageBuffer(size_t messageSize);

// The same with `messageSize` bytes of any content behind the front room, to be written over.
[[nodiscard]] MessageBuffer TakeFilledBuffer(size_t messageSize);

// Gives back to the system what is kept for later use. Buffers in use aren't concerned, and return
// to the list as before.
void TrimMessageBuffers();

}  // namespace analysis::nedra::transport
