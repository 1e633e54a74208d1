// Faults as data: decides for each driver call whether it fails, and counts the calls.
//
// Asked at the start of every driver operation, on any thread; without faults that costs one
// relaxed atomic read beside the count.
#pragma once

#include <array>
#include <atomic>
#include <mutex>
#include <optional>
#include <vector>

#include "control.h"
#include "driver_calls.h"

namespace orla::emulation {

using control::Fault;

// What a call is about. A field that the call doesn't have matches no fault that names it.
struct CallSubject {
    std::optional<uint32_t> device = std::nullopt;
    std::optional<uint32_t> channel = std::nullopt;
};

class FaultPlan {
public:
    // Counts the call. A fault that fires is waited for here; its result, or nothing when the
    // call is to go on.
    [[nodiscard]] std::optional<int> Check(Call call, const CallSubject& subject);

    // Replaces all faults. Each must name an operation of the driver.
    void Set(const std::vector<Fault>& faults);
    void Add(const Fault& fault);
    [[nodiscard]] uint64_t CountOf(Call call) const;
    void ClearCounts();

private:
    struct Armed {
        Fault fault;
        Call call;
        uint64_t seen = 0;
    };

    [[nodiscard]] const Fault* Fire(Call call, const CallSubject& subject);

    std::array<std::atomic<uint64_t>, kCallCount> counts_ = {};
    std::atomic<bool> any_{false};
    std::mutex mutex_;
    std::vector<Armed> armed_;  // guarded by mutex_
};

}  // namespace orla::emulation
