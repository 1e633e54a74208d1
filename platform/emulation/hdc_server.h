// A server: a listening socket, the peers that are still saying hello, and the sessions that
// wait to be accepted.
//
// A connection becomes a session when its hello is complete. Until then it costs a descriptor
// and delays nobody: whoever waits on the server, in an accept or in an event wait, takes in all
// connections and all hello bytes that are there, on its own thread; the server has none. A
// hello that doesn't come within kHelloTime, is wrong, or stays behind kMaxPending younger ones
// ends its connection.
//
// All descriptors of the server hang in one epoll, `poll_`, which waiters sleep on. Any number of
// threads may accept, and another stop it.
#pragma once

#include <hdc_driver.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "event_source.h"
#include "hdc_session.h"
#include "hdc_socket.h"
#include "hdc_wire.h"

namespace orla::emulation {

class Server : public EventSource {
public:
    // Listens. On a failure null, with errno as Listen sets it.
    [[nodiscard]] static std::shared_ptr<Server> Create(uint32_t logicalDevice, int serviceType,
                                                        std::shared_ptr<const Scenario> scenario);
    ~Server() override { Stop(EBADF); }

    [[nodiscard]] uint32_t device() const { return device_; }

    // Blocks until a session can be had. On a failure errno is EINTR after a signal, what Stop
    // was given after that, or the system's reason.
    [[nodiscard]] int Accept(std::shared_ptr<Session>* session);
    // Stops listening, drops what wasn't accepted, and makes every accept fail with `reason`.
    void Stop(int reason);

    // Returns true once, for a server whose first destroy the scenario refuses.
    [[nodiscard]] bool IsBusyYet() {
        return scenario_->liberties.destroyBusy && !busyTold_.exchange(true);
    }

    [[nodiscard]] int eventFd() const override { return poll_.get(); }
    [[nodiscard]] uint32_t inputBit() const override { return HDC_EPOLL_CONN_IN; }
    // CONN_IN when an accept will not block, which is also so once it can only fail; where the
    // scenario lets an accept block, at every connection.
    [[nodiscard]] uint32_t Collect(uint32_t epollEvents) override;

private:
    using Clock = std::chrono::steady_clock;
    using Id = uint64_t;  // of a descriptor in poll_; pending connections count up

    struct Greeting {
        UniqueFd fd;
        Hello hello = {};
        size_t have = 0;
        Clock::time_point deadline;
    };
    enum class HelloState { kIncomplete, kComplete, kRefused };

    Server(uint32_t device, std::shared_ptr<const Scenario> scenario, Listener listener)
        : device_(device), scenario_(std::move(scenario)), listener_(std::move(listener)) {}

    [[nodiscard]] bool OpenPoll();
    [[nodiscard]] bool Poll(int operation, int fd, uint32_t events, Id id);
    void Pump();
    void TakeConnections();
    void Greet(Id id);
    [[nodiscard]] static HelloState ReadHello(Greeting* greeting);
    void MakeSession(Greeting greeting);
    void DropOldest();
    void StopWatching(int fd);
    void SetTimer();
    void PauseListening(Clock::time_point until);
    void ShowReady();

    const uint32_t device_;
    const std::shared_ptr<const Scenario> scenario_;  // of the time of its creation
    std::atomic<bool> busyTold_{false};
    // Constant after Create.
    UniqueFd poll_;
    UniqueFd ready_;  // an eventfd, readable while an accept will not block
    UniqueFd timer_;  // the next deadline

    std::mutex mutex_;
    // Guarded by mutex_.
    Listener listener_;
    int stopReason_ = 0;      // errno of accepts after Stop
    bool listening_ = false;  // poll_ looks at the listener
    bool readyShown_ = false;
    Id lastId_;
    std::map<Id, Greeting> greetings_;                     // oldest first
    Clock::time_point resume_ = Clock::time_point::max();  // when to listen again
    Clock::time_point timerAt_ = Clock::time_point::max();
    std::deque<std::shared_ptr<Session>> sessions_;
};

}  // namespace orla::emulation
