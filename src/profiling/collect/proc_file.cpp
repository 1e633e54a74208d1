#include "profiling/collect/proc_file.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace Analysis::Nedra::JobWrapper {
namespace {

constexpr size_t kFirstBuffer = 4096;
// Descriptors that are left to the rest of the process.
constexpr uint64_t kReserved = 512;
constexpr uint64_t kMaxKept = 8192;

std::atomic<uint64_t> g_kept{0};

uint64_t KeepLimit() {
    static const uint64_t limit = [] {
        rlimit files = {};
        const bool isKnown = getrlimit(RLIMIT_NOFILE, &files) == 0;
        const uint64_t spare =
            isKnown && files.rlim_cur > kReserved ? files.rlim_cur - kReserved : 0;
        return std::min(spare, kMaxKept);
    }();
    return limit;
}

bool TakeKept() {
    if (g_kept.fetch_add(1) < KeepLimit()) {
        return true;
    }
    --g_kept;
    return false;
}

}  // namespace

bool ProcFile::Open() {
    fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd_ < 0) {
        return false;
    }
    if (last_ != Outcome::kRead || size_ < 0) {
        struct stat status = {};
        size_ = fstat(fd_, &status) == 0 ? int64_t{status.st_size} : -1;
    }
    isCounted_ = keep_ == Keep::kIfSpare && TakeKept();
    return true;
}

void ProcFile::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    if (isCounted_) {
        isCounted_ = false;
        --g_kept;
    }
}

// These files are made up at the moment of reading: one read that fits gives one state of them,
// and all of it. Only when the buffer is full there may be more.
int64_t ProcFile::ReadWhole(std::vector<char>* buffer) const {
    if (buffer->size() < kFirstBuffer) {
        buffer->resize(kFirstBuffer);
    }
    for (;;) {
        ssize_t count = 0;
        do {
            count = pread(fd_, buffer->data(), buffer->size(), 0);
        } while (count < 0 && errno == EINTR);
        if (count < static_cast<ssize_t>(buffer->size())) {
            return count;
        }
        if (count > maxSize_) {
            return count;
        }
        buffer->resize(buffer->size() * 4);
    }
}

ProcFile::Outcome ProcFile::Read(std::vector<char>* buffer, std::string_view* text) {
    const Outcome outcome = TryRead(buffer, text);
    failsAnew_ = outcome != Outcome::kRead && outcome != last_;
    last_ = outcome;
    return outcome;
}

ProcFile::Outcome ProcFile::TryRead(std::vector<char>* buffer, std::string_view* text) {
    const bool wasOpen = fd_ >= 0;
    if (!wasOpen && !Open()) {
        return Outcome::kFailed;
    }
    int64_t count = size_ < 0 || size_ > maxSize_ ? 0 : ReadWhole(buffer);
    if (count < 0 && wasOpen) {  // its process has gone
        Close();
        if (!Open()) {
            return Outcome::kFailed;
        }
        count = ReadWhole(buffer);
    }
    const bool isBadSize = size_ < 0 || size_ > maxSize_ || count > maxSize_;
    if (isBadSize || count < 0 || !isCounted_) {
        Close();
    }
    if (isBadSize) {
        return Outcome::kBadSize;
    }
    if (count < 0) {
        return Outcome::kFailed;
    }
    *text = {buffer->data(), static_cast<size_t>(count)};
    return Outcome::kRead;
}

}  // namespace Analysis::Nedra::JobWrapper
