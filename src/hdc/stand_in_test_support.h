// For the unit tests of any module: a stand-in's program as a process of its own, beside the test
// program. They find their sockets and queues at a device's own places: in the sandbox.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace orla::test {

class StandIn {
public:
    // It has told that it serves once this is made.
    explicit StandIn(const char* name, std::vector<std::string> options = {}) {
        const auto program = std::filesystem::read_symlink("/proc/self/exe").replace_filename(name);
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
        output_ = pipe[0];
        EXPECT_NE(ReadLine(), "") << name << " did not start";
    }
    ~StandIn() {
        Stop();
        close(output_);
    }
    StandIn(const StandIn&) = delete;
    StandIn& operator=(const StandIn&) = delete;

    // The next line that it prints; empty at its end.
    std::string ReadLine() const {
        std::string line;
        for (char c = 0; read(output_, &c, 1) == 1 && c != '\n';) {
            line += c;
        }
        return line;
    }

    // Its wait status after SIGTERM, or after the end that it took by itself. What it printed last
    // can still be read.
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
    int output_ = -1;
    int status_ = -1;
};

}  // namespace orla::test
