// What the tests of this folder share.
#pragma once

#include <gtest/gtest.h>
#include <portability.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

// A fresh directory for each test, removed by other code than ours.
class Scratch : public ::testing::Test {
protected:
    explicit Scratch(const char* parent = "/tmp") : root_(std::string(parent) + "/posix.XXXXXX") {}
    void SetUp() override { ASSERT_NE(mkdtemp(root_.data()), nullptr); }
    void TearDown() override {
        EXPECT_EQ(system(("chmod -R u+rwx " + root_ + " && rm -rf " + root_).c_str()), 0);
    }
    std::string At(const std::string& name) const { return root_ + "/" + name; }
    void Make(const std::string& name, const std::string& text = "x", mode_t mode = 0644) const {
        std::ofstream(At(name)) << text;
        EXPECT_EQ(chmod(At(name).c_str(), mode), 0);
    }
    void MakeDirs(const std::string& names) const {
        EXPECT_EQ(system(("cd " + root_ + " && mkdir -p " + names).c_str()), 0);
    }
    std::string Read(const std::string& name) const {
        std::stringstream text;
        text << std::ifstream(At(name)).rdbuf();
        return text.str();
    }

    std::string root_;
};

// Interrupts the main thread every few milliseconds, without SA_RESTART, while it lives.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        Every(3000);
    }
    ~Interruptions() { Every(0); }

private:
    static void Every(suseconds_t microseconds) {
        const itimerval often{{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
};
