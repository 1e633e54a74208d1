#include "hdc_server.h"

#include <hdc_driver.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>

#include "results.h"

namespace orla::emulation {

namespace {

constexpr std::chrono::seconds kHelloTime{10};
constexpr size_t kMaxPending = 512;   // connections that have not said hello
constexpr size_t kMaxSessions = 256;  // that wait to be accepted; more stay in the backlog
constexpr std::chrono::milliseconds kDescriptorPause{100};
constexpr int kEventsAtOnce = 32;  // of the epoll, and connections taken in a row
constexpr uint64_t kListenerId = 0;
constexpr uint64_t kReadyId = 1;
constexpr uint64_t kTimerId = 2;
constexpr auto kNever = std::chrono::steady_clock::time_point::max();

}  // namespace

// ---- Making and stopping -----------------------------------------------------------------------

std::shared_ptr<Server> Server::Create(uint32_t logicalDevice, int serviceType,
                                       std::shared_ptr<const Scenario> scenario) {
    Listener listener = Listen(static_cast<int>(logicalDevice), serviceType);
    if (!listener.fd.valid()) {
        return nullptr;
    }
    std::shared_ptr<Server> server(
        new Server(logicalDevice, std::move(scenario), std::move(listener)));
    return server->OpenPoll() ? server : nullptr;
}

bool Server::OpenPoll() {
    poll_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    ready_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    timer_ = UniqueFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    lastId_ = kTimerId;
    listening_ = true;
    return poll_.valid() && ready_.valid() && timer_.valid() &&
           Poll(EPOLL_CTL_ADD, listener_.fd.get(), EPOLLIN, kListenerId) &&
           Poll(EPOLL_CTL_ADD, ready_.get(), EPOLLIN, kReadyId) &&
           Poll(EPOLL_CTL_ADD, timer_.get(), EPOLLIN, kTimerId);
}

bool Server::Poll(int operation, int fd, uint32_t events, Id id) {
    epoll_event event = {};
    event.events = events;
    event.data.u64 = id;
    return epoll_ctl(poll_.get(), operation, fd, &event) == 0;
}

void Server::Stop(int reason) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopReason_ != 0) {
        return;
    }
    stopReason_ = reason;
    RemoveSocketFile(listener_);
    listener_.fd = UniqueFd();
    greetings_.clear();
    sessions_.clear();
    ShowReady();
}

// ---- Accepting ---------------------------------------------------------------------------------

int Server::Accept(std::shared_ptr<Session>* session) {
    while (true) {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            Pump();
            if (stopReason_ != 0) {
                errno = stopReason_;
                return kServerStopped;
            }
            if (!sessions_.empty()) {
                *session = std::move(sessions_.front());
                sessions_.pop_front();
                ShowReady();
                return kDone;
            }
        }
        epoll_event event;
        if (epoll_wait(poll_.get(), &event, 1, -1) < 0) {
            return kSystemError;
        }
    }
}

uint32_t Server::Collect(uint32_t) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Pump();
    const bool toBlock = scenario_->liberties.acceptMayBlock && !greetings_.empty();
    return stopReason_ != 0 || !sessions_.empty() || toBlock ? uint32_t{HDC_EPOLL_CONN_IN} : 0;
}

// The eventfd tells waiters in poll_ what only this process knows.
void Server::ShowReady() {
    const bool ready = stopReason_ != 0 || !sessions_.empty();
    if (ready != std::exchange(readyShown_, ready)) {
        eventfd_t value = 1;
        static_cast<void>(ready ? eventfd_write(ready_.get(), value)
                                : eventfd_read(ready_.get(), &value));
    }
    if (!listening_ && resume_ == kNever && stopReason_ == 0 && sessions_.size() < kMaxSessions) {
        listening_ = Poll(EPOLL_CTL_MOD, listener_.fd.get(), EPOLLIN, kListenerId);
    }
}

// ---- Taking in ---------------------------------------------------------------------------------

// Takes in what is there now, without waiting, until a session is ready or nothing is left: a
// flood of connections must not keep the accept from handing out what it has.
void Server::Pump() {
    while (stopReason_ == 0) {
        epoll_event events[kEventsAtOnce];
        const int count = epoll_wait(poll_.get(), events, kEventsAtOnce, 0);
        bool progress = false;
        for (int i = 0; i < count; ++i) {
            const Id id = events[i].data.u64;
            progress = progress || id != kReadyId;
            if (id == kListenerId) {
                TakeConnections();
            } else if (id > kTimerId) {
                Greet(id);
            }
        }
        const auto now = Clock::now();
        while (!greetings_.empty() && greetings_.begin()->second.deadline <= now) {
            DropOldest();
        }
        if (resume_ <= now) {
            resume_ = kNever;
        }
        ShowReady();
        SetTimer();
        if (!progress || !sessions_.empty()) {
            return;
        }
    }
}

void Server::TakeConnections() {
    for (int i = 0; i < kEventsAtOnce; ++i) {
        if (sessions_.size() >= kMaxSessions) {
            PauseListening(kNever);
            return;
        }
        UniqueFd fd(accept4(listener_.fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (fd.valid()) {
            if (greetings_.size() >= kMaxPending) {
                DropOldest();  // the one that has been silent for longest
            }
            const Id id = ++lastId_;
            if (Poll(EPOLL_CTL_ADD, fd.get(), EPOLLIN | EPOLLRDHUP, id)) {
                greetings_[id] = {std::move(fd), {}, 0, Clock::now() + kHelloTime};
                Greet(id);
            }
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            // No descriptor or memory to be had: a silent connection gives up its own, or the
            // listener, which stays readable, is left alone for a while.
            if (greetings_.empty()) {
                PauseListening(Clock::now() + kDescriptorPause);
                return;
            }
            DropOldest();
        }
    }
}

void Server::PauseListening(Clock::time_point until) {
    listening_ = !Poll(EPOLL_CTL_MOD, listener_.fd.get(), 0, kListenerId);
    resume_ = until;
}

void Server::Greet(Id id) {
    const auto found = greetings_.find(id);
    if (found == greetings_.end()) {
        return;
    }
    const HelloState state = ReadHello(&found->second);
    if (state == HelloState::kIncomplete) {
        return;
    }
    Greeting greeting = std::move(found->second);
    StopWatching(greeting.fd.get());
    greetings_.erase(found);
    if (state == HelloState::kComplete) {
        MakeSession(std::move(greeting));
    }
}

// Reads no byte beyond the hello: the next one is the session's.
Server::HelloState Server::ReadHello(Greeting* greeting) {
    char* bytes = reinterpret_cast<char*>(&greeting->hello);
    while (greeting->have < sizeof(Hello)) {
        const ssize_t count = recv(greeting->fd.get(), bytes + greeting->have,
                                   sizeof(Hello) - greeting->have, MSG_DONTWAIT);
        if (count > 0) {
            greeting->have += static_cast<size_t>(count);
        } else if (count < 0 && errno == EAGAIN) {
            return HelloState::kIncomplete;
        } else if (count == 0 || errno != EINTR) {
            return HelloState::kRefused;
        }
    }
    return greeting->hello.Valid() ? HelloState::kComplete : HelloState::kRefused;
}

void Server::MakeSession(Greeting greeting) {
    SetBufferSizes(greeting.fd.get(), scenario_->liberties.socketBuffer);
    const Hello& hello = greeting.hello;
    const uint32_t pid = hello.pid != 0 ? hello.pid : PeerPid(greeting.fd.get());
    const PeerFacts peer = {device_, hello.runEnvironment, hello.virtualFunction, pid};
    sessions_.push_back(
        std::make_shared<Session>(std::move(greeting.fd), peer, *scenario_, ClientPlace()));
}

void Server::DropOldest() {
    StopWatching(greetings_.begin()->second.fd.get());
    greetings_.erase(greetings_.begin());
}

// Closing alone does not take a descriptor out of poll_ while a child process that has just been
// forked holds a copy of it.
void Server::StopWatching(int fd) {
    epoll_ctl(poll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

// Wakes the waiters when the oldest greeting is overdue, or listening is to go on.
void Server::SetTimer() {
    auto next = resume_;
    if (!greetings_.empty()) {
        next = std::min(next, greetings_.begin()->second.deadline);
    }
    uint64_t fired = 0;
    static_cast<void>(!read(timer_.get(), &fired, sizeof(fired)));
    if (next == std::exchange(timerAt_, next) && fired == 0) {
        return;
    }
    itimerspec setting = {};
    if (next != kNever) {
        // A moment that is past already must not read as "off", which is 0.
        const auto left =
            std::max<std::chrono::nanoseconds>(next - Clock::now(), std::chrono::nanoseconds(1));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        setting.it_value = {seconds.count(), (left - seconds).count()};
    }
    timerfd_settime(timer_.get(), 0, &setting, nullptr);
}

}  // namespace orla::emulation
