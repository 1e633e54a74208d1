// What the tests of this folder share.
#pragma once

#include <gtest/gtest.h>
#include <portability.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

// A fresh directory for each test, with all that lies in it removed by other code than ours.
class Scratch : public ::testing::Test {
protected:
    explicit Scratch(const char* parent = "/tmp") : root_(std::string(parent) + "/posix.XXXXXX") {}
    void SetUp() override { ASSERT_NE(mkdtemp(root_.data()), nullptr); }
    void TearDown() override {
        const std::string command = "chmod -R u+rwx " + root_ + " && rm -rf " + root_;
        EXPECT_EQ(system(command.c_str()), 0);
    }
    std::string At(const std::string& name) const { return root_ + "/" + name; }
    std::string MakeDir(const std::string& name, mode_t mode = 0755) const {
        EXPECT_EQ(mkdir(At(name).c_str(), mode), 0) << name;
        return At(name);
    }
    std::string MakeFile(const std::string& name, const std::string& text = "x") const {
        std::ofstream(At(name)) << text;
        return At(name);
    }
    static std::string Read(const std::string& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    std::string root_;
};

// Interrupts the main thread every few milliseconds, without SA_RESTART, while it lives.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action {};
        action.sa_handler = [](int) { ++count_; };
        sigaction(SIGALRM, &action, nullptr);
        const itimerval often{{0, 3000}, {0, 3000}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interruptions() {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
    }
    static int Count() { return count_; }

private:
    static inline volatile sig_atomic_t count_ = 0;
};
