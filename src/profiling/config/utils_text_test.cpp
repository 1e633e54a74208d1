#include <gmock/gmock.h>

#include "hdc/test_support.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {
namespace {

using Texts = std::vector<std::string>;

TEST(UtilsText, SplitsAtEveryDelimiter) {
    EXPECT_EQ(Texts({"a", "", "b"}), Utils::Split("a,,b"));
    EXPECT_EQ(Texts({"a", "b"}), Utils::Split("a,,b", true, ""));
    EXPECT_EQ(Texts({}), Utils::Split(""));
    EXPECT_EQ(Texts({"", "a"}), Utils::Split(",a,"));
    EXPECT_EQ(Texts({"b"}), Utils::Split("a b a", true, "a", " "));
    EXPECT_EQ(Texts({"a,b"}), Utils::Split("a,b", false, "", ""));
    EXPECT_EQ("a \tb", Utils::Trim("  a \tb "));
    EXPECT_EQ("", Utils::Trim("   "));
    std::string relative = "before";
    Utils::GetRelativePath("/r/dev0/data/x", "/q/dev0", relative);
    EXPECT_EQ("before", relative);
    Utils::GetRelativePath("/r/dev0/data/x", "/r/dev0", relative);
    EXPECT_EQ("data/x", relative);
}

TEST(UtilsText, TellsNumbersFromTexts) {
    const std::pair<std::string, std::string> cases[] = {
        {"0000000000", ""},
        {"1999999999", ""},
        {"2147483647", ""},
        {"2147483648", " is over than 2147483647"},
        {"00000000001", " is too long"},
        {"1 ", " is not a number"},
    };
    EXPECT_FALSE(Utils::CheckStringIsNonNegativeIntNum(""));
    for (const auto& [text, refusal] : cases) {
        orla::test::LogCapture log;
        EXPECT_EQ(refusal.empty(), Utils::CheckStringIsNonNegativeIntNum(text)) << text;
        const std::string line =
            "E [Utils::CheckStringIsNonNegativeIntNum]numberStr(" + text + ")" + refusal;
        EXPECT_EQ(refusal.empty() ? Texts{} : Texts{line}, log.Take());
    }
}

TEST(UtilsText, NamesOfOneSecondDiffer) {
    const std::string name = Utils::CreateResultPath(999999);
    EXPECT_THAT(name, testing::MatchesRegex("PROF_000001_20[0-9]{15}_[A-R]{16}"));
    EXPECT_NE(name.substr(30), Utils::CreateResultPath(999999).substr(30));
    EXPECT_THAT(Utils::CreateTraceId(1), testing::MatchesRegex("trace0000000[0-9]{20}"));
}

}  // namespace
}  // namespace analysis::nedra::common::utils
