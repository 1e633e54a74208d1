#include "breach.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "log_book.h"

namespace orla::emulation {

namespace {

constexpr int kCallShift = 32;

// A fork leaves the parent's number to its child, which then names the wrong thread in a breach.
pid_t ThreadId() {
    thread_local const pid_t id = gettid();
    return id;
}

std::string LiveThreadName(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/comm");
    std::string name;
    return std::getline(file, name) ? name : "ended";
}

}  // namespace

Caller::Caller(Call call)
    : value_((static_cast<uint64_t>(call) + 1) << kCallShift | static_cast<uint32_t>(ThreadId())) {}

std::string Caller::Text(const ThreadName& name) const {
    const auto thread = static_cast<pid_t>(value_ & UINT32_MAX);
    return std::string(kCallNames[(value_ >> kCallShift) - 1]) + " on thread " +
           std::to_string(thread) + " (" +
           (name[0] != '\0' ? std::string(name.data()) : LiveThreadName(thread)) + ")";
}

ThreadName OwnThreadName() {
    ThreadName name = {};
    prctl(PR_GET_NAME, name.data());
    return name;
}

std::string HandleText(uint64_t handle) {
    char text[32];
    std::snprintf(text, sizeof(text), "handle 0x%" PRIx64, handle);
    return text;
}

void Breach(const char* what, const std::string& subject, const std::string& now,
            const std::string& before) noexcept {
    char text[512];
    std::snprintf(text, sizeof(text), "breach of the driver's contract: %s, %s: %s%s%s", what,
                  subject.c_str(), now.c_str(), before.empty() ? "" : ", after ", before.c_str());
    std::fprintf(stderr, "orla platform: %s\n", text);
    try {
        LogBook::Get().Write(kDriverModule, LogLevel::kError, text);
    } catch (...) {
        std::fputs("orla platform: the log does not have it\n", stderr);
    }
    std::abort();
}

}  // namespace orla::emulation
