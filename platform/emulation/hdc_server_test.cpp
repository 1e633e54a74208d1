#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <fstream>
#include <vector>

#include "hdc_test_support.h"

namespace orla::emulation {
namespace {

using HdcServerTest = HdcTest;

// As a server leaves it that was killed.
void LeaveStaleSocket(const std::string& path) {
    const int left = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = AddressOf(path);
    ASSERT_EQ(bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(left);
}

TEST_F(HdcServerTest, FloodOfSilentClientsCostsTheOldestOnly) {
    Listen();
    std::vector<RawPeer> silent;
    std::thread flood([&] {
        for (size_t i = 0; i < 700; ++i) {
            silent.emplace_back(Path());
        }
        RawPeer good(Path());
        ASSERT_TRUE(good.Write(RawPeer::HelloBytes() + RawPeer::Frame("good")));
        EXPECT_EQ(good.ReadToEnd(), "");
    });
    const drvHdcSession_t session = Accept();
    EXPECT_EQ(Receive(session), (Received{0, "good"}));
    EXPECT_EQ(drvHdcSessionClose(session), 0);
    flood.join();
    EXPECT_EQ(silent.front().ReadToEnd(), "");
    EXPECT_TRUE(silent.back().Write("O"));
}

TEST_F(HdcServerTest, WrongHelloIsRefused) {
    Listen();
    const std::string good = RawPeer::HelloBytes();
    std::vector<RawPeer> refused;
    for (const size_t offset : {0, 3, 4, 7, 20, 23}) {
        std::string hello = good;
        hello[offset] ^= 0x10;
        refused.emplace_back(Path());
        ASSERT_TRUE(refused.back().Write(hello));
    }
    const auto session = MakeSession();  // the accept skips them all
    for (const RawPeer& peer : refused) {
        EXPECT_EQ(peer.ReadToEnd(), "");
    }
    Close(session);
}

TEST_F(HdcServerTest, DestroyAndLostDeviceWakeTheAccept) {
    const auto accept = [this] {
        drvHdcSession_t session = nullptr;
        errno = 0;
        EXPECT_NE(drvHdcSessionAccept(server_, &session), 0);
        EXPECT_EQ(session, nullptr);
        EXPECT_NE(errno, EINTR);
        EXPECT_NE(errno, 0);
    };
    const auto blocked = [] { return control::CallCount("drvHdcSessionAccept"); };
    for (const bool destroy : {true, false}) {
        Listen();
        const uint64_t before = blocked();
        std::vector<std::thread> threads;
        threads.reserve(3);
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back(accept);
        }
        EXPECT_TRUE(Eventually([&] { return blocked() == before + 3; }));
        const drvHdcServer_t server = server_;
        if (destroy) {
            EXPECT_EQ(drvHdcServerDestroy(server), 0);
        } else {
            EXPECT_TRUE(control::SetDeviceState(0, control::DeviceState::kDown));
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        if (!destroy) {
            EXPECT_EQ(drvHdcServerDestroy(server), 0);
        }
        EXPECT_FALSE(std::filesystem::exists(Path()));
    }
    server_ = nullptr;
}

TEST_F(HdcServerTest, SignalInterruptsTheAccept) {
    Listen();
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    std::atomic<bool> done{false};
    std::thread acceptor([&] {
        drvHdcSession_t session = nullptr;
        errno = 0;
        EXPECT_NE(drvHdcSessionAccept(server_, &session), 0);
        EXPECT_EQ(errno, EINTR);
        done = true;
    });
    EXPECT_TRUE(Eventually([&] {
        pthread_kill(acceptor.native_handle(), SIGUSR1);
        return done.load();
    }));
    acceptor.join();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(HdcServerTest, SocketFileBelongsToWhoeverListens) {
    drvHdcServer_t second = nullptr;
    LeaveStaleSocket(Path());
    Listen();
    // A live one stays, and works on.
    EXPECT_NE(drvHdcServerCreate(0, kService, &second), 0);
    EXPECT_EQ(second, nullptr);
    const auto session = MakeSession();
    Close(session);
    // When its file was taken away and another server listens, that one's file is left alone.
    std::filesystem::remove(Path());
    ASSERT_EQ(drvHdcServerCreate(0, kService, &second), 0);
    EXPECT_EQ(drvHdcServerDestroy(server_), 0);
    server_ = second;
    EXPECT_TRUE(RawPeer(Path()).connected());
    // What isn't a socket is never removed.
    std::ofstream(directory_ + "/1.4") << "mine";
    EXPECT_NE(drvHdcServerCreate(1, kService, &second), 0);
    EXPECT_EQ(std::filesystem::file_size(directory_ + "/1.4"), 4U);
}

TEST_F(HdcServerTest, DeviceThatIsNotReadyOrNotThere) {
    drvHdcSession_t session = nullptr;
    EXPECT_EQ(drvHdcSessionConnect(0, 0, client_, &session), DRV_ERROR_DEVICE_NOT_READY);
    const int unknown = drvHdcServerCreate(7, kService, &server_);
    EXPECT_TRUE(unknown != 0 && unknown != DRV_ERROR_DEVICE_NOT_READY);
    ASSERT_TRUE(control::SetDeviceState(0, control::DeviceState::kNotReady));
    EXPECT_EQ(drvHdcServerCreate(0, kService, &server_), DRV_ERROR_DEVICE_NOT_READY);
    EXPECT_EQ(drvHdcSessionConnect(0, 0, client_, &session), DRV_ERROR_DEVICE_NOT_READY);
    uint32_t count = 0;
    EXPECT_EQ(drvGetDevNum(&count), 0);
    EXPECT_EQ(count, 2U);
    ASSERT_TRUE(control::SetDeviceState(0, control::DeviceState::kUp));
    Listen();
    const auto ends = MakeSession();
    ASSERT_TRUE(control::SetDeviceState(0, control::DeviceState::kDown));
    EXPECT_EQ(Receive(ends.first).result, DRV_ERROR_SOCKET_CLOSE);
    EXPECT_EQ(Receive(ends.second).result, DRV_ERROR_SOCKET_CLOSE);
    EXPECT_EQ(drvGetDevNum(&count), 0);
    EXPECT_EQ(count, 1U);
    Close(ends);
}

TEST_F(HdcServerTest, ADestroyMayAnswerThatTheServerIsBusy) {
    ASSERT_EQ(control::LoadScenario(R"({"liberties": {"destroy_busy": true}})"), "");
    Listen();
    EXPECT_EQ(drvHdcServerDestroy(server_), DRV_ERROR_CLIENT_BUSY);
    Close(MakeSession());  // it serves on
    const control::LogCapture capture;
    control::SetLogLevel(control::LogLevel::kDebug);
    EXPECT_EQ(drvHdcServerDestroy(std::exchange(server_, nullptr)), 0);
    const auto lines = control::CapturedLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().text,
              "no server is left; clients 1 and 0 in a call, sessions 0 and 0 in a call, "
              "messages 0 and 0 in a call, event waits 0 and 0 in a call");
}

TEST_F(HdcServerTest, DevicesGoAndComeBySchedule) {
    Listen();
    ASSERT_EQ(control::LoadScenario(R"({"devices": [{"logical": 0,
        "flaps": {"up_ms": 1, "down_ms": 1, "count": 3}}]})"),
              "");
    drvHdcSession_t session = nullptr;
    EXPECT_NE(drvHdcSessionAccept(server_, &session), 0);  // wakes when the device goes
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(drvHdcServerDestroy(server_), 0);
    EXPECT_TRUE(Eventually([this] { return drvHdcServerCreate(0, kService, &server_) == 0; }));
}

TEST_F(HdcServerTest, ShortageOfDescriptorsPasses) {
    Listen();
    drvHdcSession_t host = nullptr;
    ASSERT_EQ(drvHdcSessionConnect(0, 0, client_, &host), 0);
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const uint64_t calls = control::CallCount("drvHdcSessionAccept");
    std::thread relief([&] {
        EXPECT_TRUE(Eventually([&] { return control::CallCount("drvHdcSessionAccept") > calls; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // into the shortage
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    });
    const rlimit none = {OpenDescriptors() - 1, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const drvHdcSession_t device = Accept();
    relief.join();
    Close({host, device});
}

}  // namespace
}  // namespace orla::emulation
