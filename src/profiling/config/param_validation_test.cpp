#include "profiling/config/param_validation.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <functional>

#include "hdc/test_support.h"

namespace analysis::nedra::common::validation {
namespace {

using message::ProfileParams;
using Texts = ParamValidation::Texts;

const ParamValidation& Checks() {
    return ParamValidation::instance();
}

// One call of a check, what it gives, and all that it logs above debug level.
struct Case {
    const char* what;
    bool result;
    std::function<bool()> check;
    Texts lines = {};
};

template <size_t N>
void RunCases(const Case (&cases)[N]) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        orla::test::LogCapture log;
        EXPECT_EQ(c.result, c.check());
        EXPECT_EQ(c.lines, log.Take("EWI"));
    }
}

TEST(ParamValidation, EventListsHoldEight) {
    struct List {
        const char* event;
        std::function<bool(const Texts&)> check;
        const char* line;
    };
    const List lists[] = {
        {"0x1", [](const Texts& e) { return Checks().CheckCtrlCpuEventIsValid(e); },
         "E cpu events size(9) is bigger than 8"},
        {"0x1", [](const Texts& e) { return Checks().CheckAiCoreEventsIsValid(e); },
         "E ai core events size(9) is bigger than 8"},
        {"read", [](const Texts& e) { return Checks().CheckDdrEventsIsValid(e); },
         "E ddr events size(9) is bigger than 8"},
        {"master_id", [](const Texts& e) { return Checks().CheckDdrEventsIsValid(e); },
         "E ddr events size(9) is bigger than 8"},
        {"write", [](const Texts& e) { return Checks().CheckHbmEventsIsValid(e); },
         "E hbm events size(9) is bigger than 8"},
        {"0x59", [](const Texts& e) { return Checks().CheckL2CacheEventsValid(e); },
         "E L2Cache events size(9) is bigger than 8"},
    };
    for (const List& list : lists) {
        SCOPED_TRACE(list.line);
        orla::test::LogCapture log;
        EXPECT_TRUE(list.check({}));
        EXPECT_TRUE(list.check(Texts(8, list.event)));
        EXPECT_EQ(Texts{}, log.Take("EWI"));
        EXPECT_FALSE(list.check(Texts(9, list.event)));
        EXPECT_EQ(Texts{list.line}, log.Take("EWI"));
    }
}

TEST(ParamValidation, Events) {
    const Texts range{"E ai core event out of range, which should be in 1-1294(0x1-0x50E)"};
    const auto aiCore = [](const char* e) {
        return [e] { return Checks().CheckAiCoreEventsIsValid({e}); };
    };
    const auto l2 = [](const char* e) {
        return [e] { return Checks().CheckL2CacheEventsValid({"0x59", e}); };
    };
    const auto llc = [](const char* e) {
        return [e] { return Checks().CheckLlcEventsIsValid(e); };
    };
    const auto text = [](const char* e) {
        return [e] { return Checks().CheckEventsText(e) == 0; };
    };
    const Case cases[] = {
        {"cpu either case", true,
         [] {
             return Checks().CheckCtrlCpuEventIsValid({"0x8", "r0X11"});
         }},
        {"cpu without 0x", false,
         [] {
             return Checks().CheckCtrlCpuEventIsValid({"0x8", "11"});
         }},
        {"ai core least", true, aiCore("1")},
        {"ai core most", true, aiCore("0x50E")},
        {"ai core above", false, aiCore("0x50f"), range},
        {"ai core zero", false, aiCore("0x0"), range},
        {"ai core negative", false, aiCore("-1"), range},
        {"ai core no number", false, aiCore("memory"), range},
        {"ai core number and more", false, aiCore("0x10;"), range},
        {"ai core beyond 64 bits", false, aiCore("0x10000000000000001"), range},
        {"ai core nothing", false, aiCore(""), range},
        {"cores", true, [] { return Checks().CheckAiCoreEventCoresIsValid(std::vector<int>(50)); }},
        {"core below zero", false,
         [] {
             return Checks().CheckAiCoreEventCoresIsValid({0, -1});
         }},
        {"too many cores",
         false,
         [] { return Checks().CheckAiCoreEventCoresIsValid(std::vector<int>(51)); },
         {"E ai core events cores size(51) is bigger than 50"}},
        {"ddr", false,
         [] {
             return Checks().CheckDdrEventsIsValid({"read", "Write"});
         }},
        {"ddr master", true,
         [] {
             return Checks().CheckDdrEventsIsValid({"any", "master_id"});
         }},
        {"hbm master", false, [] { return Checks().CheckHbmEventsIsValid({"master_id"}); }},
        {"llc", true, llc("read_0/x, WRITE9")},
        {"llc nothing", true, llc("")},
        {"llc shell", false, llc("read;ls"), {"E llc events is invalid.read;ls"}},
        {"llc beyond ASCII", false, llc("\xe4"), {"E llc events is invalid.\xe4"}},
        {"l2 case and blanks", true, l2("  0xBF ")},
        {"l2 unknown", false, l2("0x5A"), {"E l2Cacheevent:0x5a is invalid"}},
        {"text of eight", true, text("1,2,3,4,5,6,7,8,")},
        {"text of nine",
         false,
         text("1,2,3,4,5,6,7,8,9"),
         {"E events Size is incorrect. 1,2,3,4,5,6,7,8,9"}},
        {"no text", true, text(""), {"I events is empty"}},
    };
    RunCases(cases);
}

TEST(ParamValidation, MetricsNumbersAndSwitches) {
    const auto metric = [](const std::string& m) {
        return [m] { return Checks().CheckAicoreMetricsIsValid(m, {"L2Cache", "Odd"}); };
    };
    const auto interval = [](int i) {
        return [i] { return Checks().CheckIntervalIsValid(i, "llc"); };
    };
    const auto period = [](int i) { return [i] { return Checks().CheckSysPeriodIsValid(i); }; };
    const auto freq = [](uint32_t f) { return [f] { return Checks().CheckInstrFreqIsValid(f); }; };
    const auto onOff = [](const char* v) {
        return [v] { return Checks().CheckParamOnOff("--x", v); };
    };
    const Case cases[] = {
        {"no metric", true, metric(""), {"I aicoreMetrics is empty"}},
        {"metric", true, metric("PipelineExecuteUtilization")},
        {"metric not here",
         false,
         metric("L2Cache"),
         {"E Current platform is not support L2Cache metrics type"}},
        {"metric of 70",
         false,
         metric(std::string(70, 'm')),
         {"E The aic_metrics[" + std::string(70, 'm') + "] of input config is invalid"}},
        {"metric of 71",
         false,
         metric(std::string(71, 'm')),
         {"E The parameter length exceeds the specified value of 70."}},
        {"interval 0", false, interval(0), {"E invalid llc interval: 0"}},
        {"interval 1", true, interval(1)},
        {"interval most", true, interval(1296000000)},
        {"interval above", false, interval(1296000001), {"E invalid llc interval: 1296000001"}},
        {"period 0", false, period(0), {"E Invalid --sys-period: 0"}},
        {"period most", true, period(2592000)},
        {"period above", false, period(2592001), {"E Invalid --sys-period: 2592001"}},
        {"freq 299", false, freq(299), {"E instr_profiling_freq 299 is invalid (300~30000)."}},
        {"freq 300", true, freq(300)},
        {"freq 30000", true, freq(30000)},
        {"freq 30001",
         false,
         freq(30001),
         {"E instr_profiling_freq 30001 is invalid (300~30000)."}},
        {"argument", true, onOff("off")},
        {"no argument", true, onOff(""), {"I Argument --x is empty."}},
        {"bad argument",
         false,
         onOff("On"),
         {"E Argument --x: invalid value: On. Please input 'on' or 'off'."}},
        {"bad switch", false, [] { return Checks().CheckSwitchIsValid("ON"); }},
    };
    RunCases(cases);
}

TEST(ParamValidation, DevicesJobsAndNames) {
    const auto device = [](const char* d) {
        return [d] { return Checks().CheckDeviceIdIsValid(d); };
    };
    const auto list = [](const char* app, const char* devices, const char* host) {
        return [=] { return Checks().CheckDeviceList(app, devices, host); };
    };
    const auto job = [](const std::string& j) {
        return [j] { return Checks().CheckJobIdIsValid(j); };
    };
    const auto mode = [](const char* m) { return [m] { return Checks().CheckProfilingMode(m); }; };
    const auto app = [](const char* p) { return [p] { return Checks().CheckAppParamIsValid(p); }; };
    const auto name = [](const char* n) { return [n] { return Checks().CheckAppNameIsValid(n); }; };
    const auto tag = [](const char* t) { return [t] { return Checks().CheckTagIsValid(t); }; };
    const auto host = [](const char* o) {
        return [o] { return Checks().CheckHostSysOptionsIsValid(o); };
    };
    const auto pid = [](int p) { return [p] { return Checks().CheckHostSysPidIsValid(p); }; };
    const auto stars = [](const char* s) {
        return [s] { return Checks().CheckStarsAcsqIsValid(s); };
    };
    const std::string tooLong =
        "[Utils::CheckStringIsNonNegativeIntNum]numberStr(2147483648) is over than 2147483647";
    const Case cases[] = {
        {"device 0", true, device("0")},
        {"device 63", true, device("63")},
        {"device 64", false, device("64"), {"W devId(64) is over limited."}},
        {"device -1",
         false,
         device("-1"),
         {"E [Utils::CheckStringIsNonNegativeIntNum]numberStr(-1) is not a number",
          "E devId(-1) is not valid."}},
        {"device 2^31",
         false,
         device("2147483648"),
         {"E " + tooLong, "E devId(2147483648) is not valid."}},
        {"device nothing", false, device(""), {"E devId() is not valid."}},
        {"nothing asked", false, list("", "", "")},
        {"host asked", true, list("", "", "cpu")},
        {"application asked", true, list("app", "", "")},
        {"all devices", true, list("", "all", "")},
        {"two devices", true, list("", "0,63", "")},
        {"every bad device is named",
         false,
         list("app", "64,1,99", ""),
         {"W devId(64) is over limited.", "E device:64 is not valid!",
          "W devId(99) is over limited.", "E device:99 is not valid!"}},
        {"job", true, job("Job-09")},
        {"job of 512", true, job(std::string(512, 'j'))},
        {"job of 513", false, job(std::string(513, 'j'))},
        {"no job", false, job("")},
        {"job that climbs", false, job("../a")},
        {"job with underscore", false, job("a_b")},
        {"job with zero byte", false, job(std::string("a\0b", 3))},
        {"mode none", true, mode("")},
        {"mode default", true, mode("def_mode")},
        {"mode system", true, mode("system-wide")},
        {"mode in capitals", false, mode("System-wide")},
        {"rm at the end", true, app("--arm")},
        {"rm and a blank", false, app("--arm x")},
        {"redirection", false, app("a > b")},
        {"arrow", true, app("a->b")},
        {"power", false, app("xpoweroffx")},
        {"app name", true, name("a_b-C.9")},
        {"app path", false, name("a/b"), {"E appName is invalid.a/b"}},
        {"no app name", false, name(""), {"E appName is empty"}},
        {"tag", true, tag("a_9")},
        {"bad tag", false, tag("a-9"), {"E tag is invalid.a-9"}},
        {"no tag", false, tag(""), {"E tag is empty"}},
        {"host option", true, host("osrt")},
        {"bad host option", false, host("gpu"), {"E hostSysOptions[gpu] is invalid"}},
        {"no host option", false, host(""), {"I hostSysOptions is empty"}},
        {"own pid", true, pid(getpid())},
        {"pid -1", false, pid(-1), {"E Invalid --host-sys-pid: -1"}},
        {"pid of nobody", false, pid(INT_MAX), {"E Invalid --host-sys-pid: 2147483647"}},
        {"stars", true, stars("dsa,ctrl_task")},
        {"no stars", true, stars("")},
        {"bad stars", false, stars("dsa,,vdec"), {"E Invalid stars acsq params."}},
    };
    RunCases(cases);
}

TEST(ParamValidation, StorageLimit) {
    struct Limit {
        const char* before;
        bool result;
        const char* after;
        Texts lines;
    };
    const Limit limits[] = {
        {"", true, "", {"I storage_limit is empty"}},
        {"MB", false, "MB", {"E storage_limit:MB, length is less than 3"}},
        {"200mb", false, "200mb", {"E storage_limit:200mb, not end with MB"}},
        {"2 0MB", false, "2 0MB", {"E storage_limit:2 0MB, invalid numbers"}},
        {"-200MB", false, "-200MB", {"E storage_limit:-200MB, invalid numbers"}},
        {"10000000000MB",
         false,
         "10000000000MB",
         {"E storage_limit:10000000000MB, valid range is 200~4294967296"}},
        {"199MB",
         false,
         "200MB",
         {"E storage_limit:199MB, min value is 200MB", "W auto adjust storage_limit to:200MB"}},
        {"200MB", true, "200MB", {}},
        {"4294967295MB", true, "4294967295MB", {}},
        {"4294967296MB",
         false,
         "4294967296MB",
         {"E storage_limit:4294967296MB, max value is 4294967295MB"}},
    };
    for (const Limit& limit : limits) {
        SCOPED_TRACE(limit.before);
        const auto params = std::make_shared<ProfileParams>();
        params->storageLimit = limit.before;
        orla::test::LogCapture log;
        EXPECT_EQ(limit.result, Checks().CheckStorageLimit(params));
        EXPECT_EQ(limit.after, params->storageLimit);
        EXPECT_EQ(limit.lines, log.Take("EWI"));
    }
    EXPECT_FALSE(Checks().CheckStorageLimit(nullptr));
}

// A record from the wire that asks for nothing but one device.
ParamValidation::Params ValidParams() {
    auto params = std::make_shared<ProfileParams>();
    EXPECT_TRUE(params->FromString(R"({"devices":"0"})"));
    return params;
}

// Which of the record's fields a check reads: those that make it fail with `bad` in them.
template <typename Check>
std::string FieldsThatMatter(const nlohmann::json& bad, Check check) {
    const auto valid = nlohmann::json::parse(ValidParams()->ToString());
    std::string fields;
    for (const auto& [key, value] : valid.items()) {
        auto changed = valid;
        changed[key] = bad;
        auto params = std::make_shared<ProfileParams>();
        if (value.is_string() == bad.is_string() && params->FromString(changed.dump()) &&
            !check(params)) {
            fields += key + " ";
        }
    }
    return fields;
}

TEST(ParamValidation, RecordChecksReadTheirFields) {
    using Params = ParamValidation::Params;
    EXPECT_EQ(
        "aicore_sampling_interval aiv_sampling_interval cpu_sampling_interval ddr_interval "
        "dvpp_sampling_interval fabriclinkInterval hardware_mem_sampling_interval hbmInterval "
        "interconnection_sampling_interval io_sampling_interval llc_interval nicInterval "
        "pcieInterval pid_sampling_interval roceInterval sys_sampling_interval ",
        FieldsThatMatter(
            0, [](const Params& p) { return Checks().CheckProfilingIntervalIsValid(p); }));
    EXPECT_EQ(
        "ai_core_status ai_vector_status hwts_log hwts_log1 ts_cpu_usage ts_fw_training "
        "ts_keypoint ts_memcpy ts_task_track ts_timeline ",
        FieldsThatMatter("On", [](const Params& p) { return Checks().CheckTsSwitchProfiling(p); }));
    EXPECT_EQ(
        "ai_core_profiling aiv_profiling ddr_profiling fabriclinkProfiling hbmProfiling "
        "pcieProfiling ",
        FieldsThatMatter("On",
                         [](const Params& p) { return Checks().CheckPmuSwitchProfiling(p); }));
    EXPECT_EQ(
        "aiCtrlCpuProfiling cpu_profiling dvpp_profiling hardware_mem "
        "interconnection_profiling io_profiling nicProfiling pid_profiling roceProfiling "
        "sys_profiling tsCpuProfiling ",
        FieldsThatMatter(
            "On", [](const Params& p) { return Checks().CheckSystemTraceSwitchProfiling(p); }));
    orla::test::LogCapture log;
    auto params = ValidParams();
    params->fabriclinkInterval = params->roceInterval = -1;
    EXPECT_FALSE(Checks().CheckProfilingIntervalIsValid(params));
    EXPECT_FALSE(Checks().CheckProfilingIntervalIsValidTWO(params));
    EXPECT_FALSE(Checks().CheckProfilingIntervalIsValidTWO(nullptr));
    EXPECT_FALSE(Checks().CheckSystemTraceSwitchProfiling(nullptr));
    EXPECT_EQ((Texts{"E invalid collnet interval: -1", "E invalid roceProfiling interval: -1",
                     "E [CheckProfilingIntervalIsValidTWO]params is null",
                     "E [CheckSystemTraceSwitchProfiling]params is null"}),
              log.Take("EW"));
}

TEST(ParamValidation, WholeRecordFailsAtItsFirstFault) {
    // Faults in the order of the checks; each step repairs one and meets the next.
    auto params = ValidParams();
    params->devices = "64";
    params->l2CacheTaskProfilingEvents = "0x59,none";
    params->llc_profiling_events = "a;b";
    params->hbmInterval = 0;
    params->hwts_log = "yes";
    params->ai_core_metrics = "L2Cache";
    const struct {
        std::function<void()> repair;
        const char* line;
    } steps[] = {
        {[&] { params->devices = "1,2"; }, "E [CheckProfilingParams]devices:64 is illegal"},
        {[&] { params->l2CacheTaskProfilingEvents = "0x59"; },
         "E [CheckProfilingParams]l2CacheTaskProfilingEvents is illegal"},
        {[&] { params->llc_profiling_events = ""; },
         "E [CheckProfilingParams]llc_profiling_events is illegal"},
        {[&] { params->hbmInterval = 1; }, "E [CheckProfilingParams]profiling interval is illegal"},
        {[&] { params->hwts_log = "off"; }, "E [CheckProfilingParams]profiling switch is illegal"},
        {[&] { params->ai_core_metrics = "Memory"; },
         "E [CheckProfilingParams]profiling ai_core_metrics is illegal"},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.line);
        orla::test::LogCapture log;
        EXPECT_FALSE(Checks().CheckProfilingParams(params, {"L2Cache"}));
        const Texts lines = log.Take("E");
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(step.line, lines.back());
        step.repair();
    }
    EXPECT_TRUE(Checks().CheckProfilingParams(params, {"L2Cache"}));
    params->devices = "64";
    params->host_profiling = 1;
    EXPECT_TRUE(Checks().CheckProfilingParams(params, {}));
    EXPECT_FALSE(Checks().CheckProfilingParams(nullptr, {}));
}

}  // namespace
}  // namespace analysis::nedra::common::validation
