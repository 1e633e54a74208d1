#include "log/log_config_list.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <map>

#include "log/log_test_support.h"

namespace {

using orla::test::SelfLogHere;
using orla::test::WriteFile;
using testing::HasSubstr;

using Items = std::map<std::string, std::string>;

class LogConfigListTest : public testing::Test {
protected:
    ~LogConfigListTest() override { LogConfListFree(); }

    std::string Write(const std::string& bytes) {
        WriteFile(log_.root() + "/slog.conf", bytes);
        return log_.root() + "/slog.conf";
    }

    // What a lookup of each name would find.
    static Items Read() {
        Items items;
        const auto add = [](const LogConfItem* item, void* argument) {
            static_cast<Items*>(argument)->emplace(item->name, item->value);
            return 0;
        };
        EXPECT_EQ(LogConfListForEach(add, &items), 0);
        return items;
    }

    SelfLogHere log_;
};

TEST_F(LogConfigListTest, ReadsWhatHasTheRightForm) {
    const std::string longName(62, 'n');
    const std::pair<std::string, Items> cases[] = {
        {"", {}},
        {"# [note]\n\n\r\n \t a = 1 \nb=2\r\nc=3", {{"a", "1"}, {"b", "2"}, {"c", "3"}}},
        {"a=1\na=2\n", {{"a", "2"}}},
        {"a=1\nx]y[z\nb=2\n", {{"a", "1"}}},
        {"a=1\nb=[2]\nc=3\n", {{"a", "1"}}},
        {"a=1\n]\nb=2\n", {{"a", "1"}, {"b", "2"}}},
        {"wrong\n=wrong\nwrong=\n" + longName + "n=wrong\n" + longName + "=1\n", {{longName, "1"}}},
        // Binary bytes cost their lines, and a zero the rest of its line.
        {std::string("\0\xff\xfe\n\x01\x80=\xff\na=1\0b=2\nc=3\n", 21),
         {{"\x01\x80", "\xff"}, {"a", "1"}, {"c", "3"}}},
        // Pieces of 1086 bytes: the first has too long a value, the others no "=".
        {"a=1\nb=" + std::string(10000, 'x') + "\nc=3\n", {{"a", "1"}, {"c", "3"}}},
        {"a=1\n" + std::string(1086, ' ') + "b=2\n", {{"a", "1"}, {"b", "2"}}},
    };
    for (const auto& [text, items] : cases) {
        SCOPED_TRACE(text.substr(0, 60));
        EXPECT_EQ(LogConfListUpdate(Write(text).c_str()), 0);
        EXPECT_EQ(Read(), items);
    }
}

TEST_F(LogConfigListTest, GivesValuesByName) {
    ASSERT_EQ(LogConfListInit(Write("a=first\na=second\n").c_str()), 0);
    char value[kConfigValueLimit] = "untouched";
    EXPECT_EQ(LogConfListGetValue("b", 1, value, sizeof(value)), kLogConfNotFound);
    EXPECT_STREQ(value, "untouched");
    EXPECT_EQ(LogConfListGetValue("a", 63, value, sizeof(value)), 0);
    EXPECT_STREQ(value, "second");
    EXPECT_EQ(LogConfListGetValue("a", 1, value, 6), kConfigCopyFailed);
    const auto stop = [](const LogConfItem* item, void*) -> int { return item->value[0]; };
    EXPECT_EQ(LogConfListForEach(stop, nullptr), 's') << "the last line comes first";
    EXPECT_EQ(LogConfListForEach(nullptr, nullptr), -1);
    EXPECT_EQ(LogConfListGetValue("a", 64, value, 10), kLogConfBadArgument);
    EXPECT_EQ(LogConfListGetValue("a", 1, value, 1024), kLogConfBadArgument);
    LogConfListFree();
    EXPECT_EQ(LogConfListGetValue("a", 1, value, sizeof(value)), kLogConfNotFound);
    EXPECT_THAT(log_.Take(), HasSubstr("can not lock, strerr=Invalid argument"));
}

TEST_F(LogConfigListTest, SurvivesAFileThatIsNotThere) {
    ASSERT_EQ(LogConfListInit(Write("a=1\n").c_str()), 0);
    EXPECT_EQ(LogConfListUpdate((log_.root() + "/missing.conf").c_str()), kConfigOpenFailed);
    EXPECT_EQ(Read(), Items());
    EXPECT_THAT(log_.Take(), HasSubstr("/missing.conf, result=2, strerr=No such file"));

    const std::string secret = Write("a=1\n");
    std::filesystem::permissions(secret, std::filesystem::perms::none);
    if (access(secret.c_str(), R_OK) == 0) {
        GTEST_SKIP() << "this user can read everything";
    }
    EXPECT_EQ(LogConfListInit(secret.c_str()), kConfigOpenFailed);
    EXPECT_THAT(log_.Take(), HasSubstr("slog.conf, result=3, strerr=Permission denied"));
}

// Run by the next test in a copy of this program.
TEST(LogConfigBesideExecutable, DISABLED_Child) {
    char value[kConfigValueLimit] = {};
    ASSERT_EQ(LogConfInit(), 0);
    EXPECT_EQ(LogConfListGetValue("where", 5, value, sizeof(value)), 0);
    EXPECT_STREQ(value, "beside");
    LogConfListFree();
}

TEST(LogConfigBesideExecutable, IsFoundWithoutADefaultFile) {
    if (access(kDefaultConfigFile, F_OK) == 0) {
        GTEST_SKIP() << "this machine has a default file";
    }
    const SelfLogHere log;
    const std::string program = log.root() + "/copy";
    std::filesystem::copy_file("/proc/self/exe", program);
    WriteFile(log.root() + "/slog.conf", "where=beside\n");
    const std::string child = "LogConfigBesideExecutable.DISABLED_Child";
    EXPECT_EQ(
        std::system((program + " --gtest_also_run_disabled_tests --gtest_filter=" + child).c_str()),
        0);
}

}  // namespace
