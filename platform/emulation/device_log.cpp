// The C operations of the device log.
#include <device_log.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "log_book.h"

using orla::emulation::LogBook;
using orla::emulation::LogLevel;

namespace {

// What vsnprintf makes of it, whatever its length, without the line feed that ends the record.
__attribute__((format(printf, 1, 0))) std::string Format(const char* format, va_list arguments) {
    char shortText[512];
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(shortText, sizeof(shortText), format, arguments);
    std::string text;
    if (length > 0 && static_cast<size_t>(length) < sizeof(shortText)) {
        text.assign(shortText, static_cast<size_t>(length));
    } else if (length > 0) {
        text.resize(static_cast<size_t>(length) + 1);
        vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// A line that can't be written must not end the daemon.
__attribute__((format(printf, 3, 0))) void Write(int module, LogLevel level, const char* format,
                                                 va_list arguments) noexcept {
    try {
        if (format != nullptr && LogBook::Get().Enabled(level)) {
            LogBook::Get().Write(module, level, Format(format, arguments));
        }
    } catch (...) {
        std::fputs("orla platform: a log line was lost\n", stderr);
    }
}

}  // namespace

void dlog_init(void) {
    static_cast<void>(LogBook::Get());
}

int DlogSetAttr(DlogAttr attributes) {
    LogBook::Get().SetPid(attributes.pid);
    return 0;
}

int CheckLogLevel(int, int level) {
    return level >= DLOG_DEBUG && level <= DLOG_ERROR &&
                   LogBook::Get().Enabled(static_cast<LogLevel>(level))
               ? 1
               : 0;
}

#define ORLA_LOG_WRITER(name, level)                       \
    void name(int module, const char* format, ...) {       \
        va_list arguments;                                 \
        va_start(arguments, format);                       \
        Write(module, LogLevel::level, format, arguments); \
        va_end(arguments);                                 \
    }

ORLA_LOG_WRITER(DlogErrorInner, kError)
ORLA_LOG_WRITER(DlogWarnInner, kWarning)
ORLA_LOG_WRITER(DlogInfoInner, kInfo)
ORLA_LOG_WRITER(DlogDebugInner, kDebug)
ORLA_LOG_WRITER(DlogEventInner, kEvent)
