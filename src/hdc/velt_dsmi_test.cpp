#include "hdc/velt_dsmi.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hdc/test_support.h"

namespace {

// Devices with logical ids 0, 1, … and the physical ids 1000, 1001, …
std::string Scenario(int devices) {
    std::string text = "{\"devices\": [";
    for (int i = 0; i < devices; ++i) {
        text += (i > 0 ? ", " : "") + std::string("{\"logical\": ") + std::to_string(i) +
                ", \"physical\": " + std::to_string(1000 + i) + "}";
    }
    return text + "]}";
}

class DeviceNumbers : public testing::Test {
protected:
    void SetUp() override { orla::control::Reset(); }
    void TearDown() override { orla::control::Reset(); }

    uint32_t count_ = 99;
    std::vector<uint32_t> list_ = std::vector<uint32_t>(kMaxDevices, 0);
};

TEST_F(DeviceNumbers, OnlyIdsThatTheDriverGaveAreTranslated) {
    const struct {
        int devices;
        uint32_t logical;
        uint32_t physical;
    } cases[] = {{0, 0, 0}, {1, 1, 1}, {64, 64, 64}, {70, 70, 64}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.devices);
        ASSERT_EQ("", orla::control::LoadScenario(Scenario(c.devices)));
        EXPECT_EQ(0, IdeGetDevList(&count_, list_.data(), kMaxDevices));
        EXPECT_EQ(c.logical, count_);
        EXPECT_EQ(0, IdeGetPhyDevList(&count_, list_.data(), kMaxDevices));
        EXPECT_EQ(c.physical, count_);
        for (uint32_t i = 0; i < c.physical; ++i) {
            EXPECT_EQ(1000 + i, list_[i]);
        }
    }
}

TEST_F(DeviceNumbers, PhysicalIdsAreFoundAmongDevicesThatAreUp) {
    ASSERT_EQ("", orla::control::LoadScenario(Scenario(3)));
    uint32_t logical = 77;
    EXPECT_EQ(0, IdeGetLogIdByPhyId(1002, &logical));
    EXPECT_EQ(2u, logical);
    logical = 77;
    EXPECT_EQ(-1, IdeGetLogIdByPhyId(0, &logical)) << "an entry that is no id was taken for one";
    ASSERT_TRUE(orla::control::SetDeviceState(2, orla::control::DeviceState::kDown));
    EXPECT_EQ(-1, IdeGetLogIdByPhyId(1002, &logical));
    ASSERT_EQ("", orla::control::LoadScenario(Scenario(0)));
    EXPECT_EQ(-1, IdeGetLogIdByPhyId(1000, &logical));
    EXPECT_EQ(-1, IdeGetLogIdByPhyId(1000, nullptr));
    EXPECT_EQ(77u, logical);
}

TEST_F(DeviceNumbers, BadListsNeverReachTheDriver) {
    for (const uint32_t length : {kMaxDevices - 1, kMaxDevices + 1, 0u}) {
        EXPECT_EQ(-1, IdeGetDevList(&count_, list_.data(), length));
        EXPECT_EQ(-1, IdeGetPhyDevList(&count_, list_.data(), length));
    }
    EXPECT_EQ(-1, IdeGetDevList(nullptr, list_.data(), kMaxDevices));
    EXPECT_EQ(0u, orla::control::CallCount("drvGetDevNum"));
}

TEST_F(DeviceNumbers, DriverFailuresAreFailures) {
    for (const char* call : {"drvGetDevNum", "drvGetDeviceLocalIDs", "drvDeviceGetPhyIdByIndex"}) {
        SCOPED_TRACE(call);
        orla::test::InjectFault(call, 5);
        EXPECT_EQ(-1, IdeGetPhyDevList(&count_, list_.data(), kMaxDevices));
        orla::test::InjectFault(call, 5);
        uint32_t logical = 0;
        EXPECT_EQ(-1, IdeGetLogIdByPhyId(0, &logical));
    }
}

}  // namespace
