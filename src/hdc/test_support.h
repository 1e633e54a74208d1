// For unit tests of any module: what the code under test logs, and a thread as small as those of
// the daemon. Including this header replaces the device log of the whole test program: lines are
// kept while a LogCapture lives, and dropped at other times.
#pragma once

#include <device_log.h>
#include <portability.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace orla::test {

struct CapturedLog {
    std::mutex mutex;
    bool active = false;  // guarded by mutex, as is what follows
    std::vector<std::string> lines;
};
inline CapturedLog& TheLog() {
    static CapturedLog log;
    return log;
}

// One line as it is kept: a letter for the level and the text behind the prefix of its side.
__attribute__((format(printf, 2, 0))) inline void KeepLine(char level, const char* format,
                                                           va_list arguments) {
    char text[2048];
    vsnprintf(text, sizeof(text), format, arguments);
    std::string line(text);
    const size_t mark = line.find(">>> ");
    line.erase(0, mark == std::string::npos ? 0 : mark + 4);
    if (line.rfind("(tid:", 0) == 0) {
        line.erase(0, line.find(") ") + 2);
    }
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    const std::lock_guard<std::mutex> lock(TheLog().mutex);
    if (TheLog().active) {
        TheLog().lines.push_back(std::string(1, level) + " " + line);
    }
}

// Collects lines from its construction on. One at a time.
class LogCapture {
public:
    LogCapture() { Reset(true); }
    ~LogCapture() { Reset(false); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // "E text", "W text", "I text", "D text" or "V text" (event), in their order, and forgets
    // them. Only levels named in `levels`.
    std::vector<std::string> Take(const std::string& levels = "EWIDV") {
        std::vector<std::string> taken;
        const std::lock_guard<std::mutex> lock(TheLog().mutex);
        for (std::string& line : TheLog().lines) {
            if (levels.find(line[0]) != std::string::npos) {
                taken.push_back(std::move(line));
            }
        }
        TheLog().lines.clear();
        return taken;
    }

private:
    static void Reset(bool active) {
        const std::lock_guard<std::mutex> lock(TheLog().mutex);
        TheLog().active = active;
        TheLog().lines.clear();
    }
};

// Runs `body` on a thread with the stack of the daemon's threads and waits for its end. False
// when the thread could not be started.
[[nodiscard]] inline bool RunOnSmallStack(std::function<void()> body) {
    mmThreadAttr attributes{};
    attributes.stackFlag = 1;
    attributes.stackSize = 128 * 1024;
    mmUserBlock_t routine{};
    routine.procFunc = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    routine.pulArg = &body;
    mmThread thread{};
    return mmCreateTaskWithThreadAttr(&thread, &routine, &attributes) == EN_OK &&
           mmJoinTask(&thread) == EN_OK;
}

}  // namespace orla::test

#define ORLA_TEST_LOG_WRITER(name, level)                                    \
    extern "C" __attribute__((used, format(printf, 2, 3))) inline void name( \
        int /*module*/, const char* format, ...) {                           \
        va_list arguments;                                                   \
        va_start(arguments, format);                                         \
        orla::test::KeepLine(level, format, arguments);                      \
        va_end(arguments);                                                   \
    }
ORLA_TEST_LOG_WRITER(DlogErrorInner, 'E')
ORLA_TEST_LOG_WRITER(DlogWarnInner, 'W')
ORLA_TEST_LOG_WRITER(DlogInfoInner, 'I')
ORLA_TEST_LOG_WRITER(DlogDebugInner, 'D')
ORLA_TEST_LOG_WRITER(DlogEventInner, 'V')
#undef ORLA_TEST_LOG_WRITER
extern "C" __attribute__((used)) inline int CheckLogLevel(int /*module*/, int /*level*/) {
    return 1;
}
