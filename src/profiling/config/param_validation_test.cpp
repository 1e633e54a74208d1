#include "profiling/config/param_validation.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "hdc/test_support.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::validation {
namespace {

using message::ProfileParams;
using Texts = ParamValidation::Texts;

const ParamValidation& Checks() {
    return ParamValidation::instance();
}

std::string Joined(const Texts& lines) {
    std::string all;
    for (const std::string& line : lines) {
        all += (all.empty() ? "" : "; ") + line;
    }
    return all;
}

// Every check as a question about one text: itself, a number, or a list separated by "|".
using Question = std::function<bool(const std::string&)>;

Question Text(bool (ParamValidation::*check)(const std::string&) const) {
    return [check](const std::string& text) { return (Checks().*check)(text); };
}
template <typename Number>
Question Of(bool (ParamValidation::*check)(Number) const) {
    return [check](const std::string& text) {
        return (Checks().*check)(static_cast<Number>(std::stoll(text)));
    };
}
Question List(bool (ParamValidation::*check)(const Texts&) const) {
    return [check](const std::string& text) {
        return (Checks().*check)(utils::Utils::Split(text, false, "", "|"));
    };
}

// A text that is refused, and the lines that say why: warnings and errors.
struct Refused {
    std::string text;
    std::string lines;
};

void Expect(const Question& check, const Texts& good, const Texts& silent,
            const std::vector<Refused>& refused = {}) {
    std::vector<Refused> all = refused;
    for (const std::string& text : silent) {
        all.push_back({text, ""});
    }
    orla::test::LogCapture log;
    for (const std::string& text : good) {
        EXPECT_TRUE(check(text)) << text;
        EXPECT_EQ("", Joined(log.Take("EW"))) << text;
    }
    for (const Refused& r : all) {
        EXPECT_FALSE(check(r.text)) << r.text;
        EXPECT_EQ(r.lines, Joined(log.Take("EW"))) << r.text;
    }
}

std::string Times(int count, const std::string& event) {
    std::string list = event;
    while (--count > 0) {
        list += "|" + event;
    }
    return list;
}

using V = ParamValidation;

TEST(ParamValidation, Lists) {
    const std::string range = "E ai core event out of range, which should be in 1-1294(0x1-0x50E)";
    const Question cores = [](const std::string& text) {
        std::vector<int> values;
        for (const std::string& value : utils::Utils::Split(text, false, "", "|")) {
            values.push_back(std::stoi(value));
        }
        return Checks().CheckAiCoreEventCoresIsValid(values);
    };
    const Question events = [](const std::string& e) { return Checks().CheckEventsText(e) == 0; };
    Expect(List(&V::CheckCtrlCpuEventIsValid),
           {"", "0x8|r0X11", "0x11:u|cpu/0x8_/", Times(8, "0x1")}, {"0x8|11"},
           {{Times(9, "0x1"), "E cpu events size(9) is bigger than 8"}});
    for (const std::string e : {"0x1 --kill", "0x1;id", "0x1}", "0x1\n", "0x1,0x2", "0x1\xe4"}) {
        Expect(List(&V::CheckCtrlCpuEventIsValid), {}, {}, {{e, "E cpu event is invalid." + e}});
    }
    Expect(List(&V::CheckAiCoreEventsIsValid), {"1|0x50E| 0x2", Times(8, "0x1")}, {},
           {{Times(9, "0x1"), "E ai core events size(9) is bigger than 8"}});
    for (const char* e : {"0x50f", "0x0", "-1", "memory", "0x10;", "0x10000000000000001"}) {
        Expect(List(&V::CheckAiCoreEventsIsValid), {}, {}, {{e, range}});
    }
    Expect(cores, {Times(50, "0")}, {"0|-1"},
           {{Times(51, "0"), "E ai core events cores size(51) is bigger than 50"}});
    Expect(List(&V::CheckDdrEventsIsValid), {"read|write", "any|master_id"}, {"read|Write"},
           {{Times(9, "master_id"), "E ddr events size(9) is bigger than 8"}});
    Expect(List(&V::CheckHbmEventsIsValid), {Times(8, "read")}, {"master_id"},
           {{Times(9, "write"), "E hbm events size(9) is bigger than 8"}});
    Expect(List(&V::CheckL2CacheEventsValid), {"0x59|  0xBF ", Times(8, "0x59")}, {},
           {{"0x59|0x5A", "E l2Cacheevent:0x5a is invalid"},
            {Times(9, "0x59"), "E L2Cache events size(9) is bigger than 8"}});
    Expect(Text(&V::CheckLlcEventsIsValid), {"", "read_0/x,WRITE9:u"}, {},
           {{"read;ls", "E llc events is invalid.read;ls"},
            {"read, write", "E llc events is invalid.read, write"},
            {"\xe4", "E llc events is invalid.\xe4"}});
    Expect(events, {"", "1,2,3,4,5,6,7,8,"}, {},
           {{"1,2,3,4,5,6,7,8,9", "E events Size is incorrect. 1,2,3,4,5,6,7,8,9"}});
    Expect(Text(&V::CheckStarsAcsqIsValid), {"", "dsa,ctrl_task"}, {},
           {{"dsa,,vdec", "E Invalid stars acsq params."}});
}

TEST(ParamValidation, NumbersAndWords) {
    const Question interval = [](const std::string& number) {
        return Checks().CheckIntervalIsValid(std::stoi(number), "llc");
    };
    const Question metric = [](const std::string& name) {
        return Checks().CheckAicoreMetricsIsValid(name, {"L2Cache", "Odd"});
    };
    const Question onOff = [](const std::string& v) { return Checks().CheckParamOnOff("--x", v); };
    const std::string prefix = "E [Utils::CheckStringIsNonNegativeIntNum]numberStr";
    const std::string longest(70, 'm');
    Expect(
        interval, {"1", "1296000000"}, {},
        {{"0", "E invalid llc interval: 0"}, {"1296000001", "E invalid llc interval: 1296000001"}});
    Expect(Of(&V::CheckSysPeriodIsValid), {"1", "2592000"}, {},
           {{"0", "E Invalid --sys-period: 0"}, {"2592001", "E Invalid --sys-period: 2592001"}});
    Expect(Of(&V::CheckInstrFreqIsValid), {"300", "30000"}, {},
           {{"299", "E instr_profiling_freq 299 is invalid (300~30000)."},
            {"30001", "E instr_profiling_freq 30001 is invalid (300~30000)."}});
    Expect(Of(&V::CheckHostSysPidIsValid), {std::to_string(getpid())}, {},
           {{"-1", "E Invalid --host-sys-pid: -1"},
            {"2147483647", "E Invalid --host-sys-pid: 2147483647"}});
    Expect(Text(&V::CheckDeviceIdIsValid), {"0", "63"}, {},
           {{"64", "W devId(64) is over limited."},
            {"-1", prefix + "(-1) is not a number; E devId(-1) is not valid."},
            {"2147483648", prefix + "(2147483648) is over than 2147483647; "
                                    "E devId(2147483648) is not valid."},
            {"", "E devId() is not valid."}});
    Expect(metric, {"", "PipelineExecuteUtilization"}, {},
           {{"L2Cache", "E Current platform is not support L2Cache metrics type"},
            {longest, "E The aic_metrics[" + longest + "] of input config is invalid"},
            {longest + "m", "E The parameter length exceeds the specified value of 70."}});
    Expect(Text(&V::CheckSwitchIsValid), {"", "on", "off"}, {"ON"});
    Expect(onOff, {"", "on", "off"}, {},
           {{"On", "E Argument --x: invalid value: On. Please input 'on' or 'off'."}});
    Expect(Text(&V::CheckProfilingMode), {"", "def_mode", "system-wide"}, {"System-wide"});
    Expect(Text(&V::CheckJobIdIsValid), {"Job-09", std::string(512, 'j')},
           {std::string(513, 'j'), "", "../a", "a_b", std::string("a\0b", 3)});
    Expect(Text(&V::CheckAppParamIsValid), {"--arm", "a->b"}, {"--arm x", "a > b", "xpoweroffx"});
    Expect(Text(&V::CheckAppNameIsValid), {"a_b-C.9"}, {},
           {{"a/b", "E appName is invalid.a/b"}, {"", "E appName is empty"}});
    Expect(Text(&V::CheckTagIsValid), {"a_9"}, {},
           {{"a-9", "E tag is invalid.a-9"}, {"", "E tag is empty"}});
    Expect(Text(&V::CheckHostSysOptionsIsValid), {"cpu", "osrt"}, {""},
           {{"gpu", "E hostSysOptions[gpu] is invalid"}});
}

TEST(ParamValidation, DeviceListNamesEveryBadDevice) {
    const Question devices = [](const std::string& list) {
        return Checks().CheckDeviceList("app", list, "");
    };
    Expect(devices, {"", "all", "0,63"}, {},
           {{"64,1,99",
             "W devId(64) is over limited.; E device:64 is not valid!; "
             "W devId(99) is over limited.; E device:99 is not valid!"}});
    EXPECT_FALSE(Checks().CheckDeviceList("", "", ""));
    EXPECT_TRUE(Checks().CheckDeviceList("", "", "cpu"));
}

TEST(ParamValidation, StorageLimit) {
    const auto params = std::make_shared<ProfileParams>();
    const Question limit = [&](const std::string& text) {
        params->storageLimit = text;
        const bool result = Checks().CheckStorageLimit(params);
        EXPECT_EQ(text == "199MB" ? "200MB" : text, params->storageLimit);
        return result;
    };
    const std::string line = "E storage_limit:";
    Expect(limit, {"", "200MB", "4294967295MB"}, {},
           {{"MB", line + "MB, length is less than 3"},
            {"200mb", line + "200mb, not end with MB"},
            {"-200MB", line + "-200MB, invalid numbers"},
            {"10000000000MB", line + "10000000000MB, valid range is 200~4294967296"},
            {"199MB", line + "199MB, min value is 200MB; W auto adjust storage_limit to:200MB"},
            {"4294967296MB", line + "4294967296MB, max value is 4294967295MB"}});
}

TEST(ParamValidation, EveryIntervalAndSwitchOfARecordIsRead) {
    const std::pair<nlohmann::json, const char*> cases[] = {
        {0,
         "aicore_sampling_interval aiv_sampling_interval cpu_sampling_interval ddr_interval "
         "dvpp_sampling_interval fabriclinkInterval hardware_mem_sampling_interval hbmInterval "
         "interconnection_sampling_interval io_sampling_interval llc_interval nicInterval "
         "pcieInterval pid_sampling_interval roceInterval sys_sampling_interval "},
        {"On",
         "aiCtrlCpuProfiling ai_core_metrics ai_core_profiling ai_core_status ai_vector_status "
         "aiv_profiling cpu_profiling ddr_profiling devices dvpp_profiling fabriclinkProfiling "
         "hardware_mem hbmProfiling hwts_log hwts_log1 interconnection_profiling io_profiling "
         "l2CacheTaskProfilingEvents nicProfiling pcieProfiling pid_profiling roceProfiling "
         "sys_profiling tsCpuProfiling ts_cpu_usage ts_fw_training ts_keypoint ts_memcpy "
         "ts_task_track ts_timeline "},
    };
    const auto params = std::make_shared<ProfileParams>();
    ASSERT_TRUE(params->FromString(R"({"devices":"0"})"));
    const auto valid = nlohmann::json::parse(params->ToString());
    for (const auto& [bad, expected] : cases) {
        std::string fields;
        for (const auto& [key, value] : valid.items()) {
            auto changed = valid;
            changed[key] = bad;
            if (value.is_string() == bad.is_string() && params->FromString(changed.dump()) &&
                !Checks().CheckProfilingParams(params, {})) {
                fields += key + " ";
            }
        }
        EXPECT_EQ(expected, fields);
    }
    orla::test::LogCapture log;
    params->fabriclinkInterval = params->roceInterval = -1;
    EXPECT_FALSE(Checks().CheckProfilingIntervalIsValid(params));
    EXPECT_FALSE(Checks().CheckProfilingIntervalIsValidTWO(params));
    EXPECT_EQ("E invalid collnet interval: -1; E invalid roceProfiling interval: -1",
              Joined(log.Take("EW")));
    for (const auto check :
         {&V::CheckProfilingIntervalIsValid, &V::CheckProfilingIntervalIsValidTWO,
          &V::CheckTsSwitchProfiling, &V::CheckPmuSwitchProfiling,
          &V::CheckSystemTraceSwitchProfiling, &V::CheckStorageLimit}) {
        EXPECT_FALSE((Checks().*check)(nullptr));
    }
}

TEST(ParamValidation, WholeRecordFailsAtItsFirstFault) {
    // In the order of the checks; each step repairs one field and meets the next.
    const struct {
        const char* field;
        nlohmann::json bad, good;
        const char* illegal;
    } steps[] = {
        {"devices", "64", "1,2", "devices:64"},
        {"l2CacheTaskProfilingEvents", "0x59,none", "0x59", "l2CacheTaskProfilingEvents"},
        {"llc_profiling_events", "a;b", "", "llc_profiling_events"},
        {"hbmInterval", 0, 1, "profiling interval"},
        {"hwts_log", "yes", "off", "profiling switch"},
        {"ai_core_metrics", "L2Cache", "Memory", "profiling ai_core_metrics"},
    };
    nlohmann::json record;
    for (const auto& step : steps) {
        record[step.field] = step.bad;
    }
    const auto params = std::make_shared<ProfileParams>();
    for (const auto& step : steps) {
        SCOPED_TRACE(step.field);
        ASSERT_TRUE(params->FromString(record.dump()));
        orla::test::LogCapture log;
        EXPECT_FALSE(Checks().CheckProfilingParams(params, {"L2Cache"}));
        const Texts lines = log.Take("E");
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ("E [CheckProfilingParams]" + std::string(step.illegal) + " is illegal",
                  lines.back());
        record[step.field] = step.good;
    }
    ASSERT_TRUE(params->FromString(record.dump()));
    EXPECT_TRUE(Checks().CheckProfilingParams(params, {"L2Cache"}));
    params->devices = "64";
    params->host_profiling = 1;
    EXPECT_TRUE(Checks().CheckProfilingParams(params, {}));
    EXPECT_FALSE(Checks().CheckProfilingParams(nullptr, {}));
}

}  // namespace
}  // namespace analysis::nedra::common::validation
