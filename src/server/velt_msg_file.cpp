#include "server/velt_msg_file.h"

#include <portability.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "hdc/descriptor.h"
#include "hdc/log_side.h"
#include "server/velt_msg_proto.h"

namespace Velt {

namespace {

constexpr ssize_t kMaxEventFileSize = 4096;

ssize_t ReadSome(int fd, void* buffer, uint32_t size) {
    ssize_t count = 0;
    do {
        count = mmRead(fd, buffer, size);
    } while (count < 0 && mmGetErrorCode() == EINTR);
    return count;
}

// The size of the file, with the position back at its start. kMsgOk or kMsgFailed.
int MeasureFile(int fd, uint32_t* size) {
    const int64_t end = mmLseek(fd, 0, SEEK_END);
    if (end < 0) {
        IDE_LOGE("lseek end failed");
        return kMsgFailed;
    }
    if (mmLseek(fd, 0, SEEK_SET) < 0) {
        IDE_LOGE("lseek set failed");
        return kMsgFailed;
    }
    if (end > UINT32_MAX) {
        IDE_LOGE("a file of %lld bytes is too long to be sent", static_cast<long long>(end));
        return kMsgFailed;
    }
    *size = static_cast<uint32_t>(end);
    return kMsgOk;
}

// Reads the next slice behind the header. kMsgOk or kMsgFailed.
int ReadSlice(int fd, uint32_t remaining, MsgProto& message) {
    const uint32_t wanted = std::min(remaining, kMaxSliceSize);
    const ssize_t count = ReadSome(fd, message.data, wanted);
    if (count > 0 && count <= static_cast<ssize_t>(wanted)) {
        message.sliceLen = static_cast<uint32_t>(count);
        return kMsgOk;
    }
    if (count < 0) {
        IDE_LOGE("read file failed : info [%s]", orla::SystemErrorText().c_str());
    } else {
        IDE_LOGE("the file ends %u bytes before the size that it had at the start", remaining);
    }
    return kMsgFailed;
}

int SendSlices(const CommHandle& session, int fd, MsgProto& message) {
    uint32_t remaining = message.totalLen;
    while (remaining > 0) {
        int ret = ReadSlice(fd, remaining, message);
        if (ret != kMsgOk) {
            return ret;
        }
        ret = WriteMsg(session, message);
        if (ret != 0) {
            IDE_LOGE("hand shake failed ret %d, please check server is alive", ret);
            return kMsgTransportFailed;
        }
        message.offset += message.sliceLen;
        remaining -= message.sliceLen;
    }
    return kMsgOk;
}

int SendEmptyFile(const CommHandle& session, MsgProto& message) {
    message.sliceLen = 0;
    const int ret = WriteMsg(session, message);
    if (ret != 0) {
        IDE_LOGE("send empty file failed ret %d, please check server is alive", ret);
        return kMsgTransportFailed;
    }
    return kMsgOk;
}

// A message with room for `size` bytes, or the reason why there is none.
int CreateSliceMsg(uint16_t type, uint16_t devId, uint32_t size, MsgPtr& message) {
    message = CreateMsg(type, devId, nullptr, size);
    if (message == nullptr) {
        IDE_LOGE("create message failed");
        return kMsgNoMemory;
    }
    return kMsgOk;
}

// The bytes of one received message. kMsgOk or kMsgFailed.
int StoreSlice(const MsgProto& message, int fd) {
    if (message.sliceLen > kMaxSliceSize) {
        IDE_LOGW("a slice of %u bytes is too long and was dropped", message.sliceLen);
        return kMsgOk;
    }
    if (orla::WriteAll(fd, message.data, message.sliceLen) != message.sliceLen) {
        IDE_LOGE("write file failed : info [%s]", orla::SystemErrorText().c_str());
        return kMsgFailed;
    }
    return kMsgOk;
}

}  // namespace

int SendFile(const CommHandle& session, uint16_t type, uint16_t devId, int fd) {
    if (fd < 0) {
        return kMsgBadDescriptor;
    }
    uint32_t size = 0;
    int ret = MeasureFile(fd, &size);
    if (ret != kMsgOk) {
        return ret;
    }
    // No more than the file needs: the block comes zeroed, which is dear for many small files.
    MsgPtr message;
    ret = CreateSliceMsg(type, devId, std::min(size, kMaxSliceSize), message);
    if (ret != kMsgOk) {
        return ret;
    }
    message->totalLen = size;
    message->offset = 0;
    ret = size == 0 ? SendEmptyFile(session, *message) : SendSlices(session, fd, *message);
    if (ret != kMsgOk) {
        return ret;
    }
    static_cast<void>(WaitResponse(session));
    return kMsgOk;
}

int SendEventFile(const CommHandle& session, uint16_t type, uint16_t devId, int fd) {
    if (fd < 0) {
        return kMsgBadDescriptor;
    }
    MsgPtr message;
    int ret = CreateSliceMsg(type, devId, kMaxSliceSize, message);
    if (ret != kMsgOk) {
        return ret;
    }
    if (mmLseek(fd, 0, SEEK_SET) < 0) {
        IDE_LOGE("lseek set failed");
        return kMsgFailed;
    }
    ssize_t count = ReadSome(fd, message->data, kMaxSliceSize);
    if (count < 0 && mmGetErrorCode() == EIO) {
        IDE_LOGW("An EIO error occurred when reading files from the event_sched directory");
        count = 0;
    } else if (count < 0) {
        IDE_LOGE("Failed to read file in the event_sched directory: info [%s]",
                 orla::SystemErrorText().c_str());
        return kMsgFailed;
    }
    if (count > kMaxEventFileSize) {
        IDE_LOGW("read file success, but the size has exceeded the maximum size of the dev file.");
    }
    message->totalLen = static_cast<uint32_t>(count);
    message->sliceLen = static_cast<uint32_t>(count);
    message->offset = 0;
    ret = WriteMsg(session, *message);
    if (ret != 0) {
        IDE_LOGE("hand shake failed ret %d, please check server is alive", ret);
        return kMsgTransportFailed;
    }
    static_cast<void>(WaitResponse(session));
    return kMsgOk;
}

int RecvFile(const CommHandle& session, int fd) {
    if (fd < 0) {
        return kMsgBadDescriptor;
    }
    while (true) {
        MsgPtr message;
        int32_t length = 0;
        int ret = ReadMsg(session, 1, message, length);
        if (message == nullptr) {
            IDE_LOGE("hand shake failed ret %d, read failed or timeout", ret);
            return kMsgTransportFailed;
        }
        if (!CheckWholeMsg(message.get(), length)) {
            return kMsgFailed;
        }
        if (message->msgType == kMsgControl) {
            IDE_LOGW("receive ctrl msg from device, stop receiving this file");
            return kMsgOk;
        }
        ret = StoreSlice(*message, fd);
        if (ret != kMsgOk) {
            return ret;
        }
        if (message->totalLen != uint64_t{message->sliceLen} + message->offset) {
            continue;
        }
        ret = SendResponse(session, message->type, message->devId, kMsgStatusGoOn);
        if (ret != kMsgOk) {
            IDE_LOGW("send response exception");
            return kMsgTransportFailed;
        }
        return kMsgOk;
    }
}

}  // namespace Velt
