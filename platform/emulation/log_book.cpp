#include "log_book.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace orla::emulation {

namespace {

constexpr size_t kMaxFileSize = 16 << 20;
constexpr size_t kOldFiles = 1;

const char* NameOf(LogLevel level) {
    static constexpr const char* kNames[] = {"DEBUG", "INFO", "WARNING", "ERROR", "EVENT"};
    return kNames[static_cast<int>(level)];
}

LogLevel LevelFromEnvironment() {
    static const std::map<std::string, LogLevel> names = {{"debug", LogLevel::kDebug},
                                                          {"info", LogLevel::kInfo},
                                                          {"warning", LogLevel::kWarning},
                                                          {"error", LogLevel::kError}};
    const char* name = std::getenv("ORLA_LOG_LEVEL");
    if (name == nullptr || *name == '\0') {
        return LogLevel::kInfo;
    }
    const auto found = names.find(name);
    if (found == names.end()) {
        std::fprintf(stderr,
                     "orla platform: ORLA_LOG_LEVEL is not debug, info, warning or error: %s\n",
                     name);
        return LogLevel::kInfo;
    }
    return found->second;
}

spdlog::sink_ptr SinkFromEnvironment() {
    const char* path = std::getenv("ORLA_LOG_FILE");
    if (path != nullptr && *path != '\0') {
        try {
            return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, kMaxFileSize,
                                                                          kOldFiles);
        } catch (const spdlog::spdlog_ex& failure) {
            std::fprintf(stderr, "orla platform: the log goes to stderr: %s\n", failure.what());
        }
    }
    return std::make_shared<spdlog::sinks::stderr_sink_mt>();
}

// A record is one line of the file, whatever the text holds.
std::string OneLine(const std::string& text) {
    std::string line;
    line.reserve(text.size());
    for (const char character : text) {
        if (character == '\n') {
            line += "\\n";
        } else if (character == '\r') {
            line += "\\r";
        } else {
            line += character;
        }
    }
    return line;
}

}  // namespace

LogBook& LogBook::Get() {
    static LogBook& book = *new LogBook;
    return book;
}

void LogBook::SetLevel(LogLevel level) {
    threshold_ = std::min(level, LogLevel::kError);
}

void LogBook::ReadEnvironment() {
    auto logger = std::make_shared<spdlog::logger>("device", SinkFromEnvironment());
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%f %v");
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);  // the process leaves without running destructors
    SetLevel(LevelFromEnvironment());
    pid_ = 0;
    const std::lock_guard<std::mutex> lock(mutex_);
    logger_ = std::move(logger);
    capturing_ = false;
    lines_.clear();
}

void LogBook::Write(int module, LogLevel level, std::string text) {
    std::shared_ptr<spdlog::logger> logger;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (capturing_) {
            lines_.push_back({module, level, std::move(text)});
            captured_.notify_all();
            return;
        }
        logger = logger_;
    }
    const uint32_t pid = pid_ != 0 ? pid_.load() : static_cast<uint32_t>(getpid());
    logger->log(spdlog::level::info, "{:<7} {} {:>2} {}", NameOf(level), pid, module,
                OneLine(text));
}

void LogBook::Capture(bool on) {
    const std::lock_guard<std::mutex> lock(mutex_);
    capturing_ = on;
    lines_.clear();
}

std::vector<LogLine> LogBook::Captured() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

bool LogBook::WaitFor(const std::function<bool(const LogLine&)>& condition,
                      std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    // Not wait_for: its clock is one that the thread sanitizer of older compilers can't follow.
    return captured_.wait_until(lock, std::chrono::system_clock::now() + timeout, [&] {
        return std::any_of(lines_.begin(), lines_.end(), condition);
    });
}

}  // namespace orla::emulation
