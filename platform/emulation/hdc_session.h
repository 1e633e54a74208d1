// One end of a session: frames over a connected Unix socket.
//
// Threads: one sends, one receives, one closes, all at once. A second sender or receiver, a send
// after one that failed, and a call after the close are breaches of the contract and end the
// process (SessionVisit). Closing shuts the socket down, which wakes whoever is blocked in it; the
// descriptor lives until the last operation has left the object.
//
// Receiving. The bytes of a frame go from the socket straight into the buffer that the message
// will carry. What comes after them in the same read, kAhead bytes at most, waits in `ahead_`;
// so a stream of small frames costs one read for many, and a large one copies little twice.
// A session in an event wait doesn't read ahead, since the wait looks at the socket; one that has
// received something can't join a wait any more.
#pragma once

#include <hdc_driver.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>

#include "breach.h"
#include "buffer_pool.h"
#include "event_source.h"
#include "hdc_client.h"
#include "hdc_message.h"
#include "hdc_socket.h"
#include "hdc_wire.h"
#include "scenario.h"

namespace orla::emulation {

// Who is at the other end.
struct PeerFacts {
    uint32_t device = 0;  // logical id of the server
    uint32_t runEnvironment = 0;
    uint32_t virtualFunction = 0;
    uint32_t pid = 0;
};

class Session : public EventSource {
public:
    // `fd`: connected, in blocking mode, past the hello. `place`: that the session takes in its
    // client, empty on the server's side.
    Session(UniqueFd fd, const PeerFacts& peer, const Scenario& scenario, ClientPlace place)
        : fd_(std::move(fd)),
          peer_(peer),
          maxSegment_(scenario.maxSegment),
          style_(scenario.liberties.receive),
          pool_(std::make_shared<BufferPool>()),
          place_(std::move(place)) {}

    [[nodiscard]] uint32_t device() const { return peer_.device; }
    [[nodiscard]] const PeerFacts& peer() const { return peer_; }
    [[nodiscard]] uint32_t maxSegment() const { return maxSegment_; }
    [[nodiscard]] const std::shared_ptr<BufferPool>& pool() const { return pool_; }

    // The buffer as a frame. `flag`: HDC_FLAG_WAIT or HDC_FLAG_NOWAIT, which sends all or nothing.
    [[nodiscard]] int Send(const OutgoingBuffer& buffer, uint64_t flag);
    // The next frame into `message`, which is empty. `largest`: bytes that it may have.
    // `flag`: HDC_FLAG_*; `timeoutMs` counts with HDC_FLAG_TIMEOUT.
    [[nodiscard]] int Receive(Message* message, uint32_t largest, uint64_t flag,
                              uint32_t timeoutMs);
    // Wakes everybody and makes every operation answer DRV_ERROR_SOCKET_CLOSE, here at once and
    // at the peer after what was sent.
    void End();
    // Gives the place in the client back; once, when the handle is given back.
    void LeaveClient() { place_.Release(); }

    // Whether a call is under way.
    [[nodiscard]] bool busy() const { return visits_ != 0; }

    [[nodiscard]] int eventFd() const override { return fd_.get(); }
    [[nodiscard]] uint32_t inputBit() const override { return HDC_EPOLL_DATA_IN; }
    [[nodiscard]] uint32_t Collect(uint32_t epollEvents) override;
    [[nodiscard]] bool BeginShowing() override;

private:
    friend class SessionVisit;
    using Clock = std::chrono::steady_clock;
    static constexpr size_t kAhead = 4096;

    enum class Input { kUntouched, kShown, kReadAhead };

    [[nodiscard]] int SendAll(iovec* pieces, size_t count, int flags);
    [[nodiscard]] bool HasRoomFor(size_t bytes) const;
    [[nodiscard]] int AssembleFrame(uint32_t largest);
    [[nodiscard]] int Fill(uint64_t flag, std::optional<Clock::time_point> deadline);
    [[nodiscard]] int WaitReadable(Clock::time_point deadline) const;
    void TakeFromSocket(size_t count);
    [[nodiscard]] bool HoldsFrameAhead() const;
    void HandOver(Message* message);
    [[nodiscard]] uint32_t Offset() const { return style_ == ReceiveStyle::kUnaligned ? 1 : 0; }
    [[nodiscard]] char* FrameEnd() const { return &frame_.data[Offset() + frameHave_]; }

    const UniqueFd fd_;
    const PeerFacts peer_;
    const uint32_t maxSegment_;
    const ReceiveStyle style_;
    const std::shared_ptr<BufferPool> pool_;

    std::atomic<bool> ended_{false};
    std::atomic<Input> input_{Input::kUntouched};

    // Calls under way, and by Caller those that are alone; 0 for none.
    std::atomic<int> visits_{0};
    std::atomic<uint64_t> sender_{0};
    std::atomic<uint64_t> receiver_{0};
    std::atomic<uint64_t> failedSender_{0};

    // These belong to the thread that receives.
    std::array<char, kAhead> ahead_;
    size_t aheadBegin_ = 0;
    size_t aheadEnd_ = 0;
    uint32_t frameLength_ = 0;  // 0: its header isn't complete
    uint32_t frameHave_ = 0;
    Buffer frame_;

    ClientPlace place_;  // touched by the one thread that gave the handle back
};

// One call on a session, from its first instruction to its last: holds it against those that are
// under way, and against what a failed send has left.
class SessionVisit {
public:
    SessionVisit(Session* session, HandleValue handle, Call call, const Caller& caller);
    ~SessionVisit();
    SessionVisit(const SessionVisit&) = delete;
    SessionVisit& operator=(const SessionVisit&) = delete;

    // What the call answers.
    void SetResult(int result);

private:
    [[nodiscard]] std::atomic<uint64_t>* RoleOf(Call call) const;

    Session* const session_;  // null: of no session
    const Caller caller_;
    std::atomic<uint64_t>* const role_;  // null: one that any number may play
};

}  // namespace orla::emulation
