// The buffer that a reader fills from its channel, and that goes to the host as it is: the room
// for all that stands around the bytes in their message is in it already. A buffer that is at
// least half full becomes the message itself, and the reader goes on with a recycled one. Of a
// buffer that is emptier the bytes are copied, or a queue of small messages would hold large
// blocks.
//
// Used under the reader's lock.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "profiling/datapath/file_chunk.h"
#include "profiling/datapath/message_buffer.h"

namespace analysis::nedra::transport {

class ReaderBuffer {
public:
    // For chunks of at most `capacity` bytes that are described by `info` and the text of the
    // job's context. Takes no memory yet.
    ReaderBuffer(size_t capacity, FileChunkInfo info, const std::string& jobCtx)
        : capacity_(capacity), encoder_(std::move(info), jobCtx) {}

    // Where the reader writes: `capacity` bytes, which stay until TakeMessage hands them out.
    // Takes memory if there is none yet; null, with a log line, when it is out.
    [[nodiscard]] char* Data();
    [[nodiscard]] size_t capacity() const { return capacity_; }

    // The message with the first `used` bytes, 1 to the capacity, see ChunkEncoder.
    // What Data() gave is no longer to be used. Null, with a log line, when memory is out; the
    // bytes are then kept.
    [[nodiscard]] MessageBuffer TakeMessage(size_t used);

private:
    const size_t capacity_;
    const ChunkEncoder encoder_;
    MessageBuffer buffer_;
};

}  // namespace analysis::nedra::transport
