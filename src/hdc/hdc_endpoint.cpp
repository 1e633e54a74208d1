#include "hdc/hdc_endpoint.h"

bool CallGate::Enter(Kind kind) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != State::kOpen) {
        return false;
    }
    ++Inside(kind);
    if (kind == Kind::kBlocking) {
        lastBlocking_ = Clock::now();
    }
    return true;
}

void CallGate::Leave(Kind kind) {
    const std::lock_guard<std::mutex> lock(mutex_);
    --Inside(kind);
    changed_.notify_all();
}

bool CallGate::BeginClose() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return state_ != State::kClosing; });
    if (state_ == State::kClosed) {
        return false;
    }
    state_ = State::kClosing;
    changed_.wait(lock, [this] { return brief_ == 0; });
    changed_.wait_until(lock, lastBlocking_ + kWayIn, [this] { return blocking_ == 0; });
    return true;
}

void CallGate::EndClose(bool closed) {
    const std::lock_guard<std::mutex> lock(mutex_);
    state_ = closed ? State::kClosed : State::kOpen;
    changed_.notify_all();
}

drvError_t HdcEndpoint::EpollCtl(drvHdcEpoll_t epoll, int operation, const drvHdcEvent& event) {
    return Enter(CallGate::Kind::kBrief,
                 [&](void* handle) { return drvHdcEpollCtl(epoll, operation, handle, &event); });
}
