#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hdc/test_support.h"
#include "profiling/config/utils.h"
#include "profiling/config/utils_test_support.h"

namespace analysis::nedra::common::utils {
namespace {

using orla::test::TempDir;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Texts = std::vector<std::string>;

mode_t ModeOf(const std::string& path) {
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

// A tree with a file and a directory on two levels, and links to what lies outside of it.
void MakeTree(const TempDir& root) {
    std::filesystem::create_directories(root / "outside");
    orla::test::WriteFile(root / "outside/kept", "x");
    std::filesystem::create_directories(root / "tree/d/e");
    orla::test::WriteFile(root / "tree/f", "x");
    orla::test::WriteFile(root / "tree/d/g", "x");
    std::filesystem::create_symlink(root / "outside", root / "tree/link");
    std::filesystem::create_symlink("..", root / "tree/d/loop");
}

TEST(UtilsDir, CreatesWhatIsMissingWithItsMode) {
    const TempDir root;
    const mode_t before = umask(077);
    ASSERT_EQ(0, mkdir((root / "a").c_str(), 0700));
    orla::test::LogCapture log;
    EXPECT_EQ(0, Utils::CreateDir(root / "a/b/c/d/"));
    EXPECT_THAT(log.Take(),
                ElementsAre("D The file already exists, a", "I CreateDir dir b with 750",
                            "I Success to mkdir, FilePath : b, FileMode : 750",
                            "I CreateDir dir c with 750",
                            "I Success to mkdir, FilePath : c, FileMode : 750",
                            "I CreateDir dir d with 750",
                            "I Success to mkdir, FilePath : d, FileMode : 750"));
    EXPECT_EQ(0700u, ModeOf(root / "a")) << "an existing directory was touched";
    for (const char* dir : {"a/b", "a/b/c", "a/b/c/d"}) {
        EXPECT_EQ(0750u, ModeOf(root / dir)) << dir;
    }
    umask(before);
}

TEST(UtilsDir, CreatesNothingFromWhatIsNoPath) {
    const TempDir root;
    orla::test::WriteFile(root / "file", "");
    EXPECT_EQ(-1, Utils::CreateDir(""));
    EXPECT_EQ(-1, Utils::CreateDir(root / "file/below"));
    EXPECT_EQ(-1, Utils::CreateDir(root / std::string(300, 'n')));
    std::string tooLong = root.path();
    while (tooLong.size() < 4096) {
        tooLong += "/d";
    }
    EXPECT_EQ(-1, Utils::CreateDir(tooLong));
    EXPECT_FALSE(Utils::IsDir(root / "d")) << "a path that cannot be made left its parents";
    const std::string here = std::filesystem::current_path();
    std::filesystem::create_directory(root / "gone");
    std::filesystem::current_path(root / "gone");
    std::filesystem::remove(root / "gone");
    EXPECT_EQ(-1, Utils::CreateDir("relative")) << "there is nothing to be relative to";
    std::filesystem::current_path(here);
}

TEST(UtilsDir, DepthCostsNoStack) {
    const TempDir root("/dev/shm");  // a disk takes seconds for so many directories
    std::string deep = root / "top";
    while (deep.size() + 2 < 4095) {
        deep += "/d";
    }
    int made = -1;
    Texts files;
    Texts dirs;
    ASSERT_TRUE(orla::test::RunOnSmallStack([&] {
        made = Utils::CreateDir(deep);
        orla::test::WriteFile(deep + "/f", "");
        Utils::GetFiles(root.path(), true, files);
        Utils::GetChildDirs(root.path(), true, dirs);
        Utils::RemoveDir(root / "top", true);
    }));
    EXPECT_EQ(0, made);
    EXPECT_EQ((deep.size() - (root / "top").size()) / 2 + 1, dirs.size());
    EXPECT_FALSE(Utils::IsFileExist(root / "top"));
}

TEST(UtilsDir, ListsATreeWithoutFollowingLinks) {
    const TempDir root;
    MakeTree(root);
    const std::string top = root / "tree";
    const struct {
        decltype(&Utils::GetFiles) list;
        bool recursive;
        Texts expected;
    } cases[] = {
        {Utils::GetFiles, false, {"/f", "/link"}},
        {Utils::GetFiles, true, {"/f", "/link", "/d/g", "/d/loop"}},
        {Utils::GetChildDirs, false, {"/d"}},
        {Utils::GetChildDirs, true, {"/d", "/d/e"}},
    };
    for (const auto& c : cases) {
        for (const std::string& spelling : {top, top + "/"}) {
            Texts expected{"there before"};
            for (const std::string& path : c.expected) {
                expected.push_back(top + path);
            }
            Texts found{"there before"};
            c.list(spelling, c.recursive, found);
            EXPECT_THAT(found, testing::UnorderedElementsAreArray(expected));
        }
    }
    Texts names;
    EXPECT_EQ(0, Utils::GetChildFilenames(top, names));
    EXPECT_THAT(names, UnorderedElementsAre("f", "d", "link"));
    EXPECT_EQ(-1, Utils::GetChildFilenames(top + "/f", names));
    EXPECT_EQ(-1, Utils::GetChildFilenames("", names));
}

TEST(UtilsDir, RemovesContentsOrAllAndNothingOutside) {
    const TempDir root;
    MakeTree(root);
    orla::test::LogCapture log;
    Utils::RemoveDir(root / "tree", false);
    EXPECT_TRUE(std::filesystem::is_empty(root / "tree"));
    std::filesystem::remove(root / "tree");
    MakeTree(root);
    Utils::RemoveDir(root / "tree", true);
    EXPECT_FALSE(Utils::IsFileExist(root / "tree"));
    EXPECT_THAT(log.Take("EWI"), ElementsAre("I RemoveDir dir tree", "I RemoveDir dir tree"));
    Utils::RemoveDir(root / "tree", true);
    Utils::RemoveDir(root / "tree", false);
    EXPECT_THAT(log.Take("W"), ElementsAre("W mmRmdir failed tree. ErrorCode : 2",
                                           "W mmScandir failed tree. ErrorCode : 2"));
    EXPECT_EQ("x", orla::test::ReadFile(root / "outside/kept"));
}

// The contents form would be the worst one to get wrong; so it is not tried on a real root.
TEST(UtilsDir, RefusesEverySpellingOfTheRoot) {
    const TempDir root;
    std::filesystem::create_symlink("/", root / "link");
    for (const std::string& path :
         {std::string(), std::string("/"), std::string("//"), std::string("/./"),
          std::string("/tmp/.."), root / "link", root / "link/"}) {
        orla::test::LogCapture log;
        Utils::RemoveDir(path, true);
        EXPECT_THAT(log.Take(), ElementsAre("E empty compare failed.")) << path;
    }
}

TEST(UtilsPath, TakesPathsApart) {
    const struct {
        const char* path;
        const char* dir;
        const char* base;
    } cases[] = {{"/a/b", "/a", "b"}, {"/a/b/", "/a", "b"}, {"a", ".", "a"},
                 {"/", "/", "/"},     {"", ".", "."},       {"/a", "/", "a"}};
    for (const auto& c : cases) {
        std::string dir;
        std::string base;
        EXPECT_EQ(0, Utils::SplitPath(c.path, dir, base));
        EXPECT_EQ(std::string(c.dir) + "|" + c.base, dir + "|" + base) << c.path;
        EXPECT_EQ(dir, Utils::DirName(c.path));
        EXPECT_EQ(base, Utils::BaseName(c.path));
    }
    std::string relative = "before";
    Utils::GetRelativePath("/r/dev0/data/x", "/r/dev0", relative);
    EXPECT_EQ("data/x", relative);
    orla::test::LogCapture log;
    Utils::GetRelativePath("/r/dev0/data/x", "/q/dev1", relative);
    EXPECT_EQ("data/x", relative);
    EXPECT_THAT(log.Take(), ElementsAre("E Failed to find \"dev1\" from \"x\""));
}

TEST(UtilsPath, MakesPathsCanonical) {
    const TempDir root;
    MakeTree(root);
    EXPECT_EQ(root / "outside/kept", Utils::CanonicalizePath(root / "tree/../tree/link/kept"));
    EXPECT_EQ("", Utils::CanonicalizePath(root / "nothing"));
    EXPECT_EQ("", Utils::CanonicalizePath(""));
    EXPECT_EQ("/", Utils::CanonicalizePath(std::string(4095, '/')));
    EXPECT_EQ("", Utils::CanonicalizePath(std::string(4096, '/')));
    EXPECT_EQ(Utils::GetUserHomeDir() + "/x", Utils::ExpandHome("~/x"));
    for (const char* path : {"~", "", "~x/y", "/~/", "a"}) {
        EXPECT_EQ(path, Utils::ExpandHome(path));
    }
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe"), Utils::GetSelfPath());
}

TEST(UtilsPath, TellsFilesFromDirectories) {
    const TempDir root;
    orla::test::WriteFile(root / "file", std::string(5000, 'x'));
    EXPECT_EQ(5000u, Utils::GetFileSize(root / "file"));
    EXPECT_EQ(UINT64_MAX, Utils::GetFileSize(root / "nothing"));
    EXPECT_TRUE(Utils::IsFileExist(root / "file"));
    EXPECT_FALSE(Utils::IsDir(root / "file"));
    EXPECT_FALSE(Utils::IsDir("") || Utils::IsFileExist(""));
    orla::test::LogCapture log;
    EXPECT_TRUE(Utils::IsDirAccessible(root.path()));
    EXPECT_FALSE(Utils::IsDirAccessible(root / "file"));
    EXPECT_THAT(log.Take(), ElementsAre("E Path file is not a dir"));
    EXPECT_FALSE(Utils::IsDirAccessible("/proc/self/fdinfo"));
    EXPECT_THAT(log.Take(), ElementsAre("E No access to dir fdinfo"));
}

}  // namespace
}  // namespace analysis::nedra::common::utils
