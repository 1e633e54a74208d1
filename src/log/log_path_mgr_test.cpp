#include "log/log_path_mgr.h"

#include <gmock/gmock.h>

#include "log/log_config_list.h"
#include "log/log_test_support.h"

namespace {

using orla::test::ReadFile;
using orla::test::SelfLogHere;
using orla::test::WriteFile;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;

constexpr char kDefaultLog[] = "/var/log/npu/slog/slogd/slogdlog";
constexpr char kKeepsDefault[] =
    "[WARNING] [WARNING] Init file path for self log failed and continue....\n";

// Writes the real default file, so it runs where that is private: in the sandbox.
class LogPathMgrTest : public testing::Test {
protected:
    void SetUp() override {
        if (access(kDefaultConfigFile, F_OK) == 0 || access("/var/log/npu/conf/slog", W_OK) != 0) {
            GTEST_SKIP() << "not in the sandbox";
        }
        orla::SetLogFiles(nullptr);
        isOurs_ = true;
    }
    void TearDown() override {
        if (isOurs_) {
            LogPathRelease();
            std::filesystem::remove(kDefaultConfigFile);
        }
    }

    static std::string InitWith(const std::string& text) {
        WriteFile(kDefaultConfigFile, text);
        testing::internal::CaptureStdout();
        LogPathInit();
        return testing::internal::GetCapturedStdout();
    }

    SelfLogHere here_;  // for its directory

private:
    bool isOurs_ = false;
};

TEST_F(LogPathMgrTest, SendsTheSelfLogWhereTheConfigurationSays) {
    const std::string root = here_.root() + "/made/here";
    EXPECT_EQ(InitWith("logAgentFileDir = " + root + "/\n"), "");
    EXPECT_EQ(orla::CurrentLogFiles()->log, root + "/slogd/slogdlog");
    EXPECT_THAT(ReadFile(root + "/slogd/slogdlog"),
                EndsWith("Init conf and self log path success.\n"));

    // A second start keeps the files in use, whatever the configuration has become.
    EXPECT_EQ(InitWith("a=1\n"), "");
    EXPECT_EQ(orla::CurrentLogFiles()->root, root);

    LogPathRelease();
    EXPECT_STREQ(orla::CurrentLogFiles()->log, kDefaultLog);
}

TEST_F(LogPathMgrTest, StaysAtTheDefaultWhenNothingElseIsOfUse) {
    const std::string longRoot = here_.root() + "/" + std::string(240, 'd');
    std::filesystem::create_directory(longRoot);
    const std::pair<std::string, std::string> cases[] = {
        {"a=1", ""},
        {"logAgentFileDir=/dev/null/x",
         "[WARNING] get root realpath from conf failed, val=/dev/null/x, strerr="},
        {"logAgentFileDir=" + longRoot, "[WARNING] get log dir realpath failed, ret="},
    };
    for (const auto& [text, words] : cases) {
        const std::string printed = InitWith(text);
        EXPECT_THAT(printed, AllOf(HasSubstr(words), EndsWith(words.empty() ? "" : kKeepsDefault)));
        EXPECT_STREQ(orla::CurrentLogFiles()->log, kDefaultLog);
        LogPathRelease();
    }
}

}  // namespace
