// The one timer of the process: a thread that calls each registered handler every millisecond. It
// runs while at least one sampling job, of any engine, needs it.
//
// A handler is executed and torn down under a lock of its own, so never at the same time. One that
// waits, for a host that does not read, holds up the samples of all others, but neither their
// registration nor their removal: jobs of other hosts can still start and end. The locks of
// TimerManager and ProfTimer are held for a look-up only; a handler's own is taken with both free.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "profiling/collect/timer_handler.h"
#include "profiling/config/singleton.h"
#include "profiling/datapath/thread.h"

namespace Analysis::Nedra::JobWrapper {

struct TimerParam {
    uint64_t intervalUsec;  // of the tick; taken as 1 ms at least and 1 s at most
};

class ProfTimer : public analysis::nedra::common::thread::Thread {
public:
    explicit ProfTimer(std::shared_ptr<TimerParam> timerParam)
        : timerParam_(std::move(timerParam)) {}
    ~ProfTimer() override;

    // Takes the place of a handler of the same tag, which is let go as it is.
    void RegisterTimerHandler(uint32_t tag, const std::shared_ptr<TimerHandler>& handler);
    // Uninits the handler, on the caller's thread, and lets it go; waits for an Execute that is
    // under way. With `own`, only that very one.
    void RemoveTimerHandler(uint32_t tag, const std::shared_ptr<TimerHandler>& own = nullptr);

    // 0; -1 when it runs already or the thread cannot be made.
    [[nodiscard]] int Start() override;
    // Ends the thread, then uninits the handlers that are left. Always 0.
    [[nodiscard]] int Stop() override;

protected:
    void Run(const analysis::nedra::common::thread::TraceletErrorContext& context) override;

private:
    struct Slot {
        explicit Slot(uint32_t tagOfHandler) : tag(tagOfHandler) {}

        const uint32_t tag;
        std::mutex mutex;
        // Guarded by mutex, and unchanged while the slot is in the map; null: removed.
        std::shared_ptr<TimerHandler> handler;
    };

    void ExecuteAll();
    // The slot with the next higher tag; the first one behind null, null behind the last.
    [[nodiscard]] std::shared_ptr<Slot> SlotBehind(const Slot* last);
    static void Execute(Slot* slot);
    static void Tear(Slot* slot);

    std::atomic<bool> isStarted_{false};
    const std::shared_ptr<TimerParam> timerParam_;

    std::mutex handlerMtx_;
    std::map<uint32_t, std::shared_ptr<Slot>> handlerMap_;  // guarded by handlerMtx_
};

// Any thread.
class TimerManager : public analysis::nedra::common::singleton::Singleton<TimerManager> {
public:
    // One user more; the first one starts the timer. False, and no user more, when it cannot be.
    [[nodiscard]] bool StartProfTimer();
    // One user less; the last one ends the timer. Without a user nothing changes.
    void StopProfTimer();
    // These do nothing while there is no timer, and without a handler.
    void RegisterTimerHandler(uint32_t tag, const std::shared_ptr<TimerHandler>& handler);
    void RemoveTimerHandler(uint32_t tag, const std::shared_ptr<TimerHandler>& own = nullptr);

private:
    friend analysis::nedra::common::singleton::Singleton<TimerManager>;
    TimerManager() = default;

    // Null while there is no user.
    [[nodiscard]] std::shared_ptr<ProfTimer> Timer();

    std::mutex mtx_;
    // Guarded by mtx_.
    uint32_t refCount_ = 0;
    std::shared_ptr<ProfTimer> profTimer_;
};

}  // namespace Analysis::Nedra::JobWrapper
