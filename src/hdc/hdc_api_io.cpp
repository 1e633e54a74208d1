// Messages on sessions: the segment loop of a write and of a read, once for all callers.
#include <algorithm>

#include "hdc/hdc_api.h"
#include "hdc/memory_utils.h"

using orla::HeapBlock;
using orla::LogSide;
using orla::OperationName;

namespace {

constexpr int kMaxDropped = 64;           // segments at a time, of a peer that goes on sending
constexpr uint32_t kMaxReadPauses = 141;  // 1 + 2 + … + 141 ms: 10,011 ms of silence
constexpr uint32_t kMaxReadSleepMs = 5 * 60 * 1000;

// A driver message for one buffer. Free() reports what the destructor would swallow.
class DriverMessage {
public:
    explicit DriverMessage(const LogSide& side) : side_(side) {}
    ~DriverMessage() { static_cast<void>(Free()); }
    DriverMessage(const DriverMessage&) = delete;
    DriverMessage& operator=(const DriverMessage&) = delete;

    drvError_t Alloc(HdcSession& session) { return session.AllocMsg(&handle_, 1); }

    [[nodiscard]] int Free() {
        if (handle_ == nullptr) {
            return 0;
        }
        const drvError_t ret = drvHdcFreeMsg(handle_);
        handle_ = nullptr;
        if (ret != DRV_ERROR_NONE) {
            SIDE_LOG(side_, kError, "Hdc Free Msg, error: %d", ret);
            return -1;
        }
        return 0;
    }

    [[nodiscard]] int Reuse() {
        const drvError_t ret = drvHdcReuseMsg(handle_);
        if (ret != DRV_ERROR_NONE) {
            SIDE_LOG(side_, kError, "Hdc Reuse Msg, error: %d", ret);
            return -1;
        }
        return 0;
    }

    drvHdcMsg_t get() const { return handle_; }

private:
    const LogSide& side_;
    drvHdcMsg_t handle_ = nullptr;
};

int SendSegment(HdcSession::Sending& turn, DriverMessage& message, IdeHdcPacket* segment,
                uint64_t flag, const LogSide& side) {
    drvError_t ret = drvHdcAddMsgBuffer(message.get(), reinterpret_cast<char*>(segment),
                                        static_cast<int>(segment->len + orla::kSegmentOverhead));
    if (ret != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "Hdc Add Msg Buffer, error: %d", ret);
        return -1;
    }
    ret = turn.Send(message.get(), flag);
    if (ret != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "Hdc Send, error: %d", ret);
        return -1;
    }
    return message.Reuse();
}

// Sends the segments of a message, each made in `block`, or without one in front of its payload:
// there lies nothing but the caller's room, or bytes that are out already.
int SendSegments(HdcSession::Sending& turn, DriverMessage& message, const char* payload,
                 uint32_t remaining, uint32_t limit, IdeHdcPacket* block, uint64_t flag,
                 const LogSide& side) {
    while (remaining > 0) {
        IdeHdcPacket* segment = block;
        if (segment == nullptr) {
            segment =
                reinterpret_cast<IdeHdcPacket*>(const_cast<char*>(payload) - orla::kSegmentFront);
        }
        const uint32_t taken = orla::CutSegment(payload, remaining, limit, segment);
        if (SendSegment(turn, message, segment, flag, side) != 0) {
            return -1;
        }
        payload += taken;
        remaining -= taken;
    }
    turn.Complete();
    return message.Free();
}

int HdcSessionWrite(const HdcSessionPtr& session, const void* buffer, int length, bool inPlace,
                    uint64_t flag, const LogSide& side) {
    if (SIDE_REFUSES(side, {session == nullptr, "session is nullptr"},
                     {buffer == nullptr, "buf is nullptr"}, {length < 1, "len is invalid"})) {
        return -1;
    }
    uint32_t maxSegment = 0;
    int err = HdcGetCapacity(&maxSegment, side);
    if (err != 0) {
        SIDE_LOG(side, kError, "Hdc Capacity Failed, err: %d", err);
        return -1;
    }
    HdcSession::Sending turn(*session);
    drvError_t ret = turn.refusal();
    if (ret != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "Hdc Send, error: %d", ret);
        return -1;
    }
    HeapBlock block;  // outlives the message, which refers to it until it is freed
    DriverMessage message(side);
    ret = message.Alloc(*session);
    if (ret != DRV_ERROR_NONE || message.get() == nullptr) {
        SIDE_LOG(side, kError, "Hdc Alloc Msg, error: %d", ret);
        return -1;
    }
    const char* payload = static_cast<const char*>(buffer);
    const uint32_t limit = maxSegment - orla::kSegmentOverhead;
    const auto size = static_cast<uint32_t>(length);
    if (inPlace) {
        return SendSegments(turn, message, payload, size, limit, nullptr, flag, side);
    }
    // One segment buffer serves the whole message, and is no larger than a short one needs.
    const size_t segmentSize = std::min(size, limit) + orla::kSegmentOverhead;
    block.reset(static_cast<char*>(IdeXmalloc(segmentSize)));
    if (block == nullptr) {
        SIDE_LOG(side, kError, "%sIdeXmalloc %lu Size failed",
                 OperationName(side, "[HdcSessionWrite]"), segmentSize);
        return -1;
    }
    return SendSegments(turn, message, payload, size, limit,
                        reinterpret_cast<IdeHdcPacket*>(block.get()), flag, side);
}

// Gives the message a buffer, or keeps it for the next message.
bool StoreBuffer(HdcSession::Receiving& turn, const char* buffer, uint32_t length,
                 orla::MessageJoiner& joiner, const LogSide& side) {
    if (joiner.finished() ? turn.Keep(buffer, length) : joiner.Add(buffer, length)) {
        return true;
    }
    SIDE_LOG(side, kError, "Hdc store package, error");
    return false;
}

// Takes the buffers of one receive. The driver's message owns them until its reuse.
bool StoreBuffers(HdcSession::Receiving& turn, drvHdcMsg_t message, int count,
                  orla::MessageJoiner& joiner, const LogSide& side) {
    for (int i = 0; i < count; ++i) {
        char* buffer = nullptr;
        int length = 0;
        const drvError_t ret = drvHdcGetMsgBuffer(message, i, &buffer, &length);
        if (ret != DRV_ERROR_NONE) {
            SIDE_LOG(side, kError, "Hdc Get Msg Buffer, error %d", ret);
            return false;
        }
        if (buffer == nullptr || length <= 0) {
            continue;
        }
        if (!StoreBuffer(turn, buffer, static_cast<uint32_t>(length), joiner, side)) {
            return false;
        }
    }
    return true;
}

// Takes the buffers that came with the end of the message before.
bool StoreKept(HdcSession::Receiving& turn, orla::MessageJoiner& joiner, const LogSide& side) {
    for (const std::string& kept : turn.TakeKept()) {
        if (!StoreBuffer(turn, kept.data(), static_cast<uint32_t>(kept.size()), joiner, side)) {
            return false;
        }
    }
    return true;
}

// The pauses of a read that waits for the rest of its message.
class ReadPauses {
public:
    // False when there have been enough.
    bool Pause() {
        if (step_ >= kMaxReadPauses || sleptMs_ >= kMaxReadSleepMs) {
            return false;
        }
        mmSleep(++step_);
        sleptMs_ += step_;
        return true;
    }
    void EndSilence() { step_ = 0; }

private:
    uint32_t step_ = 0;     // since the last segment; also the length of the last pause
    uint32_t sleptMs_ = 0;  // in the whole message, so that a peer that drips is bounded too
};

// One receive, which for a message that has begun is repeated while nothing is there.
drvError_t Receive(HdcSession::Receiving& turn, drvHdcMsg_t message, uint64_t flag, bool begun,
                   ReadPauses* pauses, int* count) {
    while (true) {
        const drvError_t ret = turn.Receive(message, 0, flag, count, 0);
        if (ret == DRV_ERROR_NONE && *count > 0) {
            pauses->EndSilence();
        }
        if (ret != DRV_ERROR_NON_BLOCK || !begun || !pauses->Pause()) {
            return ret;
        }
    }
}

int ReceiveFailure(drvError_t ret, bool begun, const LogSide& side) {
    if (ret == DRV_ERROR_NON_BLOCK && !begun) {
        return kHdcReadEmpty;
    }
    if (ret == DRV_ERROR_SOCKET_CLOSE) {
        SIDE_LOG(side, kInfo, "%s",
                 side.namesOperation ? "[HdcSessionRead]Session is closed." : "Session is closed.");
        return kHdcReadClosed;
    }
    SIDE_LOG(side, kError, "Hdc Receive, error %d", ret);
    return kHdcReadFailed;
}

void LogListFreed(const LogSide& side) {
    if (side.module == orla::kCoreModule) {
        SIDE_LOG(side, kDebug, "iovec list free");
    } else {
        SIDE_LOG(side, kDebug, "iovec list free begin");
        SIDE_LOG(side, kDebug, "iovec list free end");
    }
}

int HdcSessionRead(const HdcSessionPtr& session, void** buffer, uint32_t* length, uint32_t limit,
                   uint64_t flag, const LogSide& side) {
    if (SIDE_REFUSES(side, {session == nullptr, "session is nullptr"},
                     {buffer == nullptr, "recv_buf is nullptr"},
                     {length == nullptr, "recv_len is nullptr"})) {
        return kHdcReadFailed;
    }
    *buffer = nullptr;
    *length = 0;
    HdcSession::Receiving turn(*session);
    DriverMessage message(side);
    drvError_t ret = message.Alloc(*session);
    if (ret == DRV_ERROR_SOCKET_CLOSE) {
        return ReceiveFailure(ret, false, side);
    }
    if (ret != DRV_ERROR_NONE || message.get() == nullptr) {
        SIDE_LOG(side, kError, "Hdc Alloc Msg, error %d", ret);
        return kHdcReadFailed;
    }
    orla::MessageJoiner joiner(side, limit);
    ReadPauses pauses;
    bool stored = StoreKept(turn, joiner, side);
    while (stored && !joiner.finished()) {
        int count = 0;
        ret = Receive(turn, message.get(), flag, !joiner.untouched(), &pauses, &count);
        if (ret != DRV_ERROR_NONE) {
            return ReceiveFailure(ret, !joiner.untouched(), side);
        }
        stored = StoreBuffers(turn, message.get(), count, joiner, side);
        if (stored && side.namesOperation) {
            SIDE_LOG(side, kDebug, "iovec list add begin");
        }
        if (stored && !joiner.finished() && message.Reuse() != 0) {
            return kHdcReadFailed;
        }
    }
    if (!stored) {
        SIDE_LOG(side, kError, "%s",
                 side.namesOperation ? "[HdcSessionRead]Hdc receive package, error"
                                     : "Hdc receive package error");
        return kHdcReadFailed;
    }
    if (message.Free() != 0) {
        return kHdcReadFailed;
    }
    HeapBlock block = joiner.Take(length);
    LogListFreed(side);
    *buffer = block.release();
    return *buffer == nullptr ? kHdcReadFailed : kHdcReadDone;
}

}  // namespace

int HdcRead(const HdcSessionPtr& session, void** buffer, uint32_t* length, uint32_t limit,
            const LogSide& side) {
    return HdcSessionRead(session, buffer, length, limit, HDC_FLAG_WAIT, side);
}

int HdcReadNb(const HdcSessionPtr& session, void** buffer, uint32_t* length, uint32_t limit,
              const LogSide& side) {
    return HdcSessionRead(session, buffer, length, limit, HDC_FLAG_NOWAIT, side);
}

int HdcReadPolling(const HdcSessionPtr& session, void** buffer, uint32_t* length, int times,
                   uint32_t limit, const LogSide& side) {
    for (int i = 1; i < times; ++i) {
        const int ret = HdcReadNb(session, buffer, length, limit, side);
        if (ret != kHdcReadEmpty) {
            return ret;
        }
        mmSleep(static_cast<uint32_t>(i));
    }
    SIDE_LOG(side, kWarning, "no received request in %d times", times);
    return kHdcReadFailed;
}

int HdcWrite(const HdcSessionPtr& session, const void* buffer, int length, const LogSide& side) {
    return HdcSessionWrite(session, buffer, length, false, HDC_FLAG_WAIT, side);
}

int HdcWriteNb(const HdcSessionPtr& session, const void* buffer, int length, const LogSide& side) {
    return HdcSessionWrite(session, buffer, length, false, HDC_FLAG_NOWAIT, side);
}

int HdcWriteInPlace(const HdcSessionPtr& session, char* buffer, int length, const LogSide& side) {
    return HdcSessionWrite(session, buffer, length, true, HDC_FLAG_WAIT, side);
}

bool HdcIsPeerGone(const HdcSessionPtr& session, const LogSide& side) {
    if (session == nullptr) {
        return false;
    }
    HdcSession::Receiving turn(*session);
    DriverMessage message(side);
    drvError_t ret = message.Alloc(*session);
    if (ret == DRV_ERROR_NONE && message.get() == nullptr) {
        return false;
    }
    for (int i = 0; i < kMaxDropped && ret == DRV_ERROR_NONE; ++i) {
        int count = 0;
        ret = turn.Receive(message.get(), 0, HDC_FLAG_NOWAIT, &count, 0);
        if (ret == DRV_ERROR_NONE && message.Reuse() != 0) {
            return false;
        }
    }
    return ret == DRV_ERROR_SOCKET_CLOSE;
}
