// For the tests of the log level service: the queue of the log daemon, and what serves it there:
// the real stand-in as a process of its own, or a script of the test on a thread. The queue's key
// is the real one, so these tests run where the queues are private: in the sandbox.
#pragma once

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace orla::test {

constexpr key_t kSlogdKey = 0x474F4C44;
constexpr size_t kSlogdTextSize = 1020;

struct SlogdMessage {
    explicit SlogdMessage(const std::string& words = "") { words.copy(text, sizeof(text) - 1); }
    long type = 2;
    uint32_t deviceId = 0;
    char text[4096] = {};
};

inline void SendReply(int queue, const SlogdMessage& reply, size_t textSize = kSlogdTextSize) {
    EXPECT_EQ(msgsnd(queue, &reply, sizeof(uint32_t) + textSize, IPC_NOWAIT), 0);
}

// The queue, made and removed here.
class SlogdQueue {
public:
    explicit SlogdQueue(int mode = 0600) : id_(msgget(kSlogdKey, IPC_CREAT | IPC_EXCL | mode)) {
        EXPECT_GE(id_, 0) << "another log daemon's queue is in the way";
    }
    ~SlogdQueue() { Remove(); }
    SlogdQueue(const SlogdQueue&) = delete;
    SlogdQueue& operator=(const SlogdQueue&) = delete;

    void Remove() const { msgctl(id_, IPC_RMID, nullptr); }
    int id() const { return id_; }
    msqid_ds Status() const {
        msqid_ds status = {};
        EXPECT_EQ(msgctl(id_, IPC_STAT, &status), 0);
        return status;
    }

private:
    const int id_;
};

// Hands each request to a script, on a thread of its own, until the queue goes.
class ScriptedSlogd {
public:
    using Script = std::function<void(int queue, const SlogdMessage& request)>;
    explicit ScriptedSlogd(Script script)
        : thread_([this, script = std::move(script)] {
              SlogdMessage request;
              while (msgrcv(queue.id(), &request, sizeof(uint32_t) + sizeof(request.text), 1, 0) >=
                     0) {
                  script(queue.id(), request);
                  request = SlogdMessage();
              }
          }) {}
    ~ScriptedSlogd() {
        queue.Remove();
        thread_.join();
    }

    const SlogdQueue queue;

private:
    std::thread thread_;
};

// The stand-in, beside the test program; ready once this is made.
class SlogdProgram {
public:
    explicit SlogdProgram(std::vector<std::string> options = {}) {
        const auto program =
            std::filesystem::read_symlink("/proc/self/exe").replace_filename("orla-slogd");
        options.insert(options.begin(), program);
        std::vector<char*> argv;
        for (std::string& option : options) {
            argv.push_back(option.data());
        }
        argv.push_back(nullptr);
        int pipe[2];
        EXPECT_EQ(pipe2(pipe, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
        EXPECT_EQ(posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ), 0)
            << program;
        posix_spawn_file_actions_destroy(&actions);
        close(pipe[1]);
        char ready = 0;
        EXPECT_EQ(read(pipe[0], &ready, 1), 1) << "orla-slogd did not start";
        close(pipe[0]);
    }
    ~SlogdProgram() { Stop(); }
    SlogdProgram(const SlogdProgram&) = delete;
    SlogdProgram& operator=(const SlogdProgram&) = delete;

    // Its wait status after SIGTERM, or after the end that it took by itself.
    int Stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            EXPECT_EQ(waitpid(pid_, &status_, 0), pid_);
            pid_ = 0;
        }
        return status_;
    }

private:
    pid_t pid_ = 0;
    int status_ = -1;
};

}  // namespace orla::test
