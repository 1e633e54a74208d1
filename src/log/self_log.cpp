#include "log/self_log.h"

#include <fcntl.h>
#include <secure_c.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "log/log_common_util.h"
#include "log/log_platform.h"

namespace orla {

namespace {

constexpr size_t kLineSize = 1023;  // the line with its terminating zero
constexpr size_t kTimeSize = 64;
constexpr off_t kMaxFileSize = 0xFFFFF;
// A file that has no room for a line is larger than this, whatever the line. A smaller one was
// rotated by another writer in the meantime.
constexpr off_t kRotateAbove = 0xFFBFF;
constexpr mode_t kFileMode = 0640;
constexpr int kMaxRotations = 10;
constexpr uint32_t kLongestPauseMs = 64;

constexpr LogFileSet kDefaultFiles = {
    "/var/log/npu/slog", "/var/log/npu/slog/slogd", "/var/log/npu/slog/slogd/slogdlog",
    "/var/log/npu/slog/slogd/slogdlog.old", "/var/log/npu/slog/slogd/tmp.lock"};

// Never destroyed: detached threads log until the process is gone.
std::shared_ptr<const LogFileSet>& FilesInUse() {
    static auto* files = new std::shared_ptr<const LogFileSet>;
    return *files;
}

class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    const int saved_;
};

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { static_cast<void>(ToolClose(fd_)); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    const int fd_;
};

// The empty text when the time can't be had.
void FormatTime(char* time, size_t size) {
    struct timeval now = {};
    struct tm local = {};
    time[0] = '\0';
    if (ToolGetTimeOfDay(&now) != EN_OK || ToolLocalTimeR(&now.tv_sec, &local) != EN_OK) {
        return;
    }
    static_cast<void>(snprintf_s(time, size, size - 1, "%04d-%02d-%02d %02d:%02d:%02d.%03ld",
                                 local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                 local.tm_hour, local.tm_min, local.tm_sec,
                                 static_cast<long>(now.tv_usec / 1000)));
}

// Makes `line` one line: no break but the line feed at its end. Returns the new length.
size_t EndLine(char* line, size_t length) {
    while (length > 0 && line[length - 1] == '\n') {
        --length;
    }
    length = std::min(length, kLineSize - 2);
    std::replace_if(
        line, line + length, [](char c) { return c == '\n' || c == '\r'; }, ' ');
    line[length++] = '\n';
    line[length] = '\0';
    return length;
}

// The length of the line, 0 when it can't be built.
__attribute__((format(printf, 2, 0))) size_t FormatLine(char (&line)[kLineSize], const char* format,
                                                        va_list arguments) {
    char time[kTimeSize];
    FormatTime(time, sizeof(time));
    const errno_t error = strncpy_s(line, sizeof(line), time, sizeof(time) - 1);
    if (error != EOK) {
        std::printf("[WARNING] strncpy_s time failed, result=%d, strerr=%s.\n", error,
                    SelfLogErrorText());
        return 0;
    }
    const size_t start = std::strlen(line);
    const int added = vsnprintf_truncated_s(line + start, sizeof(line) - start, format, arguments);
    return added < 0 ? 0 : EndLine(line, start + static_cast<size_t>(added));
}

bool IsSymbolicLink(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

// -1 when the file can't be had. The directories are tried once per line, `*mayMakeDirectories`.
int OpenLog(const LogFileSet& files, bool* mayMakeDirectories) {
    // The check for a link came earlier: O_NOFOLLOW is for one that was put there since.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW;
    const int fd = ToolOpenWithMode(files.log, kFlags, kFileMode);
    if (fd >= 0 || !*mayMakeDirectories) {
        return fd;
    }
    *mayMakeDirectories = false;
    if (files.root[0] == '\0' || MakeLogDir(files.root) != 0 || files.directory[0] == '\0' ||
        MakeLogDir(files.directory) != 0) {
        return -1;
    }
    return ToolOpenWithMode(files.log, kFlags, kFileMode);
}

bool IsStillAt(int fd, const char* path) {
    struct stat opened;
    mmStat_t named;
    return fstat(fd, &opened) == 0 && ToolStatGet(path, &named) == EN_OK &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

enum class Rotation {
    kDone,  // look at the file again
    kBusy,  // another process is rotating
};

Rotation Rotate(const LogFileSet& files) {
    char old[kLogFileNameSize + sizeof(".old")];
    if (snprintf_s(old, sizeof(old), sizeof(old) - 1, "%s.old", files.log) < 0) {
        return Rotation::kDone;
    }
    const Descriptor lock(ToolOpenWithMode(files.lock, O_RDWR | O_CREAT | O_NOFOLLOW, kFileMode));
    if (!lock) {
        return Rotation::kDone;
    }
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        return Rotation::kBusy;
    }
    // The lock file goes while it is held, so a process that opened it before and locks it now
    // holds a file without a name, beside whoever made the next one: it must not rotate.
    if (!IsStillAt(lock.get(), files.lock)) {
        return Rotation::kDone;
    }
    mmStat_t status;
    if (ToolStatGet(files.log, &status) == EN_OK && status.st_size > kRotateAbove) {
        static_cast<void>(mmUnlink(old));
        static_cast<void>(std::rename(files.log, old));
    }
    static_cast<void>(mmUnlink(files.lock));
    static_cast<void>(flock(lock.get(), LOCK_UN));
    return Rotation::kDone;
}

enum class Attempt { kOver, kFull };

Attempt Append(const LogFileSet& files, const char* line, size_t length, bool* mayMakeDirectories) {
    const Descriptor log(OpenLog(files, mayMakeDirectories));
    if (!log) {
        return Attempt::kOver;
    }
    struct stat status;
    if (fstat(log.get(), &status) != 0) {
        std::printf("[WARNING] get file size failed , strerr=%s.\n", SelfLogErrorText());
        return Attempt::kOver;
    }
    if (status.st_size + static_cast<off_t>(length) > kMaxFileSize) {
        return Attempt::kFull;
    }
    static_cast<void>(ToolWrite(log.get(), line, static_cast<uint32_t>(length)));
    return Attempt::kOver;
}

void WriteLine(const LogFileSet& files, const char* line, size_t length) {
    if (IsSymbolicLink(files.log)) {
        return;
    }
    bool mayMakeDirectories = true;
    uint32_t pauseMs = 1;
    for (int tries = 0; Append(files, line, length, &mayMakeDirectories) == Attempt::kFull;) {
        if (++tries > kMaxRotations) {
            return;
        }
        // Whoever rotates needs the processor to finish: without a pause the tries would be used
        // up before it gets one.
        if (Rotate(files) == Rotation::kBusy) {
            static_cast<void>(ToolSleep(pauseMs));
            pauseMs = std::min(pauseMs * 2, kLongestPauseMs);
        }
    }
}

}  // namespace

std::shared_ptr<const LogFileSet> CurrentLogFiles() {
    auto files = std::atomic_load(&FilesInUse());
    return files ? files
                 : std::shared_ptr<const LogFileSet>(std::shared_ptr<void>(), &kDefaultFiles);
}

bool AreLogFilesSet() {
    return std::atomic_load(&FilesInUse()) != nullptr;
}

void SetLogFiles(std::shared_ptr<const LogFileSet> files) {
    std::atomic_store(&FilesInUse(), std::move(files));
}

}  // namespace orla

void SelfLog(const char* format, ...) {
    if (format == nullptr) {
        return;
    }
    const orla::ErrnoKeeper keep;
    char line[orla::kLineSize];
    va_list arguments;
    va_start(arguments, format);
    const size_t length = orla::FormatLine(line, format, arguments);
    va_end(arguments);
    if (length > 0) {
        orla::WriteLine(*orla::CurrentLogFiles(), line, length);
    }
}

const char* SelfLogErrorText() {
    return std::strerror(ToolGetErrorCode());
}
