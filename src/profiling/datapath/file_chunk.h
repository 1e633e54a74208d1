// The message that carries profiling data: a FileChunkReq, encoded straight from the producer's
// bytes. Every producer fills the same fields, so this is the one place that does.
//
// Any thread; no state.
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

// The envelope of the FileChunkReq with `data`, byte for byte what the codec makes of that message,
// but with `data` copied only once. `jobCtx` is the text of the job's context. Null, with a log
// line, when it cannot be made.
[[nodiscard]] MessageBuffer EncodeFileChunk(std::string_view data, const FileChunkInfo& info,
                                            const std::string& jobCtx);

// What stands around the bytes in that message, for who has them in their place already: head,
// length of `data`, one or more, as a varint, data, tail. Each is appended to `out`; false, with a
// log line, when it cannot be made, and `out` is then undefined.
constexpr size_t kChunkTailRoom = 64;  // more than a tail needs
[[nodiscard]] bool AppendChunkHead(const FileChunkInfo& info, const std::string& jobCtx,
                                   std::string* out);
[[nodiscard]] bool AppendChunkTail(size_t size, const FileChunkInfo& info, std::string* out);

}  // namespace analysis::nedra::transport
