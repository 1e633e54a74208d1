// The framework as a whole: a component behind real sessions of the emulated driver, and the
// host on the client side of the same option.
#include "server/server_register.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <utility>
#include <vector>

#include "hdc/test_support.h"
#include "server/velt_comm_opt_manager.h"
#include "server/velt_hdc_device.h"
#include "server/velt_msg_file.h"

namespace Velt {
namespace {

using orla::control::CountLiveHandles;
using orla::control::DeviceState;
using std::chrono::steady_clock;

constexpr int32_t kServer = 12;
constexpr auto kPatience = std::chrono::seconds(30);
constexpr uint32_t kFileSize = 2 * kMaxSliceSize + 1;

bool WaitFor(const std::function<bool()>& condition) {
    const auto end = steady_clock::now() + kPatience;
    while (!condition()) {
        if (steady_clock::now() > end) {
            return false;
        }
        mmSleep(1);
    }
    return true;
}

std::string Content() {
    std::string text(kFileSize, '\0');
    for (size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>(i * 31 + i / 251);
    }
    return text;
}

int FileOf(const std::string& content) {
    const int fd = memfd_create("test", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), pwrite(fd, content.data(), content.size(), 0));
    return fd;
}

// Does what the request's text says; counts who is in it.
class TestComponent : public VeltComponent {
public:
    struct Counts {
        std::atomic<int> inits{0};
        std::atomic<int> inside{0};
        std::atomic<int> uninits{0};
        std::atomic<bool> uninitUnderProcess{false};
    };
    explicit TestComponent(Counts& counts) : counts_(counts) {}

    int Init() override { return ++counts_.inits; }
    std::string GetName() override { return "Test"; }
    int32_t GetType() override { return kComponentFile; }
    int UnInit() override {
        counts_.uninitUnderProcess = counts_.inside > 0;
        return ++counts_.uninits;
    }
    int Process(const CommHandle& session, const MsgPtr& message) override {
        ++counts_.inside;
        const int ret = Serve(session, std::string(message->data, message->sliceLen));
        --counts_.inside;
        return ret;
    }

private:
    static int Serve(const CommHandle& session, const std::string& text) {
        if (text == "file") {
            const int fd = FileOf(Content());
            const int ret = SendFile(session, kRequestTypeFile, 0, fd);
            close(fd);
            return ret;
        }
        if (text == "wait") {
            return WaitResponse(session);
        }
        if (text == "flood") {
            while (SendMsg(session, kRequestTypeFile, 0, nullptr, 1 << 20) == kMsgOk) {
            }
            return 1;
        }
        return SendMsg(session, kRequestTypeFile, 6, text.data(),
                       static_cast<uint32_t>(text.size()));
    }

    Counts& counts_;
};

// A host: one session at a time.
class Host {
public:
    Host() : client_(Manager().OpenClient(kCommOptHdc, {{"ServiceType", "12"}})) {}
    ~Host() {
        Close();
        EXPECT_EQ(0, Manager().CloseClient(client_));
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    bool Connect(int device) {
        Close();
        session_ = Manager().Connect(client_, {{"DeviceId", std::to_string(device)}});
        return session_.value != kNoHandle;
    }
    void Close() {
        if (session_.value != kNoHandle) {
            Manager().Close(session_);
        }
    }
    bool Send(const std::string& text) {
        return SendMsg(session_, kRequestTypeFile, 0, text.data(),
                       static_cast<uint32_t>(text.size())) == kMsgOk;
    }
    // What the device answers, byte for byte; empty when it closes the session.
    std::string Answer() {
        MsgPtr message;
        int32_t length = 0;
        ReadMsg(session_, 0, message, length);
        return message == nullptr ? ""
                                  : std::string(reinterpret_cast<const char*>(message.get()),
                                                static_cast<size_t>(length));
    }
    // One request on a session of its own, and its answer.
    bool IsServed(int device) {
        const std::string answer = Connect(device) && Send("hello") ? Answer() : "";
        Close();
        return answer.size() == 29 && answer.substr(24) == "hello";
    }
    const CommHandle& session() const { return session_; }

private:
    static VeltCommOptManager& Manager() { return VeltCommOptManager::instance(); }

    CommHandle client_;
    CommHandle session_{kCommOptHdc, kNoHandle};
};

bool FrameworkThreadsAreGone() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "comm");
        std::string name;
        if (std::getline(file, name) && name.rfind("velt_", 0) == 0) {
            return false;
        }
    }
    return true;
}

class FrameworkTest : public testing::Test {
protected:
    void SetUp() override {
        orla::control::Reset();
        // The table of devices is filled once in a process, so all tests have these two.
        ASSERT_EQ("",
                  orla::control::LoadScenario(R"({"devices": [{"logical": 0}, {"logical": 1}]})"));
        ASSERT_EQ(0u, CountLiveHandles().Total());
        // The client side of the option is used before the first server has registered it.
        ASSERT_TRUE(VeltCommOptManager::instance().CommOptsRegister(CreateCommOpt(kKindHdc)));
        host_ = std::make_unique<Host>();
        Start();
    }
    void TearDown() override {
        host_.reset();
        ComponentServerCleanup(kServer);
        EXPECT_TRUE(WaitFor(FrameworkThreadsAreGone));
        EXPECT_EQ(0u, CountLiveHandles().Total());
        EXPECT_EQ(counts_.inits.load(), counts_.uninits.load());
        EXPECT_FALSE(counts_.uninitUnderProcess.load());
    }
    void Start() {
        ASSERT_EQ(0, ComponentServerRegister(kServer, std::make_unique<TestComponent>(counts_)));
        ASSERT_EQ(0, ComponentServerStartup({kServer, 0, -1}));
        ASSERT_TRUE(WaitFor([this] { return host_->IsServed(0) && host_->IsServed(1); }));
    }

    TestComponent::Counts counts_;
    std::unique_ptr<Host> host_;
};

TEST_F(FrameworkTest, SecondComponentAndSecondStartAreRefused) {
    orla::test::LogCapture log;
    EXPECT_EQ(-1, ComponentServerRegister(kServer, std::make_unique<TestComponent>(counts_)));
    EXPECT_EQ(-1, ComponentServerRegister(kServer, nullptr));
    EXPECT_EQ(0, ComponentServerStartup({kServer, 0, -1}));
    EXPECT_TRUE(orla::control::WaitForLine(
        [](const auto& line) {
            return line.text.find("server process failed") != std::string::npos;
        },
        kPatience));
    EXPECT_TRUE(host_->IsServed(0));
}

TEST_F(FrameworkTest, WhatNamesNoComponentEndsInSilence) {
    std::string whole(24, '\0');
    whole[4] = 14;
    std::string unknown = whole, dump = whole, log = whole;
    unknown[4] = 99;
    dump[4] = 13;
    log[4] = 4;
    std::string lies = whole;
    lies[12] = 1;
    const std::string messages[] = {
        unknown, dump, log, lies, whole + "x", whole.substr(0, 23), std::string(8, '\xF0'), "x"};
    for (const std::string& bytes : messages) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        ASSERT_TRUE(host_->Connect(0));
        ASSERT_EQ(0, VeltCommOptManager::instance().Write(host_->session(), bytes.data(),
                                                          static_cast<int32_t>(bytes.size()), 0));
        EXPECT_EQ("", host_->Answer());
    }
    EXPECT_TRUE(host_->IsServed(0));
}

TEST_F(FrameworkTest, HostsThatDoNothingDelayNobody) {
    std::vector<std::unique_ptr<Host>> idle;
    for (int i = 0; i < 40; ++i) {
        idle.push_back(std::make_unique<Host>());
        ASSERT_TRUE(idle.back()->Connect(i % 2));
        if (i % 4 == 0) {
            ASSERT_TRUE(idle.back()->Send("flood"));
        }
    }
    EXPECT_TRUE(host_->IsServed(0));
    EXPECT_TRUE(host_->IsServed(1));
}

TEST_F(FrameworkTest, TwentyFilesAtOnceArriveWhole) {
    const std::string content = Content();
    std::vector<std::future<bool>> pulls;
    for (int i = 0; i < 20; ++i) {
        pulls.push_back(std::async(std::launch::async, [&content, i] {
            Host host;
            const int fd = memfd_create("received", MFD_CLOEXEC);
            std::string received(kFileSize, '\0');
            const bool whole = host.Connect(i % 2) && host.Send("file") &&
                               RecvFile(host.session(), fd) == kMsgOk &&
                               lseek(fd, 0, SEEK_END) == kFileSize &&
                               pread(fd, received.data(), kFileSize, 0) == kFileSize;
            close(fd);
            return whole && received == content;
        }));
    }
    for (auto& pull : pulls) {
        EXPECT_TRUE(pull.get());
    }
}

TEST_F(FrameworkTest, SuspendedDeviceComesBack) {
    Host before;
    ASSERT_TRUE(before.Connect(1));
    const DeviceStateMessage suspend{3, 1};
    ASSERT_EQ(0, DeviceStateNotify(&suspend));
    ASSERT_TRUE(WaitFor([this] { return !host_->Connect(1); }));
    EXPECT_TRUE(host_->IsServed(0));
    // A session that was there before is not touched.
    ASSERT_TRUE(before.Send("still here"));
    EXPECT_NE("", before.Answer());
    const DeviceStateMessage resume{7, 1};
    ASSERT_EQ(0, DeviceStateNotify(&resume));
    EXPECT_TRUE(WaitFor([this] { return host_->IsServed(1); }));
}

TEST_F(FrameworkTest, LostDeviceIsServedWhenItIsBack) {
    ASSERT_TRUE(orla::control::SetDeviceState(1, DeviceState::kDown));
    const uint64_t opened = orla::control::CallCount("drvHdcServerCreate");
    EXPECT_TRUE(host_->IsServed(0));
    EXPECT_TRUE(WaitFor([&] { return orla::control::CallCount("drvHdcServerCreate") > opened; }));
    ASSERT_TRUE(orla::control::SetDeviceState(1, DeviceState::kUp));
    EXPECT_TRUE(WaitFor([this] { return host_->IsServed(1); }));
}

// Whatever its sessions are at, the server's end takes a moment, and nothing of it goes on.
TEST_F(FrameworkTest, CleanupUnderLoadIsQuickAndWhole) {
    std::vector<std::unique_ptr<Host>> hosts;
    for (const char* request : {"wait", "flood", "", "", "wait", "flood"}) {
        hosts.push_back(std::make_unique<Host>());
        ASSERT_TRUE(hosts.back()->Connect(static_cast<int>(hosts.size() % 2)));
        ASSERT_TRUE(*request == '\0' || hosts.back()->Send(request));
    }
    ASSERT_TRUE(WaitFor([this] { return counts_.inside == 4; }));
    std::atomic<bool> stop{false};
    auto knocking = std::async(std::launch::async, [&stop] {
        for (Host host; !stop;) {
            static_cast<void>(host.Connect(0));
        }
    });
    const auto begin = steady_clock::now();
    ComponentServerCleanup(kServer);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(0, counts_.inside.load());
    EXPECT_EQ(1, counts_.uninits.load());
    stop = true;
    knocking.get();
    for (const auto& host : hosts) {
        WaitFor([&host] { return host->Answer().empty(); });  // what a flood left, then the end
    }
    hosts.clear();
    ComponentServerCleanup(kServer);  // nothing is left to do
    Start();
}

// The server's thread may be anywhere between its start and its sleep.
TEST_F(FrameworkTest, CleanupMayFollowTheStartAtOnce) {
    for (int i = 0; i < 50; ++i) {
        ComponentServerCleanup(kServer);
        EXPECT_EQ(0u, CountLiveHandles().servers);
        ASSERT_EQ(0, ComponentServerRegister(kServer, std::make_unique<TestComponent>(counts_)));
        const int inits = counts_.inits;
        ASSERT_EQ(0, ComponentServerStartup({kServer, 0, -1}));
        ASSERT_TRUE(i % 10 != 0 || WaitFor([&] { return counts_.inits > inits; }));
    }
    ComponentServerCleanup(kServer);
    counts_.uninits.store(counts_.inits.load());  // a component may go before its Init
    Start();
}

}  // namespace
}  // namespace Velt
