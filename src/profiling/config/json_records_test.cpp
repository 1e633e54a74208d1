// The three JSON records: what they are when new, what a text makes of them, what goes out.
#include <gtest/gtest.h>

#include <ctime>
#include <map>
#include <sstream>

#include "hdc/test_support.h"
#include "profiling/config/bounded_json.h"
#include "profiling/config/job_records.h"
#include "profiling/config/profile_params.h"

namespace analysis::nedra::message {
namespace {

using nlohmann::json;

template <typename Record>
class JsonRecords : public testing::Test {};
using Records = testing::Types<StatusInfo, JobContext, ProfileParams>;
TYPED_TEST_SUITE(JsonRecords, Records);

json AsJson(const BaseInfo& record) {
    return json::parse(record.ToString());
}

// A value of the type of `value` that no record has by itself.
json Another(const json& value, int i) {
    return value.is_string() ? json("text " + std::to_string(i)) : json(1000000 + i);
}

TYPED_TEST(JsonRecords, EveryFieldComesBackAndIsCompared) {
    TypeParam original;
    TypeParam read;
    ASSERT_TRUE(read.FromString(original.ToString()));
    EXPECT_TRUE(original == read);

    const json fresh = AsJson(original);
    json changed = fresh;
    int i = 0;
    for (const auto& [key, value] : fresh.items()) {
        SCOPED_TRACE(key);
        changed[key] = Another(value, ++i);
        TypeParam before = read;
        ASSERT_TRUE(read.FromString(changed.dump()));
        EXPECT_FALSE(before == read);
        EXPECT_EQ(changed.dump(), read.ToString());
    }
}

TYPED_TEST(JsonRecords, WrongTypeOfAnyKeyFailsWithOneLine) {
    const std::string name = TypeParam().GetClassName();
    const json fresh = AsJson(TypeParam());
    for (const auto& [key, value] : fresh.items()) {
        SCOPED_TRACE(key);
        const std::vector<json> wrong =
            value.is_string() ? std::vector<json>{0, nullptr, json::array()}
                              : std::vector<json>{"1", 1.5, true, nullptr, 18446744073709551615u};
        for (const json& bad : wrong) {
            if (bad.is_number_unsigned() && key.find("chunk") == 0) {
                continue;  // the 64-bit fields hold that
            }
            orla::test::LogCapture log;
            EXPECT_FALSE(TypeParam().FromString(json{{key, bad}}.dump())) << bad;
            const auto lines = log.Take();
            ASSERT_EQ(1u, lines.size());
            EXPECT_EQ(0u, lines[0].find("E " + name + " ::FromString(): ")) << lines[0];
        }
    }
}

TYPED_TEST(JsonRecords, RefusesWhatIsNoObject) {
    struct Case {
        const char* text;
        size_t lines;
    };
    const Case cases[] = {{"", 0},      {"[]", 1},  {"plain text", 1},         {"null", 1},
                          {"{} {}", 1}, {"{\"", 1}, {"/* no comment */{}", 1}, {"{\"\xff\":1}", 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        orla::test::LogCapture log;
        EXPECT_FALSE(TypeParam().FromString(c.text));
        EXPECT_EQ(c.lines, log.Take().size());
    }
}

TYPED_TEST(JsonRecords, NestingIsBoundedOnASmallStack) {
    const auto nested = [](int depth) {
        return "{\"unknown\":" + std::string(depth, '[') + std::string(depth, ']') + "}";
    };
    ASSERT_TRUE(orla::test::RunOnSmallStack([&] {
        TypeParam record;
        EXPECT_TRUE(record.FromString(nested(kMaxJsonNesting - 1)));
        EXPECT_FALSE(record.FromString(nested(kMaxJsonNesting)));
        EXPECT_FALSE(record.FromString(nested(100000)));
        EXPECT_FALSE(record.FromString(std::string(100000, '[')));
    }));
}

// The members beside each other, as many as fit in `length` bytes.
std::string Wide(size_t length) {
    std::string text = "{\"x\":[{}";
    while (text.size() + 5 <= length) {
        text += ",{}";
    }
    return text + std::string(length - text.size() - 2, ' ') + "]}";
}

double ProcessorSeconds(const std::string& text) {
    const std::clock_t start = std::clock();
    EXPECT_TRUE(StatusInfo().FromString(text));
    return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

TEST(BoundedJson, TimeIsLinearInTheLengthWhichIsBounded) {
    constexpr size_t kTimes = 16;
    const std::string small = Wide(kMaxJsonLength / kTimes);
    double smallTime = 0;
    for (size_t i = 0; i < kTimes; ++i) {
        smallTime += ProcessorSeconds(small);
    }
    // In quadratic time this is kTimes as much.
    EXPECT_LT(ProcessorSeconds(Wide(kMaxJsonLength)), smallTime * kTimes / 3);
    EXPECT_FALSE(StatusInfo().FromString(Wide(kMaxJsonLength + 1)));
}

TEST(StatusInfo, TextsOfTheConversation) {
    StatusInfo status;
    EXPECT_EQ(R"({"dev_id":"-1","info":"","status":1})", status.ToString());
    ASSERT_TRUE(status.FromString(R"({"unknown":[1]})"));
    EXPECT_EQ(R"({"dev_id":"","info":"","status":1})", status.ToString());
    // A bad text is replaced, never thrown; what is UTF-8 goes out as it is.
    status.info =
        "Gr\xc3\xbc\xc3\x9f"
        "e \xff";
    EXPECT_EQ(
        "{\"dev_id\":\"\",\"info\":\"Gr\xc3\xbc\xc3\x9f"
        "e \xef\xbf\xbd\",\"status\":1}",
        status.ToString());
}

TEST(JobContext, TextsAndRanges) {
    const std::string fresh =
        R"({"chunkEndTime":0,"chunkStartTime":0,"dataModule":0,"dev_id":"","job_id":"",)"
        R"("module":"","result_dir":"","stream_enabled":"","tag":""})";
    JobContext context;
    EXPECT_EQ(fresh, context.ToString());
    context.job_id = "left over";
    ASSERT_TRUE(context.FromString("{}"));
    EXPECT_EQ(fresh, context.ToString());

    ASSERT_TRUE(
        context.FromString(R"({"chunkEndTime":18446744073709551615,"dataModule":-2147483648})"));
    EXPECT_EQ(UINT64_MAX, context.chunkEndTime);
    EXPECT_EQ(INT32_MIN, context.dataModule);
    ASSERT_TRUE(context.FromString(R"({"chunkEndTime":-0,"dataModule":-0})"));
    EXPECT_EQ(0u, context.chunkEndTime);
    EXPECT_EQ(0, context.dataModule);
    for (const char* text : {R"({"chunkEndTime":-1})", R"({"chunkEndTime":18446744073709551616})",
                             R"({"dataModule":2147483648})", R"({"dataModule":-2147483649})"}) {
        EXPECT_FALSE(context.FromString(text)) << text;
    }
}

TYPED_TEST(JsonRecords, ReadsTheObjectThatItWrote) {
    TypeParam written;
    ASSERT_TRUE(written.FromString("{}"));
    json object;
    written.ToObject(object);
    TypeParam read;
    ASSERT_NO_THROW(read.FromObject(object));
    EXPECT_TRUE(written == read);
}

TEST(JobContext, KeepsWhatWasReadBeforeAFailure) {
    JobContext context;
    context.job_id = "before";
    EXPECT_FALSE(context.FromString(R"({"job_id":"after","tag":"read","dev_id":3})"));
    EXPECT_EQ("read", context.tag);
    EXPECT_EQ("before", context.job_id);
}

TEST(ProfileParams, NewAndAbsentValues) {
    const json fresh = AsJson(ProfileParams());
    ProfileParams record;
    ASSERT_TRUE(record.FromString("{}"));
    const json absent = AsJson(record);
    ASSERT_EQ(108u, fresh.size());

    // All that is neither empty nor 0.
    const struct {
        json fresh;
        json absent;
        const char* keys;
    } groups[] = {
        {"on", "", "stream_enabled taskTrace taskTime"},
        {"off", "",
         "ai_core_lpm taskTsfw cpu_profiling aiCtrlCpuProfiling tsCpuProfiling sys_profiling "
         "pid_profiling hardware_mem memProfiling io_profiling nicProfiling roceProfiling "
         "interconnection_profiling fabriclinkProfiling dvpp_profiling modelExecution "
         "taskFramework runtimeApi tracelet tracelettx host_disk_profiling host_osrt_profiling "
         "pureCpu host_cpu_profiling host_mem_profiling host_network_profiling"},
        {-1, -1, "traceletBinPid host_sys_pid"},
        {-1, 5, "profiling_period"},
        {10, 10,
         "aicore_sampling_interval aiv_sampling_interval io_sampling_interval "
         "nicInterval roceInterval"},
        {20, 10,
         "cpu_sampling_interval hardware_mem_sampling_interval memInterval "
         "interconnection_sampling_interval dvpp_sampling_interval"},
        {100, 10, "sys_sampling_interval pid_sampling_interval"},
        {50, 10, "host_disk_freq"},
        {20, 100, "llc_interval ddr_interval hbmInterval fabriclinkInterval pcieInterval"},
        {1000, 1000, "instrProfilingFreq"},
    };
    std::map<std::string, std::pair<json, json>> expected;
    for (const auto& group : groups) {
        std::istringstream keys(group.keys);
        for (std::string key; keys >> key;) {
            expected[key] = {group.fresh, group.absent};
        }
    }
    for (const auto& [key, value] : fresh.items()) {
        const json empty = value.is_string() ? json("") : json(0);
        const auto found = expected.find(key);
        EXPECT_EQ(found == expected.end() ? empty : found->second.first, value) << key;
        EXPECT_EQ(found == expected.end() ? empty : found->second.second, absent[key]) << key;
        expected.erase(key);
    }
    EXPECT_TRUE(expected.empty()) << expected.begin()->first;
}

}  // namespace
}  // namespace analysis::nedra::message
