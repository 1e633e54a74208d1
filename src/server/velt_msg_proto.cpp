#include "server/velt_msg_proto.h"

#include <secure_c.h>

#include <cstdlib>
#include <new>

#include "hdc/log_side.h"
#include "hdc/memory_utils.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {

namespace {

constexpr uint32_t kHeaderSize = sizeof(MsgProto);

// Takes a heap block over, also when it can't be shared: then it is freed, and the answer null.
MsgPtr Adopt(void* block) {
    if (block == nullptr) {
        return nullptr;
    }
    try {
        return MsgPtr(static_cast<MsgProto*>(block), [](MsgProto* message) { std::free(message); });
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void Stamp(MsgProto& message) {
    message.magic = kMsgMagic;
    message.version = kMsgVersion;
    message.reserved = 0;
}

}  // namespace

MsgPtr CreateMsgByType(uint16_t msgType, const void* data, uint32_t length) {
    if (length > UINT32_MAX - kHeaderSize || (msgType != kMsgData && msgType != kMsgControl)) {
        return nullptr;
    }
    MsgPtr message = Adopt(IdeXmalloc(size_t{length} + kHeaderSize));
    if (message == nullptr) {
        IDE_LOGE("malloc memory failed");
        return nullptr;
    }
    if (data != nullptr && length > 0 && memcpy_s(message->data, length, data, length) != EOK) {
        IDE_LOGE("create msg mem copy failed");
        return nullptr;
    }
    message->msgType = msgType;
    message->sliceLen = length;
    message->totalLen = length;
    IDE_LOGI("velt_msg_proto CreateMsgByType length is %u", length);
    Stamp(*message);
    return message;
}

MsgPtr CreateDataMsg(const void* data, uint32_t length) {
    return CreateMsgByType(kMsgData, data, length);
}

MsgPtr CreateMsg(uint16_t type, uint16_t devId, const void* data, uint32_t length) {
    MsgPtr message = CreateDataMsg(data, length);
    if (message == nullptr) {
        IDE_LOGE("create message failed");
        return nullptr;
    }
    message->type = type;
    message->devId = devId;
    return message;
}

int CreateCtrlMsg(MsgProto& message, uint16_t status) {
    Stamp(message);
    message.sliceLen = 0;
    message.totalLen = 0;
    message.msgType = kMsgControl;
    message.status = status;
    return 0;
}

int WriteMsg(const CommHandle& session, const MsgProto& message) {
    const auto length = static_cast<int32_t>(message.sliceLen + kHeaderSize);
    return VeltCommOptManager::instance().Write(session, &message, length, 0);
}

int SendMsg(const CommHandle& session, uint16_t type, uint16_t status, const void* data,
            uint32_t length) {
    const MsgPtr message = CreateMsg(type, 0, data, length);
    if (message == nullptr) {
        IDE_LOGE("create message failed");
        return kMsgNoMemory;
    }
    message->status = status;
    const int ret = WriteMsg(session, *message);
    if (ret != 0) {
        IDE_LOGE("send message failed ret(%d), please check server is alive, info : %s", ret,
                 orla::SystemErrorText().c_str());
        return kMsgTransportFailed;
    }
    return kMsgOk;
}

int SendResponse(const CommHandle& session, uint16_t type, uint16_t devId, uint16_t status) {
    MsgProto message{};
    CreateCtrlMsg(message, status);
    message.type = type;
    message.devId = devId;
    const int ret = WriteMsg(session, message);
    if (ret != 0) {
        IDE_LOGE("send respone failed ret %d, please check peer is alive", ret);
        return kMsgTransportFailed;
    }
    IDE_LOGI("device(%d) cmd(%d) respone success", message.devId, message.type);
    return kMsgOk;
}

bool IsWholeMsg(const MsgProto* message, int32_t length) {
    return message != nullptr && length >= static_cast<int32_t>(kHeaderSize) &&
           uint64_t{message->sliceLen} + kHeaderSize == static_cast<uint64_t>(length);
}

bool CheckWholeMsg(const MsgProto* message, int32_t length) {
    if (IsWholeMsg(message, length)) {
        return true;
    }
    const bool hasHeader = message != nullptr && length >= static_cast<int32_t>(kHeaderSize);
    IDE_LOGE("reveice request package(%u) length(%d) exception", hasHeader ? message->sliceLen : 0,
             length);
    return false;
}

int ReadMsg(const CommHandle& session, int flag, MsgPtr& message, int32_t& length) {
    void* buffer = nullptr;
    length = 0;
    const int ret = VeltCommOptManager::instance().Read(session, &buffer, &length, flag);
    // Taken over before anything is looked at, so that a block which nobody wants is freed too.
    message = Adopt(buffer);
    if (ret != 0 || length <= 0) {
        message.reset();
    }
    return ret;
}

int RecvMsg(const CommHandle& session, std::string& text) {
    MsgPtr message;
    int32_t length = 0;
    const int ret = ReadMsg(session, 1, message, length);
    if (message == nullptr) {
        IDE_LOGE("reveice request failed ret %d, length(%d)", ret, length);
        return kMsgTransportFailed;
    }
    if (!CheckWholeMsg(message.get(), length)) {
        return kMsgFailed;
    }
    text.assign(message->data, message->sliceLen);
    return kMsgOk;
}

int WaitResponse(const CommHandle& session) {
    MsgPtr message;
    int32_t length = 0;
    ReadMsg(session, 0, message, length);
    if (message == nullptr) {
        return kMsgTransportFailed;
    }
    if (!IsWholeMsg(message.get(), length) || message->msgType != kMsgControl) {
        return kMsgFailed;
    }
    switch (message->status) {
        case kMsgStatusGoOn:
            return kMsgOk;
        case kMsgStatusPeerFailed:
            return kMsgPeerFailed;
        default:
            return kMsgFailed;
    }
}

}  // namespace Velt
