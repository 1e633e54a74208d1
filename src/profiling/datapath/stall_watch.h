// Notices that a send hangs. The thread that sends cannot: it is inside the send.
//
// The sender reports each Begin and End; while the watch is bounded, a thread of its own sleeps
// until the send at hand is due, and calls `onStall` once when it then still lasts. A send that
// began before the watch was bounded counts from the bounding.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>

#include "profiling/datapath/thread.h"

namespace analysis::nedra::transport {

class StallWatch {
public:
    // `onStall` is called on the watch's thread with the bytes of the send that hangs; it must
    // not call the watch.
    StallWatch(std::chrono::milliseconds limit, std::function<void(size_t bytes)> onStall);
    ~StallWatch();
    StallWatch(const StallWatch&) = delete;
    StallWatch& operator=(const StallWatch&) = delete;

    // The sending thread, around each send of `bytes`.
    void Begin(size_t bytes);
    void End();

    // Any thread but the watch's own; twice the same is once. Off waits for an `onStall` that
    // runs.
    void Bound(bool on);

private:
    using Clock = std::chrono::steady_clock;

    class Watcher : public common::thread::Thread {
    public:
        explicit Watcher(StallWatch& watch) : watch_(watch) {}
        ~Watcher() override { static_cast<void>(Thread::Stop()); }

    protected:
        void Run(const common::thread::TraceletErrorContext& context) override;

    private:
        StallWatch& watch_;
    };

    void Watch();

    const std::chrono::milliseconds limit_;
    const std::function<void(size_t bytes)> onStall_;

    std::mutex boundMutex_;  // orders Bound; the watcher never takes it
    bool bounded_ = false;   // guarded by boundMutex_
    Watcher watcher_;        // started and stopped under boundMutex_

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    bool watching_ = false;
    bool sending_ = false;
    size_t bytes_ = 0;
    Clock::time_point since_;  // when the send at hand began, or the watch
};

}  // namespace analysis::nedra::transport
