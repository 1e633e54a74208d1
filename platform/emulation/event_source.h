// What the event wait needs of a server or a session: a descriptor to sleep on, and what has
// happened once it woke. Sources and waits refer to each other weakly; whoever is closed first
// leaves the other.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace orla::emulation {

class EventWait;

class EventSource {
public:
    virtual ~EventSource() = default;

    // Readable at least whenever Collect may have something to tell. Constant.
    [[nodiscard]] virtual int eventFd() const = 0;
    // The HDC_EPOLL_* bit that a readable descriptor stands for.
    [[nodiscard]] virtual uint32_t inputBit() const = 0;
    // HDC_EPOLL_* bits that hold now, given the epoll bits of the descriptor.
    [[nodiscard]] virtual uint32_t Collect(uint32_t epollEvents) = 0;
    // From now on the descriptor shows all there is. False when it can't any more.
    [[nodiscard]] virtual bool BeginShowing() { return true; }

    void AddWatcher(const std::shared_ptr<EventWait>& wait) {
        const std::lock_guard<std::mutex> lock(watchersMutex_);
        watchers_.push_back(wait);
    }
    void RemoveWatcher(const EventWait* wait) {
        const std::lock_guard<std::mutex> lock(watchersMutex_);
        watchers_.erase(std::remove_if(watchers_.begin(), watchers_.end(),
                                       [wait](const std::weak_ptr<EventWait>& watcher) {
                                           const auto live = watcher.lock();
                                           return live == nullptr || live.get() == wait;
                                       }),
                        watchers_.end());
    }
    // Takes all, for a source that closes.
    [[nodiscard]] std::vector<std::weak_ptr<EventWait>> TakeWatchers() {
        const std::lock_guard<std::mutex> lock(watchersMutex_);
        return std::exchange(watchers_, {});
    }

private:
    std::mutex watchersMutex_;
    std::vector<std::weak_ptr<EventWait>> watchers_;  // guarded by watchersMutex_
};

}  // namespace orla::emulation
