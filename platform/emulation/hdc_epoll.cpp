#include "hdc_epoll.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "results.h"

namespace orla::emulation {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kEventsAtOnce = 64;
constexpr HandleValue kClosedId = 0;  // no handle has it

int MillisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

}  // namespace

EventWait::EventWait(int size)
    : size_(size), poll_(epoll_create1(EPOLL_CLOEXEC)), closed_(eventfd(0, EFD_CLOEXEC)) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = kClosedId;
    epoll_ctl(poll_.get(), EPOLL_CTL_ADD, closed_.get(), &event);
}

// ---- The set -----------------------------------------------------------------------------------

int EventWait::Add(HandleValue handle, const std::shared_ptr<EventSource>& source,
                   const drvHdcEvent& event) {
    if (!source->BeginShowing()) {
        return DRV_ERROR_NOT_SUPPORT;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto [place, added] = entries_.insert({handle, Entry{source, event, source->eventFd()}});
    if (!added) {
        return kInvalidArgument;
    }
    epoll_event request = {};
    request.events = EPOLLRDHUP;
    if ((event.events & source->inputBit()) != 0) {
        request.events |= EPOLLIN;
    }
    request.data.u64 = handle;
    if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, source->eventFd(), &request) != 0) {
        entries_.erase(place);
        return kSystemError;
    }
    source->AddWatcher(shared_from_this());
    return kDone;
}

bool EventWait::Remove(HandleValue handle) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = entries_.find(handle);
    if (found == entries_.end()) {
        return false;
    }
    // The descriptor is open for as long as there is a source, and nobody's else without one.
    if (const std::shared_ptr<EventSource> source = found->second.source.lock()) {
        epoll_ctl(poll_.get(), EPOLL_CTL_DEL, found->second.fd, nullptr);
        source->RemoveWatcher(this);
    }
    entries_.erase(found);
    return true;
}

void EventWait::Forget(HandleValue handle, EventSource* source) {
    for (const std::weak_ptr<EventWait>& watcher : source->TakeWatchers()) {
        if (const std::shared_ptr<EventWait> wait = watcher.lock()) {
            static_cast<void>(wait->Remove(handle));
        }
    }
}

void EventWait::Close() {
    std::vector<HandleValue> handles;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [handle, entry] : entries_) {
            handles.push_back(handle);
        }
    }
    for (const HandleValue handle : handles) {
        static_cast<void>(Remove(handle));
    }
    static_cast<void>(eventfd_write(closed_.get(), 1));
}

// ---- The wait ----------------------------------------------------------------------------------

// Fills `noticed` with entries that may have something to tell, each once.
int EventWait::Look(int room, int timeoutMs, std::vector<Noticed>* noticed) {
    noticed->clear();
    epoll_event events[kEventsAtOnce];
    const int count = epoll_wait(poll_.get(), events, std::min(room, kEventsAtOnce), timeoutMs);
    if (count < 0 && errno != EINTR) {
        return kSystemError;
    }
    for (int i = 0; i < count; ++i) {
        if (events[i].data.u64 == kClosedId) {
            return kInvalidHandle;
        }
        noticed->push_back({events[i].data.u64, events[i].events});
    }
    return kDone;
}

bool EventWait::Report(const Noticed& noticed, drvHdcEvent* event) {
    std::shared_ptr<EventSource> source;
    drvHdcEvent wanted = {};
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = entries_.find(noticed.handle);
        if (found == entries_.end()) {
            return false;
        }
        source = found->second.source.lock();
        wanted = found->second.event;
    }
    if (source == nullptr) {
        return false;
    }
    // A peer that has gone is always told, as a hang-up is: the descriptor stays readable.
    const uint32_t bits =
        source->Collect(noticed.epollEvents) & (wanted.events | HDC_EPOLL_SESSION_CLOSE);
    *event = {bits, 0, wanted.data};
    return bits != 0;
}

int EventWait::Wait(drvHdcEvent* events, int maxEvents, int timeoutMs, int* count) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
    const int room = std::min(maxEvents, size_);
    std::vector<Noticed> noticed;
    while (true) {
        const int left = timeoutMs < 0 ? -1 : MillisecondsUntil(deadline);
        if (const int result = Look(room, left, &noticed); result != kDone) {
            return result;
        }
        int found = 0;
        for (size_t i = 0; i < noticed.size() && found < room; ++i) {
            found += Report(noticed[i], &events[found]) ? 1 : 0;
        }
        if (found > 0 || left == 0) {
            *count = found;
            return kDone;
        }
    }
}

}  // namespace orla::emulation
