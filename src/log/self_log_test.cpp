#include "log/self_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <numeric>
#include <random>
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

mode_t ModeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
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

// ---- Ten processes, one file ---------------------------------------------------------------

constexpr int kWriters = 10;
constexpr int kKilled = 3;
constexpr int kLines = 80;
constexpr size_t kPadding = 120;

// A process that writes its lines as soon as the file `go` exists.
pid_t StartWriter(int writer, const std::string& go) {
    const pid_t child = fork();
    if (child != 0) {
        return child;
    }
    while (access(go.c_str(), F_OK) != 0) {
    }
    const std::string padding(kPadding, 'x');
    for (int n = 0; n < kLines; ++n) {
        SelfLog("writer %d line %d %s", writer, n, padding.c_str());
    }
    syscall(SYS_exit_group, 0);  // without a second of a sanitizer's own last checks
    return 0;
}

// The numbers that each writer's lines carry, in the order of the files. The kernel may end a
// write at the edge of a page when its process is killed: each killed writer may leave one
// beginning of a line, with the next line right behind it. Nothing else may stand there.
std::vector<std::vector<int>> ParseLines(const std::string& text) {
    std::vector<std::vector<int>> seen(kWriters);
    std::vector<std::string> fragments;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const size_t mark = line.rfind("writer ");
        const size_t start =
            mark == std::string::npos || mark < kTimeLength ? 0 : mark - kTimeLength;
        size_t writer = 0;
        int number = 0;
        int end = 0;
        std::sscanf(&line[start], "%*4d-%*2d-%*2d %*2d:%*2d:%*2d.%*3dwriter %zu line %d %n",
                    &writer, &number, &end);
        const bool isWhole = end > 0 && line.substr(start + end) == std::string(kPadding, 'x');
        if (isWhole) {
            seen.at(writer).push_back(number);
        }
        if (!isWhole || start > 0) {
            fragments.push_back(isWhole ? line.substr(0, start) : line);
        }
    }
    EXPECT_LE(fragments.size(), static_cast<size_t>(kKilled)) << testing::PrintToString(fragments);
    return seen;
}

TEST(SelfLog, TenProcessesRotateWithoutLosingALine) {
    std::mt19937 random(1);
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        SelfLogHere log;
        // The first lines fit, the rest goes to a new file.
        const std::string filling(kLimit - 20000 - round * 37, 'o');
        WriteFile(log.log(), filling + "\n");
        std::vector<pid_t> writers;
        for (int i = 0; i < kWriters; ++i) {
            writers.push_back(StartWriter(i, log.root() + "/go"));
        }
        WriteFile(log.root() + "/go", "");
        // Around the time of the rotation.
        const size_t killAt = filling.size() + random() % 20000;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        std::error_code renamed;  // just now: as good as rotated
        while (!exists(log.old()) && file_size(log.log(), renamed) < killAt && !renamed &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        std::for_each_n(writers.begin(), kKilled, [](pid_t pid) { kill(pid, SIGKILL); });
        for (const pid_t pid : writers) {
            EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
        }

        const std::string old = ReadFile(log.old());
        const std::string text = ReadFile(log.log());
        constexpr size_t kLongestLine = kTimeLength + sizeof("writer 9 line 79 ") + kPadding;
        EXPECT_LE(old.size(), kLimit + (kWriters - 1) * kLongestLine);
        EXPECT_LE(text.size(), kLimit);
        ASSERT_EQ(old.substr(0, filling.size() + 1), filling + "\n");
        const auto seen = ParseLines(old.substr(filling.size() + 1) + text);
        for (int i = 0; i < kWriters; ++i) {
            std::vector<int> unbroken(seen[i].size());
            std::iota(unbroken.begin(), unbroken.end(), 0);
            EXPECT_EQ(seen[i], unbroken) << "writer " << i;
            if (i >= kKilled) {
                EXPECT_EQ(seen[i].size(), static_cast<size_t>(kLines)) << "writer " << i;
            }
        }
    }
}

}  // namespace
