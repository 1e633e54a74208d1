// How a message of service type 12 is built, sent and received. Its bytes stand in
// hdc/velt_packet.h, which the host tool shares.
//
// The operations have no state; a session is used by one thread at a time, which is the session
// thread of a component. All traffic goes through VeltCommOptManager.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "hdc/velt_packet.h"
#include "server/velt_comm_opt.h"

namespace Velt {

// What the operations answer.
enum MsgResult : int {
    kMsgOk = 0,
    kMsgFailed = 1,  // a file operation failed, or an unexpected or malformed message came
    kMsgBadDescriptor = 5,
    kMsgNoMemory = 8,
    kMsgTransportFailed = 10,
    kMsgPeerFailed = 16,  // the peer's control message had kMsgStatusPeerFailed
};

// A message is one heap block; the last share frees it.
using MsgPtr = std::shared_ptr<MsgProto>;

// ---- Building -----------------------------------------------------------------------------

// A message with a copy of `length` bytes at `data`, or zeros for the caller to fill with null.
// Null when msgType isn't one of the two, the message wouldn't fit a 32-bit length, or memory
// is out. Fields that aren't named here are 0.
[[nodiscard]] MsgPtr CreateMsgByType(uint16_t msgType, const void* data, uint32_t length);
[[nodiscard]] MsgPtr CreateDataMsg(const void* data, uint32_t length);
[[nodiscard]] MsgPtr CreateMsg(uint16_t type, uint16_t devId, const void* data, uint32_t length);
// Makes a control message of a cleared record of the caller's, who sets `type` and `devId`.
// Always 0.
int CreateCtrlMsg(MsgProto& message, uint16_t status);

// ---- Sending ------------------------------------------------------------------------------

// Writes the header and sliceLen bytes. What VeltCommOptManager::Write answers.
[[nodiscard]] int WriteMsg(const CommHandle& session, const MsgProto& message);
// One data message: kMsgOk, kMsgNoMemory or kMsgTransportFailed.
[[nodiscard]] int SendMsg(const CommHandle& session, uint16_t type, uint16_t status,
                          const void* data, uint32_t length);
// One control message: kMsgOk or kMsgTransportFailed.
int SendResponse(const CommHandle& session, uint16_t type, uint16_t devId, uint16_t status);

// ---- Receiving ----------------------------------------------------------------------------

// Whether `length` received bytes are one whole message: nothing but the header is read, and
// that only if it is there. Whoever wants data of a received message asks this first.
[[nodiscard]] bool IsWholeMsg(const MsgProto* message, int32_t length);
// The same, with an error line when it isn't.
[[nodiscard]] bool CheckWholeMsg(const MsgProto* message, int32_t length);

// Reads what comes next, whatever it is. Answers what VeltCommOptManager::Read answered and
// hands out the block and its length; `message` is null unless `length` is above 0. Flag 0
// waits without a limit, any other for about 320 s at most.
int ReadMsg(const CommHandle& session, int flag, MsgPtr& message, int32_t& length);

// One data message as text: kMsgOk, kMsgTransportFailed, or kMsgFailed for a malformed one.
// Without kMsgOk `text` is unchanged.
[[nodiscard]] int RecvMsg(const CommHandle& session, std::string& text);
// Waits without a limit for the peer's control message: kMsgOk for kMsgStatusGoOn,
// kMsgPeerFailed, kMsgTransportFailed, or kMsgFailed for anything else.
int WaitResponse(const CommHandle& session);

}  // namespace Velt
