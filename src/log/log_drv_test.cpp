#include "log/log_drv.h"

#include <device_driver.h>
#include <gmock/gmock.h>

#include <cstring>
#include <vector>

#include "log/log_test_support.h"

namespace {

using orla::test::InjectFault;
using orla::test::Listener;
using orla::test::ReadMessage;
using orla::test::SelfLogHere;
using orla::test::Session;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint32_t kTimeoutMs = 10000;

class LogDrvTest : public testing::Test {
protected:
    LogDrvTest() { orla::control::Reset(); }
    ~LogDrvTest() override { orla::control::Reset(); }

    static void SetScenario(const std::string& members) {
        ASSERT_EQ(orla::control::LoadScenario("{" + members + "}"), "");
    }

    // Gives bytes to the driver as one buffer.
    static void SendRaw(drvHdcSession_t session, std::string bytes) {
        drvHdcMsg_t message = nullptr;
        ASSERT_EQ(drvHdcAllocMsg(session, &message, 1), 0);
        ASSERT_EQ(drvHdcAddMsgBuffer(message, bytes.data(), static_cast<int>(bytes.size())), 0);
        ASSERT_EQ(halHdcSend(session, message, HDC_FLAG_WAIT, 0), 0);
        ASSERT_EQ(drvHdcFreeMsg(message), 0);
    }

    static std::string ReceiveRaw(drvHdcSession_t session) {
        drvHdcMsg_t message = nullptr;
        char* data = nullptr;
        int size = 0;
        int count = 0;
        EXPECT_EQ(drvHdcAllocMsg(session, &message, 1), 0);
        EXPECT_EQ(halHdcRecv(session, message, 0, HDC_FLAG_WAIT, &count, 0), 0);
        EXPECT_EQ(drvHdcGetMsgBuffer(message, 0, &data, &size), 0);
        const std::string bytes(data, static_cast<size_t>(size));
        EXPECT_EQ(drvHdcFreeMsg(message), 0);
        return bytes;
    }

    // A segment with the 3 bytes of padding behind it.
    static std::string Segment(const std::string& value, uint8_t isLast, uint32_t len,
                               uint32_t type = 176) {
        std::string bytes(9, '\0');
        std::memcpy(&bytes[0], &len, 4);
        std::memcpy(&bytes[4], &type, 4);
        bytes[8] = static_cast<char>(isLast);
        return bytes + value + "pad";
    }

    SelfLogHere log_;
    Listener listener_;
};

TEST_F(LogDrvTest, CutsOneByteShortUnlessTheRestFits) {
    SetScenario(R"("max_segment": 1024)");
    constexpr size_t kRoom = 1012;
    const std::pair<size_t, std::vector<size_t>> cases[] = {
        {1, {1}},
        {kRoom - 1, {kRoom - 1}},
        {kRoom, {kRoom}},
        {kRoom + 1, {kRoom - 1, 2}},
        {2 * kRoom - 1, {kRoom - 1, kRoom}},
        {2 * kRoom, {kRoom - 1, kRoom - 1, 2}},
    };
    const Session session(listener_);
    for (const auto& [size, cuts] : cases) {
        SCOPED_TRACE(size);
        const std::string message(size, 'm');
        ASSERT_EQ(DrvBufWrite(session.device, message.data(), static_cast<uint32_t>(size)), 0);
        for (size_t i = 0; i < cuts.size(); ++i) {
            const std::string bytes = ReceiveRaw(session.host);
            const auto len = static_cast<uint32_t>(cuts[i]);
            const uint8_t mark = i + 1 == cuts.size() ? 1 : 0xFE;
            EXPECT_EQ(bytes.size(), len + 12);
            EXPECT_EQ(bytes.substr(0, 9 + len),
                      Segment(std::string(len, 'm'), mark, len).substr(0, 9 + len));
        }
    }
}

TEST_F(LogDrvTest, ReadsWhatEitherLayerWrites) {
    SetScenario(R"("max_segment": 1024)");
    const Session session(listener_);
    std::string text(10000, '\0');
    for (size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>(i * 31 + i / 251);
    }
    const auto size = static_cast<uint32_t>(text.size());
    ASSERT_EQ(DrvBufWrite(session.host, text.data(), size), 0);
    EXPECT_EQ(ReadMessage(session.device), text);

    ASSERT_EQ(HdcWrite(session.host, text.data(), static_cast<int>(size)), 0);
    char* buffer = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(DrvBufRead(session.device, 0, &buffer, &length, kTimeoutMs), 0);
    EXPECT_EQ(std::string(buffer, length + 1), text + '\0');

    // The next message goes behind what is there.
    ASSERT_EQ(DrvBufWrite(session.host, "tail", 4), 0);
    ASSERT_EQ(DrvBufRead(session.device, 0, &buffer, &length, kTimeoutMs), 0);
    EXPECT_EQ(std::string(buffer, length), text + "tail");
    std::free(buffer);
}

TEST_F(LogDrvTest, RefusesForeignSegments) {
    const std::string cases[] = {
        std::string(8, 'x'),    Segment("value", 1, 5, 175),
        Segment("value", 1, 9), Segment("value", 1, UINT32_MAX),
        Segment("", 0, 0),
    };
    for (const std::string& bytes : cases) {
        const Session session(listener_);
        SendRaw(session.host, Segment("first", 0, 5));
        SendRaw(session.host, bytes);
        char* buffer = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(DrvBufRead(session.device, 3, &buffer, &length, kTimeoutMs), -1);
        EXPECT_EQ(buffer, nullptr);
        EXPECT_EQ(length, 0u);
        EXPECT_THAT(log_.Take(), HasSubstr("HDC recv failed, ret=0, devId=3."));
    }
    EXPECT_EQ(orla::control::CountLiveHandles().messages, 0u);
}

TEST_F(LogDrvTest, TellsWhyNothingCame) {
    Session session(listener_);
    char* buffer = nullptr;
    uint32_t length = 0;
    EXPECT_EQ(DrvBufRead(session.device, 7, &buffer, &length, 1), -1);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_THAT(log_.Take(), HasSubstr("HDC recv timeout, timeout=1."));
    InjectFault("halHdcRecv", DRV_ERROR_NON_BLOCK);
    EXPECT_EQ(DrvBufRead(session.device, 7, &buffer, &length, kTimeoutMs), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("HDC no data, devId=7."));
    InjectFault("halHdcRecv", 99);
    EXPECT_EQ(DrvBufRead(session.device, 7, &buffer, &length, kTimeoutMs), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("HDC recv failed, ret=99, devId=7."));
    Session::Close(&session.host);
    EXPECT_EQ(DrvBufRead(session.device, 1023, &buffer, &length, kTimeoutMs), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("HDC session is closed, devId=1023."));
    EXPECT_EQ(DrvBufRead(session.device, 1024, &buffer, &length, kTimeoutMs), -1);
    EXPECT_EQ(log_.Take(), "");
}

TEST_F(LogDrvTest, ChecksTheCapacity) {
    const Session session(listener_);
    const std::pair<int, int> cases[] = {{13, -1}, {14, 0}, {0x80000, 0}, {0x80001, -1}};
    for (const auto& [segment, result] : cases) {
        SetScenario("\"max_segment\": " + std::to_string(segment));
        EXPECT_EQ(DrvBufWrite(session.host, "abc", 3), result) << segment;
        if (result == 0) {
            EXPECT_EQ(ReadMessage(session.device), "abc");
        } else {
            EXPECT_THAT(log_.Take(), HasSubstr("HDC capacity invalid, size="));
        }
    }
    EXPECT_EQ(DrvBufWrite(session.host, "abc", 0), -1);
}

TEST_F(LogDrvTest, FailedStepsEndTheMessageAndLeaveNothingBehind) {
    const Session session(listener_);
    const std::pair<const char*, const char*> cases[] = {
        {"drvHdcGetCapacity", "alloc HDC capacity failed, drvErr=99"},
        {"drvHdcAllocMsg", "alloc msg failed, drvErr=99."},
        {"drvHdcAddMsgBuffer", "add buffer to HDC msg failed, drvErr=99."},
        {"halHdcSend", "HDC send failed, drvErr=99."},
        {"drvHdcReuseMsg", "reuse HDC msg failed, drvErr=99."},
    };
    for (const auto& [call, words] : cases) {
        InjectFault(call, 99);
        EXPECT_EQ(DrvBufWrite(session.host, "abc", 3), -1);
        EXPECT_THAT(log_.Take(), HasSubstr(words));
    }
    EXPECT_EQ(orla::control::CountLiveHandles().messages, 0u);
}

TEST_F(LogDrvTest, OpensSessionsOrNothing) {
    drvHdcClient_t client = nullptr;
    ASSERT_EQ(DrvClientCreate(&client, kHdcServiceRequests), 0);
    drvHdcSession_t session = nullptr;
    EXPECT_EQ(DrvSessionInit(client, &session, 1024), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("[in] device id[1024] is invalid."));
    EXPECT_EQ(DrvSessionInit(client, &session, 1023), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("create session failed, drvErr="));
    InjectFault("drvHdcSetSessionReference", 99);
    EXPECT_EQ(DrvSessionInit(client, &session, 0), -1);
    EXPECT_EQ(session, nullptr);
    EXPECT_EQ(orla::control::CountLiveHandles().sessions, 0u);
    ASSERT_EQ(DrvSessionInit(client, &session, 0), 0);
    const drvHdcSession_t device = listener_.Accept();

    int pid = 0;
    EXPECT_EQ(DrvSessionGetAttr(device, HDC_SESSION_ATTR_PEER_PID, &pid), 0);
    EXPECT_EQ(pid, getpid());
    InjectFault("halHdcGetSessionAttr", 99);
    EXPECT_EQ(DrvSessionGetAttr(device, HDC_SESSION_ATTR_PEER_PID, &pid), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("get session attr failed, drvErr=99"));

    EXPECT_EQ(DrvSessionRelease(session), 0);
    EXPECT_EQ(DrvSessionRelease(session), -1);
    EXPECT_EQ(DrvSessionRelease(device), 0);
    EXPECT_EQ(DrvClientRelease(client), 0);
}

TEST_F(LogDrvTest, ReleaseIsPatientOnlyWithABusyDriver) {
    const std::tuple<int, int64_t, uint64_t> cases[] = {
        {DRV_ERROR_CLIENT_BUSY, 2, 3},
        {99, 2, 1},
        {DRV_ERROR_CLIENT_BUSY, orla::control::Fault::kForever, 31},  // after 3 s
    };
    for (const auto& [result, count, calls] : cases) {
        orla::control::Reset();
        drvHdcClient_t client = nullptr;
        ASSERT_EQ(DrvClientCreate(&client, kHdcServiceRequests), 0);
        InjectFault("drvHdcClientDestroy", result, count);
        EXPECT_EQ(DrvClientRelease(client), 0);
        EXPECT_EQ(orla::control::CallCount("drvHdcClientDestroy"), calls);
        orla::control::ClearFaults();
        drvHdcClientDestroy(client);
    }
    EXPECT_EQ(DrvClientRelease(nullptr), 0);
}

TEST_F(LogDrvTest, PlatformTypeIsAskedForUntilItIsKnown) {
    uint32_t platform = 77;
    InjectFault("drvGetPlatformInfo", 99);
    EXPECT_EQ(DrvPlatformGet(&platform), -1);
    SetScenario(R"("platform_info": 2)");
    EXPECT_EQ(DrvPlatformGet(&platform), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("platform info 2 is invaild."));
    EXPECT_EQ(platform, 77u);
    std::vector<uint32_t> known;
    for (const char* answer : {"10000", "1", "0"}) {
        SetScenario(std::string(R"("platform_info": )") + answer);
        ASSERT_EQ(DrvPlatformGet(&platform), 0);
        known.push_back(platform);
    }
    EXPECT_THAT(known, ElementsAre(10000, 1, 1));
}

}  // namespace
