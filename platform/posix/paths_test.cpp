// Files, paths, time and surroundings: bounds, failures and what they leave in the results.
#include <fcntl.h>
#include <portability.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "fixtures_test.h"

namespace {

using Paths = Scratch;

// Calls `get` with every size around the one that `text` needs: it must fit exactly, or fail
// with `error` and leave the buffer alone.
template <typename Get>
void ExpectBounded(const std::string& text, int error, Get get) {
    for (int spare = -1; spare <= 1; ++spare) {
        std::vector<char> buffer(text.size() + 3, '#');
        const auto size = static_cast<int32_t>(text.size()) + 1 + spare;
        const int32_t result = get(buffer.data(), size);
        EXPECT_EQ(result, spare < 0 ? EN_ERROR : EN_OK);
        if (spare < 0) {
            EXPECT_EQ(errno, error);
        }
        EXPECT_EQ(spare < 0 ? std::string(buffer.data(), 2) : std::string(buffer.data()),
                  spare < 0 ? "##" : text);
        EXPECT_EQ(buffer[text.size() + 1], '#');
    }
    char none[1] = {'#'};
    EXPECT_EQ(get(none, 0), EN_INVALID_PARAM);
    EXPECT_EQ(get(nullptr, 100), EN_INVALID_PARAM);
    EXPECT_EQ(none[0], '#');
}

TEST_F(Paths, TextResultsNeverOverrunTheirBuffer) {
    ASSERT_EQ(symlink(MakeDir("real").c_str(), At("link").c_str()), 0);
    ExpectBounded(At("real"), ENAMETOOLONG, [this](char* buffer, int32_t size) {
        return mmRealPath((root_ + "/./link/../link").c_str(), buffer, size);
    });
    setenv("POSIX_TEST", "a value", 1);
    ExpectBounded("a value", ERANGE, [](char* buffer, int32_t size) {
        return mmGetEnv("POSIX_TEST", buffer, static_cast<uint32_t>(size));
    });
    char text[64] = "#";
    EXPECT_EQ(mmGetEnv("POSIX_TEST_NOT_SET", text, sizeof(text)), EN_ERROR);
    EXPECT_EQ(mmRealPath(At("missing").c_str(), text, sizeof(text)), EN_ERROR);
    EXPECT_EQ(mmGetErrorCode(), ENOENT);
    EXPECT_STREQ(text, "#");

    EXPECT_EQ(mmGetErrorFormatMessage(EACCES, text, sizeof(text)), text);
    EXPECT_STREQ(text, "Permission denied");
    EXPECT_STREQ(mmGetErrorFormatMessage(EACCES, text, 5), "Perm");
    EXPECT_STREQ(mmGetErrorFormatMessage(123456, text, sizeof(text)), "Unknown error 123456");
    EXPECT_STREQ(mmGetErrorFormatMessage(EACCES, text, 0), "");
    EXPECT_STREQ(mmGetErrorFormatMessage(EACCES, nullptr, 9), "");
}

TEST_F(Paths, LooksAtWhatLinksName) {
    MakeFile("file", std::string(12345, 'x'));
    MakeDir("dir");
    ASSERT_EQ(symlink("file", At("to_file").c_str()), 0);
    ASSERT_EQ(symlink("dir", At("to_dir").c_str()), 0);
    ASSERT_EQ(symlink("missing", At("dangling").c_str()), 0);
    const struct {
        const char* name;
        int32_t access;
        int32_t isDir;
        int error;  // of mmIsDir
        uint64_t size;
    } cases[] = {{"file", EN_OK, EN_ERROR, ENOTDIR, 12345},
                 {"to_file", EN_OK, EN_ERROR, ENOTDIR, 12345},
                 {"to_dir/", EN_OK, EN_OK, 0, 0},
                 {"dangling", EN_ERROR, EN_ERROR, ENOENT, 1},
                 {"file/x", EN_ERROR, EN_ERROR, ENOTDIR, 1}};
    for (const auto& one : cases) {
        const std::string path = At(one.name);
        EXPECT_EQ(mmAccess(path.c_str()), one.access) << one.name;
        EXPECT_EQ(mmAccess2(path.c_str(), R_OK), one.access) << one.name;
        errno = 0;
        EXPECT_EQ(mmIsDir(path.c_str()), one.isDir) << one.name;
        EXPECT_EQ(errno, one.error) << one.name;
        uint64_t size = 1;
        const int32_t result = mmGetFileSize(path.c_str(), &size);
        EXPECT_EQ(result, one.access) << one.name;
        if (one.isDir != EN_OK) {
            EXPECT_EQ(size, one.size) << one.name;
        }
    }
    EXPECT_EQ(mmAccess2(At("file").c_str(), R_OK | W_OK | X_OK), EN_ERROR);
    mmDiskSize disk{};
    ASSERT_EQ(mmGetDiskFreeSpace(root_.c_str(), &disk), EN_OK);
    EXPECT_GE(disk.totalSize, disk.freeSize);
    EXPECT_GE(disk.freeSize, disk.availSize);
    EXPECT_GT(disk.totalSize, 1u << 20);
    EXPECT_EQ(mmGetDiskFreeSpace(At("missing").c_str(), &disk), EN_ERROR);
}

TEST_F(Paths, ScansWithFilterAndOrder) {
    for (const char* name : {"b.data", "a.data", "c.txt", "d.data"}) {
        MakeFile(name);
    }
    mmDirent** entries = nullptr;
    const int32_t count = mmScandir(
        root_.c_str(), &entries,
        [](const mmDirent* entry) { return int(strstr(entry->d_name, ".data") != nullptr); },
        [](const mmDirent** left, const mmDirent** right) {
            return strcmp((*right)->d_name, (*left)->d_name);
        });
    ASSERT_EQ(count, 3);
    EXPECT_STREQ(entries[0]->d_name, "d.data");
    EXPECT_STREQ(entries[2]->d_name, "a.data");
    mmScandirFree(entries, count);
    entries = reinterpret_cast<mmDirent**>(&entries);
    EXPECT_EQ(mmScandir(At("missing").c_str(), &entries, nullptr, nullptr), EN_ERROR);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(entries, nullptr);
    mmScandirFree(entries, 3);
}

TEST_F(Paths, SplitsAsPosixDoesAndNotAsTheOtherBasename) {
    const struct {
        const char* path;
        const char* dir;
        const char* base;
    } cases[] = {
        {"/a/b/", "/a", "b"}, {"b", ".", "b"}, {"/", "/", "/"}, {"", ".", "."}, {"a//b", "a", "b"}};
    for (const auto& one : cases) {
        std::string first = one.path;
        std::string second = one.path;
        EXPECT_STREQ(mmDirName(first.data()), one.dir) << one.path;
        EXPECT_STREQ(mmBaseName(second.data()), one.base) << one.path;
    }
    EXPECT_EQ(mmDirName(nullptr), nullptr);
    EXPECT_EQ(mmBaseName(nullptr), nullptr);
}

TEST_F(Paths, FilesKeepWhatIsWrittenBeyondFourGigabytes) {
    const mode_t before = mmUmask(0027);
    const int32_t fd = mmOpen2(At("file").c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    EXPECT_EQ(mmUmask(before), static_cast<mode_t>(0027));
    ASSERT_GE(fd, 0);
    constexpr int64_t kFar = int64_t{5} << 30;
    EXPECT_EQ(mmLseek(fd, kFar, SEEK_SET), kFar);
    EXPECT_EQ(mmWrite(fd, "tail", 4), 4);
    EXPECT_EQ(mmLseek(fd, -3, SEEK_END), kFar + 1);
    char text[8] = {};
    EXPECT_EQ(mmRead(fd, text, sizeof(text)), 3);
    EXPECT_STREQ(text, "ail");
    mmStat_t status;
    ASSERT_EQ(mmStatGet(At("file").c_str(), &status), EN_OK);
    EXPECT_EQ(status.st_size, kFar + 4);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_EQ(mmOpen2(At("file").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(mmClose(fd), EN_OK);
    EXPECT_EQ(mmClose(fd), EN_ERROR);
    EXPECT_EQ(mmRead(fd, text, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Clock, SignalsDoNotShortenASleep) {
    const Interruptions interruptions;
    const int before = Interruptions::Count();
    const mmTimespec start = mmGetTickCount();
    EXPECT_EQ(mmSleep(1999), EN_OK);
    const mmTimespec end = mmGetTickCount();
    // The raw clock is not slewed and the one that sleeps is: by half a part in a thousand at most.
    const double slept =
        double(end.tv_sec - start.tv_sec) + double(end.tv_nsec - start.tv_nsec) / 1e9;
    EXPECT_GE(slept, 1.998);
    EXPECT_LT(slept, 30);
    EXPECT_GT(Interruptions::Count(), before);
}

TEST(Clock, LocalTimeIsWhatPeopleWrite) {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    mmSystemTime_t now{};
    ASSERT_EQ(mmGetLocalTime(&now), EN_OK);
    tm read{};
    read.tm_year = now.wYear - 1900;
    read.tm_mon = now.wMonth - 1;
    read.tm_mday = now.wDay;
    read.tm_hour = now.wHour;
    read.tm_min = now.wMinute;
    read.tm_sec = now.wSecond;
    const time_t seconds = mktime(&read);
    EXPECT_NEAR(double(seconds), double(time(nullptr)), 60);
    EXPECT_EQ(read.tm_wday, now.wDayOfWeek);
    EXPECT_LT(now.wMilliseconds, 1000);
    unsetenv("TZ");
    tzset();
}

}  // namespace
