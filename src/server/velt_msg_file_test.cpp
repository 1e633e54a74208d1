#include "server/velt_msg_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "hdc/test_support.h"
#include "server/scripted_comm_opt_test.h"

namespace Velt {
namespace {

std::string Content(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 31 + i / 251);
    }
    return text;
}

// A file without a name, or a descriptor of something else, closed at the end.
class TestFile {
public:
    explicit TestFile(const std::string& content = "") : fd(memfd_create("test", MFD_CLOEXEC)) {
        EXPECT_EQ(static_cast<ssize_t>(content.size()),
                  pwrite(fd, content.data(), content.size(), 0));
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

const MsgProto& HeaderOf(const std::string& message) {
    return *reinterpret_cast<const MsgProto*>(message.data());
}

TEST(SendFile, CutsAtTheSliceSize) {
    struct Case {
        size_t size;
        std::vector<uint32_t> slices;
    };
    const Case cases[] = {{0, {0}},
                          {1, {1}},
                          {511999, {511999}},
                          {512000, {512000}},
                          {512001, {512000, 1}},
                          {1024003, {512000, 512000, 3}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        const std::string content = Content(c.size);
        const TestFile file(content);
        lseek(file.fd, 0, SEEK_END);  // wherever the position was
        ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
        peer.deliveries = {{0, ControlBytes(6)}};
        EXPECT_EQ(kMsgOk, SendFile(peer.session(), 14, 5, file.fd));
        EXPECT_TRUE(peer.deliveries.empty());
        ASSERT_EQ(c.slices.size(), peer.written.size());
        std::string received;
        for (size_t i = 0; i < c.slices.size(); ++i) {
            const MsgProto& header = HeaderOf(peer.written[i]);
            EXPECT_EQ(c.slices[i], header.sliceLen);
            EXPECT_EQ(c.size, header.totalLen);
            EXPECT_EQ(received.size(), header.offset);
            EXPECT_EQ(14, header.type);
            EXPECT_EQ(5, header.devId);
            EXPECT_EQ(kMsgData, header.msgType);
            EXPECT_EQ(0, header.status);
            received += peer.written[i].substr(sizeof(MsgProto));
        }
        EXPECT_TRUE(content == received);
    }
}

TEST(SendFile, AcknowledgementDoesNotMatter) {
    const TestFile file("content");
    for (const std::string& answer : {ControlBytes(11), DataBytes("no"), std::string()}) {
        ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
        peer.deliveries = {{answer.empty() ? -1 : 0, answer}};
        EXPECT_EQ(kMsgOk, SendFile(peer.session(), 14, 0, file.fd));
        EXPECT_TRUE(peer.deliveries.empty());
    }
}

using Sender = int (*)(const CommHandle&, uint16_t, uint16_t, int);

// What fails, and how many messages went out before.
TEST(SendFile, FailuresOfTheFileAreTold) {
    int pipeEnds[2];
    ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
    const TestFile tooLong;
    ASSERT_EQ(0, ftruncate(tooLong.fd, 1LL << 32));
    const TestFile unreadable("/dev/null", O_WRONLY);
    const TestFile writeOnly(("/proc/self/fd/" + std::to_string(tooLong.fd)).c_str(), O_WRONLY);
    struct Case {
        const char* name;
        Sender send;
        int fd;
        int result;
    };
    const Case cases[] = {
        {"no descriptor", SendFile, -1, kMsgBadDescriptor},
        {"no descriptor", SendEventFile, -1, kMsgBadDescriptor},
        {"not seekable", SendFile, pipeEnds[0], kMsgFailed},
        {"not seekable", SendEventFile, pipeEnds[0], kMsgFailed},
        {"4 GiB", SendFile, tooLong.fd, kMsgFailed},
        {"unreadable", SendEventFile, unreadable.fd, kMsgFailed},
    };
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.result, c.send(peer.session(), 14, 0, c.fd));
        EXPECT_TRUE(peer.written.empty());
    }
    ASSERT_EQ(0, ftruncate(tooLong.fd, 10));
    EXPECT_EQ(kMsgFailed, SendFile(peer.session(), 14, 0, writeOnly.fd));
    EXPECT_TRUE(peer.written.empty());
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

TEST(SendFile, FileThatShrinksEndsInAFailure) {
    const TestFile file(Content(600000));
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    peer.onWrite = [&file] { return ftruncate(file.fd, 512000); };
    EXPECT_EQ(kMsgFailed, SendFile(peer.session(), 14, 0, file.fd));
    EXPECT_EQ(1u, peer.written.size());
}

TEST(SendFile, FileThatGrowsIsSentAsItWas) {
    const TestFile file("0123456789");
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    peer.onWrite = [&file] { return ftruncate(file.fd, 512000); };
    EXPECT_EQ(kMsgOk, SendFile(peer.session(), 14, 0, file.fd));
    ASSERT_EQ(1u, peer.written.size());
    EXPECT_EQ("0123456789", peer.written[0].substr(sizeof(MsgProto)));
}

TEST(SendFile, LostPeerIsATransportFailure) {
    const TestFile content("content");
    const TestFile empty;
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    peer.onWrite = [] { return -1; };
    EXPECT_EQ(kMsgTransportFailed, SendFile(peer.session(), 14, 0, content.fd));
    EXPECT_EQ(kMsgTransportFailed, SendFile(peer.session(), 14, 0, empty.fd));
    EXPECT_EQ(kMsgTransportFailed, SendEventFile(peer.session(), 14, 0, content.fd));
}

TEST(SendEventFile, OneReadIsOneMessage) {
    struct Case {
        const char* name;
        std::string content;
        size_t sent;
        std::vector<std::string> warnings;
    };
    const std::string tooLarge =
        "W read file success, but the size has exceeded the maximum size of the dev file.";
    const Case cases[] = {{"empty", "", 0, {}},
                          {"at the limit", Content(4096), 4096, {}},
                          {"above the limit", Content(4097), 4097, {tooLarge}},
                          {"more than a read", Content(512001), 512000, {tooLarge}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const TestFile file(c.content);
        lseek(file.fd, 0, SEEK_END);
        ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
        orla::test::LogCapture log;
        EXPECT_EQ(kMsgOk, SendEventFile(peer.session(), 14, 5, file.fd));
        EXPECT_EQ(c.warnings, log.Take("WE"));
        ASSERT_EQ(1u, peer.written.size());
        EXPECT_EQ(c.sent, HeaderOf(peer.written[0]).totalLen);
        EXPECT_EQ(c.sent, HeaderOf(peer.written[0]).sliceLen);
        EXPECT_TRUE(c.content.substr(0, c.sent) == peer.written[0].substr(sizeof(MsgProto)));
    }
}

TEST(SendEventFile, EioIsAnEmptyFile) {
    const TestFile file("/proc/self/mem", O_RDONLY);  // nothing is mapped at its start
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    EXPECT_EQ(kMsgOk, SendEventFile(peer.session(), 14, 0, file.fd));
    ASSERT_EQ(1u, peer.written.size());
    EXPECT_EQ(sizeof(MsgProto), peer.written[0].size());
    EXPECT_EQ(0u, HeaderOf(peer.written[0]).totalLen);
}

std::string SliceBytes(const std::string& data, uint32_t offset, uint32_t totalLen) {
    return MsgBytes(kMsgData, 0, totalLen, static_cast<uint32_t>(data.size()), offset, data);
}

TEST(RecvFile, StoresSlicesAndAcknowledges) {
    const TestFile file;
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    const std::string large = Content(kMaxSliceSize);
    peer.deliveries = {{0, SliceBytes(large, 0, kMaxSliceSize + 3)},
                       {0, SliceBytes("end", kMaxSliceSize, kMaxSliceSize + 3)}};
    EXPECT_EQ(kMsgOk, RecvFile(peer.session(), file.fd));
    EXPECT_TRUE(large + "end" == file.Text());
    ASSERT_EQ(1u, peer.written.size());
    const MsgProto& answer = HeaderOf(peer.written[0]);
    EXPECT_EQ(kMsgControl, answer.msgType);
    EXPECT_EQ(6, answer.status);
    EXPECT_EQ(14, answer.type);
    EXPECT_EQ(3, answer.devId);
}

TEST(RecvFile, EndsAtWhatIsNoSlice) {
    const std::string slice = SliceBytes("abc", 0, 6);
    const std::string wraps = SliceBytes("abc", 0xFFFFFFFF, 2);  // 3 + 0xFFFFFFFF is no 2
    struct Case {
        const char* name;
        std::vector<std::string> messages;
        int result;
        std::string stored;
    };
    const Case cases[] = {
        {"peer goes", {slice}, kMsgTransportFailed, "abc"},
        {"control message", {slice, ControlBytes(4)}, kMsgOk, "abc"},
        {"lies about its length", {slice, slice + "x"}, kMsgFailed, "abc"},
        {"slice beyond its bytes", {MsgBytes(0, 0, 9, 9, 0, "abc")}, kMsgFailed, ""},
        {"half a header", {slice.substr(0, 12)}, kMsgFailed, ""},
        {"end that wraps", {wraps}, kMsgTransportFailed, "abc"},
        {"slice too long", {DataBytes(Content(kMaxSliceSize + 1))}, kMsgOk, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const TestFile file;
        ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
        for (const std::string& message : c.messages) {
            peer.deliveries.push_back({0, message});
        }
        EXPECT_EQ(c.result, RecvFile(peer.session(), file.fd));
        EXPECT_EQ(c.stored, file.Text());
    }
}

TEST(RecvFile, FailuresOnThisSide) {
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    EXPECT_EQ(kMsgBadDescriptor, RecvFile(peer.session(), -1));
    const TestFile full("/dev/full", O_WRONLY);
    peer.deliveries = {{0, DataBytes("abc")}};
    EXPECT_EQ(kMsgFailed, RecvFile(peer.session(), full.fd));
    const TestFile file;
    peer.deliveries = {{0, DataBytes("abc")}};
    peer.onWrite = [] { return -1; };
    EXPECT_EQ(kMsgTransportFailed, RecvFile(peer.session(), file.fd));
}

}  // namespace
}  // namespace Velt
