// The framework as a whole: a component behind real sessions of the emulated driver, and the
// host on the client side of the same option.
#include "server/server_register.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

#include "hdc/test_support.h"
#include "hdc/thread_limit_test_support.h"
#include "server/scripted_comm_opt_test.h"
#include "server/velt_comm_opt_manager.h"
#include "server/velt_hdc_device.h"

namespace Velt {
namespace {

using orla::control::CallCount;
using orla::control::CountLiveHandles;
using orla::control::DeviceState;
using orla::test::InjectFault;
using orla::test::WaitFor;
using std::chrono::steady_clock;

constexpr int32_t kServer = 12;
constexpr auto kPatience = std::chrono::seconds(30);

// Of a component.
struct Counts {
    std::atomic<int> inits{0};
    std::atomic<int> inside{0};
    std::atomic<int> uninits{0};
    std::atomic<bool> deaf{false};  // Init and a request "deaf" take that long
};

// Does what the request's text says, and sends it back.
class TestComponent : public VeltComponent {
public:
    explicit TestComponent(Counts& counts) : counts_(counts) {}
    int Init() override {
        ++counts_.inits;
        return WaitFor([this] { return !counts_.deaf; }) ? 0 : -1;
    }
    int32_t GetType() override { return kComponentFile; }
    int UnInit() override {
        EXPECT_EQ(0, counts_.inside.load());
        return ++counts_.uninits;
    }
    int Process(const CommHandle& session, const MsgPtr& message) override {
        const std::string text(message->data, message->sliceLen);
        ++counts_.inside;
        EXPECT_TRUE(WaitFor([&] { return text != "deaf" || !counts_.deaf; }));
        int ret = text == "wait" ? WaitResponse(session) : kMsgOk;
        while (ret == kMsgOk) {
            ret = SendMsg(session, kRequestTypeFile, 6, text.data(),
                          static_cast<uint32_t>(text.size()));
            if (text != "flood") {
                break;
            }
        }
        --counts_.inside;
        return ret == kMsgOk ? ret : throw std::bad_alloc();
    }

private:
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
    void Close() { Manager().Close(session_); }
    bool Send(const std::string& text) {
        return SendMsg(session_, kRequestTypeFile, 0, text.data(),
                       static_cast<uint32_t>(text.size())) == kMsgOk;
    }
    // What the device answers; empty when it closes the session.
    std::string Answer() {
        std::string text;
        return RecvMsg(session_, text) == kMsgOk ? text : "";
    }
    // One request on a session of its own, and its answer.
    bool IsServed(int device) {
        const bool served = Connect(device) && Send("hello") && Answer() == "hello";
        Close();
        return served;
    }
    const CommHandle& session() const { return session_; }

private:
    static VeltCommOptManager& Manager() { return VeltCommOptManager::instance(); }

    CommHandle client_;
    CommHandle session_{kCommOptHdc, kNoHandle};
};

bool FrameworkThreadsAreGone() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name.rfind("velt_", 0) == 0) {
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
        // The client side of the option is used before the first server has registered it.
        ASSERT_TRUE(VeltCommOptManager::instance().CommOptsRegister(CreateCommOpt(kKindHdc)));
        host_ = std::make_unique<Host>();
    }
    void TearDown() override {
        host_.reset();
        ComponentServerCleanup(kServer);
        EXPECT_TRUE(WaitFor(FrameworkThreadsAreGone));
        EXPECT_EQ(0u, CountLiveHandles().Total());
    }
    void Launch() {
        ASSERT_EQ(0, ComponentServerRegister(kServer, std::make_unique<TestComponent>(counts_)));
        ASSERT_EQ(0, ComponentServerStartup({kServer, 0, -1}));
    }
    void Start() {
        Launch();
        ASSERT_TRUE(WaitFor([this] { return host_->IsServed(0) && host_->IsServed(1); }));
    }
    static void Notify(uint32_t state) {
        const DeviceStateMessage message{state, 1};
        ASSERT_EQ(0, DeviceStateNotify(&message));
    }

    Counts counts_;
    std::unique_ptr<Host> host_;
};

TEST_F(FrameworkTest, WhatNamesNoComponentEndsInSilence) {
    Start();
    // A second component, and a second start, are refused and harm nobody.
    EXPECT_EQ(-1, ComponentServerRegister(kServer, std::make_unique<TestComponent>(counts_)));
    EXPECT_EQ(-1, ComponentServerRegister(kServer, nullptr));
    EXPECT_EQ(0, ComponentServerStartup({kServer, 0, -1}));
    for (const char type : {99, 13, 4}) {
        std::string bytes = DataBytes("");
        bytes[4] = type;
        ASSERT_TRUE(host_->Connect(0));
        ASSERT_EQ(0, VeltCommOptManager::instance().Write(host_->session(), bytes.data(),
                                                          static_cast<int32_t>(bytes.size()), 0));
        EXPECT_EQ("", host_->Answer()) << bytes[4];
    }
    EXPECT_TRUE(host_->IsServed(0));
}

TEST_F(FrameworkTest, SuspendedDeviceComesBack) {
    Start();
    const uint64_t accepted = CallCount("drvHdcSessionAccept");
    Host before;
    ASSERT_TRUE(before.Connect(1));
    ASSERT_TRUE(WaitFor([&] { return CallCount("drvHdcSessionAccept") > accepted; }));
    // A failed delete from the event wait does not keep a server that could be closed.
    InjectFault("drvHdcEpollCtl", 5);
    Notify(3);
    ASSERT_TRUE(WaitFor([this] { return !host_->Connect(1); }));
    EXPECT_TRUE(host_->IsServed(0));
    // A session that was there before is not touched.
    EXPECT_TRUE(before.Send("still here"));
    EXPECT_EQ("still here", before.Answer());
    Notify(7);
    EXPECT_TRUE(WaitFor([this] { return host_->IsServed(1); }));
    EXPECT_EQ(1u, CallCount("drvHdcServerDestroy"));
    // A server that cannot be closed goes on listening.
    InjectFault("drvHdcServerDestroy", 23, 0, 30);
    Notify(3);
    ASSERT_TRUE(WaitFor([] { return CallCount("drvHdcServerDestroy") > 1; }));
    Notify(7);
    ASSERT_TRUE(WaitFor([] { return CallCount("drvHdcServerDestroy") == 31; }));
    EXPECT_TRUE(host_->IsServed(1));
    EXPECT_EQ(3u, CallCount("drvHdcServerCreate"));
}

// Only a new server will do, and the accepts that fail meanwhile are few.
TEST_F(FrameworkTest, LostDeviceIsServedWhenItIsBack) {
    for (const char* call : {"drvHdcServerCreate", "drvHdcEpollCreate", "drvHdcEpollCtl"}) {
        InjectFault(call, 5);  // what fails to open is tried again
    }
    Start();
    EXPECT_EQ(2u, CountLiveHandles().servers);
    const uint64_t opened = CallCount("drvHdcServerCreate");
    const uint64_t accepted = CallCount("drvHdcSessionAccept");
    ASSERT_TRUE(orla::control::SetDeviceState(1, DeviceState::kDown));
    EXPECT_TRUE(WaitFor([&] { return CallCount("drvHdcServerCreate") > opened; }));
    EXPECT_EQ(accepted + 2, CallCount("drvHdcSessionAccept"));
    EXPECT_TRUE(host_->IsServed(0));
    ASSERT_TRUE(orla::control::SetDeviceState(1, DeviceState::kUp));
    EXPECT_TRUE(WaitFor([this] { return host_->IsServed(1); }));
}

// Who can't have a thread is refused, or waits; nobody else's device stands still for it.
TEST_F(FrameworkTest, SessionsWithoutAThreadAreRefusedUntilThreadsAreBack) {
    Start();
    const uint64_t accepted = CallCount("drvHdcSessionAccept");
    {
        Host first, second;
        orla::test::threadsLeft = 0;
        ASSERT_TRUE(first.Connect(0) && second.Connect(1));
        // One is refused in each round; the manager goes on to the other.
        EXPECT_EQ("", first.Answer());
        EXPECT_EQ("", second.Answer());
        EXPECT_EQ(accepted + 2, CallCount("drvHdcSessionAccept"));
        orla::test::threadsLeft = -1;
    }
    // Those that wait when threads are back are served.
    std::vector<std::unique_ptr<Host>> hosts;
    orla::test::threadsLeft = 0;
    for (int i = 0; i < 20; ++i) {
        hosts.push_back(std::make_unique<Host>());
        ASSERT_TRUE(hosts.back()->Connect(i % 2) && hosts.back()->Send("hello"));
    }
    ASSERT_TRUE(WaitFor([&] { return CallCount("drvHdcSessionAccept") > accepted + 2; }));
    orla::test::threadsLeft = -1;
    const auto tried = static_cast<long>(CallCount("drvHdcSessionAccept") - accepted - 2);
    EXPECT_GE(tried, std::count_if(hosts.begin(), hosts.end(),
                                   [](const auto& host) { return host->Answer() != "hello"; }));
    EXPECT_TRUE(host_->IsServed(0) && host_->IsServed(1));
}

TEST_F(FrameworkTest, OnlyTheNamedDeviceIsServed) {
    VeltServerManager manager;
    EXPECT_FALSE(manager.ComponentInit());
    ASSERT_TRUE(manager.RegisterEpoll(CreateEpoll(kKindHdc)));
    ASSERT_TRUE(manager.RegisterCommOpt(CreateCommOpt(kKindHdc), "12"));
    ASSERT_TRUE(manager.AddComponent(std::make_unique<TestComponent>(counts_)));
    manager.SetDeviceId(1);
    ASSERT_EQ(0, manager.Start());
    EXPECT_TRUE(WaitFor([this] { return host_->IsServed(1); }));
    EXPECT_FALSE(host_->Connect(0));
}

// Hosts that are silent or don't read delay nobody, neither other hosts nor the server's end.
TEST_F(FrameworkTest, CleanupUnderLoadIsQuickAndWhole) {
    Start();
    std::vector<std::unique_ptr<Host>> hosts;
    for (const char* request : {"wait", "flood", "", "", "wait", "flood"}) {
        hosts.push_back(std::make_unique<Host>());
        ASSERT_TRUE(hosts.back()->Connect(static_cast<int>(hosts.size() % 2)));
        ASSERT_TRUE(*request == '\0' || hosts.back()->Send(request));
    }
    ASSERT_TRUE(WaitFor([this] { return counts_.inside == 4; }));
    EXPECT_TRUE(host_->IsServed(0) && host_->IsServed(1));
    std::atomic<bool> stop{false};
    auto knocking = std::async(std::launch::async, [&] {
        for (Host host; !stop; static_cast<void>(host.Connect(0))) {
        }
    });
    const auto begin = steady_clock::now();
    ComponentServerCleanup(kServer);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(0, counts_.inside.load());
    EXPECT_EQ(1, counts_.uninits.load());
    stop = true;
    knocking.get();
    hosts.clear();
    Start();
}

// The server's thread may be anywhere between its start and its sleep.
TEST_F(FrameworkTest, CleanupMayFollowTheStartAtOnce) {
    for (int i = 0; i < 20; ++i) {
        Launch();
        ComponentServerCleanup(kServer);
        EXPECT_EQ(i + 1, counts_.uninits.load());
        EXPECT_EQ(0u, CountLiveHandles().servers);
    }
    // Caught just before it starts the manager, it does not start it any more.
    const int inits = counts_.inits;
    counts_.deaf = true;
    Launch();
    ASSERT_TRUE(WaitFor([&] { return counts_.inits > inits; }));
    orla::test::LogCapture log;
    auto cleanup = std::async(std::launch::async, ComponentServerCleanup, kServer);
    const auto ends = [](const auto& line) {
        return line.text.find("start to deconstruct") != std::string::npos;
    };
    ASSERT_TRUE(orla::control::WaitForLine(ends, kPatience));
    counts_.deaf = false;
    cleanup.get();
    Start();
}

// A component that doesn't return in time keeps what it uses, and lets go of it at its end.
TEST(VeltSessions, EndDoesNotWaitForADeafComponent) {
    ScriptedCommOpt::Fresh({{0, DataBytes("deaf")}});
    Counts counts;
    auto sessions = std::make_shared<VeltSessions>(std::chrono::milliseconds(20));
    sessions->SetCommOptType(ScriptedCommOpt::Session().type);
    ASSERT_TRUE(sessions->AddComponent(std::make_unique<TestComponent>(counts)));
    counts.deaf = true;
    ASSERT_TRUE(sessions->Take(ScriptedCommOpt::Session()));
    ASSERT_TRUE(WaitFor([&counts] { return counts.inside == 1; }));
    sessions->End();
    sessions.reset();
    EXPECT_EQ(0, counts.uninits.load());
    counts.deaf = false;
    EXPECT_TRUE(WaitFor([&counts] { return counts.uninits == 1; }));
    EXPECT_TRUE(WaitFor(FrameworkThreadsAreGone));
}

}  // namespace
}  // namespace Velt
