#include <gmock/gmock.h>
#include <sys/stat.h>

#include "hdc/test_support.h"
#include "profiling/config/utils.h"
#include "profiling/config/utils_test_support.h"

namespace analysis::nedra::common::utils {
namespace {

using orla::test::LogCapture;
using orla::test::TempDir;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Texts = std::vector<std::string>;

mode_t ModeOf(const std::string& path) {
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

// A tree of two levels, with links to what lies outside of it and to itself.
void MakeTree(const TempDir& root) {
    std::filesystem::create_directories(root / "outside");
    std::filesystem::create_directories(root / "tree/d/e");
    for (const char* file : {"outside/kept", "tree/f", "tree/d/g"}) {
        orla::test::WriteFile(root / file, "x");
    }
    std::filesystem::create_symlink(root / "outside", root / "tree/link");
    std::filesystem::create_symlink("..", root / "tree/d/loop");
}

TEST(UtilsDir, CreatesWhatIsMissingWithItsMode) {
    const TempDir root;
    const mode_t before = umask(077);
    ASSERT_EQ(0, mkdir((root / "a").c_str(), 0700));
    LogCapture log;
    EXPECT_EQ(0, Utils::CreateDir(root / "a/b/c/"));
    umask(before);
    EXPECT_THAT(log.Take("I"), ElementsAre("I CreateDir dir b with 750",
                                           "I Success to mkdir, FilePath : b, FileMode : 750",
                                           "I CreateDir dir c with 750",
                                           "I Success to mkdir, FilePath : c, FileMode : 750"));
    EXPECT_EQ(0700u, ModeOf(root / "a")) << "an existing directory was touched";
    EXPECT_EQ(0750u, ModeOf(root / "a/b"));
}

TEST(UtilsDir, CreatesNothingFromWhatIsNoPath) {
    const TempDir root;
    orla::test::WriteFile(root / "file", "");
    std::string tooLong = root / "d";
    while (tooLong.size() < 4096) {
        tooLong += "/d";
    }
    const auto here = std::filesystem::current_path();
    std::filesystem::create_directory(root / "gone");
    std::filesystem::current_path(root / "gone");
    std::filesystem::remove(root / "gone");
    for (const std::string& path :
         {std::string(), root / "file/below", tooLong, std::string("below/nothing")}) {
        EXPECT_EQ(-1, Utils::CreateDir(path)) << path;
    }
    std::filesystem::current_path(here);
    EXPECT_FALSE(Utils::IsDir(root / "d")) << "a path that cannot be made left its parents";
}

TEST(UtilsDir, DepthCostsNoStack) {
    const TempDir root("/dev/shm");  // a disk takes seconds for so many directories
    std::string deep = root / "top";
    while (deep.size() + 2 < 4095) {
        deep += "/d";
    }
    Texts dirs;
    ASSERT_TRUE(orla::test::RunOnSmallStack([&] {
        EXPECT_EQ(0, Utils::CreateDir(deep));
        Utils::GetChildDirs(root.path(), true, dirs);
        Utils::RemoveDir(root / "top", true);
    }));
    EXPECT_EQ((deep.size() - (root / "top").size()) / 2 + 1, dirs.size());
    EXPECT_FALSE(Utils::IsFileExist(root / "top"));
}

TEST(UtilsDir, ListsATreeWithoutFollowingLinks) {
    const TempDir root;
    MakeTree(root);
    const std::string top = root / "tree/";
    Texts files{"before"};
    Utils::GetFiles(top, true, files);
    EXPECT_THAT(files, UnorderedElementsAre("before", top + "f", top + "link", top + "d/g",
                                            top + "d/loop"));
    Texts dirs;
    Utils::GetChildDirs(root / "tree", false, dirs);
    EXPECT_THAT(dirs, ElementsAre(top + "d"));
    Texts names;
    EXPECT_EQ(0, Utils::GetChildFilenames(top, names));
    EXPECT_THAT(names, UnorderedElementsAre("f", "d", "link"));
    EXPECT_EQ(-1, Utils::GetChildFilenames(top + "f", names));
}

TEST(UtilsDir, RemovesContentsOrAllAndNothingOutside) {
    const TempDir root;
    MakeTree(root);
    LogCapture log;
    Utils::RemoveDir(root / "tree", false);
    EXPECT_TRUE(std::filesystem::is_empty(root / "tree"));
    std::filesystem::remove(root / "tree");
    MakeTree(root);
    Utils::RemoveDir(root / "tree", true);
    EXPECT_FALSE(Utils::IsFileExist(root / "tree"));
    EXPECT_EQ("x", orla::test::ReadFile(root / "outside/kept"));
    EXPECT_THAT(log.Take("EW"), ElementsAre());
    Utils::RemoveDir(root / "tree", true);
    Utils::RemoveDir(root / "tree", false);
    EXPECT_THAT(log.Take("W"), ElementsAre("W mmRmdir failed tree. ErrorCode : 2",
                                           "W mmScandir failed tree. ErrorCode : 2"));
    // Only the form that mmRmdir would refuse as well is tried on a real root.
    std::filesystem::create_symlink("/", root / "link");
    for (const std::string& path : {std::string(), std::string("/"), std::string("//"),
                                    std::string("/tmp/.."), root / "link"}) {
        Utils::RemoveDir(path, true);
        EXPECT_THAT(log.Take(), ElementsAre("E empty compare failed.")) << path;
    }
}

}  // namespace
}  // namespace analysis::nedra::common::utils
