#include <device_driver.h>
#include <gtest/gtest.h>
#include <hdc_driver.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <vector>

#include "control.h"

namespace orla::emulation {
namespace {

class ScenarioTest : public testing::Test {
protected:
    void SetUp() override { control::Reset(); }
    void TearDown() override { control::Reset(); }

    static std::vector<uint32_t> Ids() {
        uint32_t count = 0;
        EXPECT_EQ(drvGetDevNum(&count), 0);
        std::vector<uint32_t> ids(64, 999);
        EXPECT_EQ(drvGetDeviceLocalIDs(ids.data(), 64), 0);
        EXPECT_TRUE(count == 64 || ids[count] == 999U);  // the rest is unchanged
        ids.resize(count);
        return ids;
    }
    static int CallDevNum() {
        uint32_t count = 0;
        return drvGetDevNum(&count);
    }
};

TEST_F(ScenarioTest, DeviceNumbers) {
    EXPECT_EQ(Ids(), std::vector<uint32_t>{0});  // the built-in scenario
    ASSERT_EQ(control::LoadScenario(R"({"devices": [
        {"logical": 3, "physical": 7}, {"logical": 1},
        {"logical": 2, "state": "down"}]})"),
              "");
    ASSERT_TRUE(control::SetDeviceState(1, control::DeviceState::kNotReady));
    EXPECT_EQ(Ids(), (std::vector<uint32_t>{3, 1}));
    uint32_t physical = 99;
    EXPECT_NE(drvDeviceGetPhyIdByIndex(2, &physical), 0);  // down
    EXPECT_NE(drvDeviceGetPhyIdByIndex(9, &physical), 0);
    EXPECT_EQ(physical, 99U);
    EXPECT_EQ(drvDeviceGetPhyIdByIndex(3, &physical), 0);
    EXPECT_EQ(physical, 7U);
    EXPECT_EQ(drvDeviceGetPhyIdByIndex(1, &physical), 0);
    EXPECT_EQ(physical, 1U);  // the logical one when the scenario says nothing
    uint32_t few[2] = {99, 99};
    EXPECT_EQ(drvGetDeviceLocalIDs(few, 1), 0);
    EXPECT_EQ(few[1], 99U);
    EXPECT_NE(drvGetDeviceLocalIDs(few, 65), 0);
    EXPECT_NE(drvGetDeviceLocalIDs(few, 0), 0);
}

TEST_F(ScenarioTest, WhatIsWrongIsToldAndChangesNothing) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "parse error"},
        {"[]", "scenario: an object"},
        {R"({"devicse": []})", "unknown member \"devicse\""},
        {R"({"devices": {}})", "devices must be an array"},
        {R"({"devices": [{}]})", "scenario.devices[0]: logical is missing"},
        {R"({"devices": [{"logical": 1124}]})", "logical must be an integer from 0 to 1123"},
        {R"({"devices": [{"logical": 0.5}]})", "logical must be an integer"},
        {R"({"devices": [{"logical": 0}, {"logical": 0, "physical": 1}]})", "devices[1]: a second"},
        {R"({"devices": [{"logical": 0}, {"logical": 1, "physical": 0}]})", "devices[1]: a second"},
        {R"({"devices": [{"logical": 0, "state": "asleep"}]})", "state must be"},
        {R"({"devices": [{"logical": 0, "flaps": {"up_ms": 1, "count": 1}}]})",
         "down_ms is missing"},
        {R"({"liberties": {"idle_poll": -1}})", "idle_poll must be -4 or 0"},
        {R"({"liberties": {"receive": "odd"}})", "receive must be one of \"plain\", "},
        {R"({"devices": [{"logical": 0, "info": [{"module": 0, "info": 1}]}]})", "either value"},
        {R"({"devices": [{"logical": 0, "channels": [{"id": 161}]}]})", "from 1 to 160"},
        {R"({"devices": [{"logical": 0, "channels": [{"id": 1}, {"id": 1}]}]})",
         "a second channel"},
        {R"({"devices": [{"logical": 0, "channels": [{"id": 1, "rate": "fast"}]}]})", "rate must"},
        {R"({"max_segment": 0})", "max_segment must be"},
        {R"({"max_segment": 4294968320})", "max_segment must be"},
        {R"({"faults": [{"call": "halHdcSent"}]})", "no operation \"halHdcSent\""},
        {R"({"faults": [{"call": "halHdcSend", "count": -2}]})", "count must be"},
    };
    ASSERT_EQ(control::LoadScenario(R"({"devices": [{"logical": 5}]})"), "");
    for (const auto& [json, reason] : cases) {
        EXPECT_NE(control::LoadScenario(json).find(reason), std::string::npos)
            << json << ": " << control::LoadScenario(json);
    }
    EXPECT_EQ(Ids(), std::vector<uint32_t>{5});
}

TEST_F(ScenarioTest, MalformedFileFailsEveryCall) {
    char name[] = "/tmp/orla-scenario-XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    close(fd);
    setenv("ORLA_SCENARIO", name, 1);
    const auto load = [] {
        testing::internal::CaptureStderr();
        control::Reset();
        return testing::internal::GetCapturedStderr();
    };
    std::ofstream(name) << "{";
    EXPECT_NE(load().find(name), std::string::npos);
    EXPECT_NE(CallDevNum(), 0);
    drvHdcClient_t client = nullptr;
    EXPECT_NE(drvHdcClientCreate(&client, 1, 4, 0), 0);
    int version = 0;
    EXPECT_NE(halGetAPIVersion(&version), 0);
    std::ofstream(name) << R"({"devices": [{"logical": 8}]})";
    EXPECT_EQ(load(), "");
    EXPECT_EQ(Ids(), std::vector<uint32_t>{8});
    unlink(name);
    EXPECT_NE(load().find("can't be read"), std::string::npos);
    EXPECT_NE(CallDevNum(), 0);
    unsetenv("ORLA_SCENARIO");
}

TEST_F(ScenarioTest, FaultsFireExactlyAfterAndCount) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"call": "drvGetDevNum", "result": 5})", "5......."},
        {R"({"call": "drvGetDevNum", "result": 5, "after": 1, "count": 3})", ".555...."},
        {R"({"call": "drvGetDevNum", "result": 5, "after": 4, "count": -1})", "....5555"},
        {R"({"call": "drvGetDevNum", "result": 5, "count": 0})", "........"},
        {R"({"call": "drvGetDevNum", "delay_ms": 1, "count": -1})", "........"},
        {R"({"call": "drvGetDevNum", "result": 5, "device": 0})", "........"},
        {R"({"call": "drvGetDeviceLocalIDs", "result": 5})", "........"},
        // The first that fires decides, and both count.
        {R"({"call": "drvGetDevNum", "result": 1, "after": 1, "count": 2},
                 {"call": "drvGetDevNum", "result": 2, "after": 2, "count": 2})",
         ".112...."},
    };
    for (const auto& [faults, wanted] : cases) {
        ASSERT_EQ(control::LoadScenario(std::string(R"({"faults": [)") + faults + "]}"), "");
        std::string fired;
        for (int call = 0; call < 8; ++call) {
            const int result = CallDevNum();
            fired += result == 0 ? '.' : static_cast<char>('0' + result);
        }
        EXPECT_EQ(fired, wanted) << faults;
    }
    EXPECT_FALSE(control::InjectFault({"drvNothing", {}, {}, 1}));
}

}  // namespace
}  // namespace orla::emulation
