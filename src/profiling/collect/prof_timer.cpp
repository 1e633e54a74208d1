#include "profiling/collect/prof_timer.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "hdc/log_side.h"
#include "profiling/config/make_shared.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::MakeShared;
using analysis::nedra::common::thread::Thread;
using analysis::nedra::common::thread::TraceletErrorContext;
using TraceletErrMgr::TraceletErrorManager;

namespace {

constexpr uint64_t kTickUsec = 1000;
constexpr uint64_t kMinTickUsec = 1000;
constexpr uint64_t kMaxTickUsec = 1000000;
constexpr uint64_t kNsPerUsec = 1000;
// How long a handler that ran out of memory is left alone.
constexpr uint64_t kPauseNs = 100000000;
// The clock that samples carry and the one that sleeps run apart by some seconds a day.
constexpr uint64_t kLongestSleepNs = 60000000000;
constexpr char kThreadName[] = "TLET_ProfTimer";

}  // namespace

// ---- The timer ----------------------------------------------------------------------------------

ProfTimer::ProfTimer(const std::shared_ptr<TimerParam>& timerParam)
    : tickNs_(std::clamp(timerParam->intervalUsec, kMinTickUsec, kMaxTickUsec) * kNsPerUsec) {}

ProfTimer::~ProfTimer() {
    static_cast<void>(ProfTimer::Stop());
}

void ProfTimer::RegisterTimerHandler(uint32_t tag, const std::shared_ptr<TimerHandler>& handler) {
    PROF_LOGI("ProfTimer RegisterTimerHandler tag %u", tag);
    auto slot = MakeShared<Slot>(tag);
    if (slot == nullptr) {
        return;
    }
    slot->handler = handler;
    const std::lock_guard<std::mutex> lock(handlerMtx_);
    handlerMap_[tag].swap(slot);
    isWoken_ = true;
    changed_.notify_all();
}

void ProfTimer::RemoveTimerHandler(uint32_t tag, const std::shared_ptr<TimerHandler>& own) {
    PROF_LOGI("ProfTimer RemoveTimerHandler tag %u begin", tag);
    std::shared_ptr<Slot> slot;
    {
        const std::lock_guard<std::mutex> lock(handlerMtx_);
        const auto found = handlerMap_.find(tag);
        if (found == handlerMap_.end() || (own != nullptr && found->second->handler != own)) {
            return;
        }
        slot = std::move(found->second);
        handlerMap_.erase(found);
        isWoken_ = true;
        changed_.notify_all();
    }
    Tear(slot.get());
    PROF_LOGI("ProfTimer RemoveTimerHandler tag %u succ", tag);
}

void ProfTimer::Tear(Slot* slot) {
    const std::lock_guard<std::mutex> lock(slot->mutex);
    slot->handler->Uninit();
    slot->handler.reset();
}

int ProfTimer::Start() {
    PROF_LOGI("Start ProfTimer begin");
    {
        const std::lock_guard<std::mutex> lock(handlerMtx_);
        if (isStarted_) {
            PROF_LOGE("ProfTimer is running");
            return -1;
        }
        isStarted_ = true;
        SetThreadName(kThreadName);
        if (Thread::Start() != 0) {
            isStarted_ = false;
            return -1;
        }
        PROF_LOGI("Start ProfTimer succ");
    }
    PROF_LOGI("Start ProfTimer end");
    return 0;
}

int ProfTimer::Stop() {
    PROF_LOGI("Stop ProfTimer begin");
    if (isStarted_.exchange(false)) {
        {
            const std::lock_guard<std::mutex> lock(handlerMtx_);
            isWoken_ = true;
            changed_.notify_all();
        }
        static_cast<void>(Thread::Stop());
        decltype(handlerMap_) left;
        {
            const std::lock_guard<std::mutex> lock(handlerMtx_);
            left.swap(handlerMap_);
        }
        for (const auto& [tag, slot] : left) {
            Tear(slot.get());
        }
        PROF_LOGI("Stop ProfTimer succ");
    }
    PROF_LOGI("Stop ProfTimer end");
    return 0;
}

void ProfTimer::Run(const TraceletErrorContext& context) {
    TraceletErrorManager::instance().SetErrorContext(context);
    while (isStarted_) {
        const uint64_t now = SampleClockNs();
        SleepUntil(ExecuteAll(now - now % tickNs_));
    }
}

// In order of their tags. From one to the next without a list of them, which would take memory: a
// tick cannot fail, and the thread lives as long as it has users.
uint64_t ProfTimer::ExecuteAll(uint64_t tick) {
    uint64_t earliest = UINT64_MAX;
    for (auto slot = SlotBehind(nullptr); slot != nullptr; slot = SlotBehind(slot.get())) {
        if (slot->wanted <= tick) {
            slot->wanted = Execute(slot.get(), tick);
        }
        earliest = std::min(earliest, slot->wanted);
    }
    return earliest;
}

void ProfTimer::SleepUntil(uint64_t wanted) {
    std::unique_lock<std::mutex> lock(handlerMtx_);
    const uint64_t now = SampleClockNs();
    const uint64_t left = wanted > now ? std::min(wanted - now, kLongestSleepNs) : 0;
    // Up to the next whole tick, so that handlers that are due within one share it.
    const uint64_t sleep = left + (tickNs_ - (now + left) % tickNs_) % tickNs_;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(sleep);
    changed_.wait_until(lock, deadline, [this] { return isWoken_; });
    isWoken_ = false;
}

std::shared_ptr<ProfTimer::Slot> ProfTimer::SlotBehind(const Slot* last) {
    const std::lock_guard<std::mutex> lock(handlerMtx_);
    const auto next = last == nullptr ? handlerMap_.begin() : handlerMap_.upper_bound(last->tag);
    return next == handlerMap_.end() ? nullptr : next->second;
}

uint64_t ProfTimer::Execute(Slot* slot, uint64_t tick) {
    // Whoever holds the lock tears the handler down, and may wait for its host.
    const std::unique_lock<std::mutex> lock(slot->mutex, std::try_to_lock);
    if (!lock.owns_lock() || slot->handler == nullptr) {
        return UINT64_MAX;
    }
    try {
        return slot->handler->Execute(tick);
    } catch (const std::exception& e) {  // out of memory: the next sample may fare better
        PROF_LOGE("Timer handler %u lost a sample, message: %s", slot->tag, e.what());
        return tick + kPauseNs;
    }
}

// ---- Its users ----------------------------------------------------------------------------------

bool TimerManager::StartProfTimer() {
    const std::lock_guard<std::mutex> lock(mtx_);
    if (refCount_ == 0) {
        const auto param = MakeShared<TimerParam>(TimerParam{kTickUsec});
        auto timer = param == nullptr ? nullptr : MakeShared<ProfTimer>(param);
        if (timer == nullptr) {
            return false;
        }
        if (timer->Start() != 0) {
            PROF_LOGE("StartProfTimer failed");
            return false;
        }
        profTimer_ = std::move(timer);
        PROF_LOGI("StartProfTimer end");
    }
    ++refCount_;
    return true;
}

void TimerManager::StopProfTimer() {
    std::shared_ptr<ProfTimer> ended;
    {
        const std::lock_guard<std::mutex> lock(mtx_);
        if (refCount_ == 0 || --refCount_ != 0) {
            return;
        }
        ended.swap(profTimer_);
    }
    PROF_LOGI("StopProfTimer begin");
    if (ended->Stop() != 0) {
        PROF_LOGE("StopProfTimer failed");
    }
    PROF_LOGI("StopProfTimer end");
}

std::shared_ptr<ProfTimer> TimerManager::Timer() {
    const std::lock_guard<std::mutex> lock(mtx_);
    return profTimer_;
}

void TimerManager::RegisterTimerHandler(uint32_t tag,
                                        const std::shared_ptr<TimerHandler>& handler) {
    const auto timer = Timer();
    if (timer != nullptr && handler != nullptr) {
        timer->RegisterTimerHandler(tag, handler);
    }
}

void TimerManager::RemoveTimerHandler(uint32_t tag, const std::shared_ptr<TimerHandler>& own) {
    if (const auto timer = Timer(); timer != nullptr) {
        timer->RemoveTimerHandler(tag, own);
    }
}

}  // namespace Analysis::Nedra::JobWrapper
