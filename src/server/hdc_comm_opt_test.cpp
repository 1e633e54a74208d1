#include "server/hdc_comm_opt.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "hdc/hdc_api.h"
#include "hdc/test_support.h"
#include "server/hdc_handles.h"
#include "server/velt_hdc_epoll.h"

namespace Velt {
namespace {

using orla::control::CallCount;

class HdcCommOptTest : public testing::Test {
protected:
    void SetUp() override { orla::control::Reset(); }
    void TearDown() override { EXPECT_EQ(0u, orla::control::CountLiveHandles().Total()); }

    HdcCommOpt option_;
    VeltHdcEpoll epoll_;
};

TEST_F(HdcCommOptTest, OptionsAreCheckedBeforeTheDriverIsAsked) {
    const auto server = [this](const CommOptions& options) { return option_.OpenServer(options); };
    const auto client = [this](const CommOptions& options) { return option_.OpenClient(options); };
    const auto connect = [this](const CommOptions& options) { return option_.Connect(1, options); };
    struct Case {
        std::function<int64_t(const CommOptions&)> open;
        CommOptions options;
        std::string line;  // empty: none
    };
    const std::string device = "DeviceId", service = "ServiceType", pid = "Pid";
    const std::string notNumbers = "E Value of device id or service type is not a number";
    const Case cases[] = {
        {server, {{device, "abc"}, {service, "12"}}, notNumbers},
        {server, {{device, "0"}, {service, "12abc"}}, notNumbers},
        {server, {{device, "0"}, {service, "4294967308"}}, notNumbers},
        {server, {{device, "0"}, {service, "128"}}, ""},
        {server, {{device, "0"}, {service, "-1"}}, ""},
        {server, {{device, "-1"}, {service, "12"}}, ""},
        {server, {{service, "12"}}, "E open server input parameter invalid, DeviceId not found."},
        {client, {{service, "0x4"}}, "E Value of service type is not a number"},
        {client, {{service, "-1"}}, "E open client input type out of range"},
        {connect, {{device, "1."}}, "E Value of device id is not a number"},
        {connect, {{device, "1124"}}, "E devId invalid"},
        {connect, {{device, "0"}, {pid, "12abc"}}, "E Value of host pid is not a number"},
        {connect, {{device, "0"}, {pid, "-2"}}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.options));
        orla::test::LogCapture log;
        EXPECT_EQ(kNoHandle, c.open(c.options));
        const auto lines = log.Take();
        EXPECT_EQ(c.line, lines.empty() ? "" : lines[0]);
    }
    EXPECT_EQ(0u, CallCount("drvHdcServerCreate") + CallCount("drvHdcClientCreate") +
                      CallCount("drvHdcSessionConnect") + CallCount("halHdcSessionConnectEx"));
}

// A server in the event wait, and both ends of a session through one option.
TEST_F(HdcCommOptTest, SessionCarriesMessagesUntilItIsClosed) {
    const auto nextEvent = [this] {
        VeltEvent events[4];
        const int count = epoll_.Wait(events, 4, 5000);
        return count == 1 ? std::pair(events[0].mask, events[0].data) : std::pair(0u, uint64_t{0});
    };
    int64_t server = option_.OpenServer({{"DeviceId", "0"}, {"ServiceType", "12"}});
    int64_t client = option_.OpenClient({{"ServiceType", "12"}});
    ASSERT_EQ(0, epoll_.Create(4));
    ASSERT_EQ(0, epoll_.Add(server, {kEventConnect, 77}));
    int64_t host = option_.Connect(client, {{"DeviceId", "0"}, {"Pid", "4321"}});
    EXPECT_EQ(std::pair(kEventConnect, uint64_t{77}), nextEvent());
    int64_t device = option_.Accept(server);
    int pid = 0;
    EXPECT_EQ(0, HdcGetSessionPid(HdcSessions().Find(device), &pid));
    EXPECT_EQ(4321, pid);

    ASSERT_EQ(0, epoll_.Add(device, {kEventData | kEventHangUp, 78}));
    ASSERT_EQ(0, option_.Write(host, "text", 4, 1));
    EXPECT_EQ(std::pair(kEventData, uint64_t{78}), nextEvent());
    void* buffer = nullptr;
    int32_t length = 0;
    ASSERT_EQ(0, option_.Read(device, &buffer, &length, 1));
    EXPECT_EQ(4, length);
    std::free(buffer);
    EXPECT_EQ(0, option_.Close(host));
    EXPECT_EQ(kNoHandle, host);
    EXPECT_EQ(std::pair(kEventHangUp, uint64_t{78}), nextEvent());
    EXPECT_EQ(1, option_.Read(device, &buffer, &length, 1));
    EXPECT_EQ(nullptr, buffer);
    EXPECT_EQ(0, option_.Close(device) + option_.CloseServer(server) + option_.CloseClient(client) +
                     epoll_.Destroy());
}

TEST_F(HdcCommOptTest, EventWaitSurvivesFailures) {
    std::vector<VeltEvent> events(8);
    EXPECT_EQ(-1, epoll_.Wait(events.data(), 8, 0));
    EXPECT_EQ(0, epoll_.Create(8));
    EXPECT_EQ(0, epoll_.Create(9));
    EXPECT_EQ(8, epoll_.Size());
    EXPECT_EQ(-1, epoll_.Wait(events.data(), 7, 0));
    // After a close that failed there is nothing to wait in, and nothing is made twice.
    orla::test::InjectFault("drvHdcEpollClose", 5);
    EXPECT_EQ(-1, epoll_.Destroy());
    EXPECT_EQ(-1, epoll_.Wait(events.data(), 8, 0));
    EXPECT_EQ(0, epoll_.Create(8));
    EXPECT_EQ(0, epoll_.Destroy());
}

}  // namespace
}  // namespace Velt
