#include "host/safe_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

namespace orla::host {

namespace {

constexpr mode_t kMode = 0666;  // less the umask, as other tools do

// By which a file without a name can be given one.
std::string LinkTo(int fd) {
    return fmt::format("/proc/self/fd/{}", fd);
}

}  // namespace

std::unique_ptr<NewFile> NewFile::Open(const std::filesystem::path& path, std::string* problem) {
    const auto hidden = path.parent_path() / fmt::format(".orlactl-{}.part", getpid());
    std::unique_ptr<NewFile> file(new NewFile(path, hidden));
    unlink(hidden.c_str());  // what lies there is left from a tool that was killed
    if (!file->OpenNameless()) {
        file->fd_ = open(hidden.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
        file->isHidden_ = file->fd_ >= 0;
    }
    if (file->fd_ < 0) {
        *problem = std::strerror(errno);
        return nullptr;
    }
    return file;
}

NewFile::~NewFile() {
    if (fd_ >= 0) {
        close(fd_);
    }
    if (isHidden_) {
        unlink(hidden_.c_str());
    }
}

bool NewFile::OpenNameless() {
    const auto directory = path_.has_parent_path() ? path_.parent_path() : ".";
    fd_ = open(directory.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, kMode);
    if (fd_ >= 0 && access(LinkTo(fd_).c_str(), F_OK) != 0) {
        close(std::exchange(fd_, -1));
    }
    return fd_ >= 0;
}

std::string NewFile::Write(const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd_, data, size);
        if (written < 0 && errno != EINTR) {
            return std::strerror(errno);
        }
        const size_t taken = written < 0 ? 0 : static_cast<size_t>(written);
        data += taken;
        size -= taken;
    }
    return "";
}

// A link cannot take the place of a file, but a rename can: so it is linked here first.
bool NewFile::GiveHiddenName() {
    isHidden_ = isHidden_ || linkat(AT_FDCWD, LinkTo(fd_).c_str(), AT_FDCWD, hidden_.c_str(),
                                    AT_SYMLINK_FOLLOW) == 0;
    return isHidden_;
}

std::string NewFile::Keep(bool durable) {
    // Some file systems tell only at the close that a write has failed.
    if ((durable && fsync(fd_) != 0) || !GiveHiddenName() || close(std::exchange(fd_, -1)) != 0 ||
        std::rename(hidden_.c_str(), path_.c_str()) != 0) {
        return std::strerror(errno);
    }
    isHidden_ = false;
    return "";
}

std::string WriteWhole(const std::filesystem::path& path, std::string_view content) {
    std::string problem;
    const auto file = NewFile::Open(path, &problem);
    if (file != nullptr) {
        problem = file->Write(content.data(), content.size());
    }
    return problem.empty() ? file->Keep(true) : problem;
}

std::string ReadWhole(const std::filesystem::path& path, size_t limit, std::string* content) {
    std::error_code error;
    // What a device or another user put there may be a pipe, which would block the open.
    if (!std::filesystem::is_regular_file(path, error)) {
        return error ? error.message() : "no regular file";
    }
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size > limit) {
        return error ? error.message() : fmt::format("larger than {} bytes", limit);
    }
    std::ifstream in(path, std::ios::binary);
    content->resize(size);
    in.read(content->data(), static_cast<std::streamsize>(size));
    content->resize(static_cast<size_t>(in.gcount()));
    return in.bad() || !in.is_open() ? std::strerror(errno) : "";
}

}  // namespace orla::host
