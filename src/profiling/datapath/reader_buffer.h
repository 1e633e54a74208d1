// The buffer that a reader fills from its channel, and that goes to the host as it is: the room
// for all that stands around the bytes in their message is in it already. A buffer that is at
// least half full becomes the message itself, and the reader goes on with a recycled one. Of a
// buffer that is emptier the bytes are copied, or a queue of small messages would hold large
// blocks.
//
//     0            kFrontRoom
//     | front room | head of the message | capacity bytes for the reader | end of the message |
//
// Used under the reader's lock.
#pragma once

#include <cstddef>
#include <string>

#include "profiling/datapath/file_chunk.h"
#include "profiling/datapath/message_buffer.h"

namespace analysis::nedra::transport {

class ReaderBuffer {
public:
    // For chunks of at most `capacity` bytes that are described by `info` and the text of the
    // job's context. Takes no memory yet.
    ReaderBuffer(size_t capacity, FileChunkInfo info, std::string jobCtx);

    // Where the reader writes: `capacity` bytes, which stay until TakeMessage hands them out.
    // Takes memory if there is none yet; null, with a log line, when it is out.
    [[nodiscard]] char* Data();
    [[nodiscard]] size_t capacity() const { return capacity_; }

    // The message with the first `used` bytes, 1 to the capacity, as EncodeFileChunk makes it.
    // What Data() gave is no longer to be used. Null, with a log line, when memory is out; the
    // bytes are then kept.
    [[nodiscard]] MessageBuffer TakeMessage(size_t used);

private:
    const size_t capacity_;
    const FileChunkInfo info_;
    const std::string jobCtx_;
    std::string head_;  // all in front of the chunk's length; empty: not encoded yet
    // The length of a chunk takes as many bytes as it needs, and the place for it is settled
    // before it is known: the last chunk's is a good guess. Of a chunk of another one the bytes
    // are copied.
    size_t lengthBytes_;
    MessageBuffer buffer_;
};

}  // namespace analysis::nedra::transport
