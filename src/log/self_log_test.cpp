#include "log/self_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

#include "log/log_test_support.h"

namespace {

// Called before every flock of this program, with its operation: the one place where another
// process can be made to step in between two steps of a rotation.
std::function<void(int)> g_beforeFlock;

}  // namespace

extern "C" int flock(int fd, int operation) noexcept {
    if (g_beforeFlock) {
        g_beforeFlock(operation);
    }
    return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace {

using orla::test::ReadFile;
using orla::test::SelfLogHere;
using orla::test::WriteFile;
using std::filesystem::exists;
using std::filesystem::file_size;
using testing::MatchesRegex;

constexpr size_t kLimit = 0xFFFFF;
constexpr size_t kTimeLength = 23;  // "2026-01-31 23:59:59.999"

void Fill(const std::string& path, size_t size) {
    WriteFile(path, std::string(size, 'o'));
}

unsigned ModeOf(const std::string& path) {
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

TEST(SelfLog, WritesOneLineWithTheTimeRightInFront) {
    SelfLogHere log;
    const int line = __LINE__ + 1;
    SELF_LOG_WARN("at %s", "work");
    EXPECT_THAT(log.Take(),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"
                             "\\[WARNING\\] self_log_test.cpp:" +
                             std::to_string(line) + ": at work\n"));
}

TEST(SelfLog, EndsEveryLineInOneLineFeed) {
    SelfLogHere log;
    const std::pair<std::string, std::string> cases[] = {
        {"text", "text"},
        {"text\n\n", "text"},
        {"two\nlines\r\n", "two lines "},
        {"", ""},
        {std::string(998, 'x'), std::string(998, 'x')},
        {std::string(999, 'x'), std::string(998, 'x')},
        {std::string(5000, 'x') + "\n", std::string(998, 'x')},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text.substr(0, 20));
        SelfLog("%s", text.c_str());
        const std::string written = log.Take();
        ASSERT_GE(written.size(), kTimeLength);
        EXPECT_EQ(written.substr(kTimeLength), expected + "\n");
        EXPECT_LE(written.size(), 1022u);
    }
}

TEST(SelfLog, RotatesWhenTheLineDoesNotFit) {
    SelfLogHere log;
    constexpr size_t kLine = kTimeLength + 6;
    Fill(log.log(), kLimit - kLine);
    WriteFile(log.old(), "older");
    ASSERT_EQ(chmod(log.log().c_str(), 0600), 0);
    SelfLog("12345");
    EXPECT_EQ(file_size(log.log()), kLimit);
    EXPECT_EQ(ReadFile(log.old()), "older");

    Fill(log.log(), kLimit - kLine + 1);
    SelfLog("12345");
    EXPECT_EQ(file_size(log.log()), kLine);
    EXPECT_EQ(ReadFile(log.old()), std::string(kLimit - kLine + 1, 'o'));
    EXPECT_EQ(ModeOf(log.old()), 0600u);
    EXPECT_EQ(ModeOf(log.log()), 0640u);
    EXPECT_FALSE(exists(log.lock()));
}

// A rotation that was killed leaves its lock file; one that is stopped keeps it locked, and may
// go on or not.
TEST(SelfLog, WaitsForWhoeverRotatesButNotForEver) {
    SelfLogHere log;
    Fill(log.log(), kLimit);
    const int lock = open(log.lock().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    SelfLog("dropped");
    EXPECT_EQ(file_size(log.log()), kLimit);
    EXPECT_FALSE(exists(log.old()));

    std::thread other;
    g_beforeFlock = [&](int) {
        if (!other.joinable()) {
            other = std::thread([lock] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it takes its time
                close(lock);
            });
        }
    };
    SelfLog("text");
    g_beforeFlock = nullptr;
    other.join();
    EXPECT_EQ(file_size(log.log()), kTimeLength + sizeof("text"));
    EXPECT_EQ(file_size(log.old()), kLimit);
}

// What other processes may do between the opening of the lock file and its locking.
TEST(SelfLog, NeverLosesTheOldFileToASecondRotation) {
    SelfLogHere log;
    const auto oldFileAfter = [&](const std::function<void()>& others) {
        Fill(log.log(), kLimit);
        WriteFile(log.old(), "kept");
        g_beforeFlock = [&](int operation) {
            if (operation != LOCK_UN) {
                return others();
            }
            EXPECT_FALSE(exists(log.lock())) << "unlocked, but still to be had";
        };
        SelfLog("text");
        g_beforeFlock = nullptr;
        return ReadFile(log.old());
    };
    const auto rotate = [&] {
        std::filesystem::rename(log.log(), log.old());
        WriteFile(log.log(), "other\n");
    };
    EXPECT_EQ(oldFileAfter(rotate), std::string(kLimit, 'o'));

    // One has finished and the next one has begun: what is locked now is not the lock file.
    int lock = -1;
    const auto beginNext = [&] {
        if (lock < 0) {
            std::filesystem::remove(log.lock());
            lock = open(log.lock().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
            ASSERT_EQ(syscall(SYS_flock, lock, LOCK_EX), 0);
        }
    };
    EXPECT_EQ(oldFileAfter(beginNext), "kept");
    close(lock);
}

TEST(SelfLog, NeverFollowsALink) {
    SelfLogHere log;
    const std::string target = log.root() + "/target";
    WriteFile(target, "");
    std::filesystem::create_symlink(target, log.log());
    SelfLog("text");
    EXPECT_EQ(file_size(target), 0u);

    std::filesystem::remove(log.log());
    Fill(log.log(), kLimit);
    std::filesystem::create_symlink(target, log.lock());
    SelfLog("text");
    EXPECT_EQ(file_size(log.log()), kLimit);
    EXPECT_TRUE(exists(target));
}

TEST(SelfLog, MakesItsDirectoriesAgain) {
    SelfLogHere log;
    std::filesystem::remove_all(log.root());
    const mode_t mask = umask(077);
    errno = EXDEV;
    SelfLog("text");
    EXPECT_EQ(errno, EXDEV) << "which opening the file has changed in between";
    umask(mask);
    EXPECT_EQ(file_size(log.log()), kTimeLength + sizeof("text"));
    EXPECT_EQ(ModeOf(log.root()), 0750u);
    EXPECT_EQ(ModeOf(log.directory()), 0750u);
}

TEST(SelfLog, ThreadsLogWhileThePathsComeAndGo) {
    SelfLogHere log;
    SelfLogHere other;
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) {
        writers.emplace_back([] {
            for (int n = 0; n < 500; ++n) {
                SelfLog("text");
            }
        });
    }
    for (int n = 0; n < 2000; ++n) {
        // Fresh records, so that a reader of a released one would be seen.
        orla::SetLogFiles(std::make_shared<orla::LogFileSet>(*other.files()));
        orla::SetLogFiles(std::make_shared<orla::LogFileSet>(*log.files()));
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    EXPECT_EQ(ReadFile(log.log()).size() + ReadFile(other.log()).size(),
              2000 * (kTimeLength + sizeof("text")));
}

// Ten processes write one file, around the time of its rotation.
TEST(SelfLog, TenProcessesRotateWithoutLosingALine) {
    constexpr int kWriters = 10;
    constexpr int kLines = 80;
    const std::string padding(120, 'x');
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        SelfLogHere log;
        // The first lines fit, the rest goes to a new file.
        const std::string filling(kLimit - 20000 - round * 37, 'o');
        WriteFile(log.log(), filling + "\n");
        const std::string go = log.root() + "/go";
        std::vector<pid_t> writers;
        for (int i = 0; i < kWriters; ++i) {
            writers.push_back(fork());
            if (writers.back() == 0) {
                while (access(go.c_str(), F_OK) != 0) {
                }
                for (int n = 0; n < kLines; ++n) {
                    SelfLog("writer %d line %d %s", i, n, padding.c_str());
                }
                syscall(SYS_exit_group, 0);  // without a sanitizer's own last checks
            }
        }
        WriteFile(go, "");
        for (const pid_t pid : writers) {
            EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
        }

        const std::string old = ReadFile(log.old());
        ASSERT_EQ(old.substr(0, filling.size() + 1), filling + "\n");
        EXPECT_LE(file_size(log.log()), kLimit);
        std::istringstream lines(old.substr(filling.size() + 1) + ReadFile(log.log()));
        std::vector<int> next(kWriters);
        for (std::string line; std::getline(lines, line);) {
            size_t writer = 0;
            ASSERT_EQ(std::sscanf(&line.at(kTimeLength), "writer %zu", &writer), 1) << line;
            EXPECT_EQ(line.substr(kTimeLength), "writer " + std::to_string(writer) + " line " +
                                                    std::to_string(next.at(writer)++) + " " +
                                                    padding);
        }
        EXPECT_EQ(next, std::vector<int>(kWriters, kLines));
    }
}

}  // namespace
