#include "file_service/file_utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

class CreateDirTest : public testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/file_utils_XXXXXX";
        root_ = mkdtemp(pattern);
        umask(022);
    }
    void TearDown() override { ASSERT_EQ(0, std::system(("rm -rf " + root_).c_str())); }

    static mode_t ModeOf(const std::string& path) {
        struct stat info = {};
        return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
    }

    std::string root_;
};

TEST_F(CreateDirTest, MakesEveryMissingParent) {
    EXPECT_EQ(kFileOk, CreateDir(root_ + "/a/b/c/"));
    for (const char* dir : {"/a", "/a/b", "/a/b/c"}) {
        EXPECT_EQ(0700u, ModeOf(root_ + dir)) << dir;
    }
    chmod((root_ + "/a").c_str(), 0750);
    EXPECT_EQ(kFileOk, CreateDir(root_ + "/a"));
    EXPECT_EQ(0750u, ModeOf(root_ + "/a")) << "an existing directory was touched";
}

TEST_F(CreateDirTest, DepthCostsNoStack) {
    std::string deep = root_;
    while (deep.size() + 2 < 4090) {
        deep += "/d";
    }
    EXPECT_EQ(kFileOk, CreateDir(deep));
    EXPECT_EQ(0700u, ModeOf(deep));
}

TEST_F(CreateDirTest, RefusesWhatIsNoPath) {
    EXPECT_EQ(kFileBadPath, CreateDir(""));
    EXPECT_EQ(kFileBadPath, CreateDir("relative/never_made"));
    std::ofstream(root_ + "/file") << "";
    EXPECT_EQ(kFileDirFailed, CreateDir(root_ + "/file/below"));
    EXPECT_EQ(kFileDirFailed, CreateDir(root_ + "/" + std::string(300, 'n')));
}

TEST(GetFileDir, CutsAtTheLastSlash) {
    const struct {
        const char* path;
        const char* dir;
    } cases[] = {{"/a/b", "/a"}, {"/a", "/"}, {"/", "/"}, {"a", ""}, {"", ""}, {"a/b/", "a/b"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.dir, GetFileDir(c.path)) << c.path;
    }
}

}  // namespace
