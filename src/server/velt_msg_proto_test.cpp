#include "server/velt_msg_proto.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "hdc/test_support.h"
#include "server/scripted_comm_opt_test.h"

namespace Velt {
namespace {

TEST(MsgProto, BytesAreTheWireFormat) {
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    ASSERT_EQ(kMsgOk, SendMsg(peer.session(), 14, 6, "ab", 2));
    ASSERT_EQ(kMsgOk, SendResponse(peer.session(), 0x0E0D, 0x0B0A, 4));
    ASSERT_EQ(kMsgOk, SendMsg(peer.session(), 1, 0, "", 0));
    const std::string stamp("\x96\xC3\x10\0", 4);
    ASSERT_EQ(3u, peer.written.size());
    EXPECT_EQ(stamp + std::string("\x0E\0\0\0\2\0\0\0\2\0\0\0\0\0\0\0\0\0\6\0ab", 22),
              peer.written[0]);
    EXPECT_EQ(stamp + std::string("\x0D\x0E\x0A\x0B\0\0\0\0\0\0\0\0\0\0\0\0\1\0\4\0", 20),
              peer.written[1]);
    EXPECT_EQ(stamp + std::string("\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20), peer.written[2]);
}

TEST(MsgProto, CreationRefusesWhatCannotBeAMessage) {
    EXPECT_EQ(nullptr, CreateMsgByType(2, nullptr, 0));
    EXPECT_EQ(nullptr, CreateDataMsg(nullptr, UINT32_MAX - 23));
    const MsgPtr control = CreateMsgByType(kMsgControl, "x", 1);
    ASSERT_NE(nullptr, control);
    EXPECT_EQ(kMsgControl, control->msgType);
    const MsgPtr empty = CreateMsg(7, 8, nullptr, 3);
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ(3u, empty->totalLen);
    EXPECT_EQ(std::string(3, '\0'), std::string(empty->data, 3));
}

TEST(MsgProto, FailedWriteIsATransportFailure) {
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    peer.onWrite = [] { return -1; };
    EXPECT_EQ(kMsgTransportFailed, SendMsg(peer.session(), 14, 6, "ab", 2));
    EXPECT_EQ(kMsgTransportFailed, SendResponse(peer.session(), 14, 0, 4));
}

TEST(MsgProto, OnlyAWholeMessageIsTaken) {
    struct Case {
        const char* name;
        std::string bytes;
        int result;
    };
    const std::string whole = DataBytes("text");
    const Case cases[] = {
        {"whole", whole, kMsgOk},
        {"no payload", DataBytes(""), kMsgOk},
        {"a byte less", whole.substr(0, 27), kMsgFailed},
        {"a byte more", whole + "x", kMsgFailed},
        {"half a header", whole.substr(0, 23), kMsgFailed},
        // 0xFFFFFFF0 + 24 is 8 in 32 bits.
        {"length that wraps", MsgBytes(0, 0, 0, 0xFFFFFFF0, 0, "").substr(0, 8), kMsgFailed},
        {"length beyond the end", MsgBytes(0, 0, 0, 0xFFFFFFE7, 0, "text"), kMsgFailed},
        {"one byte", "x", kMsgFailed},
    };
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        peer.deliveries = {{0, c.bytes}};
        std::string text = "before";
        EXPECT_EQ(c.result, RecvMsg(peer.session(), text));
        EXPECT_EQ(c.result == kMsgOk ? c.bytes.substr(24) : "before", text);
    }
}

// What the transport hands out beside a block is freed, and never looked at: the sanitizers
// watch both.
TEST(MsgProto, FailedReadsAreTransportFailures) {
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    const ScriptedCommOpt::Delivery cases[] = {{1, ""},      {-1, ""},    {0, "", 30},
                                               {0, "x", -5}, {0, "x", 0}, {-1, DataBytes("text")}};
    for (const auto& delivery : cases) {
        SCOPED_TRACE(testing::Message() << delivery.ret << " " << delivery.length.value_or(1));
        peer.deliveries = {delivery, delivery};
        std::string text;
        EXPECT_EQ(kMsgTransportFailed, RecvMsg(peer.session(), text));
        EXPECT_EQ(kMsgTransportFailed, WaitResponse(peer.session()));
        EXPECT_TRUE(peer.deliveries.empty());
    }
}

TEST(MsgProto, ResponseIsReadFromAControlMessageAlone) {
    ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    const std::pair<std::string, int> cases[] = {
        {ControlBytes(6), kMsgOk},
        {ControlBytes(11), kMsgPeerFailed},
        {ControlBytes(4), kMsgFailed},
        {MsgBytes(kMsgData, 6, 0, 0, 0, ""), kMsgFailed},
        {MsgBytes(2, 6, 0, 0, 0, ""), kMsgFailed},
        {ControlBytes(6).substr(0, 20), kMsgFailed},
    };
    for (const auto& [bytes, result] : cases) {
        peer.deliveries = {{0, bytes}};
        EXPECT_EQ(result, WaitResponse(peer.session()));
    }
}

TEST(MsgProto, UnknownOptionTypeFailsEverything) {
    const CommHandle nowhere{77, 1};
    std::string text;
    EXPECT_EQ(kMsgTransportFailed, SendMsg(nowhere, 14, 6, "ab", 2));
    EXPECT_EQ(kMsgTransportFailed, RecvMsg(nowhere, text));
    EXPECT_EQ(kMsgTransportFailed, WaitResponse(nowhere));
    auto& manager = VeltCommOptManager::instance();
    orla::test::LogCapture log;
    EXPECT_EQ(kNoHandle, manager.OpenServer(77, {}).value);
    EXPECT_EQ(std::vector<std::string>{"W commopt(77) not registered"}, log.Take());
    EXPECT_EQ(kNoHandle, manager.OpenClient(77, {}).value);
    EXPECT_EQ(kNoHandle, manager.Accept(nowhere).value);
    EXPECT_EQ(kNoHandle, manager.Connect(nowhere, {}).value);
    CommHandle handle = nowhere;
    EXPECT_EQ(0, manager.CloseServer(handle));
    EXPECT_EQ(0, manager.CloseClient(handle));
    EXPECT_EQ(nullptr, manager.GetDevice(77));
    EXPECT_FALSE(manager.CommOptsRegister(nullptr));
}

TEST(MsgProto, FirstOptionOfATypeStays) {
    ScriptedCommOpt& first = ScriptedCommOpt::Fresh();
    EXPECT_TRUE(VeltCommOptManager::instance().CommOptsRegister(
        std::make_shared<ScriptedCommOpt>(first.session().type)));
    ASSERT_EQ(kMsgOk, SendResponse(first.session(), 14, 0, 6));
    EXPECT_EQ(1u, first.written.size());
}

}  // namespace
}  // namespace Velt
