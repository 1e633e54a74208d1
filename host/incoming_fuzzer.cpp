// The input is one message of a profiling session as a device may send it. What it may lead to is
// bounded: a chunk that is taken goes below the directory, and foreign words don't steer a
// terminal.
#include <algorithm>
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
    const std::string shown = Printable(incoming.info);
    if (std::any_of(shown.begin(), shown.end(), [](unsigned char c) { return c < ' '; })) {
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
