#include "profiling/config/platform.h"

#include "profiling/config/device_test_support.h"

namespace Analysis::Nedra::Common::Platform {
namespace {

using namespace orla::device_test;
using PlatformTest = orla::device_test::DeviceTest;

Platform& Agent() {
    return Platform::instance();
}

TEST_F(PlatformTest, TheSideIsWhatTheDriverLastSaid) {
    FailAlways("drvGetPlatformInfo", 65534);
    EXPECT_EQ(Agent().Init(), 0);
    EXPECT_FALSE(Agent().PlatformIsDevice()) << "a driver that can't tell";
    orla::control::ClearFaults();
    EXPECT_EQ(Agent().Init(), 0);
    EXPECT_TRUE(Agent().PlatformIsDevice());
    FailAlways("drvGetPlatformInfo", 1);
    EXPECT_EQ(Agent().Init(), -1);
    EXPECT_TRUE(Agent().PlatformIsDevice()) << "a failure keeps the side";
    UseScenario(R"({"platform_info": 1})");
    EXPECT_EQ(Agent().Init(), 0);
    EXPECT_FALSE(Agent().PlatformIsDevice());
}

TEST_F(PlatformTest, OnlyANewDriverIsAskedForFrequencies) {
    const std::string driver = R"({"devices": [{"logical": 0, "host_freq_khz": 19200},
        {"logical": 3, "device_freq_khz": 48000}], "api_version": )";
    UseScenario(driver + std::to_string(0x71904) + "}");
    Agent().UpdatePlatformInfo();
    EXPECT_FALSE(Agent().IsHostFreqValid());
    EXPECT_EQ(Agent().GetDeviceFreq(3, "38.4"), "38.4");

    UseScenario(driver + std::to_string(0x71905) + "}");
    Agent().UpdatePlatformInfo();
    EXPECT_TRUE(Agent().IsHostFreqValid());
    EXPECT_EQ(Agent().GetHostFreq(), "19.200001");
    EXPECT_EQ(Agent().GetDeviceFreq(3, "38.4"), "48.000000");
    EXPECT_EQ(Agent().GetDeviceFreq(9, "38.4"), "38.4") << "no such device";
}

}  // namespace
}  // namespace Analysis::Nedra::Common::Platform
