#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>

#include "hdc/test_support.h"
#include "profiling/config/utils.h"
#include "profiling/config/utils_test_support.h"

namespace analysis::nedra::common::utils {
namespace {

using testing::ElementsAre;
using Texts = std::vector<std::string>;

// Commands change the working directory of the process; every test gets it back.
class UtilsProcess : public testing::Test {
protected:
    void TearDown() override { std::filesystem::current_path(here_); }

    // Runs a command and waits for it: its exit value, and what it wrote.
    std::pair<int, std::string> Run(const std::string& cmd, const Texts& argv, const Texts& envp) {
        int exitCode = 0;
        int pid = 0;
        EXPECT_EQ(0, Utils::ExecCmd({cmd, false, root_ / "out"}, argv, envp, exitCode, pid));
        return {exitCode, orla::test::ReadFile(root_ / "out")};
    }

    using Result = std::pair<int, std::string>;
    const orla::test::TempDir root_;
    const std::string here_ = std::filesystem::current_path();
};

TEST_F(UtilsProcess, WaitsAndGivesExitValueAndOutput) {
    EXPECT_EQ(Result(7, "an argument\nerr\n"),
              Run("/bin/sh", {"-c", "echo \"$1\"; echo err >&2; exit 7", "", "an argument"}, {}));
    EXPECT_EQ(Result(0, "b c:\n" + std::filesystem::canonical("/bin").string() + "\n"),
              Run("/bin/sh", {"-c", "echo \"$A:$HOME\"; pwd"}, {"A=b c"}));
    EXPECT_EQ(Result(128 + SIGKILL, ""), Run("/bin/sh", {"-c", "kill -9 $$"}, {}));
}

TEST_F(UtilsProcess, SearchesBareNamesInTheGivenPathFirst) {
    orla::test::WriteFile(root_ / "ls", "#!/bin/sh\necho mine\n");
    std::filesystem::permissions(root_ / "ls", std::filesystem::perms::owner_all);
    const Texts envp{"PATH=/nowhere:" + root_.path()};
    EXPECT_EQ(Result(0, "mine\n"), Run("ls", {}, envp));
    EXPECT_EQ(Result(0, "x"), Run("printf", {"x"}, envp));
}

TEST_F(UtilsProcess, RefusesWhatCannotRun) {
    for (const bool async : {false, true}) {
        int exitCode = 0;
        int pid = 12345;
        EXPECT_EQ(-1, Utils::ExecCmd({"", async, ""}, {}, {}, exitCode, pid));
        EXPECT_EQ(-1, Utils::ExecCmd({"/bin/no program", async, ""}, {}, {}, exitCode, pid));
        EXPECT_EQ(-1, Utils::ExecCmd({"true", async, ""}, Texts(0x100001), {}, exitCode, pid));
        exitCode = -1;
        EXPECT_EQ(-1, Utils::ExecCmd({"true", async, ""}, {}, {}, exitCode, pid));
        EXPECT_EQ(12345, pid);
    }
}

TEST_F(UtilsProcess, AsyncChildIsWaitedForByItsId) {
    ASSERT_EQ(0, mkfifo((root_ / "go").c_str(), 0600));
    orla::test::LogCapture log;
    int exitCode = 0;
    int pid = -1;
    ASSERT_EQ(0,
              Utils::ExecCmd({"/bin/sh", true, root_ / "out"},
                             {"-c", "read x < " + (root_ / "go") + "; exit 3"}, {}, exitCode, pid));
    EXPECT_THAT(log.Take(), ElementsAre("I Execute cmd:\"sh -c go; exit 3\", "
                                        "stdoutRedirectFile=out"));
    EXPECT_EQ(here_, std::filesystem::current_path());
    bool isExited = true;
    EXPECT_EQ(0, Utils::WaitProcess(pid, isExited, exitCode, false));
    EXPECT_FALSE(isExited);
    orla::test::WriteFile(root_ / "go", "\n");
    EXPECT_EQ(0, Utils::WaitProcess(pid, isExited, exitCode, true));
    EXPECT_TRUE(isExited);
    for (const int gone : {pid, 0, -1}) {
        isExited = true;
        EXPECT_EQ(-1, Utils::WaitProcess(gone, isExited, exitCode, true)) << gone;
        EXPECT_FALSE(isExited);
    }
    EXPECT_EQ(3, exitCode);
}

TEST_F(UtilsProcess, AppendsToAFileThatIsLocked) {
    const std::string path = root_ / "list";
    const int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(0, flock(fd, LOCK_SH));
    EXPECT_EQ(0, Utils::WriteFileWithLock(path, "list", "one\n"));
    EXPECT_EQ(0, Utils::WriteFileWithLock(path, "list", "two\n"));
    EXPECT_EQ(0, flock(fd, LOCK_EX | LOCK_NB)) << "the lock was not given back";
    mmClose(fd);
    EXPECT_EQ("one\ntwo\n", orla::test::ReadFile(path));
    EXPECT_EQ(-1, Utils::WriteFileWithLock("/dev/full", "full", "x"));
}

}  // namespace
}  // namespace analysis::nedra::common::utils
