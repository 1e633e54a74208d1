#include "hdc/hdc_session.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hdc/session_test_support.h"
#include "hdc/test_support.h"

namespace {

using orla::control::CallCount;
using orla::test::InjectFault;
using orla::test::Listener;
using orla::test::LogCapture;
using orla::test::Session;
using orla::test::WaitFor;

class HdcSessionTest : public testing::Test {
protected:
    void SetUp() override {
        orla::control::Reset();
        listener_.emplace();
        session_.emplace(*listener_);
        ASSERT_TRUE(session_->host != nullptr && session_->device != nullptr);
    }
    void TearDown() override {
        orla::control::ClearFaults();
        session_.reset();
        listener_.reset();
        EXPECT_EQ(0u, orla::control::CountLiveHandles().Total());
    }

    HdcSession& device() { return *session_->device; }
    int Write(const std::string& text) {
        return HdcWrite(session_->device, text.data(), static_cast<int>(text.size()));
    }
    // How often the driver has been called with a session.
    static uint64_t Calls() {
        uint64_t calls = 0;
        for (const char* call : {"drvHdcAllocMsg", "halHdcSend", "halHdcRecv", "drvHdcEpollCtl",
                                 "halHdcGetSessionAttr", "drvHdcSetSessionReference"}) {
            calls += CallCount(call);
        }
        return calls;
    }

    std::optional<Listener> listener_;
    std::optional<Session> session_;
};

TEST_F(HdcSessionTest, NothingReachesTheDriverAfterTheClose) {
    EXPECT_EQ(0, device().Close());
    const uint64_t before = Calls();
    void* buffer = nullptr;
    uint32_t length = 0;
    int value = 0;
    EXPECT_EQ(-1, Write("a"));
    EXPECT_EQ(kHdcReadClosed, HdcRead(session_->device, &buffer, &length));
    EXPECT_EQ(kHdcReadClosed, HdcReadPolling(session_->device, &buffer, &length, 3));
    EXPECT_TRUE(HdcIsPeerGone(session_->device));
    EXPECT_EQ(-1, IdeGetDevIdBySession(session_->device, &value));
    EXPECT_EQ(DRV_ERROR_SOCKET_CLOSE, device().SetReference());
    EXPECT_EQ(DRV_ERROR_SOCKET_CLOSE, device().EpollCtl(nullptr, HDC_EPOLL_CTL_ADD, {}));
    EXPECT_EQ(0, device().Close());
    EXPECT_EQ(before, Calls());
    EXPECT_EQ(1u, CallCount("drvHdcSessionClose"));
}

TEST_F(HdcSessionTest, OneThreadSendsAndOneReceives) {
    LogCapture log;
    auto reading = std::async([this] { return orla::test::ReadMessage(session_->device); });
    ASSERT_TRUE(WaitFor([] { return CallCount("halHdcRecv") == 1; }));
    void* buffer = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(kHdcReadFailed, HdcReadNb(session_->device, &buffer, &length));
    EXPECT_FALSE(HdcIsPeerGone(session_->device));
    EXPECT_EQ(1u, CallCount("halHdcRecv"));
    EXPECT_EQ(0, HdcWrite(session_->host, "a", 1));
    EXPECT_EQ("a", reading.get());

    const HdcSession::Sending first(device());
    EXPECT_EQ(-1, Write("b"));
    EXPECT_EQ(0u, CallCount("halHdcSend") - 1);  // the host's
    const auto lines = log.Take("E");
    EXPECT_EQ(3, std::count(lines.begin(), lines.end(),
                            "E a session is sent on or received on by two threads at once"));
}

TEST_F(HdcSessionTest, AfterACutMessageNothingIsSent) {
    const std::string two = orla::test::Text(600000);
    const struct {
        const char* call;
        int result;
        uint64_t after;
        bool goesOn;
    } cases[] = {
        {"halHdcSend", 7, 0, false},
        {"halHdcSend", DRV_ERROR_NON_BLOCK, 0, true},
        {"halHdcSend", DRV_ERROR_NON_BLOCK, 1, false},
        {"drvHdcAddMsgBuffer", 7, 0, true},
        {"drvHdcAddMsgBuffer", 7, 1, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.call) + " " + std::to_string(c.result));
        InjectFault(c.call, c.result, c.after);
        EXPECT_EQ(-1, Write(two));
        const uint64_t sends = CallCount("halHdcSend");
        EXPECT_EQ(c.goesOn ? 0 : -1, Write("next"));
        EXPECT_EQ(sends + (c.goesOn ? 1 : 0), CallCount("halHdcSend"));
        session_.emplace(*listener_);
    }
}

TEST(CallGate, CloseWaitsForBriefCallsOnly) {
    CallGate gate;
    std::optional<CallGate::Pass> brief(std::in_place, gate, CallGate::Kind::kBrief);
    const CallGate::Pass blocking(gate, CallGate::Kind::kBlocking);
    auto closing = std::async(std::launch::async, [&] { return gate.BeginClose(); });
    const auto entered = [&] { return bool(CallGate::Pass(gate, CallGate::Kind::kBrief)); };
    EXPECT_TRUE(WaitFor([&] { return !entered(); }));
    EXPECT_EQ(std::future_status::timeout, closing.wait_for(std::chrono::milliseconds(50)));
    brief.reset();
    EXPECT_TRUE(closing.get());
    gate.EndClose(false);
    EXPECT_TRUE(entered());
}

// Whoever is blocked is woken, and whoever closes as well returns only when the driver is done.
TEST_F(HdcSessionTest, CloseWakesWhoeverIsBlocked) {
    auto reading = std::async([this] { return orla::test::ReadMessage(session_->device); });
    auto writing = std::async([this] { return Write(std::string(64 << 20, 'w')); });
    ASSERT_TRUE(WaitFor([] { return CallCount("halHdcRecv") > 0 && CallCount("halHdcSend") > 0; }));
    std::vector<std::future<void>> closers;
    for (int i = 0; i < 4; ++i) {
        closers.push_back(std::async(std::launch::async, [this] {
            EXPECT_EQ(0, device().Close());
            EXPECT_EQ(1u, orla::control::CountLiveHandles().sessions);  // the host's end
        }));
    }
    closers.clear();
    EXPECT_EQ(std::nullopt, reading.get());
    EXPECT_EQ(-1, writing.get());
    EXPECT_EQ(1u, CallCount("drvHdcSessionClose"));
}

// Threads that come and go anywhere around the close.
TEST_F(HdcSessionTest, CallsRaceWithTheClose) {
    for (int i = 0; i < 50; ++i) {
        const HdcSessionPtr session = session_->device;
        const uint64_t sends = CallCount("halHdcSend");
        std::vector<std::thread> users;
        users.emplace_back([&] {
            while (HdcWrite(session, "text", 4) == 0) {
            }
        });
        users.emplace_back([&] {
            while (!HdcIsPeerGone(session)) {
            }
        });
        users.emplace_back([&] {
            int value = 0;
            while (HdcGetSessionPid(session, &value) == 0) {
            }
        });
        EXPECT_TRUE(WaitFor([&] { return CallCount("halHdcSend") > sends; }));
        EXPECT_EQ(0, session->Close());
        for (std::thread& user : users) {
            user.join();
        }
        session_.emplace(*listener_);
    }
}

TEST_F(HdcSessionTest, TheLastShareCloses) {
    session_->device.reset();
    EXPECT_TRUE(HdcIsPeerGone(session_->host));
    EXPECT_EQ(nullptr, HdcSession::Adopt(nullptr));
}

}  // namespace
