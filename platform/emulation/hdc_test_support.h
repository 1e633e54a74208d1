// For the tests of the emulated channel: both of its ends in one process, and a peer that speaks
// the byte format by hand, from hdc_wire.h alone.
#pragma once

#include <gtest/gtest.h>
#include <hdc_driver.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>

#include "control.h"
#include "hdc_wire.h"

namespace orla::emulation {

constexpr int kService = 4;
constexpr uint32_t kMaxSegment = 524288;

inline size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// Waits for something that another thread is about to do.
template <typename Condition>
[[nodiscard]] bool Eventually(Condition&& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline std::string Pattern(size_t size, size_t seed) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>((i * 31 + seed * 7 + (i >> 8)) & 0xFF);
    }
    return text;
}

// One buffer out; the driver's result.
[[nodiscard]] inline int Send(drvHdcSession_t session, const std::string& bytes,
                              uint64_t flag = HDC_FLAG_WAIT) {
    drvHdcMsg_t message = nullptr;
    if (const int result = drvHdcAllocMsg(session, &message, 1); result != 0) {
        return result;
    }
    int result = drvHdcAddMsgBuffer(message, const_cast<char*>(bytes.data()),
                                    static_cast<int>(bytes.size()));
    result = result != 0 ? result : halHdcSend(session, message, flag, 0);
    EXPECT_EQ(drvHdcFreeMsg(message), 0);
    return result;
}

struct Received {
    int result;
    std::string bytes;

    bool operator==(const Received& other) const {
        return result == other.result && bytes == other.bytes;
    }
};

[[nodiscard]] inline Received Receive(drvHdcSession_t session, uint64_t flag = HDC_FLAG_WAIT,
                                      uint32_t timeout = 0, int size = 0) {
    drvHdcMsg_t message = nullptr;
    if (const int result = drvHdcAllocMsg(session, &message, 1); result != 0) {
        return {result, ""};
    }
    int count = 0;
    Received received = {halHdcRecv(session, message, size, flag, &count, timeout), ""};
    if (received.result == 0) {
        char* buffer = nullptr;
        int length = 0;
        EXPECT_EQ(count, 1);
        EXPECT_EQ(drvHdcGetMsgBuffer(message, 0, &buffer, &length), 0);
        received.bytes.assign(buffer, static_cast<size_t>(length));
    }
    EXPECT_EQ(drvHdcFreeMsg(message), 0);
    return received;
}

inline sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// A client that is only a socket.
class RawPeer {
public:
    explicit RawPeer(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        const sockaddr_un address = AddressOf(path);
        connected_ =
            connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawPeer() { Close(); }
    RawPeer(RawPeer&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)), connected_(other.connected_) {}

    [[nodiscard]] bool connected() const { return connected_; }
    [[nodiscard]] bool Write(const std::string& bytes) const {
        return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // What comes until the other end closes.
    [[nodiscard]] std::string ReadToEnd() const {
        std::string all;
        char buffer[65536];
        ssize_t count = 0;
        while ((count = recv(fd_, buffer, sizeof(buffer), 0)) > 0) {
            all.append(buffer, static_cast<size_t>(count));
        }
        return all;
    }
    void Close() {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

    static std::string HelloBytes() {
        Hello hello = {{'O', 'H', 'D', 'C'}, 1, 2, 3, 0, 0};
        return std::string(reinterpret_cast<const char*>(&hello), sizeof(hello));
    }
    static std::string Length(uint32_t length) {
        return std::string(reinterpret_cast<const char*>(&length), sizeof(length));
    }
    static std::string Frame(const std::string& bytes) {
        return Length(static_cast<uint32_t>(bytes.size())) + bytes;
    }

private:
    int fd_;
    bool connected_ = false;
};

// A directory of its own for the sockets, two devices, a client; and the check that a test gives
// back every handle and descriptor.
class HdcTest : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/orla-hdc-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory_ = name;
        setenv("ORLA_HDC_DIR", directory_.c_str(), 1);
        control::Reset();
        ASSERT_EQ(control::LoadScenario(R"({"devices": [{"logical": 0}, {"logical": 1}]})"), "");
        descriptors_ = OpenDescriptors();
        ASSERT_EQ(drvHdcClientCreate(&client_, 8, kService, 0), 0);
    }
    void TearDown() override {
        control::ClearFaults();
        if (server_ != nullptr) {
            EXPECT_EQ(drvHdcServerDestroy(server_), 0);
        }
        EXPECT_EQ(drvHdcClientDestroy(client_), 0);
        EXPECT_EQ(control::CountLiveHandles().Total(), 0U);
        EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == descriptors_; }));
        control::Reset();
        unsetenv("ORLA_HDC_DIR");
        std::filesystem::remove_all(directory_);
    }

    void Listen() { ASSERT_EQ(drvHdcServerCreate(0, kService, &server_), 0); }
    [[nodiscard]] std::string Path() const { return directory_ + "/0." + std::to_string(kService); }

    [[nodiscard]] drvHdcSession_t Accept() {
        drvHdcSession_t session = nullptr;
        EXPECT_EQ(drvHdcSessionAccept(server_, &session), 0);
        return session;
    }
    // Both ends of a new session: host, device.
    [[nodiscard]] std::pair<drvHdcSession_t, drvHdcSession_t> MakeSession() {
        drvHdcSession_t host = nullptr;
        EXPECT_EQ(drvHdcSessionConnect(0, 0, client_, &host), 0);
        return {host, Accept()};
    }
    static void Close(std::pair<drvHdcSession_t, drvHdcSession_t> session) {
        EXPECT_EQ(drvHdcSessionClose(session.first), 0);
        EXPECT_EQ(drvHdcSessionClose(session.second), 0);
    }

    std::string directory_;
    size_t descriptors_ = 0;
    drvHdcClient_t client_ = nullptr;
    drvHdcServer_t server_ = nullptr;
};

}  // namespace orla::emulation
