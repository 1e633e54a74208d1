#include "log/log_common_util.h"

#include <gmock/gmock.h>
#include <sys/time.h>

#include <csignal>
#include <vector>

#include "log/log_test_support.h"

namespace {

using orla::test::SelfLogHere;
using testing::HasSubstr;

TEST(LogCommonUtil, MakesEveryLevelWithItsMode) {
    SelfLogHere log;
    const mode_t mask = umask(0777);
    // Without its first slash the path is absolute all the same.
    EXPECT_EQ(LogAgentMkdirWithMultiLayer((log.root() + "//a/b/").substr(1).c_str()), 0);
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat((log.root() + "/a/b").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0750u);
    EXPECT_EQ(LogAgentMkdirWithMultiLayer("/dev/null/a/b"), kLogMkdirFailed);

    // Prefixes of 255 characters and no more.
    const std::string deep = log.root() + "/" + std::string(254 - log.root().size(), 'd');
    EXPECT_EQ(LogAgentMkdirWithMultiLayer(deep.c_str()), 0);
    EXPECT_EQ(LogAgentMkdirWithMultiLayer((deep + "/e").c_str()), kLogCopyFailed);
    EXPECT_EQ(LogAgentMkdirWithMultiLayer((deep + "d").c_str()), kLogCopyFailed);
}

TEST(LogCommonUtil, PreparesTheLogDirectory) {
    SelfLogHere log;
    std::vector<char> out(kLogPathMax + 1);
    std::filesystem::create_directory_symlink(log.root(), log.root() + "/link");
    std::string path = log.root() + "/link/new/ \t/\n";
    ASSERT_EQ(PrepareLogDir(path.data(), out.data(), kLogPathMax), 0);
    EXPECT_STREQ(path.c_str(), (log.root() + "/link/new").c_str());
    EXPECT_STREQ(out.data(), (log.root() + "/new").c_str());
    path = "/dev/null/x";
    EXPECT_EQ(PrepareLogDir(path.data(), out.data(), kLogPathMax), -1);
    EXPECT_THAT(log.Take(), HasSubstr("path set is not available."));
    path = log.root();
    EXPECT_EQ(PrepareLogDir(path.data(), out.data(), 5), -1);
    EXPECT_THAT(log.Take(), HasSubstr("can not get realpath, file=" + log.root()));
}

TEST(LogCommonUtil, ExpandsAndJoinsOnlyWhatFits) {
    SelfLogHere log;
    std::vector<char> out(kLogPathMax + 1);
    EXPECT_EQ(ExpandHome("~/x/~", out.data(), kLogPathMax), 0);
    const std::string expanded = out.data();
    const std::string home = expanded.substr(0, expanded.size() - 4);
    EXPECT_THAT(log.Take(), HasSubstr("home_directory=" + home + "."));
    EXPECT_EQ(ExpandHome("/x~", out.data(), 4), 0);
    EXPECT_STREQ(out.data(), "/x~");
    EXPECT_EQ(ExpandHome("/x~", out.data(), 3), -1);
    EXPECT_EQ(ExpandHome("/x", out.data(), 0), -1);
    EXPECT_EQ(ExpandHome("/x", out.data(), kLogPathMax + 2), -1);
    EXPECT_EQ(ExpandHome(("~/" + std::string(kLogPathMax, 'x')).c_str(), out.data(), 4097), -1);

    EXPECT_EQ(JoinPath(out.data(), "b.c", "/a/x", 8), 0);
    EXPECT_STREQ(out.data(), "/a/xb.c");
    for (const char* name : {"bb.c", "bbb.c"}) {
        EXPECT_EQ(JoinPath(out.data(), name, "/a/x", 8), -1);
        EXPECT_STREQ(out.data(), "");
    }
    EXPECT_TRUE(StartsWith("slogd", "slog"));
    EXPECT_FALSE(StartsWith("slo", "slog"));
    EXPECT_FALSE(StartsWith(nullptr, ""));
}

// Computed in 32 bits, this time would be less than a millisecond.
TEST(LogPlatform, LongSleepLastsUntilASignal) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    const struct itimerval timer = {{0, 20000}, {0, 20000}};  // again, should one come too early
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    EXPECT_EQ(ToolSleep(4294968), EN_ERROR);
    const struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_EQ(ToolSleep(0), EN_INVALID_PARAM);
}

}  // namespace
