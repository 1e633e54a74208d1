// The two sides of the daemon as the device log sees them: the core (daemon core, framework,
// file service) and the profiling agent differ in module id and line prefix. This lowest
// header of src holds both, because the session layer below all of them serves both.
//
// Every line ends in one line feed, which the macros add. Debug, info and warning lines are
// guarded by CheckLogLevel; error and event lines are always written. Any thread may log.
#pragma once

#include <device_log.h>
#include <portability.h>

#include <initializer_list>
#include <string>

namespace orla {

constexpr int kCoreModule = 1;
constexpr int kProfilingModule = 31;

// What differs between the sides for code that serves both (the session layer).
struct LogSide {
    int module;
    bool namesOperation;  // some lines of this side start with "[Operation]"
};

extern const LogSide kCoreSide;
extern const LogSide kProfilingSide;

enum class LogLevel {
    kDebug = DLOG_DEBUG,
    kInfo = DLOG_INFO,
    kWarning = DLOG_WARN,
    kError,
    kEvent
};

// One line of either side, with that side's prefix. Longer text than 1023 bytes is cut.
void LogLine(const LogSide& side, LogLevel level, const char* file, int line, const char* format,
             ...) __attribute__((format(printf, 5, 6)));

// The system's text for the calling thread's errno.
[[nodiscard]] std::string SystemErrorText();

// "[Operation]" on the side that names operations, else nothing.
inline const char* OperationName(const LogSide& side, const char* bracketed) {
    return side.namesOperation ? bracketed : "";
}

// A check of an argument: what must not be, and the words of its log line.
struct ArgumentCheck {
    bool bad;
    const char* words;
};

// Whether a check found something. The first that did has its words logged as an error.
[[nodiscard]] bool Refuses(const LogSide& side, const char* file, int line,
                           std::initializer_list<ArgumentCheck> checks);

}  // namespace orla

// SIDE_REFUSES(side, {session == nullptr, "session is nullptr"}, …)
#define SIDE_REFUSES(side, ...) ::orla::Refuses(side, __FILE_NAME__, __LINE__, {__VA_ARGS__})
#define SIDE_LOG(side, level, ...) \
    ::orla::LogLine(side, ::orla::LogLevel::level, __FILE_NAME__, __LINE__, __VA_ARGS__)

// The core: module 1, "[file:line][tid:n]>>> ".
#define ORLA_CORE_LINE(writer, format, ...)                                                 \
    writer(::orla::kCoreModule, "[%s:%d][tid:%d]>>> " format "\n", __FILE_NAME__, __LINE__, \
           mmGetTid(), ##__VA_ARGS__)
#define ORLA_CORE_GUARDED(writer, level, ...)                 \
    do {                                                      \
        if (CheckLogLevel(::orla::kCoreModule, level) == 1) { \
            ORLA_CORE_LINE(writer, __VA_ARGS__);              \
        }                                                     \
    } while (false)
#define IDE_LOGE(...) ORLA_CORE_LINE(DlogErrorInner, __VA_ARGS__)
#define IDE_EVENT(...) ORLA_CORE_LINE(DlogEventInner, __VA_ARGS__)
#define IDE_LOGW(...) ORLA_CORE_GUARDED(DlogWarnInner, DLOG_WARN, __VA_ARGS__)
#define IDE_LOGI(...) ORLA_CORE_GUARDED(DlogInfoInner, DLOG_INFO, __VA_ARGS__)
#define IDE_LOGD(...) ORLA_CORE_GUARDED(DlogDebugInner, DLOG_DEBUG, __VA_ARGS__)

// The profiling agent: module 31, "[file:line] >>> (tid:n) ".
#define ORLA_PROF_LINE(writer, format, ...)                                               \
    writer(::orla::kProfilingModule, "[%s:%d] >>> (tid:%ld) " format "\n", __FILE_NAME__, \
           __LINE__, static_cast<long>(mmGetTid()), ##__VA_ARGS__)
#define ORLA_PROF_GUARDED(writer, level, ...)                      \
    do {                                                           \
        if (CheckLogLevel(::orla::kProfilingModule, level) == 1) { \
            ORLA_PROF_LINE(writer, __VA_ARGS__);                   \
        }                                                          \
    } while (false)
#define PROF_LOGE(...) ORLA_PROF_LINE(DlogErrorInner, __VA_ARGS__)
#define PROF_EVENT(...) ORLA_PROF_LINE(DlogEventInner, __VA_ARGS__)
#define PROF_LOGW(...) ORLA_PROF_GUARDED(DlogWarnInner, DLOG_WARN, __VA_ARGS__)
#define PROF_LOGI(...) ORLA_PROF_GUARDED(DlogInfoInner, DLOG_INFO, __VA_ARGS__)
#define PROF_LOGD(...) ORLA_PROF_GUARDED(DlogDebugInner, DLOG_DEBUG, __VA_ARGS__)
