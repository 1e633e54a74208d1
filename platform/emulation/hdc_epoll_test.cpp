#include <algorithm>
#include <vector>

#include "hdc_test_support.h"

namespace orla::emulation {
namespace {

class HdcEpollTest : public HdcTest {
protected:
    using Events = std::vector<std::pair<uint64_t, uint32_t>>;  // data, bits

    void SetUp() override {
        HdcTest::SetUp();
        Listen();
        ASSERT_EQ(drvHdcEpollCreate(128, &epoll_), 0);
    }
    void TearDown() override {
        EXPECT_EQ(drvHdcEpollClose(epoll_), 0);
        HdcTest::TearDown();
    }
    int Add(void* target, uint64_t data) {
        const uint32_t all = HDC_EPOLL_CONN_IN | HDC_EPOLL_DATA_IN | HDC_EPOLL_SESSION_CLOSE;
        const drvHdcEvent event = {all, 0, data};
        return drvHdcEpollCtl(epoll_, HDC_EPOLL_CTL_ADD, target, &event);
    }
    Events Wait(int timeout, int room = 8) {
        std::vector<drvHdcEvent> events(static_cast<size_t>(room));
        int count = -1;
        EXPECT_EQ(drvHdcEpollWait(epoll_, events.data(), room, timeout, &count), 0);
        Events found;
        for (int i = 0; i < count; ++i) {
            found.emplace_back(events[i].data, events[i].events);
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    drvHdcEpoll_t epoll_ = nullptr;
};

TEST_F(HdcEpollTest, ServerShowsOnlyWhenASessionCanBeHad) {
    ASSERT_EQ(Add(server_, 11), 0);
    const std::string hello = RawPeer::HelloBytes();
    RawPeer peer(Path());
    for (size_t i = 0; i < hello.size(); ++i) {
        EXPECT_EQ(Wait(0), Events{}) << i;
        ASSERT_TRUE(peer.Write(hello.substr(i, 1)));
    }
    RawPeer other(Path());
    ASSERT_TRUE(other.Write(hello));
    for (int sessions = 2; sessions > 0; --sessions) {
        EXPECT_EQ(Wait(60000), (Events{{11, HDC_EPOLL_CONN_IN}}));
        EXPECT_EQ(Wait(60000), (Events{{11, HDC_EPOLL_CONN_IN}}));  // level-triggered
        EXPECT_EQ(drvHdcSessionClose(Accept()), 0);
    }
    EXPECT_EQ(Wait(0), Events{});
    // A server that can only fail says so too, or nobody would look.
    ASSERT_TRUE(control::SetDeviceState(0, control::DeviceState::kDown));
    EXPECT_EQ(Wait(60000), (Events{{11, HDC_EPOLL_CONN_IN}}));
}

TEST_F(HdcEpollTest, SessionShowsDataThenTheEnd) {
    const auto session = MakeSession();
    ASSERT_EQ(Add(session.second, 22), 0);
    EXPECT_EQ(Wait(20), Events{});
    for (const char* bytes : {"a", "b"}) {
        ASSERT_EQ(Send(session.first, bytes), 0);
    }
    EXPECT_EQ(Wait(60000), (Events{{22, HDC_EPOLL_DATA_IN}}));
    EXPECT_EQ(Receive(session.second), (Received{0, "a"}));
    EXPECT_EQ(Wait(60000), (Events{{22, HDC_EPOLL_DATA_IN}}));
    EXPECT_EQ(drvHdcSessionClose(session.first), 0);
    EXPECT_EQ(Wait(60000), (Events{{22, HDC_EPOLL_DATA_IN | HDC_EPOLL_SESSION_CLOSE}}));
    EXPECT_EQ(Receive(session.second), (Received{0, "b"}));
    EXPECT_EQ(Wait(60000), (Events{{22, HDC_EPOLL_SESSION_CLOSE}}));
    EXPECT_EQ(drvHdcSessionClose(session.second), 0);
    EXPECT_EQ(Wait(20), Events{});
}

// What a receive may have read ahead is not in the socket any more.
TEST_F(HdcEpollTest, SessionThatHasReceivedCannotJoin) {
    const auto session = MakeSession();
    ASSERT_EQ(Send(session.first, "a"), 0);
    EXPECT_EQ(Receive(session.second), (Received{0, "a"}));
    EXPECT_EQ(Add(session.second, 1), DRV_ERROR_NOT_SUPPORT);
    Close(session);
}

TEST_F(HdcEpollTest, AServerMayShowBeforeASessionCanBeHad) {
    ASSERT_EQ(drvHdcServerDestroy(std::exchange(server_, nullptr)), 0);
    ASSERT_EQ(control::LoadScenario(R"({"liberties": {"accept_may_block": true}})"), "");
    Listen();
    ASSERT_EQ(Add(server_, 11), 0);
    const RawPeer silent(Path());
    EXPECT_EQ(Wait(60000), (Events{{11, HDC_EPOLL_CONN_IN}}));
}

}  // namespace
}  // namespace orla::emulation
