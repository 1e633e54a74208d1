// Handles that are looked up, never followed: whatever value comes back from outside, it names a
// live object of its kind, or the call that brings it ends the process.
//
// A handle is kind (4 bits), generation (36 bits), slot + 1 (24 bits). A slot's generation grows
// with each reuse, so a handle that was given back stays invalid. Neither null nor -1 is ever
// given out.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "breach.h"

namespace orla::emulation {

enum class HandleKind : uint64_t { kClient = 1, kServer, kSession, kMessage, kEpoll, kMonitor };

using HandleValue = uint64_t;
static_assert(sizeof(void*) == sizeof(HandleValue));

[[nodiscard]] inline HandleValue ValueOf(const void* handle) {
    return reinterpret_cast<HandleValue>(handle);
}

constexpr int kHandleKindShift = 60;

[[nodiscard]] inline bool IsOfKind(const void* handle, HandleKind kind) {
    return ValueOf(handle) >> kHandleKindShift == static_cast<uint64_t>(kind);
}

// The live objects of one kind. An operation takes its own shared pointer, so an object that is
// given back on another thread lives until the operation has left it.
template <typename T, HandleKind kKind>
class HandleTable {
public:
    [[nodiscard]] void* Add(std::shared_ptr<T> object) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (free_.empty()) {
            if (slots_.size() >= kSlotMask) {
                throw std::bad_alloc();
            }
            slots_.emplace_back();
            free_.reserve(slots_.capacity());
            free_.push_back(slots_.size() - 1);
        }
        const uint64_t index = free_.back();
        free_.pop_back();
        Slot& slot = slots_[index];
        slot.object = std::move(object);
        slot.value = static_cast<uint64_t>(kKind) << kHandleKindShift |
                     (slot.generation & kGenerationMask) << kSlotBits | (index + 1);
        ++slot.generation;
        ++added_;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle is never followed.
        return reinterpret_cast<void*>(slot.value);
    }

    // The object of a handle that `caller` brings; null for null. Any other handle that isn't
    // live, or whose close has begun, is a breach.
    [[nodiscard]] std::shared_ptr<T> Use(const void* handle, const Caller& caller) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return handle == nullptr ? nullptr : LiveSlot(handle, caller).object;
    }

    // As Use, and begins to give the handle back: from now on nobody else may use it.
    [[nodiscard]] std::shared_ptr<T> BeginClose(const void* handle, const Caller& caller) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (handle == nullptr) {
            return nullptr;
        }
        Slot& slot = LiveSlot(handle, caller);
        slot.closing = true;
        const bool named = kKind != HandleKind::kMessage;  // they are many, and short-lived
        closes_[closeCount_++ % closes_.size()] = {slot.value, caller.value(),
                                                   named ? OwnThreadName() : ThreadName{}};
        return slot.object;
    }
    // After BeginClose. Unless it was `done` the handle is live again.
    void EndClose(const void* handle, bool done) {
        std::shared_ptr<T> object;  // ends without the lock
        const std::lock_guard<std::mutex> lock(mutex_);
        if (Slot* slot = SlotOf(handle)) {
            slot->closing = false;
            if (done) {
                object = Free(slot);
            }
        }
    }

    // Returns null for a handle that isn't live, or is being closed. It is for the operations whose
    // contract allows that race.
    [[nodiscard]] std::shared_ptr<T> Find(const void* handle) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const Slot* slot = SlotOf(handle);
        return slot == nullptr || slot->closing ? nullptr : slot->object;
    }
    // The same, and gives the handle back. Of two that do so, one gets the object.
    [[nodiscard]] std::shared_ptr<T> Take(const void* handle) {
        const std::lock_guard<std::mutex> lock(mutex_);
        Slot* slot = SlotOf(handle);
        return slot == nullptr ? nullptr : Free(slot);
    }

    // The live ones now.
    [[nodiscard]] std::vector<std::shared_ptr<T>> All() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::shared_ptr<T>> all;
        for (const Slot& slot : slots_) {
            if (slot.object != nullptr) {
                all.push_back(slot.object);
            }
        }
        return all;
    }

    // Those that no call is inside of.
    [[nodiscard]] size_t CountIdle() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<size_t>(
            std::count_if(slots_.begin(), slots_.end(),
                          [](const Slot& slot) { return slot.object.use_count() == 1; }));
    }

    // All that were ever given out.
    [[nodiscard]] uint64_t added() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return added_;
    }

    [[nodiscard]] size_t size() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return slots_.size() - free_.size();
    }

private:
    static constexpr int kSlotBits = 24;
    static constexpr uint64_t kSlotMask = (1ULL << kSlotBits) - 1;
    static constexpr uint64_t kGenerationMask = (1ULL << (kHandleKindShift - kSlotBits)) - 1;
    static constexpr size_t kRememberedCloses = 256;

    struct Slot {
        std::shared_ptr<T> object;
        uint64_t value = 0;  // the live handle of this slot, 0 for none
        uint64_t generation = 0;
        bool closing = false;
    };
    struct Close {
        HandleValue handle = 0;
        uint64_t caller = 0;
        ThreadName threadName = {};
    };

    [[nodiscard]] Slot* SlotOf(const void* handle) {
        const uint64_t value = ValueOf(handle);
        const uint64_t index = (value & kSlotMask) - 1;
        return value != 0 && index < slots_.size() && slots_[index].value == value ? &slots_[index]
                                                                                   : nullptr;
    }

    [[nodiscard]] Slot& LiveSlot(const void* handle, const Caller& caller) {
        Slot* slot = SlotOf(handle);
        if (slot == nullptr || slot->closing) {
            ReportUse(ValueOf(handle), caller);
        }
        return *slot;
    }

    [[noreturn]] void ReportUse(HandleValue handle, const Caller& caller) const {
        for (size_t i = 1; i <= closes_.size() && i <= closeCount_; ++i) {
            const Close& close = closes_[(closeCount_ - i) % closes_.size()];
            if (close.handle == handle) {
                Breach("use after the close has begun", HandleText(handle), caller.Text(),
                       Caller::Of(close.caller).Text(close.threadName));
            }
        }
        Breach("use of what is no handle, or was closed long ago", HandleText(handle),
               caller.Text());
    }

    [[nodiscard]] std::shared_ptr<T> Free(Slot* slot) {
        slot->value = 0;
        free_.push_back(static_cast<uint64_t>(slot - slots_.data()));
        return std::move(slot->object);
    }

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::vector<Slot> slots_;
    std::vector<uint64_t> free_;  // has room for every slot, so giving back can't fail
    std::array<Close, kRememberedCloses> closes_ = {};  // the newest, in a ring
    uint64_t closeCount_ = 0;
    uint64_t added_ = 0;
};

}  // namespace orla::emulation
