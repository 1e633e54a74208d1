#include "profiling/datapath/transport.h"

#include <climits>

#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::transport {

using common::utils::Utils;
using orla::HeapBlock;

namespace {

constexpr int kHead = sizeof(IdeRequest);
static_assert(kFrontRoom >= sizeof(IdeRequest) + orla::kSegmentFront);
static_assert(kTailRoom >= orla::kSegmentTail);

bool FitsPacket(int length) {
    return length >= 0 && length <= INT_MAX - kHead;
}

int VeltIdeCreatePacket(const void* buffer, int length, HeapBlock* packet) {
    void* made = nullptr;
    uint32_t size = 0;
    if (!FitsPacket(length) ||
        IdeCreatePacket(orla::kRequestProfiling, static_cast<const char*>(buffer),
                        static_cast<uint32_t>(length), &made, &size) != 0) {
        return -1;
    }
    packet->reset(static_cast<char*>(made));
    return 0;
}

}  // namespace

int VeltTransport::SendBuffer(const void* buffer, int length) {
    if (buffer == nullptr) {
        PROF_LOGE("buffer is null");
        return -1;
    }
    const uint64_t start = Utils::GetClockMonotonicRaw();
    HeapBlock packet;
    if (const int err = VeltIdeCreatePacket(buffer, length, &packet); err != 0) {
        PROF_LOGE("Failed to VeltIdeCreatePacket, err=%d.", err);
        return -1;
    }
    if (SendVeltBuffer(packet.get(), length + kHead) != 0) {
        return -1;
    }
    packet.reset();
    return Count(start, length);
}

int VeltTransport::SendInPlace(char* message, int length) {
    if (message == nullptr) {
        PROF_LOGE("buffer is null");
        return -1;
    }
    const uint64_t start = Utils::GetClockMonotonicRaw();
    if (!FitsPacket(length)) {
        PROF_LOGE("Failed to VeltIdeCreatePacket, err=%d.", -1);
        return -1;
    }
    char* packet = message - kHead;
    *reinterpret_cast<IdeRequest*>(packet) = {orla::kRequestProfiling, 0,
                                              static_cast<uint32_t>(length)};
    if (SendPacketInPlace(packet, length + kHead) != 0) {
        return -1;
    }
    return Count(start, length);
}

int VeltTransport::Count(uint64_t start, int length) {
    if (perfCount != nullptr) {
        perfCount->UpdatePerfInfo(start, Utils::GetClockMonotonicRaw(),
                                  static_cast<uint64_t>(length));
    }
    return length;
}

}  // namespace analysis::nedra::transport
