#include "profiling/datapath/stall_watch.h"

#include "hdc/log_side.h"

namespace analysis::nedra::transport {

using Analysis::Nedra::TraceletErrMgr::TraceletErrorManager;

StallWatch::StallWatch(std::chrono::milliseconds limit, std::function<void(size_t bytes)> onStall)
    : limit_(limit), onStall_(std::move(onStall)), watcher_(*this) {
    watcher_.SetThreadName("TLET_UpldWatch");
}

StallWatch::~StallWatch() {
    Bound(false);
}

void StallWatch::Begin(size_t bytes) {
    const std::lock_guard<std::mutex> lock(mutex_);
    sending_ = true;
    bytes_ = bytes;
    since_ = Clock::now();
}

void StallWatch::End() {
    const std::lock_guard<std::mutex> lock(mutex_);
    sending_ = false;
}

void StallWatch::Bound(bool on) {
    const std::lock_guard<std::mutex> order(boundMutex_);
    if (bounded_ == on) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        watching_ = on;
        since_ = Clock::now();
        changed_.notify_all();
    }
    if (on ? watcher_.Start() != 0 : watcher_.Stop() != 0) {
        PROF_LOGE("Failed to %s the watch of an uploader", on ? "start" : "stop");
        return;  // the next call may have more luck
    }
    bounded_ = on;
}

void StallWatch::Watcher::Run(const common::thread::TraceletErrorContext& context) {
    TraceletErrorManager::instance().SetErrorContext(context);
    watch_.Watch();
}

void StallWatch::Watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (watching_) {
        const Clock::time_point now = Clock::now();
        // A send that begins from now on is due later than this.
        const Clock::time_point due = (sending_ ? since_ : now) + limit_;
        if (now >= due) {
            const size_t bytes = bytes_;
            lock.unlock();
            onStall_(bytes);
            return;
        }
        changed_.wait_until(lock, due);
    }
}

}  // namespace analysis::nedra::transport
