// What the tests of the device facts share: a device in one line, a driver that fails.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "hdc/test_support.h"
#include "platform/emulation/control.h"
#include "profiling/config/config_manager.h"

namespace orla::device_test {

inline void UseScenario(const std::string& json) {
    ASSERT_EQ(control::LoadScenario(json), "");
}

// What one device, logical 0, answers to (module, info): {"module": 0, "info": 1, "value": 5}, …
inline void UseAnswers(const std::string& answers) {
    UseScenario(R"({"devices": [{"logical": 0, "info": [)" + answers + "]}]}");
}
inline std::string Info(int module, int info, const std::string& answer) {
    return R"({"module": )" + std::to_string(module) + R"(, "info": )" + std::to_string(info) +
           ", " + answer + "}";
}

// The configuration manager's view after it has read this type and version of the chip.
inline auto& ReadConfig(int64_t typeVersion) {
    UseAnswers(Info(0, 1, R"("value": )" + std::to_string(typeVersion)));
    auto& config = Analysis::Nedra::Common::Config::ConfigManager::instance();
    config.Uninit();
    config.Init();
    return config;
}

inline void FailAlways(const std::string& call, int result) {
    control::ClearFaults();
    ASSERT_TRUE(control::InjectFault({call, {}, {}, result, 0, control::Fault::kForever, 0}));
}

struct FreshPlatform {
    FreshPlatform() { control::Reset(); }
    ~FreshPlatform() { control::Reset(); }
};

struct DeviceTest : testing::Test {
    FreshPlatform platform;  // before the capture, which a reset would end
    test::LogCapture log;
};

}  // namespace orla::device_test
