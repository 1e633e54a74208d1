// A session of the host-device channel: the one owner of its driver handle. Everything that is
// done with a session goes through here, so that the driver's contract is kept whatever the
// threads do that share it:
//
//   - No call begins on a handle whose close has begun (see hdc_endpoint.h).
//   - One thread sends and one receives. A second one is refused with kHdcTurnTaken and a log
//     line: it is a fault of this program, not of a peer.
//   - After a send that failed, or a message that was left in its middle, nothing is sent any
//     more: the peer would join it to the head that it has.
//
// A session is shared by whoever uses it. Any thread may close it, and the last share does.
// Operations answer what the driver answers, DRV_ERROR_SOCKET_CLOSE after the close, and log
// nothing unless stated.
#pragma once

#include <hdc_driver.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hdc/hdc_endpoint.h"

// The answer to a second sender, and to a second receiver. Codes of the driver are 0 and above.
constexpr drvError_t kHdcTurnTaken = -1;

class HdcSession;
using HdcSessionPtr = std::shared_ptr<HdcSession>;

class HdcSession final : public HdcEndpoint {
public:
    class Sending;
    class Receiving;

    // Takes a handle over. Null for null, and when memory is out, in which case the handle is
    // closed.
    [[nodiscard]] static HdcSessionPtr Adopt(drvHdcSession_t handle) noexcept;
    explicit HdcSession(drvHdcSession_t handle) : HdcEndpoint(handle) {}
    // Closes the session, with a log line when that fails.
    ~HdcSession();

    // Calls that never wait for the peer.
    [[nodiscard]] drvError_t AllocMsg(drvHdcMsg_t* message, int count);
    [[nodiscard]] drvError_t GetAttr(int attribute, int* value);
    [[nodiscard]] drvError_t SetReference();

    // False after a failed send: the session is of use for closing only. Any thread.
    [[nodiscard]] bool CanSend() const { return !cut_; }
    // When the driver last took a segment; the clock's zero when it has taken none. Any thread.
    [[nodiscard]] std::chrono::steady_clock::time_point LastSegment() const { return lastSegment_; }

    // Ends the session: a send or receive that is blocked on it returns. The driver is asked once,
    // and its result is everybody's. Returns after the driver has, also on a thread that comes
    // second. Waits for brief calls inside, and 20 ms at most for a blocking one to begin.
    drvError_t Close();

private:
    // A flag that one thread at a time may have.
    class Turn;

    std::atomic<bool> sending_{false};
    std::atomic<bool> receiving_{false};
    // Both are written by whoever has `sending_`.
    std::atomic<bool> cut_{false};  // a message was left in its middle
    std::atomic<std::chrono::steady_clock::time_point> lastSegment_{};
    std::vector<std::string> kept_;       // written by whoever has `receiving_`
    drvError_t closed_ = DRV_ERROR_NONE;  // the driver's answer; constant once the gate is closed
};

class HdcSession::Turn {
public:
    explicit Turn(std::atomic<bool>& taken);
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    explicit operator bool() const { return taken_ != nullptr; }

private:
    std::atomic<bool>* taken_;  // null: another thread has it
};

// The sending of one message, which may take more than one driver call.
class HdcSession::Sending {
public:
    explicit Sending(HdcSession& session);
    // A message that has begun and isn't complete was cut.
    ~Sending();
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;

    // Why nothing can be sent: kHdcTurnTaken, or DRV_ERROR_SOCKET_CLOSE after a failed send. 0
    // when it can.
    [[nodiscard]] drvError_t refusal() const;
    // The driver's send with HDC_FLAG_WAIT, which blocks, or HDC_FLAG_NOWAIT.
    [[nodiscard]] drvError_t Send(drvHdcMsg_t message, uint64_t flag);
    // The message is out whole.
    void Complete() { begun_ = false; }

private:
    HdcSession& session_;
    const Turn turn_;
    bool begun_ = false;  // bytes may be out, and not all of them
};

// The receiving of one message.
class HdcSession::Receiving {
public:
    explicit Receiving(HdcSession& session) : session_(session), turn_(session.receiving_) {}

    // The driver's receive; it blocks but with HDC_FLAG_NOWAIT.
    [[nodiscard]] drvError_t Receive(drvHdcMsg_t message, int size, uint64_t flag, int* count,
                                     uint32_t timeout);

    // A driver may hand out in one receive what several sends brought. Keeps a copy of a buffer
    // that belongs to the next message. Returns false when memory is out, or without the turn.
    [[nodiscard]] bool Keep(const char* buffer, uint32_t size) noexcept;
    // Returns the buffers that were kept, in their order, and forgets them. The caller keeps those
    // again that its message does not need.
    [[nodiscard]] std::vector<std::string> TakeKept();

private:
    HdcSession& session_;
    const Turn turn_;
};
