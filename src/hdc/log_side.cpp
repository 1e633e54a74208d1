#include "hdc/log_side.h"

#include <cstdarg>
#include <cstdio>

namespace orla {

const LogSide kCoreSide{kCoreModule, false};
const LogSide kProfilingSide{kProfilingModule, true};

namespace {

constexpr size_t kMaxText = 1024;

bool IsEnabled(const LogSide& side, LogLevel level) {
    return level >= LogLevel::kError || CheckLogLevel(side.module, static_cast<int>(level)) == 1;
}

template <typename Writer>
void Write(Writer writer, const LogSide& side, const char* file, int line, const char* text) {
    if (side.module == kCoreModule) {
        writer(side.module, "[%s:%d][tid:%d]>>> %s\n", file, line, mmGetTid(), text);
    } else {
        writer(side.module, "[%s:%d] >>> (tid:%ld) %s\n", file, line, static_cast<long>(mmGetTid()),
               text);
    }
}

}  // namespace

void LogLine(const LogSide& side, LogLevel level, const char* file, int line, const char* format,
             ...) {
    if (!IsEnabled(side, level)) {
        return;
    }
    char text[kMaxText];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    switch (level) {
        case LogLevel::kDebug:
            return Write(DlogDebugInner, side, file, line, text);
        case LogLevel::kInfo:
            return Write(DlogInfoInner, side, file, line, text);
        case LogLevel::kWarning:
            return Write(DlogWarnInner, side, file, line, text);
        case LogLevel::kError:
            return Write(DlogErrorInner, side, file, line, text);
        case LogLevel::kEvent:
            return Write(DlogEventInner, side, file, line, text);
    }
}

std::string SystemErrorText() {
    char text[128] = {};
    return mmGetErrorFormatMessage(mmGetErrorCode(), text, sizeof(text));
}

bool Refuses(const LogSide& side, const char* file, int line,
             std::initializer_list<ArgumentCheck> checks) {
    for (const ArgumentCheck& check : checks) {
        if (check.bad) {
            LogLine(side, LogLevel::kError, file, line, "%s", check.words);
            return true;
        }
    }
    return false;
}

}  // namespace orla
