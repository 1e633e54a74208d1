// mmRmdir against trees that would exhaust it, and against somebody who works against it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <utility>

#include "fixtures_test.h"

namespace {

// What somebody does to the tree right before the removal opens a directory of that name.
struct Interference {
    std::string name;
    std::function<void()> act;
} interference;

// In memory where possible: a disk that others use would take a minute for the deep tree.
class TreeRemoval : public Scratch {
protected:
    TreeRemoval() : Scratch(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") {}
    bool Exists(const std::string& name) const {
        struct stat status;
        return lstat(At(name).c_str(), &status) == 0;
    }
    void ExpectRemoval(const std::string& path, int error) const {
        errno = 0;
        EXPECT_EQ(mmRmdir(path.c_str()), error == 0 ? EN_OK : EN_ERROR) << path;
        EXPECT_TRUE(error == 0 || errno == error) << path << " " << errno;
    }
    // Makes levels below "tree", each with a side directory, so that the way up turns round.
    void MakeDeep(int depth) const {
        MakeDirs("tree");
        int fd = open(At("tree").c_str(), O_PATH);
        for (int i = 0; i < depth; ++i) {
            ASSERT_EQ(mkdirat(fd, "side", 0755) | mkdirat(fd, "down", 0755), 0);
            const int below = openat(fd, "down", O_PATH);
            close(std::exchange(fd, below));
        }
        close(fd);
    }
};

TEST_F(TreeRemoval, DepthNeedsNeitherStackNorDescriptorsNorPaths) {
    MakeDeep(10000);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int lowest = dup(0);
    close(lowest);
    const rlimit few{static_cast<rlim_t>(lowest) + 12, before.rlim_max};
    std::string path = At("tree");
    const mmUserBlock_t body{[](void* tree) -> void* {
                                 const auto* name = static_cast<std::string*>(tree)->c_str();
                                 return mmRmdir(name) == EN_OK ? nullptr : (perror(name), nullptr);
                             },
                             &path};
    const mmThreadAttr attributes{0, 0, 0, 0, 0, 1, 32768};
    mmThread thread = 0;
    setrlimit(RLIMIT_NOFILE, &few);
    ASSERT_EQ(mmCreateTaskWithThreadAttr(&thread, &body, &attributes), EN_OK);
    EXPECT_EQ(mmJoinTask(&thread), EN_OK);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(Exists("tree"));
}

TEST_F(TreeRemoval, RemovesLinksAndLeavesWhatTheyNameAlone) {
    MakeDirs("victim tree/sub");
    Make("victim/kept");
    for (const char* link : {"tree/link", "tree/sub/link", "outer"}) {
        ASSERT_EQ(symlink(At("victim").c_str(), At(link).c_str()), 0);
    }
    ExpectRemoval(At("tree///"), 0);
    EXPECT_FALSE(Exists("tree"));
    for (const char* path : {"outer", "outer/", "victim/kept"}) {
        ExpectRemoval(At(path), ENOTDIR);
    }
    ExpectRemoval(At("victim/."), EINVAL);
    ExpectRemoval(At("victim/.."), EINVAL);
    ExpectRemoval(At("missing"), ENOENT);
    ExpectRemoval("", ENOENT);
    EXPECT_TRUE(Exists("victim/kept") && Exists("outer"));
}

TEST_F(TreeRemoval, GoesOnAfterFailuresAndKeepsTheFirstErrno) {
    if (geteuid() == 0) {
        GTEST_SKIP() << "nothing is refused to the super user";
    }
    MakeDirs("tree/locked/sub tree/blind tree/other tree/unread");
    for (const char* file : {"locked/stays", "locked/sub/goes", "blind/stays", "other/goes"}) {
        Make(std::string("tree/") + file);
    }
    chmod(At("tree/locked").c_str(), 0555);
    chmod(At("tree/blind").c_str(), 0444);  // its names can be read, nothing more
    chmod(At("tree/unread").c_str(), 0);    // can't be read, but is empty
    ExpectRemoval(At("tree"), EACCES);      // and not the ENOTEMPTY of the directories above
    chmod(At("tree/blind").c_str(), 0755);
    EXPECT_TRUE(Exists("tree/locked/stays") && Exists("tree/locked/sub"));
    EXPECT_TRUE(Exists("tree/blind/stays"));
    EXPECT_FALSE(Exists("tree/locked/sub/goes") || Exists("tree/other") || Exists("tree/unread"));
}

TEST_F(TreeRemoval, FollowsNoLinkThatIsPutInMeanwhile) {
    MakeDirs("victim tree/sub");
    Make("victim/kept");
    interference = {"sub", [this] {
                        rename(At("tree/sub").c_str(), At("away").c_str());
                        EXPECT_EQ(symlink(At("victim").c_str(), At("tree/sub").c_str()), 0);
                    }};
    ExpectRemoval(At("tree"), EISDIR);
    EXPECT_TRUE(Exists("victim/kept") && Exists("away"));
}

// The way back up leads through "..". A part of the tree that was moved has another one.
TEST_F(TreeRemoval, GoesUpOnlyIntoDirectoriesItCameDownThrough) {
    MakeDeep(16);
    MakeDirs("victim/side");
    interference = {"..",
                    [this] { rename(At("tree/down/down").c_str(), At("victim/down").c_str()); }};
    ExpectRemoval(At("tree"), ESTALE);
    EXPECT_TRUE(Exists("victim/side") && Exists("victim/down"));
}

}  // namespace

// The program's own openat comes before the C library's.
extern "C" int openat(int dir, const char* name, int flags, ...) {
    if (interference.act != nullptr && interference.name == name) {
        std::exchange(interference.act, nullptr)();
    }
    return static_cast<int>(syscall(SYS_openat, dir, name, flags, 0));
}
