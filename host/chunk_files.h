// What a device sends on a data session, as files: each chunk names its file and is appended to
// it. The device is not trusted: a name must lead below "data/", sizes must fit, and a file that
// once had a problem keeps what came before it and takes nothing more.
//
// One thread at a time. Files are new: what already stands at a name is never written to.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "proto/profiler.pb.h"

namespace orla::host {

using analysis::nedra::proto::FileChunkReq;

struct ReceivedFile {
    uint64_t bytes = 0;    // in the file
    uint64_t chunks = 0;   // that made it, empty ones included
    uint64_t samples = 0;  // sample records in them
    uint64_t dropped = 0;  // chunks that were not stored
    std::string problem;   // the first; empty for a file that is as it was sent
};

// Why a chunk does not belong at the end of that file; empty when it does. No I/O.
[[nodiscard]] std::string ChunkProblem(const FileChunkReq& chunk, const ReceivedFile& file);

class ChunkFiles {
public:
    // `dir` exists and is this object's alone.
    explicit ChunkFiles(std::filesystem::path dir) : dir_(std::move(dir)) {}

    // Appends a chunk to its file. Problems are kept with the file. Returns the number of sample
    // records in it, for whoever counts along.
    uint64_t Take(const FileChunkReq& chunk);

    // By the names that the device gave, in byte order.
    const std::map<std::string, ReceivedFile>& files() const { return files_; }
    // Chunks whose names were too long, or those of more files than there may be.
    uint64_t excess() const { return excess_; }
    // This machine cannot write; more data will not help.
    bool writeFailed() const { return writeFailed_; }

private:
    int Append(const std::string& name, const std::string& bytes, bool begun);

    const std::filesystem::path dir_;
    std::map<std::string, ReceivedFile> files_;
    size_t names_ = 0;  // bytes of all names
    uint64_t excess_ = 0;
    bool writeFailed_ = false;
};

}  // namespace orla::host
