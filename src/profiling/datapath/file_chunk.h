// The message that carries profiling data: a FileChunkReq, encoded straight from the producer's
// bytes. Every producer fills the same fields, so this is the one place that does.
//
// Any thread; no state.
#pragma once

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

// The envelope of the FileChunkReq with `data`, one byte or more, byte for byte what the codec
// makes of that message, but with `data` copied only once. `jobCtx` is the text of the job's
// context. Null, with a log line, when it cannot be made.
[[nodiscard]] MessageBuffer EncodeFileChunk(std::string_view data, const FileChunkInfo& info,
                                            const std::string& jobCtx);

}  // namespace analysis::nedra::transport
