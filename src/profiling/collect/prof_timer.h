// The one timer of the process: a thread that calls each registered handler at the ticks that the
// handler asks for. It runs while at least one sampling job, of any engine, needs it.
//
// A tick is a whole multiple of a millisecond on the clock that samples carry. The thread sleeps
// until the earliest tick that is asked for, and is woken when a handler comes or goes: while
// nothing is due it does nothing, and handlers that are due at one tick share one waking.
//
// A handler is executed and torn down under a lock of its own, so never at the same time. No
// handler waits for its host but when it is torn down, on the thread that removes it, and then the
// timer passes it by: a host that doesn't read holds up neither the samples nor the registration
// nor the removal of another host's handlers. The locks of TimerManager and ProfTimer are held for
// a look-up only; a handler's own is taken with both free.
#pragma once

#include <atomic>
#include <condition_variable>
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
    explicit ProfTimer(const std::shared_ptr<TimerParam>& timerParam);
    ~ProfTimer() override;

    // The handler is called at once. Takes the place of a handler of the same tag, which is let go
    // as it is.
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
        uint64_t wanted = 0;  // the thread's: the tick at which the handler is due
        std::mutex mutex;
        // Guarded by mutex, and unchanged while the slot is in the map; null: removed.
        std::shared_ptr<TimerHandler> handler;
    };

    // Both return the earliest tick at which something is due again.
    [[nodiscard]] uint64_t ExecuteAll(uint64_t tick);
    [[nodiscard]] static uint64_t Execute(Slot* slot, uint64_t tick);
    // Until the clock shows `wanted`, or a handler has come or gone.
    void SleepUntil(uint64_t wanted);
    // The slot with the next higher tag; the first one behind null, null behind the last.
    [[nodiscard]] std::shared_ptr<Slot> SlotBehind(const Slot* last);
    static void Tear(Slot* slot);

    std::atomic<bool> isStarted_{false};
    const uint64_t tickNs_;

    std::mutex handlerMtx_;
    std::condition_variable changed_;
    // Guarded by handlerMtx_.
    std::map<uint32_t, std::shared_ptr<Slot>> handlerMap_;
    bool isWoken_ = false;  // a handler has come or gone since the thread last looked
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
