#include "log/log_common_util.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pwd.h>
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
    for (const char* name : {"/a", "/a/b"}) {
        struct stat status = {};
        ASSERT_EQ(stat((log.root() + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFDIR | 0750u);
    }
    EXPECT_EQ(LogAgentMkdirWithMultiLayer(nullptr), kLogNullPath);
    EXPECT_EQ(LogAgentMkdirWithMultiLayer("/dev/null/a/b"), kLogMkdirFailed);

    // Prefixes of 255 characters and no more.
    const std::string deep = log.root() + "/" + std::string(254 - log.root().size(), 'd');
    EXPECT_EQ(LogAgentMkdirWithMultiLayer(deep.c_str()), 0);
    EXPECT_EQ(LogAgentMkdirWithMultiLayer((deep + "/").c_str()), 0);
    EXPECT_EQ(LogAgentMkdirWithMultiLayer((deep + "/e").c_str()), kLogCopyFailed);
    EXPECT_THAT(log.Take(), HasSubstr("copy data failed, strerr="));
    EXPECT_EQ(LogAgentMkdirWithMultiLayer((deep + "d").c_str()), kLogCopyFailed);
    EXPECT_THAT(log.Take(), HasSubstr("strncat_s failed, strerr="));
}

TEST(LogCommonUtil, PreparesTheLogDirectory) {
    SelfLogHere log;
    std::vector<char> out(kLogPathMax + 1);
    std::string path = log.root() + "/new/dir/ \t/\n";
    ASSERT_EQ(PrepareLogDir(path.data(), out.data(), kLogPathMax), 0);
    EXPECT_STREQ(path.c_str(), (log.root() + "/new/dir").c_str());
    EXPECT_STREQ(out.data(), path.c_str());

    std::filesystem::create_directory_symlink(log.root(), log.root() + "/link");
    path = log.root() + "/link/new//";
    ASSERT_EQ(PrepareLogDir(path.data(), out.data(), kLogPathMax), 0);
    EXPECT_STREQ(out.data(), (log.root() + "/new").c_str());
    path = "//";
    EXPECT_EQ(PrepareLogDir(path.data(), out.data(), kLogPathMax), access("/", W_OK) == 0 ? 0 : -1);

    log.Take();
    path = "/dev/null/x";
    EXPECT_EQ(PrepareLogDir(path.data(), out.data(), kLogPathMax), -1);
    EXPECT_THAT(log.Take(), HasSubstr("path set is not available."));
    path = log.root();
    EXPECT_EQ(PrepareLogDir(path.data(), out.data(), 5), -1);
    EXPECT_THAT(log.Take(), HasSubstr("can not get realpath, file=" + log.root()));
}

TEST(LogCommonUtil, ExpandsTheHomeDirectory) {
    SelfLogHere log;
    const struct passwd* account = getpwuid(getuid());
    const std::string home = account != nullptr ? account->pw_dir : "";
    std::vector<char> out(kLogPathMax + 1);
    EXPECT_EQ(ExpandHome("~/x/~", out.data(), kLogPathMax), 0);
    EXPECT_EQ(out.data(), home + "/x/~");
    EXPECT_THAT(log.Take(), HasSubstr("home_directory=" + home + "."));
    EXPECT_EQ(ExpandHome("/x~", out.data(), kLogPathMax + 1), 0);
    EXPECT_STREQ(out.data(), "/x~");

    EXPECT_EQ(ExpandHome("/x", out.data(), 0), -1);
    EXPECT_EQ(ExpandHome("/x", out.data(), kLogPathMax + 2), -1);
    EXPECT_THAT(log.Take(), HasSubstr("length is invalid, length=4098, max_length=4096."));
    EXPECT_EQ(ExpandHome("/xy", out.data(), 3), -1);
    EXPECT_THAT(log.Take(), HasSubstr("strcpy_s path failed"));
    EXPECT_EQ(ExpandHome(("~/" + std::string(kLogPathMax, 'x')).c_str(), out.data(), 4097), -1);
    EXPECT_THAT(log.Take(), HasSubstr("path length more than upper limit, upper_limit=4096"));
}

TEST(LogCommonUtil, JoinsOnlyWhatFits) {
    SelfLogHere log;
    char out[8];
    EXPECT_EQ(JoinPath(out, "b.c", "/a/x", sizeof(out)), 0);
    EXPECT_STREQ(out, "/a/xb.c");
    for (const char* name : {"bb.c", "bbb.c"}) {
        EXPECT_EQ(JoinPath(out, name, "/a/x", sizeof(out)), -1);
        EXPECT_STREQ(out, "");
        EXPECT_THAT(log.Take(), HasSubstr("strcat filename to directory failed, dir=/a/x"));
    }
    EXPECT_EQ(JoinPath(out, nullptr, "/a", sizeof(out)), -1);
}

TEST(LogCommonUtil, StartsWithComparesWholePrefixes) {
    EXPECT_TRUE(StartsWith("slogd", "slog"));
    EXPECT_TRUE(StartsWith("slogd", ""));
    EXPECT_FALSE(StartsWith("slo", "slog"));
    EXPECT_FALSE(StartsWith(nullptr, ""));
    EXPECT_FALSE(StartsWith("slogd", nullptr));
}

// ---- The shims ------------------------------------------------------------------------------

TEST(LogPlatform, RefusesBadArguments) {
    mmStat_t status;
    mmDirent** list = nullptr;
    mmThread thread = 0;
    mmUserBlock_t routine = {[](void*) -> void* { return nullptr; }, nullptr};
    const mmThreadAttr plain = {};
    EXPECT_EQ(ToolSleep(0), EN_INVALID_PARAM);
    EXPECT_EQ(ToolStatGet(nullptr, &status), EN_INVALID_PARAM);
    EXPECT_EQ(ToolStatGet("/", nullptr), EN_INVALID_PARAM);
    EXPECT_EQ(ToolScandir(nullptr, &list, nullptr, nullptr), EN_INVALID_PARAM);
    EXPECT_EQ(ToolScandir("/", nullptr, nullptr, nullptr), EN_INVALID_PARAM);
    EXPECT_EQ(ToolOpenWithMode("/dev/null", O_NONBLOCK, 0600), EN_INVALID_PARAM);
    EXPECT_EQ(ToolOpenWithMode("/dev/null", O_WRONLY, 0077), EN_INVALID_PARAM);
    EXPECT_EQ(ToolCreateTaskWithThreadAttr(nullptr, &routine, &plain), EN_INVALID_PARAM);
    EXPECT_EQ(ToolCreateTaskWithThreadAttr(&thread, nullptr, &plain), EN_INVALID_PARAM);
    EXPECT_EQ(ToolCreateTaskWithThreadAttr(&thread, &routine, nullptr), EN_INVALID_PARAM);
    const mmThreadAttr wrong[] = {
        {0, 0, 0, 0, 0, 1, 0x1FFFF}, {0, 0, 0, 1, 3, 0, 0},   {0, 0, 0, 1, -1, 0, 0},
        {0, 1, 0, 0, 0, 0, 0},       {0, 1, 100, 0, 0, 0, 0},
    };
    for (const mmThreadAttr& attributes : wrong) {
        EXPECT_EQ(ToolCreateTaskWithThreadAttr(&thread, &routine, &attributes), EN_INVALID_PARAM);
    }
}

TEST(LogPlatform, RunsAThreadAndReadsADirectory) {
    SelfLogHere log;
    bool hasRun = false;
    mmThread thread = 0;
    mmUserBlock_t routine = {[](void* flag) -> void* {
                                 *static_cast<bool*>(flag) = true;
                                 return nullptr;
                             },
                             &hasRun};
    const mmThreadAttr attributes = {0, 0, 0, 0, 0, 1, 0x20000};
    ASSERT_EQ(ToolCreateTaskWithThreadAttr(&thread, &routine, &attributes), EN_OK);
    ASSERT_EQ(mmJoinTask(&thread), EN_OK);
    EXPECT_TRUE(hasRun);

    mmDirent** list = nullptr;
    const auto isSlogd = [](const mmDirent* entry) -> int {
        return StartsWith(entry->d_name, "slogd") ? 1 : 0;
    };
    ASSERT_EQ(ToolScandir(log.root().c_str(), &list, isSlogd, nullptr), 1);
    EXPECT_STREQ(list[0]->d_name, "slogd");
    ToolScandirFree(list, 1);
    EXPECT_EQ(ToolScandir("/missing", &list, nullptr, nullptr), EN_ERROR);
    EXPECT_EQ(ToolGetErrorCode(), ENOENT);
}

// Computed in 32 bits, this time would be less than a millisecond.
TEST(LogPlatform, LongSleepLastsUntilASignal) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    const struct itimerval timer = {{0, 20000}, {0, 20000}};  // again, should one come too early
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    EXPECT_EQ(ToolSleep(4294968), EN_ERROR);
    EXPECT_EQ(ToolGetErrorCode(), EINTR);
    const struct itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

}  // namespace
