#include <gmock/gmock.h>

#include "hdc/test_support.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {
namespace {

using Texts = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST(UtilsText, SplitsAtEveryDelimiter) {
    const struct {
        std::string text;
        bool filter;
        std::string token;
        std::string delimiter;
        Texts pieces;
    } cases[] = {
        {"a,,b", false, "", ",", {"a", "", "b"}},
        {"a,,b", true, "", ",", {"a", "b"}},
        {"", false, "", ",", {}},
        {",", false, "", ",", {""}},
        {"a,", false, "", ",", {"a"}},
        {",a", false, "", ",", {"", "a"}},
        {"a b a", true, "a", " ", {"b"}},
        {"a, b", false, "", ", ", {"a", "b"}},
        {"a,", false, "", ", ", {"a,"}},
        {"a,b", false, "", "", {"a,b"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.pieces, Utils::Split(c.text, c.filter, c.token, c.delimiter)) << c.text;
    }
}

TEST(UtilsText, CutsAndChangesCase) {
    EXPECT_EQ("a \tb", Utils::Trim("  a \tb "));
    EXPECT_EQ("", Utils::Trim("   "));
    EXPECT_EQ("x/\\", Utils::LeftTrim("/\\/x/\\", "/\\"));
    EXPECT_EQ("", Utils::LeftTrim("//", "/"));
    EXPECT_EQ("a\xC4z0@[`{", Utils::ToLower("A\xC4Z0@[`{"));
    EXPECT_EQ("A\xE4Z0@[`{", Utils::ToUpper("a\xE4z0@[`{"));
    EXPECT_EQ("a//b/", Utils::JoinPath({"a", "", "b", ""}));
    EXPECT_EQ("", Utils::JoinPath({}));
    EXPECT_EQ("0007\n", Utils::Int2Str4(7));
    EXPECT_EQ("12345\n", Utils::Int2Str4(12345));
}

TEST(UtilsText, TellsNumbersFromTexts) {
    const std::string prefix = "E [Utils::CheckStringIsNonNegativeIntNum]numberStr(";
    const struct {
        std::string text;
        bool good;
        std::string refusal;
    } cases[] = {
        {"0", true, ""},
        {"0000000000", true, ""},
        {"2147483647", true, ""},
        {"1999999999", true, ""},
        {"", false, ""},
        {"2147483648", false, ") is over than 2147483647"},
        {"3000000000", false, ") is over than 2147483647"},
        {"00000000001", false, ") is too long"},
        {"-1", false, ") is not a number"},
        {"1 ", false, ") is not a number"},
        {std::string("1\0", 2), false, ") is not a number"},
    };
    for (const auto& c : cases) {
        orla::test::LogCapture log;
        EXPECT_EQ(c.good, Utils::CheckStringIsNonNegativeIntNum(c.text)) << c.text;
        const auto expected =
            c.refusal.empty() ? Texts{} : Texts{prefix + c.text.c_str() + c.refusal};
        EXPECT_EQ(expected, log.Take()) << c.text;
    }
    EXPECT_FALSE(Utils::IsAllDigit(""));
    EXPECT_FALSE(Utils::IsAllDigit("1\xB2"));
}

TEST(UtilsNames, AreMadeOfTheirParts) {
    EXPECT_EQ("host", Utils::CreateTaskId("64"));
    EXPECT_EQ("device_0", Utils::CreateTaskId("0"));
    EXPECT_THAT(Utils::CreateResultPath(999998), MatchesRegex("PROF_999999_20[0-9]{15}_[A-R]{16}"));
    EXPECT_THAT(Utils::CreateResultPath(999999), MatchesRegex("PROF_000001_20[0-9]{15}_[A-R]{16}"));
    EXPECT_THAT(Utils::CreateTraceId(1), MatchesRegex("trace0000000[0-9]{20}"));
    EXPECT_NE(Utils::CreateTraceId(1), Utils::CreateTraceId(2));
    // srand has the same seed within a second; the clocks still tell two results apart.
    EXPECT_NE(Utils::CreateResultPath(1).substr(30), Utils::CreateResultPath(1).substr(30));
}

TEST(UtilsSystem, ReadsTheEnvironment) {
    const std::string longest(8191, 'v');
    setenv("ORLA_UTILS_TEST", longest.c_str(), 1);
    EXPECT_EQ(longest, Utils::GetEnvString("ORLA_UTILS_TEST"));
    setenv("ORLA_UTILS_TEST", (longest + "v").c_str(), 1);
    EXPECT_EQ("", Utils::GetEnvString("ORLA_UTILS_TEST"));
    unsetenv("PROFILING_MODE");
    EXPECT_FALSE(Utils::IsDynProfMode());
    setenv("PROFILING_MODE", "dynamic", 1);
    EXPECT_TRUE(Utils::IsDynProfMode());
    unsetenv("PROFILING_MODE");
}

TEST(UtilsTime, ClocksGoOnInNanoseconds) {
    const uint64_t raw = Utils::GetClockMonotonicRaw();
    const uint64_t count = Utils::GetCntvct();
    Utils::UsleepInterupt(2999);
    const uint64_t slept = Utils::GetClockMonotonicRaw() - raw;
    EXPECT_GE(slept, 1900000u) << "the raw clock may differ a little from the one of the sleep";
    EXPECT_LT(slept, 60000000000u);
    EXPECT_GT(Utils::GetCntvct(), count);
    EXPECT_GT(Utils::GetClockRealtime(), 1700000000000000000u);
    EXPECT_THAT(Utils::GetTimeRecord(),
                MatchesRegex("clock_realtime: [0-9]{19}\nclock_monotonic_raw: [0-9]+\n"
                             "cntvct: [0-9]+\n"));
}

TEST(UtilsSystem, BlocksAreZeroAndForgotten) {
    void* block = Utils::ProfMalloc(64);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(std::string(64, '\0'), std::string(static_cast<char*>(block), 64));
    Utils::ProfFree(block);
    EXPECT_EQ(nullptr, block);
    Utils::ProfFree(block);
    EXPECT_EQ(nullptr, Utils::ProfMalloc(0));
}

}  // namespace
}  // namespace analysis::nedra::common::utils
