// The message that carries profiling data: a FileChunkReq, encoded straight from the producer's
// bytes, or around bytes that lie in their place already. Every producer fills the same fields, so
// this is the one place that does.
//
//     0            kFrontRoom                           Data()
//     | front room | unused | head | length of the data | data | tail | tail room |
//
// The length takes as many bytes as it needs, so the head is written when the length is known, with
// its end against the data.
//
// An encoder is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "profiling/datapath/message_buffer.h"

namespace analysis::nedra::transport {

// What is said of one chunk of a file beside its bytes.
struct FileChunkInfo {
    std::string fileName;  // of the target file, relative: "data/…"
    bool isLastChunk = false;
    uint32_t dataModule = 0;
};

// Makes the messages of one file. They are byte for byte what the codec makes of a FileChunkReq.
// Whatever can fail does so with a log line.
class ChunkEncoder {
public:
    // `jobCtx` is the text of the job's context. Throws when the head cannot be made, for lack of
    // memory: an encoder without it would lose all that comes.
    ChunkEncoder(FileChunkInfo info, const std::string& jobCtx);

    // The message with `data`, which is copied once. Null when it cannot be made.
    [[nodiscard]] MessageBuffer Encode(std::string_view data) const;

    // A buffer with room for `size` bytes of any content where DataOf says. Null when memory is
    // out.
    [[nodiscard]] MessageBuffer TakeRoom(size_t size) const;
    [[nodiscard]] char* DataOf(MessageBlock& block) const;
    // Makes the message of a block that TakeRoom gave and of the first `used` bytes of its data.
    // Returns false when the message cannot be made; the data is then unchanged.
    [[nodiscard]] bool Finish(MessageBlock& block, size_t used) const;

private:
    const std::string fileName_;  // for log lines
    const bool isLastChunk_;
    const uint32_t dataModule_;
    const std::string head_;  // all in front of the chunk's length
    const size_t dataAt_;
};

// The message for a producer that makes only one of its kind, see ChunkEncoder::Encode.
[[nodiscard]] MessageBuffer EncodeFileChunk(std::string_view data, const FileChunkInfo& info,
                                            const std::string& jobCtx);

}  // namespace analysis::nedra::transport
