// One end of a session: frames over a connected Unix socket.
//
// Threads: one sends, one receives, one closes, all at once; more than one sender or receiver
// wait for each other. Closing shuts the socket down, which wakes whoever is blocked in it; the
// descriptor lives until the last operation has left the object.
//
// Receiving. The bytes of a frame go from the socket straight into the buffer that the message
// will carry. What comes after them in the same read, kAhead bytes at most, waits in `ahead_`;
// so a stream of small frames costs one read for many, and a large one copies little twice.
// A session in an event wait doesn't read ahead, since the wait looks at the socket.
//
// Sending without waiting. The socket may take the first part of a frame and have no room for
// the rest. Half a frame would ruin the stream, so the session then keeps the rest of what the
// message carries, reports it as sent, and a thread brings the rest out; until that is done further
// sends without waiting answer DRV_ERROR_NON_BLOCK. Closing drops the rest.
#pragma once

#include <hdc_driver.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "buffer_pool.h"
#include "event_source.h"
#include "hdc_client.h"
#include "hdc_message.h"
#include "hdc_socket.h"
#include "hdc_wire.h"

namespace orla::emulation {

// Who is at the other end.
struct PeerFacts {
    uint32_t device = 0;  // logical id of the server
    uint32_t runEnvironment = 0;
    uint32_t virtualFunction = 0;
    uint32_t pid = 0;
};

class Session : public EventSource, public std::enable_shared_from_this<Session> {
public:
    // `fd`: connected, in blocking mode, past the hello. `maxSegment`: of a frame, in bytes.
    // `place`: that the session takes in its client, empty on the server's side.
    Session(UniqueFd fd, const PeerFacts& peer, uint32_t maxSegment, ClientPlace place)
        : fd_(std::move(fd)),
          peer_(peer),
          maxSegment_(maxSegment),
          pool_(std::make_shared<BufferPool>()),
          place_(std::move(place)) {}

    [[nodiscard]] const PeerFacts& peer() const { return peer_; }
    [[nodiscard]] uint32_t maxSegment() const { return maxSegment_; }
    [[nodiscard]] const std::shared_ptr<BufferPool>& pool() const { return pool_; }

    // Each buffer as a frame. `flag`: HDC_FLAG_WAIT or HDC_FLAG_NOWAIT.
    [[nodiscard]] int Send(const std::vector<OutgoingBuffer>& buffers, uint64_t flag);
    // The next frame into `message`, which is empty. `largest`: bytes that it may have.
    // `flag`: HDC_FLAG_*; `timeoutMs` counts with HDC_FLAG_TIMEOUT.
    [[nodiscard]] int Receive(Message* message, uint32_t largest, uint64_t flag,
                              uint32_t timeoutMs);
    // Wakes everybody and makes every operation answer DRV_ERROR_SOCKET_CLOSE, here at once and
    // at the peer after what was sent.
    void End();
    // Gives the place in the client back; once, when the handle is given back.
    void LeaveClient() { place_.Release(); }

    [[nodiscard]] int eventFd() const override { return fd_.get(); }
    [[nodiscard]] uint32_t inputBit() const override { return HDC_EPOLL_DATA_IN; }
    [[nodiscard]] uint32_t Collect(uint32_t epollEvents) override;
    [[nodiscard]] bool Pending() const override { return frameAhead_; }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kAhead = 4096;

    [[nodiscard]] int AssembleFrame(uint32_t largest);
    [[nodiscard]] int Fill(uint64_t flag, std::optional<Clock::time_point> deadline);
    [[nodiscard]] int WaitReadable(Clock::time_point deadline) const;
    void TakeFromSocket(size_t count);
    [[nodiscard]] bool HoldsFrameAhead() const;
    [[nodiscard]] int SendPieces(std::vector<iovec>* pieces, int flags);
    [[nodiscard]] int FlushTail(int flags);
    [[nodiscard]] int KeepTail(const std::vector<iovec>& pieces);

    const UniqueFd fd_;
    const PeerFacts peer_;
    const uint32_t maxSegment_;
    const std::shared_ptr<BufferPool> pool_;

    std::atomic<bool> ended_{false};
    std::atomic<bool> frameAhead_{false};  // ahead_ holds all of the next frame

    std::mutex receiveMutex_;
    // Guarded by receiveMutex_.
    std::array<char, kAhead> ahead_;
    size_t aheadBegin_ = 0;
    size_t aheadEnd_ = 0;
    uint32_t frameLength_ = 0;  // 0: its header isn't complete
    uint32_t frameHave_ = 0;
    Buffer frame_;

    std::mutex sendMutex_;
    // Guarded by sendMutex_.
    std::vector<iovec> pieces_;
    std::vector<FrameHeader> headers_;
    std::vector<char> tail_;  // of what was sent without waiting

    ClientPlace place_;  // touched by the one thread that gave the handle back
};

}  // namespace orla::emulation
