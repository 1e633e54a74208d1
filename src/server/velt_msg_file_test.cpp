#include "server/velt_msg_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "hdc/test_support.h"
#include "server/scripted_comm_opt_test.h"

namespace Velt {
namespace {

const CommHandle kSession = ScriptedCommOpt::Session();

// A file without a name, or a descriptor of something else, closed at the end.
class TestFile {
public:
    explicit TestFile(const std::string& content = "") : fd(memfd_create("test", MFD_CLOEXEC)) {
        EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    }
    TestFile(const char* path, int flags) : fd(open(path, flags | O_CLOEXEC)) {}
    ~TestFile() { close(fd); }
    TestFile(const TestFile&) = delete;
    TestFile& operator=(const TestFile&) = delete;

    std::string Text() const {
        std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
        EXPECT_EQ(static_cast<ssize_t>(text.size()), pread(fd, text.data(), text.size(), 0));
        return text;
    }

    const int fd;
};

using Sender = int (*)(const CommHandle&, uint16_t, uint16_t, int);

// Whatever the acknowledgement: the sender has waited for it, and does not mind.
TEST(SendFile, SlicesAreTheFile) {
    const struct {
        Sender send;
        uint32_t size;
        std::string answer;
    } cases[] = {{SendFile, 0, ControlBytes(6)},         {SendFile, 1, ControlBytes(11)},
                 {SendFile, 512000, DataBytes("no")},    {SendFile, 512001, ControlBytes(6)},
                 {SendFile, 1024003, ControlBytes(6)},   {SendEventFile, 0, ControlBytes(11)},
                 {SendEventFile, 4097, ControlBytes(6)}, {SendEventFile, 512000, ControlBytes(6)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const std::string content = orla::test::Text(c.size);
        const TestFile file(content);  // its position is at the end
        const ScriptedCommOpt& peer = ScriptedCommOpt::Fresh({{0, c.answer}});
        EXPECT_EQ(kMsgOk, c.send(kSession, 14, 3, file.fd));
        EXPECT_TRUE(peer.deliveries.empty());
        std::vector<std::string> slices;
        for (uint32_t offset = 0; offset < c.size || slices.empty(); offset += 512000) {
            const std::string slice = content.substr(offset, 512000);
            slices.push_back(
                MsgBytes(kMsgData, 0, c.size, static_cast<uint32_t>(slice.size()), offset, slice));
        }
        EXPECT_TRUE(slices == peer.written);
    }
}

TEST(SendFile, FailuresAreTold) {
    int pipeEnds[2];
    ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
    const TestFile file(orla::test::Text(600000));
    const TestFile tooLong;
    ASSERT_EQ(0, ftruncate(tooLong.fd, 1LL << 32));
    const TestFile writeOnly(("/proc/self/fd/" + std::to_string(file.fd)).c_str(), O_WRONLY);
    const TestFile eio("/proc/self/mem", O_RDONLY);  // nothing is mapped at its start
    struct Case {
        const char* name;
        Sender send;
        int fd;
        std::function<int()> onWrite;
        int result;
        size_t messages;
    };
    const auto lose = [] { return -1; };
    const auto shrink = [&file] { return ftruncate(file.fd, 512000); };
    const Case cases[] = {
        {"no descriptor", SendFile, -1, nullptr, kMsgBadDescriptor, 0},
        {"not seekable", SendFile, pipeEnds[0], nullptr, kMsgFailed, 0},
        {"not seekable", SendEventFile, pipeEnds[0], nullptr, kMsgFailed, 0},
        {"4 GiB", SendFile, tooLong.fd, nullptr, kMsgFailed, 0},
        {"unreadable", SendFile, writeOnly.fd, nullptr, kMsgFailed, 0},
        {"unreadable", SendEventFile, writeOnly.fd, nullptr, kMsgFailed, 0},
        {"EIO is an empty file", SendEventFile, eio.fd, nullptr, kMsgOk, 1},
        {"peer lost", SendFile, file.fd, lose, kMsgTransportFailed, 1},
        {"peer lost", SendEventFile, file.fd, lose, kMsgTransportFailed, 1},
        {"shrinks", SendFile, file.fd, shrink, kMsgFailed, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
        peer.onWrite = c.onWrite;
        EXPECT_EQ(c.result, c.send(kSession, 14, 0, c.fd));
        EXPECT_EQ(c.messages, peer.written.size());
    }
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

TEST(RecvFile, EndsAtTheEndAndAtWhatIsNoSlice) {
    const auto slice = [](const std::string& data, uint32_t offset, uint32_t totalLen) {
        return MsgBytes(kMsgData, 0, totalLen, static_cast<uint32_t>(data.size()), offset, data);
    };
    const std::string abc = slice("abc", 0, 6);
    const std::string large = orla::test::Text(kMaxSliceSize);
    const struct {
        const char* name;
        std::deque<ScriptedCommOpt::Delivery> messages;
        int result;
        std::string stored;
        std::vector<std::string> acknowledged = {};
    } cases[] = {
        {"two slices", {{0, abc}, {0, slice("def", 3, 6)}}, kMsgOk, "abcdef", {ControlBytes(6)}},
        {"slice too long", {{0, DataBytes(large + "x")}}, kMsgOk, "", {ControlBytes(6)}},
        {"control message", {{0, abc}, {0, ControlBytes(4)}}, kMsgOk, "abc"},
        {"lies about its length", {{0, abc}, {0, abc + "x"}}, kMsgFailed, "abc"},
        // 3 + 0xFFFFFFFF is 2 in 32 bits.
        {"end that wraps", {{0, slice("abc", 0xFFFFFFFF, 2)}}, kMsgTransportFailed, "abc"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const TestFile file;
        const ScriptedCommOpt& peer = ScriptedCommOpt::Fresh(c.messages);
        EXPECT_EQ(c.result, RecvFile(kSession, file.fd));
        EXPECT_TRUE(c.stored == file.Text());
        EXPECT_TRUE(peer.written == c.acknowledged);
    }
    ScriptedCommOpt::Fresh({{0, DataBytes("abc")}});
    EXPECT_EQ(kMsgFailed, RecvFile(kSession, TestFile("/dev/full", O_WRONLY).fd));
    ScriptedCommOpt::Fresh({{0, DataBytes("abc")}}).onWrite = [] { return -1; };
    EXPECT_EQ(kMsgTransportFailed, RecvFile(kSession, TestFile().fd));
    EXPECT_EQ(kMsgBadDescriptor, RecvFile(kSession, -1));
}

}  // namespace
}  // namespace Velt
