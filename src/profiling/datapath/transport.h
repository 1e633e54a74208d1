// The one interface through which the profiling agent sends and receives, so that no other class
// of the agent knows a session, and the layer that makes a packet of a buffer and counts what
// that costs.
//
// A packet is one IdeRequest of the profiling type with device id 0: head of 12 bytes, value. One
// SendBuffer puts exactly one packet on the session; nothing is ever sent in part, as far as a
// caller can see.
//
// A transport has no lock. One thread sends (the receiver of a control session, the uploader of a
// data session), one receives; CloseSession and DestroyPacket may be called on any thread at the
// same time.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "hdc/hdc_packet.h"
#include "profiling/datapath/message_buffer.h"
#include "profiling/datapath/perf_count.h"

namespace analysis::nedra::transport {

// The value of the packet with which a device refuses to profile in a container: these bytes
// without a terminating zero, and no envelope.
constexpr char kContainerNoSupport[] = "MESSAGE_CONTAINER_NO_SUPPORT";

// What RecvPacket answers besides a length.
constexpr int kRecvFailed = -1;
constexpr int kRecvContainerNoSupport = -2;

class ITransport {
public:
    virtual ~ITransport() = default;

    // Sends `length` bytes, 0 or more, as the value of one packet; blocks while the peer doesn't
    // read. `length`, or -1 after which the session is of use for closing only. `buffer` stays
    // the caller's and unchanged.
    [[nodiscard]] virtual int SendBuffer(const void* buffer, int length) = 0;
    // Ends the session, once and for all; a send or receive that is blocked on it returns with a
    // failure. Always 0, also when it was closed before.
    virtual int CloseSession() = 0;
    virtual void WriteDone() = 0;
    // Sends a whole packet, its head included, of `length` bytes. 0 or -1.
    [[nodiscard]] virtual int SendVeltBuffer(void* packet, int length) = 0;
    // Blocks until a packet has come or the session has failed. The length of the packet, 12 or
    // more: `*packet` is then the caller's, to be released with DestroyPacket. kRecvFailed:
    // nothing was stored. kRecvContainerNoSupport: the packet is that refusal, and the caller's
    // just the same. Nothing in the packet has been checked, not even that its length is true.
    [[nodiscard]] virtual int RecvPacket(IdeRequest** packet) = 0;
    // Null is ignored.
    virtual void DestroyPacket(IdeRequest* packet) = 0;

    // Whether the peer has closed the session. For a session on which nothing is to be received:
    // what has come all the same is dropped. Doesn't wait.
    [[nodiscard]] virtual bool IsPeerGone() { return false; }

    // When a segment last went to the driver; the clock's zero when none has. Any thread.
    [[nodiscard]] virtual std::chrono::steady_clock::time_point LastSegment() const { return {}; }
    // False once a send has failed in a way after which the session is of use for closing only.
    [[nodiscard]] virtual bool IsUsable() const { return true; }

    // SendBuffer for a message that need not survive it: the kFrontRoom bytes in front of
    // `message` and the kTailRoom bytes behind its end are the caller's own, and they and the
    // message are overwritten. A transport that can send from there does, without a copy.
    [[nodiscard]] virtual int SendInPlace(char* message, int length) {
        return SendBuffer(message, length);
    }
};

class VeltTransport : public ITransport {
public:
    [[nodiscard]] int SendBuffer(const void* buffer, int length) override;
    [[nodiscard]] int SendInPlace(char* message, int length) override;
    void WriteDone() override {}

    // Counts what is sent; null for none. Set before the transport is used.
    std::shared_ptr<Analysis::Nedra::Common::Statistics::PerfCount> perfCount;

protected:
    // SendVeltBuffer for a packet that need not survive it, with the room of SendInPlace around
    // it, less the head of the packet.
    [[nodiscard]] virtual int SendPacketInPlace(char* packet, int length) {
        return SendVeltBuffer(packet, length);
    }

private:
    int Count(uint64_t start, int length);
};

}  // namespace analysis::nedra::transport
