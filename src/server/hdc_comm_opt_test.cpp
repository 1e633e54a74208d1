#include "server/hdc_comm_opt.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "hdc/hdc_api.h"
#include "hdc/test_support.h"
#include "server/velt_comm_opt_manager.h"
#include "server/velt_hdc_epoll.h"

namespace Velt {
namespace {

using orla::control::CallCount;
using orla::control::Fault;
using Lines = std::vector<std::string>;

class HdcCommOptTest : public testing::Test {
protected:
    void SetUp() override { orla::control::Reset(); }
    void TearDown() override { EXPECT_EQ(0u, orla::control::CountLiveHandles().Total()); }

    HdcCommOpt option_;
};

TEST_F(HdcCommOptTest, OptionsAreCheckedBeforeTheDriverIsAsked) {
    enum Operation { kServer, kClient, kConnect };
    struct Case {
        Operation operation;
        CommOptions options;
        Lines lines;
    };
    const Lines notNumbers = {"E Value of device id or service type is not a number"};
    const Lines noService = {"E Value of service type is not a number"};
    const Lines outOfRange = {"E open client input type out of range"};
    const Lines noDevice = {"E Value of device id is not a number"};
    const Lines badDevice = {"E devId invalid"};
    const Lines noPid = {"E Value of host pid is not a number"};
    const Case cases[] = {
        {kServer, {}, {"E open server input invalid"}},
        {kServer,
         {{"ServiceType", "12"}},
         {"E open server input parameter invalid, DeviceId not found."}},
        {kServer,
         {{"DeviceId", "0"}},
         {"E open server input parameter invalid, ServiceType not found"}},
        {kServer, {{"DeviceId", "abc"}, {"ServiceType", "12"}}, notNumbers},
        {kServer, {{"DeviceId", "0"}, {"ServiceType", "12abc"}}, notNumbers},
        {kServer, {{"DeviceId", ""}, {"ServiceType", "12"}}, notNumbers},
        {kServer, {{"DeviceId", " 0"}, {"ServiceType", "12"}}, notNumbers},
        {kServer, {{"DeviceId", "0"}, {"ServiceType", "4294967308"}}, notNumbers},
        {kServer, {{"DeviceId", "0"}, {"ServiceType", "128"}}, {}},
        {kServer, {{"DeviceId", "0"}, {"ServiceType", "-1"}}, {}},
        {kServer, {{"DeviceId", "-1"}, {"ServiceType", "12"}}, {}},
        {kClient, {}, {"E open client input invalid"}},
        {kClient,
         {{"DeviceId", "0"}},
         {"E open client input parameter invalid, ServiceType not found"}},
        {kClient, {{"ServiceType", "0x4"}}, noService},
        {kClient, {{"ServiceType", "128"}}, outOfRange},
        {kClient, {{"ServiceType", "-1"}}, outOfRange},
        {kConnect, {}, {"E hdc connect input invalid"}},
        {kConnect, {{"Pid", "1"}}, {"E connect input parameter invalid, DeviceId not found"}},
        {kConnect, {{"DeviceId", "1."}}, noDevice},
        {kConnect, {{"DeviceId", "1124"}}, badDevice},
        {kConnect, {{"DeviceId", "-1"}}, badDevice},
        {kConnect, {{"DeviceId", "0"}, {"Pid", "12abc"}}, noPid},
        {kConnect, {{"DeviceId", "0"}, {"Pid", "-2"}}, {}},
    };
    orla::test::LogCapture log;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.options));
        const int64_t result = c.operation == kServer   ? option_.OpenServer(c.options)
                               : c.operation == kClient ? option_.OpenClient(c.options)
                                                        : option_.Connect(1, c.options);
        EXPECT_EQ(kNoHandle, result);
        EXPECT_EQ(c.lines, log.Take());
    }
    for (const char* call : {"drvHdcServerCreate", "drvHdcClientCreate", "drvHdcSessionConnect",
                             "halHdcSessionConnectEx"}) {
        EXPECT_EQ(0u, CallCount(call)) << call;
    }
}

TEST_F(HdcCommOptTest, InvalidHandlesAndBuffersAreRefused) {
    orla::test::LogCapture log;
    int64_t none = kNoHandle;
    void* buffer = nullptr;
    int32_t length = 0;
    EXPECT_EQ(-1, option_.CloseServer(none));
    EXPECT_EQ(-1, option_.CloseClient(none));
    EXPECT_EQ(-1, option_.Accept(none));
    EXPECT_EQ(-1, option_.Close(none));
    EXPECT_EQ(-1, option_.Connect(none, {{"DeviceId", "0"}}));
    EXPECT_EQ(-1, option_.Write(1, nullptr, 1, 0));
    EXPECT_EQ(-1, option_.Write(1, "x", 0, 0));
    EXPECT_EQ(-1, option_.Write(1, "x", -3, 1));
    EXPECT_EQ(-1, option_.Read(none, &buffer, &length, 0));
    EXPECT_EQ(-1, option_.Read(1, nullptr, &length, 1));
    EXPECT_EQ(-1, option_.Read(1, &buffer, nullptr, 1));
    EXPECT_EQ(11u, log.Take("E").size());
    EXPECT_EQ(0u, CallCount("drvHdcAllocMsg"));
    int64_t stale = 1;
    EXPECT_EQ(-1, option_.Close(stale));
    EXPECT_EQ(kNoHandle, stale);
}

// The largest device id reaches the driver, which has no such device.
TEST_F(HdcCommOptTest, LargestDeviceIsTheDriversToRefuse) {
    int64_t client = option_.OpenClient({{"ServiceType", "127"}});
    ASSERT_NE(kNoHandle, client);
    EXPECT_EQ(kNoHandle, option_.Connect(client, {{"DeviceId", "1123"}}));
    EXPECT_EQ(1u, CallCount("drvHdcSessionConnect"));
    EXPECT_EQ(0, option_.CloseClient(client));
}

// A server in the event wait, and both ends of a session through one option.
TEST_F(HdcCommOptTest, SessionCarriesMessagesUntilItIsClosed) {
    int64_t server = option_.OpenServer({{"DeviceId", "0"}, {"ServiceType", "12"}});
    int64_t client = option_.OpenClient({{"ServiceType", "12"}});
    VeltHdcEpoll epoll;
    ASSERT_EQ(0, epoll.Create(4));
    ASSERT_EQ(0, epoll.Add(server, {kEventConnect, 77}));
    int64_t host = option_.Connect(client, {{"DeviceId", "0"}, {"Pid", "4321"}});
    ASSERT_NE(kNoHandle, host);
    std::vector<VeltEvent> events(4);
    ASSERT_EQ(1, epoll.Wait(events.data(), 4, 5000));
    EXPECT_EQ(kEventConnect, events[0].mask);
    EXPECT_EQ(77u, events[0].data);
    int64_t device = option_.Accept(server);
    ASSERT_NE(kNoHandle, device);
    int pid = 0;
    EXPECT_EQ(0, HdcGetSessionPid(reinterpret_cast<void*>(device), &pid));
    EXPECT_EQ(4321, pid);

    ASSERT_EQ(0, epoll.Add(device, {kEventData | kEventHangUp, 78}));
    void* buffer = nullptr;
    int32_t length = 0;
    for (const int flag : {0, 1}) {
        ASSERT_EQ(0, option_.Write(host, "text", 4, flag));
        ASSERT_EQ(1, epoll.Wait(events.data(), 4, 5000));
        EXPECT_EQ(kEventData, events[0].mask);
        ASSERT_EQ(0, option_.Read(device, &buffer, &length, flag));
        EXPECT_EQ("text", std::string(static_cast<char*>(buffer), static_cast<size_t>(length)));
        std::free(buffer);
    }
    EXPECT_EQ(0, option_.Close(host));
    ASSERT_EQ(1, epoll.Wait(events.data(), 4, 5000));
    EXPECT_EQ(kEventHangUp, events[0].mask & kEventHangUp);
    EXPECT_EQ(78u, events[0].data);
    EXPECT_EQ(1, option_.Read(device, &buffer, &length, 1));
    EXPECT_EQ(nullptr, buffer);
    EXPECT_EQ(0, epoll.Del(device, {kEventData, 78}));
    EXPECT_EQ(0, epoll.Wait(events.data(), 4, 1));
    EXPECT_EQ(0, option_.Close(device));
    EXPECT_EQ(0, option_.CloseServer(server));
    EXPECT_EQ(0, option_.CloseClient(client));
}

TEST_F(HdcCommOptTest, DeviceTableIsTheSameAtEveryCall) {
    const auto devices = option_.GetDevice();
    ASSERT_NE(nullptr, devices);
    EXPECT_EQ(devices, option_.GetDevice());
    EXPECT_EQ("HDC", option_.CommOptName());
}

TEST(VeltHdcEpoll, FailuresLeaveItAsItWas) {
    orla::control::Reset();
    orla::test::LogCapture log;
    VeltHdcEpoll epoll;
    std::vector<VeltEvent> events(128);
    EXPECT_EQ(128, epoll.Size());
    EXPECT_EQ(-1, epoll.Wait(events.data(), 128, 0));
    EXPECT_EQ(-1, epoll.Add(1, {}));
    EXPECT_EQ(0, epoll.Destroy());
    EXPECT_EQ(-1, epoll.Create(0));
    ASSERT_TRUE(orla::control::InjectFault({"drvHdcEpollCreate", {}, {}, 5, 0, 1, 0}));
    EXPECT_EQ(-1, epoll.Create(128));
    EXPECT_EQ((Lines{"W hdc epoll wait init", "E hdc epoll ctl input error",
                     "E hdc epoll create size(0) input error", "E hdc epoll create error(5)."}),
              log.Take());
    EXPECT_EQ(0, epoll.Create(8));
    EXPECT_EQ(0, epoll.Create(9));
    EXPECT_EQ(8, epoll.Size());
    EXPECT_EQ(-1, epoll.Wait(events.data(), 7, 0));
    EXPECT_EQ(-1, epoll.Add(kNoHandle, {}));
    EXPECT_EQ(-1, epoll.Add(0, {}));
    EXPECT_EQ(-1, epoll.Del(99, {}));
    Lines lines = log.Take();
    ASSERT_EQ(5u, lines.size());
    EXPECT_EQ(0u, lines.back().find("E hdc epoll ctl process error "));  // the driver's number
    lines.pop_back();
    EXPECT_EQ((Lines{"W hdc epoll has been created.", "W hdc epoll wait init",
                     "E hdc epoll ctl input error", "E hdc epoll ctl handle error"}),
              lines);
    // A close that fails can be tried again, and creates nothing twice.
    ASSERT_TRUE(orla::control::InjectFault({"drvHdcEpollClose", {}, {}, 5, 0, 1, 0}));
    EXPECT_EQ(-1, epoll.Destroy());
    EXPECT_EQ(-1, epoll.Wait(events.data(), 128, 0));
    EXPECT_EQ(0, epoll.Create(8));
    EXPECT_EQ(0, epoll.Wait(events.data(), 128, 0));
    EXPECT_EQ(0, epoll.Destroy());
    EXPECT_EQ(0u, orla::control::CountLiveHandles().epolls);
}

TEST(Factories, MakeTheirOneKind) {
    EXPECT_NE(nullptr, CreateEpoll(0));
    EXPECT_NE(nullptr, CreateCommOpt(0));
    EXPECT_EQ(nullptr, CreateEpoll(1));
    EXPECT_EQ(nullptr, CreateCommOpt(1));
}

}  // namespace
}  // namespace Velt
