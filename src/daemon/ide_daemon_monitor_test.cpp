#include "daemon/ide_daemon_monitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/emulation/control.h"

namespace {

using namespace std::chrono_literals;
using orla::control::CallCount;

// The monitor's stand-in, beside the test program; it listens once this is made.
class AppmonProgram {
public:
    explicit AppmonProgram(std::vector<std::string> options) {
        const auto program =
            std::filesystem::read_symlink("/proc/self/exe").replace_filename("orla-appmon");
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
        EXPECT_EQ(posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(pipe[1]);
        output_ = pipe[0];
        static_cast<void>(ReadLine());
    }

    // The next thing that it says, without the name of who said it to it; empty at its end.
    std::string ReadLine() const {
        std::string line;
        for (char c = 0; read(output_, &c, 1) == 1 && c != '\n';) {
            line += c;
        }
        return line.substr(std::min(line.size(), line.find(": ") + 2));
    }

    void Stop(std::vector<std::string>* said) {
        kill(pid_, SIGTERM);
        for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) {
            said->push_back(line);
        }
        close(output_);
        EXPECT_EQ(waitpid(pid_, nullptr, 0), pid_);
    }

private:
    pid_t pid_ = 0;
    int output_ = -1;
};

struct MonitorCase {
    const char* name;
    std::optional<std::vector<std::string>> options;  // of the monitor; nothing: there is none
    uint32_t connectDelayMs;
    size_t before;                  // the stop comes when the monitor has said so many of these
    std::vector<std::string> said;  // but for the counts at its end
};

class MonitorStop : public testing::TestWithParam<MonitorCase> {
protected:
    void SetUp() override { orla::control::Reset(); }
    void TearDown() override { orla::control::Reset(); }
};

TEST_P(MonitorStop, InEveryState) {
    const MonitorCase& one = GetParam();
    std::optional<AppmonProgram> monitor;
    if (one.options) {
        monitor.emplace(*one.options);
    }
    orla::control::Fault late;
    late.call = "appmon_client_init";
    late.delayMs = one.connectDelayMs;
    ASSERT_TRUE(orla::control::InjectFault(late));
    const orla::control::LogCapture capture;
    ASSERT_EQ(IdeMonitorStart(), 0);
    while (CallCount("appmon_client_init") == 0) {
        std::this_thread::yield();
    }
    std::vector<std::string> said;
    while (said.size() < one.before) {
        said.push_back(monitor->ReadLine());
    }
    const auto stopping = std::chrono::steady_clock::now();
    EXPECT_EQ(IdeMonitorStop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, 2500ms);  // waits for no pause
    EXPECT_EQ(CallCount("appmon_client_exit"), one.options ? 1u : 0u);
    EXPECT_EQ(orla::control::CountLiveHandles().monitors, 0u);
    const bool failed = orla::control::WaitForLine(
        [](const auto& line) {
            return line.text.find("app mon client init failed with ") != std::string::npos;
        },
        0ms);
    EXPECT_EQ(failed, !one.options);
    if (monitor) {
        monitor->Stop(&said);
        said.pop_back();
    }
    EXPECT_EQ(said, one.said);
}

const char kRegistered[] = "registered, timeout 9000 ms, script /var/ide_daemon_monitor.sh";
const char kDeregistered[] = "deregistered: ide daemon monitor exit.";

INSTANTIATE_TEST_SUITE_P(
    Monitor, MonitorStop,
    testing::Values(
        MonitorCase{"NoMonitor", std::nullopt, 0, 0, {}},
        MonitorCase{"Connecting", {{}}, 1000, 0, {"gone"}},
        MonitorCase{"Refused", {{"--refuse", "9"}}, 0, 2, {"refused", "refused", "gone"}},
        MonitorCase{
            "Late", {{"--delay-ms", "60000"}}, 0, 1, {kRegistered, "gone while registered"}},
        MonitorCase{"Registered",
                    {{"--refuse", "1"}},
                    0,
                    3,
                    {"refused", kRegistered, "heartbeat 1", kDeregistered, "gone"}}),
    [](const auto& one) { return one.param.name; });

}  // namespace
