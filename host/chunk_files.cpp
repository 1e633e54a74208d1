#include "host/chunk_files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "host/file_pull.h"
#include "host/limits.h"
#include "host/report_records.h"

namespace orla::host {

namespace {

constexpr const char* kDataFolder = "data/";
constexpr int64_t kAtTheEnd = -1;  // the offset of a chunk that just follows the last one

// 0, or what errno says.
int WriteAll(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t count = write(fd, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return 0;
}

// Whether more data would fail in the same way, whatever its name.
bool IsOfTheMachine(int error) {
    return error == ENOSPC || error == EDQUOT || error == EROFS || error == EIO;
}

}  // namespace

std::string ChunkProblem(const FileChunkReq& chunk, const ReceivedFile& file) {
    if (chunk.filename().rfind(kDataFolder, 0) != 0 || PathBelow("/", chunk.filename()).empty()) {
        return "the name would leave the data folder";
    }
    if (chunk.chunksizeinbytes() < 0 ||
        static_cast<size_t>(chunk.chunksizeinbytes()) != chunk.chunk().size()) {
        return fmt::format("a chunk of {} bytes says that it has {}", chunk.chunk().size(),
                           chunk.chunksizeinbytes());
    }
    if (chunk.offset() != kAtTheEnd && static_cast<uint64_t>(chunk.offset()) != file.bytes) {
        return fmt::format("a chunk for offset {} came at {}", chunk.offset(), file.bytes);
    }
    return "";
}

uint64_t ChunkFiles::Take(const FileChunkReq& chunk) {
    auto found = files_.find(chunk.filename());
    if (found == files_.end()) {
        const size_t size = chunk.filename().size();
        if (files_.size() >= limits::kJobFiles || size > limits::kName ||
            names_ + size > limits::kJobNames) {
            ++excess_;
            return 0;
        }
        names_ += size;
        found = files_.emplace(chunk.filename(), ReceivedFile()).first;
    }
    ReceivedFile& file = found->second;
    if (file.problem.empty()) {
        file.problem = ChunkProblem(chunk, file);
    }
    if (file.problem.empty()) {
        const int error = Append(chunk.filename(), chunk.chunk(), file.chunks > 0);
        file.problem = error != 0 ? std::strerror(error) : "";
        writeFailed_ |= IsOfTheMachine(error);
    }
    if (!file.problem.empty()) {
        ++file.dropped;
        return 0;
    }
    ++file.chunks;
    file.bytes += chunk.chunk().size();
    const uint64_t samples =
        SourceOf(chunk.filename()).has_value() ? CountRecords(chunk.chunk()) : 0;
    file.samples += samples;
    return samples;
}

// The file is opened for each chunk: a job has two files for each process, more than a process
// may hold open, and an open costs little beside the thousands of bytes of a chunk.
int ChunkFiles::Append(const std::string& name, const std::string& bytes, bool begun) {
    const std::filesystem::path path = PathBelow(dir_, name);
    if (!begun) {
        std::error_code error;
        std::filesystem::create_directories(path.parent_path(), error);
        if (error) {
            return error.value();
        }
    }
    const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW;
    const int fd = open(path.c_str(), begun ? flags : flags | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        return errno;
    }
    const int error = WriteAll(fd, bytes);
    return close(fd) != 0 && error == 0 ? errno : error;
}

}  // namespace orla::host
