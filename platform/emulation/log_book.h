// Where the lines of the device log go: stderr, or a file of bounded size, or for a test a list.
//
// Configured by the first line or dlog_init, whichever comes first, from $ORLA_LOG_FILE and
// $ORLA_LOG_LEVEL. One of each process, never destroyed; any thread.
#pragma once

#include <device_log.h>
#include <spdlog/logger.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "control.h"

namespace orla::emulation {

using control::LogLevel;
using control::LogLine;

constexpr int kDriverModule = 100;  // of the lines that the driver itself writes

class LogBook {
public:
    [[nodiscard]] static LogBook& Get();

    [[nodiscard]] bool Enabled(LogLevel level) const {
        return level >= threshold_.load(std::memory_order_relaxed);
    }
    void SetLevel(LogLevel level);
    void SetPid(uint32_t pid) { pid_ = pid; }
    // Takes sink and level from the environment, forgets the pid and ends a capture.
    void ReadEnvironment();

    // One record. `text` as formatted, at most one line feed at its end dropped by the caller.
    void Write(int module, LogLevel level, std::string text);

    void Capture(bool on);
    [[nodiscard]] std::vector<LogLine> Captured();
    [[nodiscard]] bool WaitFor(const std::function<bool(const LogLine&)>& condition,
                               std::chrono::milliseconds timeout);

private:
    LogBook() { ReadEnvironment(); }

    std::atomic<LogLevel> threshold_{LogLevel::kInfo};
    std::atomic<uint32_t> pid_{0};  // 0: of this process
    std::mutex mutex_;
    std::condition_variable captured_;
    // Guarded by mutex_.
    std::shared_ptr<spdlog::logger> logger_;
    bool capturing_ = false;
    std::vector<LogLine> lines_;
};

}  // namespace orla::emulation
