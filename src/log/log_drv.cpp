#include "log/log_drv.h"

#include <device_driver.h>
#include <secure_c.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "hdc/hdc_packet.h"
#include "log/log_platform.h"
#include "log/self_log.h"

namespace {

constexpr int kMaxSessions = 64;
constexpr int kMaxDevices = 1024;
constexpr int kMaxReleaseAttempts = 30;
constexpr uint32_t kReleasePauseMs = 100;
constexpr uint32_t kPlatformUnknown = 10000;
constexpr uint32_t kPlatformEnd = 2;
constexpr uint8_t kLastSegment = 1;
constexpr uint8_t kMoreSegments = 0xFE;
// Below this a segment of a longer message would carry nothing.
constexpr uint32_t kMinSegment = orla::kSegmentOverhead + 2;

std::atomic<uint32_t> g_platform{kPlatformUnknown};

bool IsDeviceId(int deviceId) {
    return deviceId >= 0 && deviceId < kMaxDevices;
}

// The driver's carrier of one buffer. Null, with a log line, when it can't be had.
class Message {
public:
    explicit Message(HdcSession& session) {
        const drvError_t error = session.AllocMsg(&message_, 1);
        if (error != DRV_ERROR_NONE) {
            SELF_LOG_ERROR("alloc msg failed, drvErr=%d.", error);
            message_ = nullptr;
        } else if (message_ == nullptr) {
            SELF_LOG_WARN("HDC msg is null.");
        }
    }
    ~Message() {
        if (message_ != nullptr) {
            static_cast<void>(drvHdcFreeMsg(message_));
        }
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    drvHdcMsg_t get() const { return message_; }
    explicit operator bool() const { return message_ != nullptr; }

    // Makes it ready for its next buffer.
    bool Reuse() const {
        const drvError_t error = drvHdcReuseMsg(message_);
        if (error != DRV_ERROR_NONE) {
            SELF_LOG_ERROR("reuse HDC msg failed, drvErr=%d.", error);
        }
        return error == DRV_ERROR_NONE;
    }

private:
    drvHdcMsg_t message_ = nullptr;
};

// The driver's maximum segment; 0 with a log line when it is of no use.
uint32_t GetCapacity() {
    drvHdcCapacity capacity = {HDC_CHAN_TYPE_SOCKET, 0};
    const drvError_t error = drvHdcGetCapacity(&capacity);
    if (error != DRV_ERROR_NONE) {
        SELF_LOG_ERROR("alloc HDC capacity failed, drvErr=%d", error);
        return 0;
    }
    if (capacity.maxSegment < kMinSegment || capacity.maxSegment > orla::kMaxMaxSegment) {
        SELF_LOG_WARN("HDC capacity invalid, size=%u.", capacity.maxSegment);
        return 0;
    }
    return capacity.maxSegment;
}

// Puts the next bytes of a message into `segment`, which has `room` for payload. Returns their
// number, 0 with a log line on failure.
uint32_t FillSegment(IdeHdcPacket* segment, uint32_t room, const char* data, uint32_t remaining) {
    const bool isLast = remaining <= room;
    segment->len = isLast ? remaining : room - 1;
    segment->type = orla::kSegmentType;
    segment->isLast = isLast ? kLastSegment : kMoreSegments;
    if (memcpy_s(segment->value, room, data, segment->len) != EOK) {
        SELF_LOG_ERROR("memory copy failed, strerr=%s.", SelfLogErrorText());
        return 0;
    }
    return segment->len;
}

int SendSegment(HdcSession::Sending& turn, const Message& message, IdeHdcPacket* segment) {
    drvError_t error = drvHdcAddMsgBuffer(message.get(), reinterpret_cast<char*>(segment),
                                          static_cast<int>(segment->len + orla::kSegmentOverhead));
    if (error != DRV_ERROR_NONE) {
        SELF_LOG_ERROR("add buffer to HDC msg failed, drvErr=%d.", error);
        return -1;
    }
    error = turn.Send(message.get(), HDC_FLAG_WAIT);
    if (error != DRV_ERROR_NONE) {
        SELF_LOG_ERROR("HDC send failed, drvErr=%d.", error);
        return -1;
    }
    return message.Reuse() ? 0 : -1;
}

bool IsSegment(const IdeHdcPacket& segment, int size) {
    return size >= static_cast<int>(sizeof(segment)) && segment.type == orla::kSegmentType &&
           segment.len <= static_cast<uint32_t>(size) - sizeof(segment) &&
           (segment.len > 0 || segment.isLast == kLastSegment);
}

// The segment in the message's first buffer; null, with a log line, when there is none. A
// segment that claims more than its buffer holds counts as none, and so does one that carries
// nothing and isn't the last: a peer that sends only those would hold the reader for ever.
const IdeHdcPacket* GetSegment(const Message& message, drvError_t* error) {
    char* data = nullptr;
    int size = 0;
    *error = drvHdcGetMsgBuffer(message.get(), 0, &data, &size);
    const auto* segment = reinterpret_cast<const IdeHdcPacket*>(data);
    if (*error != DRV_ERROR_NONE || data == nullptr || !IsSegment(*segment, size)) {
        SELF_LOG_ERROR("get HDC msg buffer failed, drvErr=%d.", *error);
        return nullptr;
    }
    return segment;
}

// Puts the segment's payload behind `*buffer`, which is replaced. The secure copy refuses what
// would be longer than 0x7FFFFFFF bytes, so that a length always fits its type.
int AppendPayload(const IdeHdcPacket& segment, char** buffer, uint32_t* length) {
    const size_t total = size_t{*length} + segment.len;
    orla::HeapBlock grown(static_cast<char*>(std::calloc(1, total + 1)));
    if (!grown) {
        SELF_LOG_ERROR("calloc failed, strerr=%s.", SelfLogErrorText());
        return -1;
    }
    if ((*length > 0 && memcpy_s(grown.get(), total + 1, *buffer, *length) != EOK) ||
        memcpy_s(grown.get() + *length, segment.len + 1, segment.value, segment.len) != EOK) {
        SELF_LOG_ERROR("copy data failed, strerr=%s.", SelfLogErrorText());
        return -1;
    }
    std::free(*buffer);
    *buffer = grown.release();
    *length = static_cast<uint32_t>(total);
    return 0;
}

// Receives segments until the last one. -1 with the driver's code in `*error`, or with a code of
// 0 when the fault was not the driver's.
int ReceiveSegments(HdcSession::Receiving& turn, const Message& message, char** buffer,
                    uint32_t* length, uint32_t timeout, drvError_t* error) {
    uint8_t mark = kMoreSegments;
    while (mark != kLastSegment) {
        int count = 0;
        *error = turn.Receive(message.get(), static_cast<int>(orla::kMaxMaxSegment),
                              HDC_FLAG_TIMEOUT, &count, timeout);
        if (*error != DRV_ERROR_NONE) {
            return -1;
        }
        const IdeHdcPacket* segment = GetSegment(message, error);
        if (segment == nullptr || AppendPayload(*segment, buffer, length) != 0) {
            return -1;
        }
        mark = segment->isLast;
        if (!message.Reuse()) {
            return -1;
        }
    }
    return 0;
}

void ReportReceiveFailure(drvError_t error, int deviceId, uint32_t timeout) {
    switch (error) {
        case DRV_ERROR_SOCKET_CLOSE:
            return SELF_LOG_WARN("HDC session is closed, devId=%d.", deviceId);
        case DRV_ERROR_NON_BLOCK:
            return SELF_LOG_WARN("HDC no data, devId=%d.", deviceId);
        case DRV_ERROR_WAIT_TIMEOUT:
            return SELF_LOG_WARN("HDC recv timeout, timeout=%d.", static_cast<int>(timeout));
        default:
            return SELF_LOG_ERROR("HDC recv failed, ret=%d, devId=%d.", error, deviceId);
    }
}

}  // namespace

int DrvSessionGetAttr(const HdcSessionPtr& session, int attribute, int* value) {
    if (session == nullptr || value == nullptr) {
        return -1;
    }
    const drvError_t error = session->GetAttr(attribute, value);
    if (error != DRV_ERROR_NONE) {
        SELF_LOG_ERROR("get session attr failed, drvErr=%d, strerr=%s.", error, SelfLogErrorText());
        return -1;
    }
    return 0;
}

int DrvClientCreate(drvHdcClient_t* client, int serviceType) {
    if (client == nullptr) {
        return -1;
    }
    *client = nullptr;
    const drvError_t error = drvHdcClientCreate(client, kMaxSessions, serviceType, 0);
    if (error != DRV_ERROR_NONE) {
        SELF_LOG_ERROR("create HDC client failed, drvErr=%d, strerr=%s.", error,
                       SelfLogErrorText());
        return -1;
    }
    if (*client == nullptr) {
        SELF_LOG_WARN("HDC client is null.");
        return -1;
    }
    return 0;
}

int DrvClientRelease(drvHdcClient_t client) {
    if (client == nullptr) {
        return 0;
    }
    int times = 1;
    drvError_t error = drvHdcClientDestroy(client);
    for (; error == DRV_ERROR_CLIENT_BUSY && times <= kMaxReleaseAttempts; ++times) {
        SELF_LOG_WARN("hdc client release drvErr=%d, times=%d", error, times);
        static_cast<void>(ToolSleep(kReleasePauseMs));
        error = drvHdcClientDestroy(client);
    }
    if (error != DRV_ERROR_NONE && error != DRV_ERROR_CLIENT_BUSY) {
        SELF_LOG_WARN("hdc client release drvErr=%d, times=%d", error, times);
    }
    return 0;
}

int DrvSessionInit(drvHdcClient_t client, HdcSessionPtr* session, int deviceId) {
    if (client == nullptr) {
        SELF_LOG_WARN("[in] hdc client is null.");
        return -1;
    }
    if (session == nullptr) {
        SELF_LOG_WARN("[out] hdc session is null.");
        return -1;
    }
    *session = nullptr;
    if (!IsDeviceId(deviceId)) {
        SELF_LOG_WARN("[in] device id[%d] is invalid.", deviceId);
        return -1;
    }
    drvHdcSession_t handle = nullptr;
    drvError_t error = drvHdcSessionConnect(0, deviceId, client, &handle);
    if (error != DRV_ERROR_NONE || handle == nullptr) {
        SELF_LOG_ERROR("create session failed, drvErr=%d, strerr=%s.", error, SelfLogErrorText());
        return -1;
    }
    HdcSessionPtr opened = HdcSession::Adopt(handle);
    if (opened == nullptr) {
        return -1;
    }
    error = opened->SetReference();
    if (error != DRV_ERROR_NONE) {
        SELF_LOG_ERROR("set session reference error, drvErr=%d.", error);
        static_cast<void>(DrvSessionRelease(opened));
        return -1;
    }
    *session = std::move(opened);
    return 0;
}

int DrvSessionRelease(const HdcSessionPtr& session) {
    if (session == nullptr) {
        SELF_LOG_WARN("[input] session is null.");
        return -1;
    }
    const drvError_t error = session->Close();
    if (error != DRV_ERROR_NONE) {
        SELF_LOG_ERROR("close session failed, drvErr=%d, strerr=%s.", error, SelfLogErrorText());
        return -1;
    }
    return 0;
}

int DrvPlatformGet(uint32_t* platform) {
    if (platform == nullptr) {
        return -1;
    }
    uint32_t known = g_platform;
    if (known >= kPlatformEnd) {
        const drvError_t error = drvGetPlatformInfo(&known);
        if (error != DRV_ERROR_NONE) {
            SELF_LOG_ERROR("get platform info failed, drvErr=%d.", error);
            return -1;
        }
        if (known >= kPlatformEnd && known != kPlatformUnknown) {
            SELF_LOG_WARN("platform info %u is invaild.", known);
            return -1;
        }
        g_platform = known;
    }
    *platform = known;
    return 0;
}

int DrvBufWrite(const HdcSessionPtr& session, const char* buffer, uint32_t length) {
    if (session == nullptr || buffer == nullptr || length == 0) {
        return -1;
    }
    const uint32_t capacity = GetCapacity();
    if (capacity == 0) {
        return -1;
    }
    const auto size = static_cast<uint32_t>(
        std::min<uint64_t>(uint64_t{length} + orla::kSegmentOverhead + 1, capacity));
    const orla::HeapBlock segment(static_cast<char*>(std::calloc(1, size)));
    if (!segment) {
        SELF_LOG_ERROR("calloc %u size failed, strerr=%s.", size, SelfLogErrorText());
        return -1;
    }
    HdcSession::Sending turn(*session);
    const Message message(*session);
    if (!message) {
        return -1;
    }
    auto* const packet = reinterpret_cast<IdeHdcPacket*>(segment.get());
    const uint32_t room = size - orla::kSegmentOverhead;
    for (uint32_t remaining = length; remaining > 0;) {
        const uint32_t taken = FillSegment(packet, room, buffer + (length - remaining), remaining);
        if (taken == 0 || SendSegment(turn, message, packet) != 0) {
            return -1;
        }
        remaining -= taken;
    }
    turn.Complete();
    return 0;
}

int DrvBufRead(const HdcSessionPtr& session, int deviceId, char** buffer, uint32_t* length,
               uint32_t timeout) {
    if (session == nullptr || buffer == nullptr || length == nullptr || !IsDeviceId(deviceId)) {
        return -1;
    }
    drvError_t error = DRV_ERROR_NONE;
    HdcSession::Receiving turn(*session);
    const Message message(*session);
    if (message && ReceiveSegments(turn, message, buffer, length, timeout, &error) == 0) {
        return 0;
    }
    ReportReceiveFailure(error, deviceId, timeout);
    std::free(*buffer);
    *buffer = nullptr;
    *length = 0;
    return -1;
}
