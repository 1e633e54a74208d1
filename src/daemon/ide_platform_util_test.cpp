#include "daemon/ide_platform_util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
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

TEST(SingleInstanceLock, ADirectoryInItsPlaceIsNoLock) {
    SingleInstanceLock lock;
    ASSERT_EQ(0, lock.Acquire());  // makes the directory around it
    lock.Release();
    ASSERT_EQ(0, mkdir(LockPath().c_str(), 0700));
    EXPECT_EQ(-1, lock.Acquire());
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
