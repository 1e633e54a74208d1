#include "file_service/unnamed_copy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "hdc/test_support.h"

namespace {

using orla::Descriptor;

// A system call that fails as on a file system or a kernel that lacks it. With an error of 0 it
// answers 0 and does nothing.
struct Lacking {
    uint32_t call;
    uint32_t flags;  // of the third argument; 0: whatever it is
    uint32_t error;
};

// On a thread of its own, since what is taken away doesn't come back.
void RunWithout(const std::vector<Lacking>& lacking, const std::function<void()>& body) {
    std::thread([&] {
        std::vector<sock_filter> program;
        const auto load = [&](size_t offset) {
            program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset)));
        };
        for (const Lacking& one : lacking) {
            load(offsetof(seccomp_data, nr));
            program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, one.call, 0, 3));
            load(offsetof(seccomp_data, args[2]));
            program.push_back(
                BPF_JUMP(BPF_JMP | (one.flags == 0 ? BPF_JGE : BPF_JSET) | BPF_K, one.flags, 0, 1));
            program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | one.error));
        }
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
        const sock_fprog filter{static_cast<uint16_t>(program.size()), program.data()};
        ASSERT_EQ(0, prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
        ASSERT_EQ(0, prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter));
        body();
    }).join();
}

class UnnamedCopyTest : public testing::Test {
protected:
    UnnamedCopyTest() {
        char pattern[] = "/tmp/unnamed_copy_XXXXXX";
        root_ = mkdtemp(pattern);
    }
    ~UnnamedCopyTest() override {
        chmod(root_.c_str(), 0700);
        std::filesystem::remove_all(root_);
    }

    std::string Put(const std::string& name, const std::string& content) const {
        const std::string path = root_ + "/" + name;
        std::ofstream(path) << content;
        return path;
    }
    static std::string Text(const Descriptor& file) {
        std::string text(static_cast<size_t>(lseek(file.get(), 0, SEEK_END)), '\0');
        EXPECT_EQ(static_cast<ssize_t>(text.size()),
                  pread(file.get(), text.data(), text.size(), 0));
        return text;
    }
    size_t Names() const {
        const std::filesystem::directory_iterator all(root_);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    std::string root_;
};

const Lacking kNoFiles{SYS_openat, O_TMPFILE & ~O_DIRECTORY, EOPNOTSUPP};
const Lacking kNoRoomKnown{SYS_fallocate, 0, EOPNOTSUPP};
const Lacking kNoKernelCopy{SYS_copy_file_range, 0, EXDEV};

TEST_F(UnnamedCopyTest, IsTheSameByEveryWayAndNeverShows) {
    const struct {
        const char* name;
        std::vector<Lacking> lacking;
        bool cloned = false;
    } ways[] = {{"as it is", {}},
                {"no unnamed files", {kNoFiles}},
                {"no allocation", {kNoRoomKnown}},
                {"no copy in the kernel", {kNoKernelCopy}},
                {"none of them", {kNoFiles, kNoRoomKnown, kNoKernelCopy}},
                {"a clone of nothing", {{SYS_ioctl, 0, 0}}, true}};
    for (const size_t size : {0, 1, 200000}) {
        const std::string content = orla::test::Text(size);
        const std::string path = Put("source", content);
        const std::string next = Put("next", content.substr(0, size / 2));
        for (const auto& way : ways) {
            SCOPED_TRACE(way.name + std::to_string(size));
            Descriptor copy;
            const auto make = [&](const std::string& from) {
                return [&] { EXPECT_EQ(CopyEnd::kWhole, CopyWithoutName(from, &copy)); };
            };
            RunWithout(way.lacking, make(path));
            EXPECT_TRUE(Text(copy) == (way.cloned ? "" : content));
            RunWithout(way.lacking, make(next));
            EXPECT_TRUE(Text(copy) == content.substr(0, way.cloned ? 0 : size / 2));
            EXPECT_EQ(2u, Names());
        }
    }
}

TEST_F(UnnamedCopyTest, ShortOnesAreToldFromThoseThatNeverBegan) {
    const std::string path = Put("source", std::string(100, 'x'));
    ASSERT_EQ(0, symlink(path.c_str(), (root_ + "/link").c_str()));
    ASSERT_EQ(0, mkfifo((root_ + "/pipe").c_str(), 0600));
    chmod(Put("closed", "x").c_str(), 0);
    Descriptor copy;
    for (const char* name : {"/link", "/pipe", "/missing", "/closed", ""}) {
        EXPECT_EQ(CopyEnd::kNotBegun, CopyWithoutName(root_ + name, &copy)) << name;
    }
    chmod(root_.c_str(), 0500);
    EXPECT_EQ(CopyEnd::kNotBegun, CopyWithoutName(path, &copy));
    chmod(root_.c_str(), 0700);

    const std::vector<Lacking> broken[] = {
        {{SYS_fallocate, 0, ENOSPC}},
        {kNoFiles, {SYS_fallocate, 0, ENOSPC}},
        {kNoRoomKnown, kNoKernelCopy, {SYS_write, 0, ENOSPC}},
        {{SYS_copy_file_range, 0, 0}, {SYS_read, 0, 0}},  // the end comes too early
        {kNoKernelCopy, {SYS_read, 0, EIO}},
        {kNoFiles, {SYS_openat, O_CREAT, ENOSPC}},
    };
    for (const auto& lacking : broken) {
        RunWithout(lacking, [&] { EXPECT_EQ(CopyEnd::kBroken, CopyWithoutName(path, &copy)); });
    }
    EXPECT_FALSE(copy);
    EXPECT_EQ(4u, Names());
}

}  // namespace
