#include "profiling/config/config_manager.h"

#include <gmock/gmock.h>

#include "profiling/config/device_test_support.h"
#include "profiling/config/profile_params.h"

namespace Analysis::Nedra::Common::Config {
namespace {

using namespace orla::device_test;
using testing::ElementsAre;
using Texts = std::vector<std::string>;
using ConfigManagerTest = orla::device_test::DeviceTest;

TEST_F(ConfigManagerTest, TellsTheChipFromTheDriversWord) {
    using Row = std::tuple<int64_t, uint32_t, const char*, const char*, bool>;
    for (const auto& [typeVersion, type, frequency, aicore, llc] :
         {Row{0x0000, 0, "19.2", "680", false}, Row{0x0105, 1, "100", "800", true},
          Row{0x0204, 2, "38.4", "960", true}, Row{0x0205, 7, "48", "1250", true},
          Row{0x0405, 4, "38.4", "1150", true}, Row{0x0500, 5, "50", "800", true},
          Row{0x0300, 3, "", "", false}, Row{0x7F0205, 7, "48", "1250", true},
          Row{-1, 255, "", "", false}}) {
        SCOPED_TRACE(typeVersion);
        const ConfigManager& config = ReadConfig(typeVersion);
        EXPECT_EQ(config.GetPlatformType(), type);
        EXPECT_EQ(config.GetFrequency(), frequency);
        EXPECT_EQ(config.GetAicoreFrequency(), aicore);
        EXPECT_EQ(config.IsDriverSupportLlc(), llc);
    }
}

TEST_F(ConfigManagerTest, ADriverThatCannotSayLeavesADefinedChip) {
    ConfigManager& config = ReadConfig(0x0500);
    FailAlways("halGetDeviceInfo", 65534);
    config.Init();
    EXPECT_EQ(config.GetChipIdStr(), "5") << "asked twice";
    config.Uninit();
    config.Init();
    EXPECT_EQ(config.GetPlatformType(), PlatformType::HELPER_DEVICE_TYPE);
    EXPECT_EQ(config.GetAicoreFrequency(), "960");

    FailAlways("halGetDeviceInfo", 9);
    config.Uninit();
    config.Init();
    EXPECT_EQ(config.GetChipIdStr(), "0");
    EXPECT_EQ(config.GetFrequency(), "");
    orla::control::ClearFaults();
    config.Init();
    EXPECT_EQ(config.GetPlatformType(), 5U) << "a failed Init must not count as done";
}

TEST_F(ConfigManagerTest, MetricsDependOnThePlatform) {
    const Texts old = {"PipelineExecuteUtilization", "L2Cache"};
    const Texts newer = {"PipelineExecuteUtilization"};
    using Row = std::pair<int, Texts>;
    for (const auto& [type, expected] : {Row{0, old}, Row{1, old}, Row{4, old}, Row{2, newer},
                                         Row{3, newer}, Row{5, newer}, Row{7, {}}}) {
        const ConfigManager& config = ReadConfig(type << 8);
        Texts unsupported;
        config.GetUnsupportedMetrics(unsupported);
        EXPECT_EQ(unsupported, expected) << type;
        std::string metric = "PipeUtilization";
        config.MetricsAdjust(metric);
        EXPECT_EQ(metric, type == 5 ? "PipeUtilizationExct" : "PipeUtilization") << type;
    }
}

TEST_F(ConfigManagerTest, OnlyMetricsOfThePlatformHaveEvents) {
    const ConfigManager& config = ReadConfig(0x0400);
    const std::string x70(70, 'x');
    std::string events = "kept";
    for (const std::string& metric : Texts{"", "L2Cache", "memory", x70, x70 + "x"}) {
        EXPECT_EQ(config.GetAicoreEvents(metric, events), -1) << metric;
    }
    EXPECT_EQ(events, "kept");
    EXPECT_THAT(log.Take(),
                ElementsAre("E Current platform is not support L2Cache metrics type",
                            "E Invalid metrics type memory.", "E Invalid metrics type " + x70 + ".",
                            "E The parameter length exceeds the specified value of 70."));
    EXPECT_EQ(ReadConfig(0x0205).GetAicoreEvents("PipelineExecuteUtilization", events), 0);
    EXPECT_EQ(events, "0x12c,0x49,0x4a,0x9,0x302,0xc,0xd,0x303");
}

TEST_F(ConfigManagerTest, L2CacheEventsOfThePlatformReplaceTheHosts) {
    using Row = std::tuple<int, const char*, const char*, const char*>;
    for (const auto& [type, wanted, becomes, events] :
         {Row{0, "on", "off", "host's"}, Row{3, "on", "off", "host's"},
          Row{1, "on", "on", "0x5b,0x59,0x5c,0x7d,0x7e,0x71,0x79,0x7c"},
          Row{4, "on", "on", "0x78,0x79,0x77,0x71,0x6a,0x6c,0x74,0x62"},
          Row{7, "on", "on", "0xF6,0xFB,0xFC,0xBF,0x90,0x91,0x9C,0x9D"},
          Row{7, "ON", "off", "host's"}}) {
        const auto params = std::make_shared<analysis::nedra::message::ProfileParams>();
        params->l2CacheTaskProfiling = wanted;
        params->l2CacheTaskProfilingEvents = "host's";
        ReadConfig(type << 8).ChangeL2CacheParams(params);
        EXPECT_EQ(params->l2CacheTaskProfiling, becomes) << type;
        EXPECT_EQ(params->l2CacheTaskProfilingEvents, events) << type;
    }
    EXPECT_EQ(log.Take("W").size(), 2U) << "only a platform without events warns";
}

}  // namespace
}  // namespace Analysis::Nedra::Common::Config
