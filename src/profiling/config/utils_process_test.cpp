#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include "hdc/test_support.h"
#include "profiling/config/utils.h"
#include "profiling/config/utils_test_support.h"

namespace analysis::nedra::common::utils {
namespace {

using orla::test::TempDir;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

// Commands change the working directory of the process; every test gets it back.
class UtilsProcess : public testing::Test {
protected:
    void TearDown() override { std::filesystem::current_path(here_); }

    // Runs a shell command and waits for it: its exit value, and what it wrote.
    int Shell(const std::string& command, const Texts& envp, std::string& output) {
        int exitCode = 0;
        int pid = 0;
        const ExecCmdParams params{"/bin/sh", false, root_ / "out"};
        EXPECT_EQ(
            0, Utils::ExecCmd(params, {"-c", command, "name", "an argument"}, envp, exitCode, pid));
        output = orla::test::ReadFile(root_ / "out");
        return exitCode;
    }

    // A script that tells where it stands.
    void MakeTool(const std::string& name) {
        std::filesystem::create_directories(root_ / "bin");
        orla::test::WriteFile(root_ / "bin/" + name, "#!/bin/sh\necho \"$0\"\n");
        std::filesystem::permissions(root_ / "bin/" + name, std::filesystem::perms::owner_all);
    }

    const TempDir root_;
    const std::string here_ = std::filesystem::current_path();
};

TEST_F(UtilsProcess, WaitsAndGivesExitValueAndOutput) {
    std::string output;
    EXPECT_EQ(7, Shell("echo \"$1\"; echo err >&2; exit 7", {}, output));
    EXPECT_EQ("an argument\nerr\n", output);
    EXPECT_EQ(0, Shell("echo \"$A:$HOME\"; pwd", {"A=b c"}, output));
    EXPECT_EQ("b c:\n" + std::filesystem::canonical("/bin").string() + "\n", output) << "the environment is only what was given";
    EXPECT_EQ(128 + SIGKILL, Shell("kill -9 $$", {}, output));
}

TEST_F(UtilsProcess, SearchesBareNames) {
    MakeTool("orla-tool");
    const std::string path = "PATH=/nowhere:" + (root_ / "bin");
    const ExecCmdParams params{"orla-tool", false, root_ / "out"};
    int exitCode = 0;
    int pid = 0;
    EXPECT_EQ(0, Utils::ExecCmd(params, {}, {path}, exitCode, pid));
    EXPECT_EQ(root_ / "bin/orla-tool\n", orla::test::ReadFile(root_ / "out"));
    EXPECT_EQ(0, Utils::ExecCmd({"true", false, ""}, {}, {path}, exitCode, pid))
        << "the daemon's own PATH comes second";
    EXPECT_EQ(-1, Utils::ExecCmd({"orla-tool", false, ""}, {}, {}, exitCode, pid));
}

TEST_F(UtilsProcess, RefusesWhatCannotRun) {
    const struct {
        const char* name;
        ExecCmdParams params;
        int exitCode;
    } cases[] = {
        {"no command", {"", false, ""}, 0},
        {"no command, async", {"", true, ""}, 0},
        {"exit code taken", {"/bin/true", false, ""}, -1},
        {"exit code taken, async", {"/bin/true", true, ""}, -1},
        {"no such program", {"/bin/no such program", false, ""}, 0},
        {"no such program, async", {"/bin/no such program", true, ""}, 0},
    };
    for (const auto& c : cases) {
        int exitCode = c.exitCode;
        int pid = 12345;
        EXPECT_EQ(-1, Utils::ExecCmd(c.params, {}, {}, exitCode, pid)) << c.name;
        EXPECT_EQ(c.exitCode, exitCode) << c.name;
        EXPECT_EQ(12345, pid) << c.name;
    }
    orla::test::LogCapture log;
    int exitCode = 0;
    int pid = 0;
    const Texts tooMany(0x100001);
    EXPECT_EQ(-1, Utils::ExecCmd({"/bin/true", false, ""}, tooMany, {}, exitCode, pid));
    EXPECT_EQ(-1, Utils::ExecCmd({"/bin/true", false, ""}, {}, tooMany, exitCode, pid));
    EXPECT_THAT(log.Take(),
                ElementsAre("E invalid argv or envp size", "E invalid argv or envp size"));
}

TEST_F(UtilsProcess, AsyncChildIsWaitedForByItsId) {
    ASSERT_EQ(0, mkfifo((root_ / "go").c_str(), 0600));
    orla::test::LogCapture log;
    int exitCode = 0;
    int pid = -1;
    const ExecCmdParams params{"/bin/sh", true, root_ / "out"};
    ASSERT_EQ(0, Utils::ExecCmd(params, {"-c", "read x < " + (root_ / "go") + "; exit 3"}, {},
                                exitCode, pid));
    EXPECT_THAT(log.Take(), ElementsAre("I Execute cmd:\"sh -c go; exit 3\", "
                                        "stdoutRedirectFile=out"));
    ASSERT_GT(pid, 0);
    EXPECT_EQ(here_, std::filesystem::current_path());
    bool isExited = true;
    EXPECT_EQ(0, Utils::WaitProcess(pid, isExited, exitCode, false));
    EXPECT_FALSE(isExited);
    orla::test::WriteFile(root_ / "go", "\n");
    EXPECT_EQ(0, Utils::WaitProcess(pid, isExited, exitCode, true));
    EXPECT_TRUE(isExited);
    EXPECT_EQ(3, exitCode);
    for (const int gone : {pid, 0, -1}) {
        isExited = true;
        EXPECT_EQ(-1, Utils::WaitProcess(gone, isExited, exitCode, true)) << gone;
        EXPECT_FALSE(isExited);
        EXPECT_EQ(3, exitCode);
    }
}

TEST_F(UtilsProcess, AppendsToAFileThatIsLocked) {
    const std::string path = root_ / "list";
    EXPECT_EQ(0, Utils::WriteFileWithLock(path, "list", "one\n"));
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(fd, LOCK_SH));
    EXPECT_EQ(0, Utils::WriteFileWithLock(path, "list", "two\n")) << "shared locks go together";
    ASSERT_EQ(0, flock(fd, LOCK_EX | LOCK_NB)) << "the lock was not given back";
    close(fd);
    EXPECT_EQ("one\ntwo\n", orla::test::ReadFile(path));
    orla::test::LogCapture log;
    EXPECT_EQ(-1, Utils::WriteFileWithLock(root_ / "no/dir", "that list", "x"));
    EXPECT_EQ(-1, Utils::WriteFileWithLock("/dev/full", "full", "x"));
    EXPECT_THAT(log.Take(),
                ElementsAre("E Failed to open that list", "E Failed to write prof dir"));
}

}  // namespace
}  // namespace analysis::nedra::common::utils
