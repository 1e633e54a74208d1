// The byte format of a message of service type 12. Each is one message of the session layer,
// which cuts it into segments:
//
//     0       2   3   4      6       8          12         16       20        22       24
//     | 0xC396| 16| 0 | type | devId | totalLen | sliceLen | offset | msgType | status | data
//
// `type` selects the component. `data` are sliceLen bytes at `offset` of a payload of totalLen
// bytes, which may take several messages. A control message has no data and both lengths 0.
// All integers are little-endian, as every processor that this runs on stores them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Velt {

#pragma pack(push, 1)

struct MsgProto {
    uint16_t magic;    // kMsgMagic, not checked on receipt
    uint8_t version;   // kMsgVersion, not checked on receipt
    uint8_t reserved;  // 0
    uint16_t type;
    uint16_t devId;  // 0 in all that this side sends
    uint32_t totalLen;
    uint32_t sliceLen;
    uint32_t offset;
    uint16_t msgType;  // kMsgData or kMsgControl
    uint16_t status;   // one of MsgStatus
    char data[];
};

#pragma pack(pop)

static_assert(sizeof(MsgProto) == 24 && offsetof(MsgProto, type) == 4 &&
              offsetof(MsgProto, totalLen) == 8 && offsetof(MsgProto, offset) == 16 &&
              offsetof(MsgProto, msgType) == 20 && offsetof(MsgProto, status) == 22);

constexpr uint16_t kMsgMagic = 0xC396;
constexpr uint8_t kMsgVersion = 16;

constexpr uint16_t kMsgData = 0;
constexpr uint16_t kMsgControl = 1;

enum MsgStatus : uint16_t {
    kMsgStatusNone = 0,         // file slices
    kMsgStatusFileFailed = 4,   // control, from this side: reading or sending the file failed
    kMsgStatusGoOn = 6,         // name of a file, end of all; control: acknowledgement
    kMsgStatusRefused = 10,     // the payload says why
    kMsgStatusPeerFailed = 11,  // control, from the peer
};

constexpr uint32_t kMaxSliceSize = 512000;  // bytes of a file in one message

}  // namespace Velt
