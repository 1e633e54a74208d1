// The input is one message of a profiling session as a device may send it. What it may lead to is
// bounded: a chunk that is taken goes below the directory, and foreign words don't steer a
// terminal.
#include <utf8cpp/utf8.h>

#include <cstdlib>

#include "host/chunk_files.h"
#include "host/file_pull.h"
#include "host/profile_wire.h"
#include "host/terminal_text.h"

using namespace orla::host;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Incoming incoming = ReadIncoming({reinterpret_cast<const char*>(data), size});
    if ((incoming.kind == IncomingKind::kChunk) != (incoming.chunk != nullptr)) {
        std::abort();
    }
    // The text that is shown is valid UTF-8 and has no control characters, of ASCII or above it.
    const std::string shown = Printable({reinterpret_cast<const char*>(data), size});
    const bool isText = utf8::is_valid(shown.begin(), shown.end());
    for (auto at = shown.begin(); isText && at != shown.end();) {
        const uint32_t c = utf8::next(at, shown.end());
        if (c < 0x20 || (c >= 0x7f && c < 0xa0)) {
            std::abort();
        }
    }
    if (!isText) {
        std::abort();
    }
    if (incoming.chunk == nullptr || !ChunkProblem(*incoming.chunk, ReceivedFile()).empty()) {
        return 0;
    }
    const auto path = PathBelow("/below", incoming.chunk->filename());
    const auto inside = path.lexically_normal().lexically_relative("/below/data");
    if (inside.empty() || *inside.begin() == ".." || incoming.chunk->chunk().size() > size) {
        std::abort();
    }
    return 0;
}
