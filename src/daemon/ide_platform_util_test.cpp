#include "daemon/ide_platform_util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

namespace {

// The account's own home: the sandbox's, never that of whoever runs the tests.
std::string LockPath() {
    return IdeGetHomeDir() + "/ide_daemon/.orlad.lock";
}

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Locks are per process: another start is another process.
int AcquireInChild() {
    const pid_t child = fork();
    if (child == 0) {
        SingleInstanceLock lock;
        const int ret = lock.Acquire();
        lock.Release();
        _exit(ret == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
}

TEST(SingleInstanceLock, TheLoserLeavesTheFileToTheWinner) {
    SingleInstanceLock lock;
    ASSERT_EQ(0, lock.Acquire());
    for (int start = 0; start < 3; ++start) {
        EXPECT_EQ(1, AcquireInChild());
        EXPECT_TRUE(Exists(LockPath()));
    }
    lock.Release();
    EXPECT_FALSE(Exists(LockPath()));
    EXPECT_EQ(0, AcquireInChild());
}

TEST(SingleInstanceLock, TakesOverTheFileOfAKilledInstance) {
    static_cast<void>(AcquireInChild());  // makes the directory
    std::ofstream(LockPath()) << "";
    SingleInstanceLock lock;
    EXPECT_EQ(0, lock.Acquire());
}

TEST(SingleInstanceLock, ADirectoryInItsPlaceIsNoLock) {
    static_cast<void>(AcquireInChild());
    ASSERT_EQ(0, mkdir(LockPath().c_str(), 0700));
    {
        SingleInstanceLock lock;
        EXPECT_EQ(-1, lock.Acquire());
    }
    EXPECT_EQ(0, rmdir(LockPath().c_str()));
}

TEST(LockPathCleanUp, ResolvesHomeAndLeavesTheRest) {
    const std::string file = IdeGetHomeDir() + "/clean_up_test";
    std::ofstream(file) << "";
    IdeRemoveLockPath("");
    IdeRemoveLockPath("~/no_such_file");
    IdeRemoveLockPath("~");
    EXPECT_TRUE(Exists(file));
    IdeRemoveLockPath("~/clean_up_test");
    EXPECT_FALSE(Exists(file));
    EXPECT_TRUE(Exists(IdeGetHomeDir()));
}

}  // namespace
