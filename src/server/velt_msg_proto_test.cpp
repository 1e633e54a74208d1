#include "server/velt_msg_proto.h"

#include <gtest/gtest.h>

#include "server/scripted_comm_opt_test.h"

namespace Velt {
namespace {

const CommHandle kSession = ScriptedCommOpt::Session();

TEST(MsgProto, BytesAreTheWireFormat) {
    const ScriptedCommOpt& peer = ScriptedCommOpt::Fresh();
    ASSERT_EQ(kMsgOk, SendMsg(kSession, 14, 6, "ab", 2));
    ASSERT_EQ(kMsgOk, SendResponse(kSession, 0x0E0D, 0x0B0A, 4));
    const std::string stamp("\x96\xC3\x10\0", 4);
    EXPECT_EQ(stamp + std::string("\x0E\0\0\0\2\0\0\0\2\0\0\0\0\0\0\0\0\0\6\0ab", 22),
              peer.written.at(0));
    EXPECT_EQ(stamp + std::string("\x0D\x0E\x0A\x0B\0\0\0\0\0\0\0\0\0\0\0\0\1\0\4\0", 20),
              peer.written.at(1));
}

TEST(MsgProto, WhatCannotBeBuiltOrSentFails) {
    ScriptedCommOpt::Fresh().onWrite = [] { return -1; };
    EXPECT_EQ(nullptr, CreateMsgByType(2, nullptr, 0));
    EXPECT_EQ(kMsgNoMemory, SendMsg(kSession, 14, 6, "", UINT32_MAX - 23));
    EXPECT_EQ(kMsgTransportFailed, SendMsg(kSession, 14, 6, "", 0));
    EXPECT_EQ(kMsgTransportFailed, SendResponse(kSession, 14, 0, 4));
    EXPECT_EQ(kMsgTransportFailed, SendResponse({77, 1}, 14, 0, 4));  // no such option
}

// What the transport hands out is freed, and read only as far as it goes: the sanitizers watch.
TEST(MsgProto, OnlyAWholeMessageIsTaken) {
    struct Case {
        ScriptedCommOpt::Delivery delivery;
        int text;      // what RecvMsg answers
        int response;  // what WaitResponse answers
    };
    const std::string whole = DataBytes("text");
    const Case cases[] = {
        {{0, whole}, kMsgOk, kMsgFailed},
        {{0, DataBytes("")}, kMsgOk, kMsgFailed},
        {{0, ControlBytes(6)}, kMsgOk, kMsgOk},
        {{0, ControlBytes(11)}, kMsgOk, kMsgPeerFailed},
        {{0, ControlBytes(4)}, kMsgOk, kMsgFailed},
        {{0, MsgBytes(kMsgData, 6, 0, 0, 0, "")}, kMsgOk, kMsgFailed},
        {{0, whole.substr(0, 27)}, kMsgFailed, kMsgFailed},
        {{0, whole + "x"}, kMsgFailed, kMsgFailed},
        {{0, ControlBytes(6).substr(0, 23)}, kMsgFailed, kMsgFailed},
        // 0xFFFFFFF0 + 24 is 8 in 32 bits.
        {{0, MsgBytes(0, 0, 0, 0xFFFFFFF0, 0, "").substr(0, 8)}, kMsgFailed, kMsgFailed},
        {{0, MsgBytes(0, 0, 0, 0xFFFFFFFF, 0, "text")}, kMsgFailed, kMsgFailed},
        {{0, "x"}, kMsgFailed, kMsgFailed},
        {{0, whole, -5}, kMsgTransportFailed, kMsgTransportFailed},
        {{0, whole, 0}, kMsgTransportFailed, kMsgTransportFailed},
        {{0, "", 28}, kMsgTransportFailed, kMsgTransportFailed},
        {{-1, whole}, kMsgTransportFailed, kMsgTransportFailed},
        {{1, ""}, kMsgTransportFailed, kMsgTransportFailed},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.delivery.bytes));
        ScriptedCommOpt::Fresh({c.delivery, c.delivery});
        std::string text = "before";
        EXPECT_EQ(c.text, RecvMsg(kSession, text));
        EXPECT_EQ(c.text == kMsgOk ? c.delivery.bytes.substr(24) : "before", text);
        EXPECT_EQ(c.response, WaitResponse(kSession));
    }
}

}  // namespace
}  // namespace Velt
