// For the unit tests of any module: what the code under test logs, and a thread as small as those
// of the daemon.
#pragma once

#include <portability.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/emulation/control.h"

namespace orla::test {

// Collects lines of all levels from its construction on. One at a time.
class LogCapture {
public:
    LogCapture() { control::SetLogLevel(control::LogLevel::kDebug); }
    ~LogCapture() { control::SetLogLevel(control::LogLevel::kInfo); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // "E text", "W text", "I text", "D text" or "V text" (event), without the prefix of their
    // side, in their order, and forgets them. Only those whose letter is in `levels`.
    std::vector<std::string> Take(const std::string& levels = "EWIDV") {
        std::vector<std::string> taken;
        for (const control::LogLine& line : control::CapturedLines()) {
            const char letter = "DIWEV"[static_cast<int>(line.level)];
            if (levels.find(letter) != std::string::npos) {
                taken.push_back(std::string{letter, ' '} + WithoutPrefix(line.text));
            }
        }
        control::StartLogCapture();
        return taken;
    }

private:
    static std::string WithoutPrefix(const std::string& text) {
        const size_t mark = text.find(">>> ");
        const size_t start = mark == std::string::npos ? 0 : mark + 4;
        const bool namesThread = text.compare(start, 5, "(tid:") == 0;
        return text.substr(namesThread ? text.find(") ", start) + 2 : start);
    }

    control::LogCapture capture_;
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
