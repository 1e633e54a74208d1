// The self log: the log side's own rotating text file, "slogdlog" below the log root, which it
// writes instead of going through the device log. It works before any configuration is read and
// without one: until LogPathInit has set other paths, the defaults hold.
//
// One line is one write in append mode, so lines of many threads and processes never mix. Only a
// process that is killed while it writes may leave the beginning of a line without its end.
// Nothing is locked but the rotation, across processes, through the lock file beside the log:
//
//     slogdlog  --(full)-->  slogdlog.old        tmp.lock exists while somebody rotates
//
// The limit is exact for one writer at a time. Each of n writers that find room at the same
// moment may use it, so that n writers exceed it by at most n - 1 lines.
//
// Any thread may log at any time, also while the paths are set or released. A failure drops the
// line and is never reported to the caller; errno is left as it was.
#pragma once

#include <cstddef>
#include <memory>

namespace orla {

constexpr size_t kLogRootSize = 256;
constexpr size_t kLogDirectorySize = 264;
constexpr size_t kLogFileNameSize = 280;

// Where the self log lies. Never changed once it is in use.
struct LogFileSet {
    char root[kLogRootSize];            // log root
    char directory[kLogDirectorySize];  // root + "/slogd"
    char log[kLogFileNameSize];         // directory + "/slogdlog"
    char old[kLogFileNameSize];         // directory + "/slogdlog.old"
    char lock[kLogFileNameSize];        // directory + "/tmp.lock"
};

// The paths in use: those set last, else the defaults. Never null.
[[nodiscard]] std::shared_ptr<const LogFileSet> CurrentLogFiles();
[[nodiscard]] bool AreLogFilesSet();
// Null goes back to the defaults. Threads that are writing a line finish it where they began.
void SetLogFiles(std::shared_ptr<const LogFileSet> files);

}  // namespace orla

// Writes one line, the local time in front: "2026-01-31 23:59:59.999" and the text right behind
// it. At most 1022 bytes, longer text is cut. The line ends in exactly one line feed; line breaks
// inside the text become blanks, so that foreign text can't pretend to be a line. A full
// file is rotated first, in at most 10 tries within a third of a second.
void SelfLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Text of errno of the calling thread, for the end of a line.
const char* SelfLogErrorText();

#define ORLA_SELF_LOG(level, format, ...) \
    SelfLog("[" level "] %s:%d: " format "\n", __FILE_NAME__, __LINE__, ##__VA_ARGS__)
#define SELF_LOG_ERROR(...) ORLA_SELF_LOG("ERROR", __VA_ARGS__)
#define SELF_LOG_WARN(...) ORLA_SELF_LOG("WARNING", __VA_ARGS__)
#define SELF_LOG_INFO(...) ORLA_SELF_LOG("INFO", __VA_ARGS__)
