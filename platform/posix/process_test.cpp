// Child processes: what they get, what they do not get, and how failures come back.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <vector>

#include "fixtures_test.h"

namespace {

using Words = std::vector<const char*>;

class Process : public Scratch {
protected:
    int32_t Start(const std::string& program, Words argv, Words envp, const char* output) {
        const mmArgvEnv record{const_cast<char**>(argv.data()), static_cast<int32_t>(argv.size()),
                               const_cast<char**>(envp.data()), static_cast<int32_t>(envp.size())};
        const std::string file = At(output == nullptr ? "" : output);
        return mmCreateProcess(program.c_str(), &record, output ? file.c_str() : nullptr, &child_);
    }
    // The exit value, or minus the errno of a program that did not start.
    int32_t Run(const std::string& program, Words argv, Words envp, const char* output = nullptr) {
        int32_t status = 0;
        if (Start(program, argv, envp, output) != EN_OK) {
            return -errno;
        }
        EXPECT_EQ(mmWaitPid(child_, &status, 0), 1);
        return status;
    }

    pid_t child_ = 0;
};

TEST_F(Process, GivesExactlyTheArgumentsEnvironmentAndOutputAskedFor) {
    Make("old", std::string(1000, 'o'));
    EXPECT_EQ(Run("/usr/bin/env", {"env", nullptr, "x"}, {"B=2", "A=1 x", nullptr, "C=3"}, "old"),
              0);
    EXPECT_EQ(Read("old"), "B=2\nA=1 x\n");
    EXPECT_EQ(Run("/bin/sh", {"name", "-c", "echo \"$0\"; echo err >&2"}, {}, "fresh"), 0);
    EXPECT_EQ(Read("fresh"), "name\nerr\n");
    struct stat status {};
    ASSERT_EQ(stat(At("fresh").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0607, 0600u);
}

TEST_F(Process, GivesNoDescriptorsOrSignalsOfTheParent) {
    ASSERT_EQ(dup2(0, 900), 900);  // without close-on-exec
    const int born = mmOpen2("/dev/null", O_RDONLY, 0);
    EXPECT_EQ(fcntl(born, F_GETFD), FD_CLOEXEC);
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto pipeBefore = signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(Run("/bin/ls", {"ls", "/proc/self/fd"}, {}, "files"), 0);
    // Two signals belong to the C library itself, which may leave them ignored.
    const char* pattern = "^Sig(Blk|Ign):\t0{7}[01][08]0{7}$";
    EXPECT_EQ(Run("/bin/grep", {"grep", "-cE", pattern, "/proc/self/status"}, {}, "signals"), 0);
    signal(SIGPIPE, pipeBefore);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(900);
    close(born);
    EXPECT_EQ(Read("files"), "0\n1\n2\n3\n");  // the last is the directory that ls reads
    EXPECT_EQ(Read("signals"), "2\n");
}

TEST_F(Process, SearchesThePathOfTheChildAndThenTheCallers) {
    MakeDirs("own mine locked");
    Make("own/tool", "#!/bin/sh\nexit 11\n", 0755);
    Make("mine/tool", "#!/bin/sh\nexit 22\n", 0755);
    Make("mine/other", "#!/bin/sh\nexit 23\n", 0755);
    Make("locked/tool", "#!/bin/sh\nexit 33\n", 0644);
    Make("locked/secret", "#!/bin/sh\nexit 33\n", 0644);
    Make("headless", "exit 44\n", 0755);
    const std::string before = getenv("PATH");
    setenv("PATH", (At("locked") + ":" + At("mine")).c_str(), 1);
    const std::string path = "PATH=" + At("nowhere") + "::" + At("locked") + ":" + At("own");
    const struct {
        std::string program;
        const char* environment;
        int32_t status;
    } cases[] = {{"tool", path.c_str(), 11},        {"tool", "OTHER=1", 22},
                 {"other", path.c_str(), 23},       {At("own/tool"), "PATH=", 11},
                 {"secret", path.c_str(), -EACCES}, {"absent", path.c_str(), -ENOENT},
                 {"", path.c_str(), -ENOENT},       {At("headless"), path.c_str(), -ENOEXEC}};
    for (const auto& one : cases) {
        EXPECT_EQ(Run(one.program, {"x"}, {one.environment}), one.status) << one.program;
    }
    setenv("PATH", before.c_str(), 1);
    EXPECT_EQ(Run("/bin/true", {"true"}, {}, "no/such/output"), -ENOENT);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // none of the failures left a child behind
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(Start("/bin/true", {}, {}, nullptr), EN_INVALID_PARAM);
    EXPECT_EQ(Start("/bin/true", {nullptr}, {}, nullptr), EN_INVALID_PARAM);
}

TEST_F(Process, WaitsThroughSignalsAndTellsHowTheChildEnded) {
    EXPECT_EQ(Run("/bin/sh", {"sh", "-c", "kill -9 $$"}, {}), 128 + SIGKILL);
    ASSERT_EQ(mkfifo(At("gate").c_str(), 0600), 0);
    const std::string command = "read x < " + At("gate") + "; sleep 0.1; exit 3";
    ASSERT_EQ(Start("/bin/sh", {"sh", "-c", command.c_str()}, {"PATH=/bin"}, nullptr), EN_OK);
    int32_t status = 99;
    EXPECT_EQ(mmWaitPid(child_, &status, M_WAIT_NOHANG), 0);
    EXPECT_EQ(status, 99);
    std::ofstream(At("gate")) << "go\n";
    const Interruptions interruptions;
    EXPECT_EQ(mmWaitPid(child_, &status, 0), 1);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(mmWaitPid(child_, &status, 0), EN_ERROR);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(mmWaitPid(-1, &status, 0), EN_INVALID_PARAM);
    EXPECT_EQ(mmWaitPid(child_, &status, WUNTRACED), EN_INVALID_PARAM);
}

}  // namespace
