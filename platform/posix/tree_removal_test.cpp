// mmRmdir against trees that would exhaust it, and against somebody who works against it.
#include <fcntl.h>
#include <portability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>

#include "fixtures_test.h"

namespace {

// What somebody does to the tree right before the removal opens a directory of that name.
struct Interference {
    std::string name;
    std::function<void()> act;
} interference;

bool Exists(const std::string& path) {
    return faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

// Makes `depth` directories below `path`, each with a file and a side directory beside the way
// down, so that the way up has to turn round at every level.
void MakeDeep(const std::string& path, int depth) {
    int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(mkdirat(fd, "side", 0755), 0);
        ASSERT_EQ(mkdirat(fd, "down", 0755), 0);
        close(openat(fd, "file", O_WRONLY | O_CREAT, 0644));
        const int below = openat(fd, "down", O_RDONLY | O_DIRECTORY);
        ASSERT_GE(below, 0);
        close(fd);
        fd = below;
    }
    close(fd);
}

// Lets the process open `count` more descriptors, and no more.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t count) {
        getrlimit(RLIMIT_NOFILE, &before_);
        const int lowest = dup(0);
        close(lowest);
        const rlimit few{lowest + count, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_{};
};

struct Removal {
    std::string path;
    int32_t result = 0;
    int error = 0;
};

void* Remove(void* argument) {
    auto* removal = static_cast<Removal*>(argument);
    removal->result = mmRmdir(removal->path.c_str());
    removal->error = errno;
    return nullptr;
}

// In memory where possible: a disk that others use would take a minute for the deep tree.
class TreeRemoval : public Scratch {
protected:
    TreeRemoval() : Scratch(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") {}
};

TEST_F(TreeRemoval, DepthNeedsNeitherStackNorDescriptorsNorPaths) {
    Removal removal{MakeDir("tree")};
    MakeDeep(removal.path, 10000);
    mmThread thread = 0;
    const mmUserBlock_t body{Remove, &removal};
    const mmThreadAttr attributes{0, 0, 0, 0, 0, 1, 131072};
    {
        const FewDescriptors few(12);
        ASSERT_EQ(mmCreateTaskWithThreadAttr(&thread, &body, &attributes), EN_OK);
        ASSERT_EQ(mmJoinTask(&thread), EN_OK);
    }
    EXPECT_EQ(removal.result, EN_OK) << removal.error;
    EXPECT_FALSE(Exists(removal.path));
}

TEST_F(TreeRemoval, RemovesLinksAndLeavesWhatTheyNameAlone) {
    MakeDir("victim");
    MakeFile("victim/kept");
    MakeDir("tree");
    MakeDir("tree/sub");
    for (const char* link : {"tree/link", "tree/sub/link", "outer"}) {
        ASSERT_EQ(symlink(At("victim").c_str(), At(link).c_str()), 0);
    }
    ASSERT_EQ(symlink("nowhere", At("tree/dangling").c_str()), 0);
    ASSERT_EQ(mkfifo(At("tree/fifo").c_str(), 0600), 0);
    EXPECT_EQ(mmRmdir(At("tree///").c_str()), EN_OK);
    EXPECT_FALSE(Exists(At("tree")));

    const struct {
        std::string path;
        int error;
    } refused[] = {{At("outer"), ENOTDIR},       {At("outer/"), ENOTDIR},
                   {At("victim/kept"), ENOTDIR}, {At("victim/."), EINVAL},
                   {At("victim/.."), EINVAL},    {At("missing"), ENOENT},
                   {At("missing/a"), ENOENT},    {"", ENOENT}};
    for (const auto& one : refused) {
        errno = 0;
        EXPECT_EQ(mmRmdir(one.path.c_str()), EN_ERROR) << one.path;
        EXPECT_EQ(errno, one.error) << one.path;
    }
    EXPECT_TRUE(Exists(At("victim/kept")));
    EXPECT_TRUE(Exists(At("outer")));
}

TEST_F(TreeRemoval, GoesOnAfterFailuresAndKeepsTheFirstErrno) {
    if (geteuid() == 0) {
        GTEST_SKIP() << "nothing is refused to the super user";
    }
    for (const char* dir :
         {"tree", "tree/locked", "tree/locked/sub", "tree/blind", "tree/other", "tree/unread"}) {
        MakeDir(dir);
    }
    for (const char* file : {"tree/file", "tree/locked/stays", "tree/locked/sub/goes",
                             "tree/blind/stays", "tree/other/goes"}) {
        MakeFile(file);
    }
    ASSERT_EQ(chmod(At("tree/locked").c_str(), 0555), 0);
    ASSERT_EQ(chmod(At("tree/blind").c_str(), 0444), 0);  // its names can be read, nothing more
    ASSERT_EQ(chmod(At("tree/unread").c_str(), 0), 0);    // can't be read, but is empty
    EXPECT_EQ(mmRmdir(At("tree").c_str()), EN_ERROR);
    EXPECT_EQ(errno, EACCES);  // and not the ENOTEMPTY of the directories above
    ASSERT_EQ(chmod(At("tree/blind").c_str(), 0755), 0);
    for (const char* stays : {"tree/locked/stays", "tree/locked/sub", "tree/blind/stays"}) {
        EXPECT_TRUE(Exists(At(stays))) << stays;
    }
    for (const char* goes : {"tree/file", "tree/locked/sub/goes", "tree/other", "tree/unread"}) {
        EXPECT_FALSE(Exists(At(goes))) << goes;
    }
}

TEST_F(TreeRemoval, FollowsNoLinkThatIsPutInMeanwhile) {
    for (const char* dir : {"victim", "tree", "tree/sub"}) {
        MakeDir(dir);
    }
    MakeFile("victim/kept");
    interference = {"sub", [this] {
                        EXPECT_EQ(rename(At("tree/sub").c_str(), At("away").c_str()), 0);
                        EXPECT_EQ(symlink(At("victim").c_str(), At("tree/sub").c_str()), 0);
                    }};
    EXPECT_EQ(mmRmdir(At("tree").c_str()), EN_ERROR);
    EXPECT_EQ(interference.act, nullptr);
    EXPECT_TRUE(Exists(At("victim/kept")));
}

// The way back up leads through "..". A part of the tree that was moved has another one.
TEST_F(TreeRemoval, GoesUpOnlyIntoDirectoriesItCameDownThrough) {
    const char* const names[] = {"0", "1", "2", "3", "4", "5", "6", "7"};
    MakeDir("victim");
    MakeDir("tree");
    MakeDeep(At("tree"), 16);
    for (const char* name : names) {  // some of them are still to be removed on the way up
        MakeFile(std::string("tree/down/") + name);
        MakeFile(std::string("victim/") + name);
    }
    interference = {
        "..",
        [this] { EXPECT_EQ(rename(At("tree/down/down").c_str(), At("victim/down").c_str()), 0); }};
    EXPECT_EQ(mmRmdir(At("tree").c_str()), EN_ERROR);
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(interference.act, nullptr);
    for (const char* name : names) {
        EXPECT_TRUE(Exists(At(std::string("victim/") + name))) << name;
    }
}

}  // namespace

// The program's own openat comes before the C library's.
extern "C" int openat(int dir, const char* name, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (interference.act != nullptr && interference.name == name) {
        std::exchange(interference.act, nullptr)();
    }
    return static_cast<int>(syscall(SYS_openat, dir, name, flags, mode));
}
