#include "profiling/config/json_parser.h"

#include <gmock/gmock.h>

#include "hdc/test_support.h"
#include "profiling/config/utils_test_support.h"

namespace Tracelets::Parser {
namespace {

using orla::test::LogCapture;
using testing::ElementsAre;
using testing::ElementsAreArray;
using Texts = std::vector<std::string>;

constexpr uint32_t kAiCore = 43;
constexpr uint32_t kHwtsLog = 45;
constexpr uint32_t kAivHwtsLog = 48;

std::string Channels(const std::string& entries) {
    return R"({"device": {"channels": [)" + entries + "]}}";
}
std::string Modules(const std::string& entries) {
    return R"({"swstack": {"modules": [)" + entries + "]}}";
}

void ExpectDefaults(const JsonParser& parser) {
    for (uint32_t id = 0; id < 200; ++id) {
        EXPECT_TRUE(parser.GetChannelProfSwitch(id) && parser.GetChannelReporterSwitch(id) &&
                    parser.GetModuleProfSwitch(id) && parser.GetModuleReporterSwitch(id))
            << id;
        EXPECT_EQ(0u, parser.GetChannelBufSize(id) | parser.GetDriverBufSize(id) |
                          parser.GetChannelPeriod(id) | parser.GetChannelThreshold(id) |
                          parser.GetReportBufLen(id))
            << id;
    }
    EXPECT_EQ(0u, parser.GetUploaderQueueLen() | parser.GetPollPeriod() | parser.GetDuration());
}

TEST(JsonParser, NumbersAreTakenWithinTheirRanges) {
    using Getter = uint32_t (JsonParser::*)(uint32_t) const;
    const struct {
        uint32_t id;
        const char* name;
        const char* key;
        Getter get;
        uint32_t given;
        uint32_t taken;
        const char* warning;
    } cases[] = {
        {kAiCore, "AI_CORE", "peroid", &JsonParser::GetChannelPeriod, 1, 1, ""},
        {kAiCore, "AI_CORE", "peroid", &JsonParser::GetChannelPeriod, 1000, 1000, ""},
        {kAiCore, "AI_CORE", "peroid", &JsonParser::GetChannelPeriod, 0, 0,
         "W The peroid of Channel 43 is out of range"},
        {kAiCore, "AI_CORE", "peroid", &JsonParser::GetChannelPeriod, 1001, 0,
         "W The peroid of Channel 43 is out of range"},
        {1, "HBM", "channel_buffer_size", &JsonParser::GetChannelBufSize, 0xFFFFF, 0,
         "W The channel buffer size of Channel 1 is out of range"},
        {1, "HBM", "channel_buffer_size", &JsonParser::GetChannelBufSize, 0x100000, 0x100000, ""},
        {1, "HBM", "channel_buffer_size", &JsonParser::GetChannelBufSize, 0x400000, 0x400000, ""},
        {1, "HBM", "channel_buffer_size", &JsonParser::GetChannelBufSize, 0x400001, 0,
         "W The channel buffer size of Channel 1 is out of range"},
        {132, "LP_FREQ_CONV", "driver_buffer_size", &JsonParser::GetDriverBufSize, UINT32_MAX,
         UINT32_MAX, ""},
        {kAiCore, "AI_CORE", "threshold", &JsonParser::GetChannelThreshold, 5, 5, ""},
        {kHwtsLog, "HWTS_LOG", "threshold", &JsonParser::GetChannelThreshold, 5, 0,
         "W The threshold of Channel 45 is out of range"},
        {kHwtsLog, "HWTS_LOG", "threshold", &JsonParser::GetChannelThreshold, 10, 10, ""},
        {kAivHwtsLog, "AIV_HWTS_LOG", "threshold", &JsonParser::GetChannelThreshold, 95, 95, ""},
        {kAivHwtsLog, "AIV_HWTS_LOG", "threshold", &JsonParser::GetChannelThreshold, 96, 0,
         "W The threshold of Channel 48 is out of range"},
        {1, "COLLNET", "report_buffer_len", &JsonParser::GetReportBufLen, 8192, 8192, ""},
        {5, "TRACELET", "report_buffer_len", &JsonParser::GetReportBufLen, 32768, 32768, ""},
        {1, "COLLNET", "report_buffer_len", &JsonParser::GetReportBufLen, 0x20000, 0,
         "W The reporter buffer len of Module 1 is out of range"},
        {3, "FRAMEWORK", "report_buffer_len", &JsonParser::GetReportBufLen, 0x20000, 0x20000, ""},
        {3, "FRAMEWORK", "report_buffer_len", &JsonParser::GetReportBufLen, 0x80000, 0x80000, ""},
        {3, "FRAMEWORK", "report_buffer_len", &JsonParser::GetReportBufLen, 40000, 0,
         "W The reporter buffer len of Module 3 is out of range"},
    };
    for (const auto& c : cases) {
        const bool isModule = c.get == &JsonParser::GetReportBufLen;
        const std::string entry = std::string(R"({")") + (isModule ? "module" : "channel") +
                                  R"(": ")" + c.name + R"(", ")" + c.key +
                                  "\": " + std::to_string(c.given) + "}";
        LogCapture log;
        JsonParser parser;
        parser.Load(isModule ? Modules(entry) : Channels(entry), "/etc/prof.json");
        EXPECT_EQ(c.taken, (parser.*c.get)(c.id)) << entry;
        EXPECT_EQ(*c.warning == '\0' ? Texts{} : Texts{c.warning}, log.Take()) << entry;
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
            {"channel": "DDR", "prof_switch": "OFF", "reporter_switch": "off"},
            {"channel": "NPU_DEV_MEM", "prof_switch": "off", "reporter_switch": "maybe"}]}})",
                "prof.json");
    EXPECT_THAT(log.Take(), ElementsAre("E Module Id is invalid.", "E Channel Id is invalid.",
                                        "E Channel Id is invalid."));
    EXPECT_FALSE(parser.GetProfSwitch());
    EXPECT_EQ(7u, parser.GetDuration());
    EXPECT_EQ(8u, parser.GetUploaderQueueLen());
    EXPECT_EQ(9u, parser.GetPollPeriod());
    EXPECT_FALSE(parser.GetModuleProfSwitch(45)) << "45 is what others call module 3";
    EXPECT_TRUE(parser.GetModuleProfSwitch(48) && parser.GetModuleProfSwitch(7) &&
                parser.GetModuleProfSwitch(3));
    EXPECT_TRUE(parser.GetModuleReporterSwitch(3));
    EXPECT_TRUE(parser.GetChannelProfSwitch(7));
    EXPECT_FALSE(parser.GetChannelReporterSwitch(7));
    EXPECT_FALSE(parser.GetChannelProfSwitch(131));
    EXPECT_TRUE(parser.GetChannelReporterSwitch(131));
}

TEST(JsonParser, ABadValueCostsThatValueOnly) {
    const std::string channel = R"({"channel": "TS_FW", "driver_buffer_size": 5, )";
    const struct {
        std::string text;
        Texts lines;
    } cases[] = {
        {Channels(channel + R"("peroid": "10"})"),
         {R"(E "peroid" in config file has exception, which is "type must be number, but is string")"}},
        {Channels(channel + R"("peroid": true})"),
         {R"(E "peroid" in config file has exception, which is "type must be number, but is boolean")"}},
        {Channels(channel + R"("peroid": -1})"),
         {R"(E "peroid" in config file has exception, which is "number must fit in 32 bits without a sign")"}},
        {Channels(channel + R"("threshold": 1e300})"),
         {R"(E "threshold" in config file has exception, which is "number must fit in 32 bits without a sign")"}},
        {Channels(channel + R"("threshold": 4294967296})"),
         {R"(E "threshold" in config file has exception, which is "number must fit in 32 bits without a sign")"}},
        {Channels(channel + R"("prof_switch": null, "reporter_switch": 0})"),
         {R"(E "prof_switch" in config file has exception, which is "type must be string, but is null")",
          R"(E "reporter_switch" in config file has exception, which is "type must be string, but is number")"}},
        {Channels(R"({"channel": 44}, 5, )" + channel + R"("threshold": 44})"),
         {R"(E "channel" in config file has exception, which is "type must be string, but is number")",
          "E Channel Id is invalid.",
          R"(E "1" in config file has exception, which is "type must be object, but is number")"}},
        {R"({"swstack": [], "device": {"channels": [)" + channel + R"("threshold": 44}]}})",
         {R"(E "swstack" in config file has exception, which is "type must be object, but is array")"}},
    };
    for (const auto& c : cases) {
        LogCapture log;
        JsonParser parser;
        parser.Load(c.text, "prof.json");
        EXPECT_THAT(log.Take(), ElementsAreArray(c.lines)) << c.text;
        EXPECT_EQ(5u, parser.GetDriverBufSize(44)) << c.text;
        EXPECT_EQ(0u, parser.GetChannelPeriod(44)) << c.text;
        EXPECT_TRUE(parser.GetChannelProfSwitch(44) && parser.GetChannelReporterSwitch(44));
    }
}

TEST(JsonParser, ABadFileMeansDefaults) {
    std::string nested;
    for (int i = 0; i < 100000; ++i) {
        nested += R"({"device":[)";
    }
    const std::string loadFailed = "W Json file config load fail, path:prof.json";
    const struct {
        std::string text;
        std::string line;
    } cases[] = {
        {"", loadFailed},
        {R"({"device": {"channels": [{"channel": "HBM", "peroid": 5}]})", loadFailed},
        {nested, loadFailed},
        {Channels(R"({"channel": "HBM", "peroid": 5})") + std::string(1024 * 1024, ' '),
         loadFailed},
        {"[1]",
         R"(E unknown type in config file has exception, which is "type must be object, but is array")"},
    };
    const orla::test::TempDir root;
    for (const auto& c : cases) {
        orla::test::WriteFile(root / "prof.json", c.text);
        LogCapture log;
        JsonParser parser;
        ASSERT_TRUE(orla::test::RunOnSmallStack([&] { parser.Init(root / "prof.json"); }));
        EXPECT_THAT(log.Take(), ElementsAre(c.line)) << c.text.substr(0, 80);
        EXPECT_TRUE(parser.GetProfSwitch());
        ExpectDefaults(parser);
    }
}

TEST(JsonParser, ReadsOnlyTheFirstFile) {
    const orla::test::TempDir root;
    orla::test::WriteFile(root / "prof.json", Channels(R"({"channel": "HBM", "peroid": 5})"));
    LogCapture log;
    JsonParser missing;
    ExpectDefaults(missing);
    for (const std::string& path : {root / "none.json", root / "prof.json"}) {
        missing.Init(path);
    }
    EXPECT_THAT(log.Take(), ElementsAre("W Json file path cannot open, path: none.json"));
    EXPECT_FALSE(missing.GetProfSwitch());
    ExpectDefaults(missing);
    JsonParser found;
    found.Init(root / "prof.json");
    EXPECT_EQ(5u, found.GetChannelPeriod(1));
}

}  // namespace
}  // namespace Tracelets::Parser
