// What a session and a server of the host-device channel have in common: a handle of the driver's
// that many threads use and one closes.
//
// The driver may free a handle at its close, so that a call which begins later would follow a
// dead pointer. Every call on the handle therefore passes a gate, which knows the calls inside,
// and the close shuts the gate before it begins:
//
//   - What comes after is refused with DRV_ERROR_SOCKET_CLOSE, without a log line: to whoever is
//     refused the other end might as well have gone.
//   - A brief call, one that never waits for a peer, is waited for.
//   - A blocking call is what the driver's close wakes, so that it can't be waited for. But its
//     thread may be anywhere between the gate and the driver's first instruction. The close lets
//     pass kWayIn since the call passed the gate, unless it leaves earlier, so that the call has
//     begun by then.
#pragma once

#include <hdc_driver.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

class CallGate {
public:
    enum class Kind { kBrief, kBlocking };

    // One call, from its beginning to its end. False when the gate was shut.
    class Pass {
    public:
        Pass(CallGate& gate, Kind kind) : gate_(gate), kind_(kind), entered_(gate.Enter(kind)) {}
        ~Pass() {
            if (entered_) {
                gate_.Leave(kind_);
            }
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        explicit operator bool() const { return entered_; }

    private:
        CallGate& gate_;
        const Kind kind_;
        const bool entered_;
    };

    // True: the gate is shut, nothing but blocking calls that have begun is inside, and the
    // caller closes the handle and then calls EndClose. False: another thread has closed it. A
    // close that is under way on another thread is waited for.
    [[nodiscard]] bool BeginClose();
    // `closed`: whether the handle is gone. If not, the gate opens again.
    void EndClose(bool closed);

private:
    using Clock = std::chrono::steady_clock;
    enum class State { kOpen, kClosing, kClosed };
    static constexpr auto kWayIn = std::chrono::milliseconds(20);

    bool Enter(Kind kind);
    void Leave(Kind kind);
    uint32_t& Inside(Kind kind) { return kind == Kind::kBrief ? brief_ : blocking_; }

    std::mutex mutex_;  // guards the rest
    State state_ = State::kOpen;
    uint32_t brief_ = 0;  // calls inside
    uint32_t blocking_ = 0;
    Clock::time_point lastBlocking_;  // when the last of them entered
    std::condition_variable changed_;
};

class HdcEndpoint {
public:
    HdcEndpoint(const HdcEndpoint&) = delete;
    HdcEndpoint& operator=(const HdcEndpoint&) = delete;

    // Adds the handle to an event wait or deletes it from there (HDC_EPOLL_CTL_…). A handle that
    // is closed leaves by itself. The driver's result.
    [[nodiscard]] drvError_t EpollCtl(drvHdcEpoll_t epoll, int operation, const drvHdcEvent& event);

protected:
    explicit HdcEndpoint(void* handle) : handle_(handle) {}
    ~HdcEndpoint() = default;

    // What `call` answers, which makes one call of the driver's with the handle.
    template <typename Call>
    drvError_t Enter(CallGate::Kind kind, Call call) {
        const CallGate::Pass pass(gate_, kind);
        return pass ? call(handle_) : DRV_ERROR_SOCKET_CLOSE;
    }

    void* const handle_;
    CallGate gate_;
};
