#include "faults.h"

#include <chrono>
#include <string>
#include <thread>

#include "log_book.h"

namespace orla::emulation {

namespace {

bool Matches(const std::optional<uint32_t>& wanted, const std::optional<uint32_t>& actual) {
    return !wanted || wanted == actual;
}

bool Fires(const Fault& fault, uint64_t seenBefore) {
    return seenBefore >= fault.after &&
           (fault.count < 0 || seenBefore - fault.after < static_cast<uint64_t>(fault.count));
}

// Told only at debug level, so that a log can be held against what went wrong on purpose.
void Report(Call call, const CallSubject& subject, const Fault& fault) {
    if (!LogBook::Get().Enabled(LogLevel::kDebug)) {
        return;
    }
    std::string text = "fault: " + std::string(kCallNames[static_cast<size_t>(call)]);
    const auto add = [&text](const char* name, const auto& value) {
        text += value ? std::string(", ") + name + " " + std::to_string(*value) : "";
    };
    add("device", subject.device);
    add("channel", subject.channel);
    add("result", fault.result);
    LogBook::Get().Write(kDriverModule, LogLevel::kDebug, std::move(text));
}

}  // namespace

const Fault* FaultPlan::Fire(Call call, const CallSubject& subject) {
    const Fault* first = nullptr;
    for (Armed& armed : armed_) {
        if (armed.call != call || !Matches(armed.fault.device, subject.device) ||
            !Matches(armed.fault.channel, subject.channel)) {
            continue;
        }
        if (Fires(armed.fault, armed.seen++) && first == nullptr) {
            first = &armed.fault;
        }
    }
    return first;
}

std::optional<int> FaultPlan::Check(Call call, const CallSubject& subject) {
    counts_[static_cast<size_t>(call)].fetch_add(1, std::memory_order_relaxed);
    if (!any_.load(std::memory_order_relaxed)) {
        return std::nullopt;
    }
    std::optional<Fault> fired;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (const Fault* fault = Fire(call, subject)) {
            fired = *fault;
        }
    }
    if (!fired) {
        return std::nullopt;
    }
    Report(call, subject, *fired);
    if (fired->delayMs > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(fired->delayMs));
    }
    return fired->result;
}

void FaultPlan::Set(const std::vector<Fault>& faults) {
    const std::lock_guard<std::mutex> lock(mutex_);
    armed_.clear();
    for (const Fault& fault : faults) {
        armed_.push_back({fault, FindCall(fault.call).value()});
    }
    any_ = !armed_.empty();
}

void FaultPlan::Add(const Fault& fault) {
    const std::lock_guard<std::mutex> lock(mutex_);
    armed_.push_back({fault, FindCall(fault.call).value()});
    any_ = true;
}

uint64_t FaultPlan::CountOf(Call call) const {
    return counts_[static_cast<size_t>(call)].load(std::memory_order_relaxed);
}

void FaultPlan::ClearCounts() {
    for (std::atomic<uint64_t>& count : counts_) {
        count.store(0, std::memory_order_relaxed);
    }
}

}  // namespace orla::emulation
