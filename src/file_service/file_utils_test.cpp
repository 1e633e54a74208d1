#include "file_service/file_utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "file_service/ide_process_util.h"

namespace {

class FileUtilsTest : public testing::Test {
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

    void Touch(const std::string& name) const { std::ofstream(root_ + "/" + name) << name; }
    static std::string Content(const std::string& path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    std::string root_;
};

TEST_F(FileUtilsTest, MakesEveryMissingParent) {
    EXPECT_EQ(kFileOk, CreateDir(root_ + "/a/b/c/"));
    for (const char* dir : {"/a", "/a/b", "/a/b/c"}) {
        EXPECT_EQ(0700u, ModeOf(root_ + dir)) << dir;
    }
    chmod((root_ + "/a").c_str(), 0750);
    EXPECT_EQ(kFileOk, CreateDir(root_ + "/a"));
    EXPECT_EQ(0750u, ModeOf(root_ + "/a")) << "an existing directory was touched";
}

TEST_F(FileUtilsTest, DepthCostsNoStack) {
    std::string deep = root_;
    while (deep.size() + 2 < 4090) {
        deep += "/d";
    }
    EXPECT_EQ(kFileOk, CreateDir(deep));
    EXPECT_EQ(0700u, ModeOf(deep));
}

TEST_F(FileUtilsTest, RefusesWhatIsNoPath) {
    EXPECT_EQ(kFileBadPath, CreateDir(""));
    EXPECT_EQ(kFileBadPath, CreateDir("relative/never_made"));
    std::ofstream(root_ + "/file") << "";
    EXPECT_EQ(kFileDirFailed, CreateDir(root_ + "/file/below"));
    EXPECT_EQ(kFileDirFailed, CreateDir(root_ + "/" + std::string(300, 'n')));
}

TEST_F(FileUtilsTest, ScanKeepsNameOrderAndLeavesOutWhatIsNoFile) {
    for (const char* name : {"b", "a", "messages", "messages.1", "messages.tmp", "c d'e"}) {
        Touch(name);
    }
    ASSERT_EQ(kFileOk, CreateDir(root_ + "/bb/deep"));
    ASSERT_EQ(kFileOk, CreateDir(root_ + "/closed"));
    Touch("bb/deep/x");
    Touch("closed/never");
    chmod((root_ + "/closed").c_str(), 0);
    ASSERT_EQ(0, symlink((root_ + "/a").c_str(), (root_ + "/link").c_str()));

    std::vector<std::string> files = {"kept"};
    ASSERT_TRUE(GetFileList(root_ + "/", &files, nullptr, "", true));
    chmod((root_ + "/closed").c_str(), 0700);
    files.erase(std::remove(files.begin(), files.end(), root_ + "//closed/never"), files.end());
    const std::vector<std::string> all = {
        "kept",           root_ + "/a",        root_ + "/b",         root_ + "//bb//deep/x",
        root_ + "/c d'e", root_ + "/messages", root_ + "/messages.1"};
    EXPECT_EQ(all, files);

    files.clear();
    ASSERT_TRUE(GetFileList(root_ + "/", &files, nullptr, "messages", false));
    const std::vector<std::string> messages = {root_ + "/messages", root_ + "/messages.1"};
    EXPECT_EQ(messages, files);
    EXPECT_FALSE(GetFileList(root_ + "/missing/", &files, nullptr, "", true));
    EXPECT_EQ(messages, files);
}

TEST_F(FileUtilsTest, CopiesUnderTheNameThatWasMeant) {
    for (const std::string name : {"plain-1.log", "a b'c;touch x.log", "line\nfeed", "$(id)"}) {
        Touch(name);
        EXPECT_EQ(kFileOk, CopyFile(root_ + "/" + name, root_ + "/" + name + ".9.tmp"));
        EXPECT_EQ(name, Content(root_ + "/" + name + ".9.tmp"));
    }
    EXPECT_FALSE(IsFileExist("x.log"));
    EXPECT_EQ(kFileBadPath, CopyFile("", root_ + "/x"));
    // A cp that runs and fails is told by what is not there.
    EXPECT_EQ(kFileOk, CopyFile(root_ + "/missing", root_ + "/target"));
    EXPECT_FALSE(IsFileExist(root_ + "/target"));
}

TEST_F(FileUtilsTest, WritesAppendAndLongNamesAreMapped) {
    EXPECT_EQ(kFileOk, WriteFile(root_ + "/f", "abc", 3, -1));
    EXPECT_EQ(kFileOk, WriteFile(root_ + "/f", "de", 2, 0));
    EXPECT_EQ("abcde", Content(root_ + "/f"));
    EXPECT_EQ(0600u, ModeOf(root_ + "/f"));
    EXPECT_EQ(kFileInvalid, WriteFile("", "a", 1, -1));
    EXPECT_EQ(kFileInvalid, WriteFile(root_ + "/f", nullptr, 1, -1));
    EXPECT_EQ(kFileBadPath, WriteFile(root_ + "/no/such/dir", "a", 1, -1));
    EXPECT_EQ(kFileError, WriteFile(root_ + "/f", "a", 1, -5));

    const std::string name(300, 'n');
    EXPECT_EQ(kFileOk, WriteFile(root_ + "/" + name, "long", 4, -1));
    const std::string hash = std::to_string(std::hash<std::string>{}(root_ + "/" + name));
    EXPECT_EQ("long", Content(root_ + "/" + hash));
    EXPECT_EQ(hash + "," + name + "\n", Content(root_ + "/mapping.csv"));
}

TEST_F(FileUtilsTest, DiskReserve) {
    mmDiskSize disk = {};
    ASSERT_EQ(EN_OK, mmGetDiskFreeSpace(root_.c_str(), &disk));
    EXPECT_FALSE(IsDiskFull(root_, 1));
    EXPECT_TRUE(IsDiskFull(root_, UINT64_MAX));
    EXPECT_TRUE(IsDiskFull(root_ + "/missing", 1));
    EXPECT_FALSE(IsDiskFull("", UINT64_MAX));
}

TEST(FileNames, PathsAreChecked) {
    const struct {
        std::string path;
        bool valid;
        bool validChars;
    } cases[] = {{"", false, false},
                 {"/a/b-1.[x]", true, true},
                 {"../a", false, true},
                 {"/a/..", false, true},
                 {"/a/\\.\\./b", false, true},
                 {"/a b", true, false},
                 {std::string("/a\0b", 4), true, false},
                 {std::string(4096, 'a'), true, true},
                 {std::string(4097, 'a'), false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path.substr(0, 20));
        EXPECT_EQ(c.valid, IsValidPath(c.path));
        EXPECT_EQ(c.validChars, IsValidPathChars(c.path));
    }
    std::string name;
    EXPECT_EQ(kFileOk, GetFileName("/a/b", &name));
    EXPECT_EQ("b", name);
    EXPECT_EQ(kFileBadPath, GetFileName("/a/", &name));
    std::string result = "kept";
    EXPECT_EQ(-1, CheckCanonicalPath("/no/such/dir/file", &result));
    EXPECT_EQ("kept", result);
    EXPECT_EQ(0, CheckCanonicalPath("/proc/no_such_file", &result));
    EXPECT_EQ("/proc/no_such_file", result);
}

TEST(FileNames, DirectoryIsCutAtTheLastSlash) {
    const struct {
        const char* path;
        const char* dir;
    } cases[] = {{"/a/b", "/a"}, {"/a", "/"}, {"/", "/"}, {"a", ""}, {"", ""}, {"a/b/", "a/b"}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.dir, GetFileDir(c.path)) << c.path;
    }
}

}  // namespace
