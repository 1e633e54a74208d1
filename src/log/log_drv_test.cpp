#include "log/log_drv.h"

#include <gmock/gmock.h>

#include <vector>

#include "hdc/session_test_support.h"
#include "hdc/test_support.h"
#include "log/log_test_support.h"

namespace {

using namespace orla::test;
using testing::HasSubstr;

constexpr uint32_t kTimeoutMs = 10000;

class LogDrvTest : public testing::Test {
protected:
    LogDrvTest() { orla::control::Reset(); }
    ~LogDrvTest() override { orla::control::Reset(); }

    static void SetScenario(const std::string& member, uint32_t value) {
        ASSERT_EQ(
            orla::control::LoadScenario("{\"" + member + "\": " + std::to_string(value) + "}"), "");
    }

    // The next buffer, as the driver has it.
    static std::string ReceiveRaw(const HdcSessionPtr& session) {
        drvHdcMsg_t message = nullptr;
        char* data = nullptr;
        int size = 0;
        HdcSession::Receiving turn(*session);
        EXPECT_EQ(session->AllocMsg(&message, 1), 0);
        EXPECT_EQ(turn.Receive(message, 0, HDC_FLAG_TIMEOUT, &size, kTimeoutMs), 0);
        EXPECT_EQ(drvHdcGetMsgBuffer(message, 0, &data, &size), 0);
        const std::string bytes(data, static_cast<size_t>(size));
        drvHdcFreeMsg(message);
        return bytes;
    }

    SelfLogHere log_;
    Listener listener_;
};

TEST_F(LogDrvTest, CutsOneByteShortUnlessTheRestFits) {
    SetScenario("max_segment", 1024);
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
            EXPECT_EQ(bytes.substr(0, 9 + len), Segment(std::string(len, 'm'), mark));
        }
    }
}

TEST_F(LogDrvTest, ReadsWhatEitherLayerWrites) {
    SetScenario("max_segment", 1024);
    const Session session(listener_);
    const std::string text = Text(10000);
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
        std::string(8, 'x'),         Segment("value", 1, 5, 175),         Segment("", 0),
        Segment("value pad", 1, 10), Segment("value pad", 1, UINT32_MAX),
    };
    for (const std::string& bytes : cases) {
        const Session session(listener_);
        SendRaw(session.host, Segment("first", 0));
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
    const auto read = [&](uint32_t device, uint32_t timeout) {
        char* buffer = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(DrvBufRead(session.device, device, &buffer, &length, timeout), -1);
        EXPECT_EQ(buffer, nullptr);
        return log_.Take();
    };
    EXPECT_THAT(read(7, 1), HasSubstr("HDC recv timeout, timeout=1."));
    InjectFault("halHdcRecv", DRV_ERROR_NON_BLOCK);
    EXPECT_THAT(read(7, kTimeoutMs), HasSubstr("HDC no data, devId=7."));
    InjectFault("halHdcRecv", 99);
    EXPECT_THAT(read(7, kTimeoutMs), HasSubstr("HDC recv failed, ret=99, devId=7."));
    Session::Close(&session.host);
    EXPECT_THAT(read(1023, kTimeoutMs), HasSubstr("HDC session is closed, devId=1023."));
    EXPECT_EQ(read(1024, kTimeoutMs), "");
}

TEST_F(LogDrvTest, FailedStepsEndTheMessageAndLeaveNothingBehind) {
    for (const char* call : {"drvHdcGetCapacity", "drvHdcAllocMsg", "drvHdcAddMsgBuffer",
                             "halHdcSend", "drvHdcReuseMsg"}) {
        const Session session(listener_);
        InjectFault(call, 99);
        EXPECT_EQ(DrvBufWrite(session.host, "abc", 3), -1);
        EXPECT_THAT(log_.Take(), HasSubstr("failed, drvErr=99"));
    }
    for (const auto& [capacity, result] :
         {std::pair{13u, -1}, {14u, 0}, {0x80000u, 0}, {0x80001u, -1}}) {
        SetScenario("max_segment", capacity);
        const Session session(listener_);
        EXPECT_EQ(DrvBufWrite(session.host, "abc", 3), result) << capacity;
    }
    EXPECT_EQ(orla::control::CountLiveHandles().messages, 0u);
}

TEST_F(LogDrvTest, OpensSessionsOrNothing) {
    drvHdcClient_t client = nullptr;
    ASSERT_EQ(DrvClientCreate(&client, kHdcServiceRequests), 0);
    HdcSessionPtr session;
    EXPECT_EQ(DrvSessionInit(client, &session, 1024), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("[in] device id[1024] is invalid."));
    EXPECT_EQ(DrvSessionInit(client, &session, 1023), -1);
    EXPECT_THAT(log_.Take(), HasSubstr("create session failed, drvErr="));
    InjectFault("drvHdcSetSessionReference", 99);
    EXPECT_EQ(DrvSessionInit(client, &session, 0), -1);
    EXPECT_EQ(session, nullptr);
    EXPECT_EQ(orla::control::CountLiveHandles().sessions, 0u);
    ASSERT_EQ(DrvSessionInit(client, &session, 0), 0);
    EXPECT_EQ(DrvSessionRelease(session), 0);
    EXPECT_EQ(DrvSessionRelease(nullptr), -1);
    EXPECT_EQ(DrvClientRelease(client), 0);
}

TEST_F(LogDrvTest, PlatformTypeIsAskedForUntilItIsKnown) {
    const std::tuple<uint32_t, int, uint32_t> cases[] = {
        {2, -1, 77}, {10000, 0, 10000}, {10001, -1, 10000}, {1, 0, 1}, {0, 0, 1}};
    uint32_t platform = 77;
    for (const auto& [answer, result, known] : cases) {
        SetScenario("platform_info", answer);
        EXPECT_EQ(DrvPlatformGet(&platform), result) << answer;
        EXPECT_EQ(platform, known);
    }
}

}  // namespace
