#include "profiling/config/json_parser.h"

#include <gmock/gmock.h>

#include <cstring>

#include "hdc/test_support.h"
#include "profiling/config/utils_test_support.h"

namespace Tracelets::Parser {
namespace {

using orla::test::LogCapture;
using testing::ElementsAre;
using Getter = uint32_t (JsonParser::*)(uint32_t) const;

// The bounds of a range are taken. What is next to them is not, when `words` say how the log
// names the range; else there is none.
struct RangeCase {
    const char* block;
    const char* entry;
    Getter get;
    uint32_t id;
    uint32_t min;
    uint32_t max;
    const char* words;

    uint32_t Read(uint32_t value) const {
        JsonParser parser;
        parser.Load(std::string(block) + entry + std::to_string(value) + "}]}}", "");
        return (parser.*get)(id);
    }
};

TEST(JsonParser, NumbersAreTakenWithinTheirRanges) {
    using P = JsonParser;
    const char* const channels = R"({"device": {"channels": [{"channel": )";
    const char* const modules = R"({"swstack": {"modules": [{"module": )";
    const RangeCase cases[] = {
        {channels, R"("HBM", "peroid": )", &P::GetChannelPeriod, 1, 1, 1000, "peroid of Channel 1"},
        {channels, R"("HBM", "channel_buffer_size": )", &P::GetChannelBufSize, 1, 0x100000,
         0x400000, "channel buffer size of Channel 1"},
        {channels, R"("HBM", "driver_buffer_size": )", &P::GetDriverBufSize, 1, 1, ~0u, ""},
        {channels, R"("HBM", "threshold": )", &P::GetChannelThreshold, 1, 5, 96, ""},
        {channels, R"("HWTS_LOG", "threshold": )", &P::GetChannelThreshold, 45, 10, 95,
         "threshold of Channel 45"},
        {channels, R"("AIV_HWTS_LOG", "threshold": )", &P::GetChannelThreshold, 48, 10, 95,
         "threshold of Channel 48"},
        {modules, R"("COLLNET", "report_buffer_len": )", &P::GetReportBufLen, 1, 8192, 32768,
         "reporter buffer len of Module 1"},
        {modules, R"("FRAMEWORK", "report_buffer_len": )", &P::GetReportBufLen, 3, 0x20000, 0x80000,
         "reporter buffer len of Module 3"},
    };
    for (const RangeCase& c : cases) {
        LogCapture log;
        EXPECT_EQ(c.min, c.Read(c.min)) << c.entry;
        EXPECT_EQ(c.max, c.Read(c.max)) << c.entry;
        EXPECT_THAT(log.Take(), ElementsAre());
        if (*c.words != '\0') {
            EXPECT_EQ(0u, c.Read(c.min - 1) | c.Read(c.max + 1)) << c.entry;
            const std::string line = "W The " + std::string(c.words) + " is out of range";
            EXPECT_THAT(log.Take(), ElementsAre(line, line));
        }
    }
}

TEST(JsonParser, OnlyOffIsOffAndTheFirstEntryCounts) {
    LogCapture log;
    JsonParser parser;
    parser.Load(R"({"profiler": "off", "duration": 7,
        "swstack": {"uploader_queue_len": 8, "modules": [
            {"module": "DRIVER"}, {"module": "FRAMEWORK", "prof_switch": "off"},
            {"module": "FRAMEWORK", "prof_switch": "on", "reporter_switch": "off"}]},
        "device": {"poll_peroid": 9, "channels": [
            {"channel": "hbm", "prof_switch": "off"}, {"prof_switch": "off"},
            {"channel": "DDR", "prof_switch": "OFF", "reporter_switch": "off"}]}})",
                "");
    EXPECT_THAT(log.Take(), ElementsAre("E Module Id is invalid.", "E Channel Id is invalid.",
                                        "E Channel Id is invalid."));
    EXPECT_FALSE(parser.GetProfSwitch());
    EXPECT_EQ(789u, parser.GetDuration() * 100 + parser.GetUploaderQueueLen() * 10 +
                        parser.GetPollPeriod());
    EXPECT_FALSE(parser.GetModuleProfSwitch(45)) << "45 is what others call module 3";
    EXPECT_TRUE(parser.GetModuleProfSwitch(3));
    EXPECT_TRUE(parser.GetModuleReporterSwitch(3));
    EXPECT_TRUE(parser.GetChannelProfSwitch(7));
    EXPECT_FALSE(parser.GetChannelReporterSwitch(7));
}

TEST(JsonParser, ABadValueCostsThatValueOnly) {
    const std::string tooBig = "number must fit in 32 bits without a sign";
    const std::pair<const char*, std::string> cases[] = {
        {R"("peroid": "10")", "type must be number, but is string"},
        {R"("peroid": true)", "type must be number, but is boolean"},
        {R"("peroid": -1)", tooBig},
        {R"("threshold": 1e300)", tooBig},
        {R"("threshold": 4294967296)", tooBig},
        {R"("prof_switch": null)", "type must be string, but is null"},
    };
    for (const auto& [member, reason] : cases) {
        LogCapture log;
        JsonParser parser;
        parser.Load(R"({"swstack": [], "device": {"channels": [5, )"
                    R"({"channel": "TS_FW", "driver_buffer_size": 7, )" +
                        std::string(member) + "}]}}",
                    "");
        const std::string key(member + 1, std::strchr(member + 1, '"'));
        const auto line = [](const std::string& name, const std::string& why) {
            return "E \"" + name + "\" in config file has exception, which is \"" + why + "\"";
        };
        EXPECT_THAT(log.Take(), ElementsAre(line("swstack", "type must be object, but is array"),
                                            line("0", "type must be object, but is number"),
                                            line(key, reason)));
        EXPECT_EQ(7u, parser.GetDriverBufSize(44) + parser.GetChannelPeriod(44) +
                          parser.GetChannelThreshold(44));
        EXPECT_TRUE(parser.GetChannelProfSwitch(44));
    }
}

TEST(JsonParser, ABadFileMeansDefaultsAndIsReadOnce) {
    std::string nested;
    for (int i = 0; i < 100000; ++i) {
        nested += R"({"device":[)";
    }
    const std::string good = R"({"device": {"channels": [{"channel": "HBM", "peroid": 5}]}})";
    const orla::test::TempDir root;
    for (const std::string& text : {good.substr(1), nested, good + std::string(1 << 20, ' ')}) {
        LogCapture log;
        JsonParser parser;
        orla::test::WriteFile(root / "prof.json", text);
        ASSERT_TRUE(orla::test::RunOnSmallStack([&] { parser.Init(root / "prof.json"); }));
        orla::test::WriteFile(root / "prof.json", good);
        parser.Init(root / "prof.json");
        EXPECT_THAT(log.Take(), ElementsAre("W Json file config load fail, path:prof.json"));
        EXPECT_EQ(0u, parser.GetChannelPeriod(1));
        EXPECT_TRUE(parser.GetProfSwitch() && parser.GetChannelReporterSwitch(1));
    }
    LogCapture log;
    JsonParser missing;
    missing.Init(root / "none.json");
    EXPECT_THAT(log.Take(), ElementsAre("W Json file path cannot open, path: none.json"));
    EXPECT_TRUE(!missing.GetProfSwitch() && missing.GetChannelReporterSwitch(1));
}

}  // namespace
}  // namespace Tracelets::Parser
