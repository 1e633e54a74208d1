#include "daemon/ide_daemon_monitor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "hdc/stand_in_test_support.h"
#include "hdc/test_support.h"
#include "platform/emulation/control.h"

namespace {

using namespace std::chrono_literals;
using orla::control::CallCount;

// What the monitor says next, without the name of who said it to it; empty at its end.
std::string Said(const orla::test::StandIn& monitor) {
    const std::string line = monitor.ReadLine();
    return line.substr(std::min(line.size(), line.find(": ") + 2));
}

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
    std::optional<orla::test::StandIn> monitor;
    if (one.options) {
        monitor.emplace("orla-appmon", *one.options);
    }
    ASSERT_TRUE(
        orla::control::InjectFault({"appmon_client_init", {}, {}, {}, 0, 1, one.connectDelayMs}));
    const orla::control::LogCapture capture;
    ASSERT_EQ(IdeMonitorStart(), 0);
    ASSERT_TRUE(orla::test::WaitFor([] { return CallCount("appmon_client_init") > 0; }));
    std::vector<std::string> said;
    while (said.size() < one.before) {
        said.push_back(Said(*monitor));
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
        monitor->Stop();
        for (std::string line = Said(*monitor); !line.empty(); line = Said(*monitor)) {
            said.push_back(line);
        }
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
