// A log daemon for a development machine, on the queue that the real one serves on a device:
// it keeps the log levels that a host sets and asks for, and can be told to misbehave.
//
// The queue is created at the start, in place of one that is left from a killed log daemon, and
// removed at the end. One thread serves, one waits for the signals that end the process: it
// removes the queue, which is what wakes the first.
#include <fmt/core.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/log_module_names.h"
#include "log/slogd_queue.h"

namespace {

constexpr size_t kOversizeTextSize = 4096;
constexpr char kDone[] = "++OK++";

// ---- The levels, and the commands that set and ask for them --------------------------------

constexpr char kHelp[] =
    "get | get MODULE | set global LEVEL | set MODULE LEVEL | set event on|off; "
    "LEVEL is debug, info, warning, error, none, or for a module also default; "
    "MODULE is an upper-case name such as CORE. A set answers ++OK++, a get "
    "\"[NAME] LEVEL ... [event] on|off\", anything else a reason.";
constexpr std::array kLevels = {"debug", "info", "warning", "error", "none"};
constexpr char kFollowGlobal[] = "default";

bool IsLevel(const std::string& word) {
    return std::find(kLevels.begin(), kLevels.end(), word) != kLevels.end();
}

class Levels {
public:
    std::string Execute(const std::string& command) {
        std::istringstream in(command);
        std::vector<std::string> words;
        for (std::string word; in >> word;) {
            words.push_back(word);
        }
        if (words.size() == 1 && words[0] == "help") {
            return kHelp;
        }
        if (words.size() == 1 && words[0] == "get") {
            return DescribeAll();
        }
        if (words.size() == 2 && words[0] == "get") {
            return Describe(words[1]);
        }
        if (words.size() == 3 && words[0] == "set") {
            return words[1] == "event" ? SetEvent(words[2]) : SetLevel(words[1], words[2]);
        }
        return "no such command, help lists them: " + command;
    }

private:
    std::string SetEvent(const std::string& word) {
        if (word != "on" && word != "off") {
            return "event is on or off, not " + word;
        }
        event_ = word;
        return kDone;
    }

    std::string SetLevel(const std::string& name, const std::string& level) {
        const bool isGlobal = name == "global";
        if (!isGlobal && orla::FindLogModule(name.c_str()) == nullptr) {
            return "no such module: " + name;
        }
        if (!isGlobal && level == kFollowGlobal) {
            modules_.erase(name);
            return kDone;
        }
        if (!IsLevel(level)) {
            return "no such level: " + level;
        }
        (isGlobal ? global_ : modules_[name]) = level;
        return kDone;
    }

    std::string Describe(const std::string& name) const {
        if (orla::FindLogModule(name.c_str()) == nullptr) {
            return "no such module: " + name;
        }
        const auto own = modules_.find(name);
        return fmt::format("[{}] {} [event] {}", name,
                           own == modules_.end() ? global_ : own->second, event_);
    }

    std::string DescribeAll() const {
        std::string text = fmt::format("[global] {} [event] {}", global_, event_);
        for (const auto& [name, level] : modules_) {
            text += fmt::format(" [{}] {}", name, level);
        }
        return text;
    }

    std::string global_ = "info";
    std::string event_ = "on";
    std::map<std::string, std::string> modules_;  // those that do not follow the global level
};

// ---- The queue ---------------------------------------------------------------------------

enum class Answer { kNormal, kNone, kEmpty, kGarbage, kOversize };

struct Options {
    Answer answer = Answer::kNormal;
    uint32_t delayMs = 0;
    uint32_t vanishAfter = 0;
    bool leaveQueue = false;
    bool isVerbose = false;
};

int CreateQueue() {
    const int stale = msgget(kSlogdQueueKey, 0);
    if (stale >= 0) {
        msgctl(stale, IPC_RMID, nullptr);
    }
    return msgget(kSlogdQueueKey, IPC_CREAT | IPC_EXCL | 0600);
}

// Ends the serving from the signal thread.
class Stop {
public:
    explicit Stop(int queue) : queue_(queue) {}

    void Request() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            isRequested_ = true;
        }
        changed_.notify_all();
        msgctl(queue_, IPC_RMID, nullptr);
    }

    // False when the stop came before the time was over.
    bool Pause(std::chrono::milliseconds time) {
        std::unique_lock<std::mutex> lock(mutex_);
        return !changed_.wait_for(lock, time, [this] { return isRequested_; });
    }

    bool isRequested() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return isRequested_;
    }

private:
    const int queue_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool isRequested_ = false;
};

// False when the queue is gone.
bool Receive(int queue, SlogdMessage* request) {
    *request = SlogdMessage();
    ssize_t size = 0;
    do {
        size = msgrcv(queue, request, kSlogdTransferSize, kSlogdRequest, MSG_NOERROR);
    } while (size < 0 && errno == EINTR);
    return size >= 0;
}

// `size`: of what travels behind the type.
void Send(int queue, const void* reply, size_t size) {
    // Nobody may be there to take it: better to lose an answer than to stand still.
    if (msgsnd(queue, reply, size, IPC_NOWAIT) != 0) {
        fmt::print(stderr, "orla-slogd: answer not sent: {}\n", std::strerror(errno));
    }
}

void FillGarbage(char* text, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(1 + i % 255);  // every byte but zero
    }
}

void SendOversize(int queue, uint32_t deviceId) {
    struct {
        long type = kSlogdReply;
        uint32_t deviceId = 0;
        char text[kOversizeTextSize];
    } reply;
    reply.deviceId = deviceId;
    FillGarbage(reply.text, sizeof(reply.text));
    Send(queue, &reply, sizeof(reply.deviceId) + sizeof(reply.text));
}

void Reply(int queue, const SlogdMessage& request, Answer kind, const std::string& text) {
    SlogdMessage reply = {kSlogdReply, request.deviceId, {}};
    switch (kind) {
        case Answer::kNone:
            return;
        case Answer::kNormal:
            text.copy(reply.text, kSlogdTextSize - 1);
            break;
        case Answer::kEmpty:
            break;
        case Answer::kGarbage:
            FillGarbage(reply.text, kSlogdTextSize);
            break;
        case Answer::kOversize:
            return SendOversize(queue, request.deviceId);
    }
    Send(queue, &reply, kSlogdTransferSize);
}

[[noreturn]] void Vanish(int queue, bool leaveQueue) {
    if (!leaveQueue) {
        msgctl(queue, IPC_RMID, nullptr);
    }
    std::_Exit(0);
}

// Returns when the queue is gone or the stop was asked for.
void Serve(int queue, const Options& options, Stop* stop) {
    Levels levels;
    SlogdMessage request;
    for (uint32_t count = 1; Receive(queue, &request); ++count) {
        if (count == options.vanishAfter) {
            Vanish(queue, options.leaveQueue);
        }
        const std::string command(request.text, strnlen(request.text, kSlogdTextSize));
        const std::string text = levels.Execute(command);
        if (options.isVerbose) {
            fmt::print("device {}: {} -> {}\n", request.deviceId, command, text);
            std::fflush(stdout);
        }
        if (options.delayMs > 0 && !stop->Pause(std::chrono::milliseconds(options.delayMs))) {
            return;
        }
        Reply(queue, request, options.answer, text);
    }
}

// ---- The process -------------------------------------------------------------------------

void AddOptions(CLI::App* app, Options* options) {
    const std::map<std::string, Answer> answers = {{"normal", Answer::kNormal},
                                                   {"none", Answer::kNone},
                                                   {"empty", Answer::kEmpty},
                                                   {"garbage", Answer::kGarbage},
                                                   {"oversize", Answer::kOversize}};
    app->add_option("--answer", options->answer,
                    "normal, none, empty, garbage (1020 bytes without an end) or oversize "
                    "(larger than any receiver takes)")
        ->transform(CLI::CheckedTransformer(answers));
    app->add_option("--delay-ms", options->delayMs, "Answer each request only after this time");
    app->add_option("--vanish-after", options->vanishAfter,
                    "Exit when the N-th request is there, without answering it");
    app->add_flag("--leave-queue", options->leaveQueue,
                  "Leave the queue behind when vanishing, as a killed log daemon does");
    app->add_flag("--verbose", options->isVerbose, "Print every request and its answer");
    app->footer(std::string("Commands on the queue: ") + kHelp);
}

sigset_t BlockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int Run(const Options& options) {
    const sigset_t signals = BlockStopSignals();
    const int queue = CreateQueue();
    if (queue < 0) {
        fmt::print(stderr, "orla-slogd: no queue: {}\n", std::strerror(errno));
        return 1;
    }
    Stop stop(queue);
    std::thread waiter([&signals, &stop] {
        int signal = 0;
        sigwait(&signals, &signal);
        stop.Request();
    });
    fmt::print("orla-slogd: serving\n");
    std::fflush(stdout);
    Serve(queue, options, &stop);
    const bool isAsked = stop.isRequested();
    pthread_kill(waiter.native_handle(), SIGTERM);  // it may still be waiting for one
    waiter.join();
    if (!isAsked) {
        fmt::print(stderr, "orla-slogd: the queue was removed by somebody else\n");
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("orla-slogd: a log daemon for development machines", "orla-slogd");
    Options options;
    AddOptions(&app, &options);
    CLI11_PARSE(app, argc, argv);
    return Run(options);
}
