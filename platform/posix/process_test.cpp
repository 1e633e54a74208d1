// Child processes: what they get, what they do not get, and how failures come back.
#include <fcntl.h>
#include <portability.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "fixtures_test.h"

namespace {

using Words = std::vector<const char*>;

class Process : public Scratch {
protected:
    // The result of mmCreateProcess; the child, if any, is in child_.
    int32_t Start(const char* program, Words argv, Words envp, const char* output = nullptr) {
        const mmArgvEnv record{const_cast<char**>(argv.data()), static_cast<int32_t>(argv.size()),
                               const_cast<char**>(envp.data()), static_cast<int32_t>(envp.size())};
        return mmCreateProcess(program, &record, output, &child_);
    }
    // The exit value, or -1000 when the program did not start or could not be waited for.
    int32_t Run(const char* program, Words argv, Words envp, const char* output = nullptr) {
        int32_t status = 0;
        const bool started = Start(program, std::move(argv), std::move(envp), output) == EN_OK;
        return started && mmWaitPid(child_, &status, 0) == 1 ? status : -1000;
    }
    int32_t RunShell(const char* command, const char* output = nullptr) {
        return Run("/bin/sh", {"sh", "-c", command}, {"PATH=/usr/bin:/bin"}, output);
    }
    std::string MakeScript(const std::string& name, const std::string& body, mode_t mode) const {
        const std::string path = MakeFile(name, body);
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        return path;
    }

    pid_t child_ = 0;
};

TEST_F(Process, GivesExactlyTheArgumentsEnvironmentAndOutputAskedFor) {
    const std::string output = MakeFile("output", std::string(1000, 'o'));
    EXPECT_EQ(Run("/usr/bin/env", {"env", nullptr, "ignored"}, {"B=2", "A=1 x", nullptr, "C=3"},
                  output.c_str()),
              0);
    EXPECT_EQ(Read(output), "B=2\nA=1 x\n");
    const std::string fresh = At("fresh");
    EXPECT_EQ(RunShell("echo \"$0\"; echo err >&2", fresh.c_str()), 0);
    EXPECT_EQ(Read(fresh), "sh\nerr\n");
    struct stat status {};
    ASSERT_EQ(stat(fresh.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07027, 0u);
    EXPECT_EQ(status.st_mode & 0600, 0600u);
}

TEST_F(Process, ClosesEveryDescriptorOfTheParentAndResetsItsSignals) {
    const int leaked = dup(0);  // without close-on-exec
    ASSERT_EQ(dup2(0, 900), 900);
    const int born = mmOpen2("/dev/null", O_RDONLY, 0);
    EXPECT_EQ(fcntl(born, F_GETFD), FD_CLOEXEC);
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto pipeBefore = signal(SIGPIPE, SIG_IGN);

    const std::string files = At("files");
    EXPECT_EQ(Run("/bin/ls", {"ls", "/proc/self/fd"}, {}, files.c_str()), 0);
    const std::string signals = At("signals");
    EXPECT_EQ(
        Run("/bin/grep", {"grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"}, {}, signals.c_str()),
        0);
    signal(SIGPIPE, pipeBefore);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (const int fd : {leaked, 900, born}) {
        close(fd);
    }
    EXPECT_EQ(Read(files), "0\n1\n2\n3\n");  // the last is the directory that ls reads
    // Two signals belong to the C library itself, which may leave them ignored.
    constexpr unsigned long kLibrarySignals = 0x180000000;
    std::istringstream lines(Read(signals));
    int seen = 0;
    for (std::string name, mask; lines >> name >> mask; ++seen) {
        EXPECT_EQ(std::stoul(mask, nullptr, 16) & ~kLibrarySignals, 0u) << name << mask;
    }
    EXPECT_EQ(seen, 2);
}

TEST_F(Process, SearchesThePathOfTheChildAndThenTheCallers) {
    for (const char* dir : {"own", "mine", "locked"}) {
        MakeDir(dir);
    }
    MakeScript("own/tool", "#!/bin/sh\nexit 11\n", 0755);
    MakeScript("mine/tool", "#!/bin/sh\nexit 22\n", 0755);
    MakeScript("mine/other", "#!/bin/sh\nexit 23\n", 0755);
    MakeScript("locked/tool", "#!/bin/sh\nexit 33\n", 0644);
    MakeScript("locked/secret", "#!/bin/sh\nexit 33\n", 0644);
    MakeScript("headless", "exit 44\n", 0755);
    const std::string before = getenv("PATH");
    setenv("PATH", (At("locked") + ":" + At("mine")).c_str(), 1);
    const std::string path = "PATH=" + At("nowhere") + "::" + At("locked") + ":" + At("own");
    const struct {
        std::string program;
        const char* environment;
        int32_t status;
        int error;
    } cases[] = {{"tool", path.c_str(), 11, 0},
                 {"tool", "OTHER=1", 22, 0},
                 {"other", path.c_str(), 23, 0},
                 {"other", "PATHS=/", 23, 0},
                 {At("own/tool"), "PATH=", 11, 0},
                 {"secret", path.c_str(), -1000, EACCES},
                 {"absent", path.c_str(), -1000, ENOENT},
                 {"", path.c_str(), -1000, ENOENT},
                 {At("locked/tool"), path.c_str(), -1000, EACCES},
                 {At("headless"), path.c_str(), -1000, ENOEXEC}};
    for (const auto& one : cases) {
        errno = 0;
        EXPECT_EQ(Run(one.program.c_str(), {"x"}, {one.environment}), one.status) << one.program;
        if (one.error != 0) {
            EXPECT_EQ(errno, one.error) << one.program;
        }
    }
    setenv("PATH", before.c_str(), 1);
    // None of the failures left a child behind, nor a number for one.
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    child_ = 7;
    EXPECT_EQ(Start("/bin/true", {"true"}, {}, At("no/such/output").c_str()), EN_ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(child_, 7);
}

TEST_F(Process, RefusesImpossibleArguments) {
    char name[] = "true";
    char* argv[] = {name, nullptr};
    const mmArgvEnv good{argv, 1, nullptr, 0};
    const mmArgvEnv bad[] = {{nullptr, 1, nullptr, 0}, {argv, 0, nullptr, 0},
                             {argv, -1, nullptr, 0},   {argv + 1, 1, nullptr, 0},
                             {argv, 1, nullptr, 1},    {argv, 1, argv, -1}};
    for (const mmArgvEnv& one : bad) {
        EXPECT_EQ(mmCreateProcess("/bin/true", &one, nullptr, &child_), EN_INVALID_PARAM);
    }
    EXPECT_EQ(mmCreateProcess(nullptr, &good, nullptr, &child_), EN_INVALID_PARAM);
    EXPECT_EQ(mmCreateProcess("/bin/true", nullptr, nullptr, &child_), EN_INVALID_PARAM);
    EXPECT_EQ(mmCreateProcess("/bin/true", &good, nullptr, nullptr), EN_INVALID_PARAM);
    for (const pid_t pid : {0, -1, -getpgrp()}) {
        EXPECT_EQ(mmWaitPid(pid, nullptr, 0), EN_INVALID_PARAM);
    }
    EXPECT_EQ(mmWaitPid(1, nullptr, WUNTRACED), EN_INVALID_PARAM);
}

TEST_F(Process, WaitsThroughSignalsAndTellsHowTheChildEnded) {
    EXPECT_EQ(RunShell("exit 7"), 7);
    EXPECT_EQ(RunShell("kill -9 $$"), 128 + SIGKILL);

    ASSERT_EQ(mkfifo(At("gate").c_str(), 0600), 0);
    const std::string command = "read x < " + At("gate") + "; exit 3";
    ASSERT_EQ(Start("/bin/sh", {"sh", "-c", command.c_str()}, {}), EN_OK);
    int32_t status = 99;
    EXPECT_EQ(mmWaitPid(child_, &status, M_WAIT_NOHANG), 0);
    EXPECT_EQ(status, 99);
    MakeFile("gate", "go\n");
    EXPECT_EQ(mmWaitPid(child_, &status, 0), 1);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(mmWaitPid(child_, &status, 0), EN_ERROR);
    EXPECT_EQ(errno, ECHILD);

    const Interruptions interruptions;
    const int before = Interruptions::Count();
    EXPECT_EQ(RunShell("exec sleep 0.1"), 0);
    EXPECT_GT(Interruptions::Count(), before + 1);
}

}  // namespace
