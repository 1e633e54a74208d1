// Handles that are looked up, never followed: whatever value comes back from outside, it names a
// live object of its kind or nothing.
//
// A handle is kind (4 bits), generation (36 bits), slot + 1 (24 bits). A slot's generation grows
// with each reuse, so a handle that was given back stays invalid. Neither null nor -1 is ever
// given out.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace orla::emulation {

enum class HandleKind : uint64_t { kClient = 1, kServer, kSession, kMessage, kEpoll, kMonitor };

using HandleValue = uint64_t;
static_assert(sizeof(void*) == sizeof(HandleValue));

[[nodiscard]] inline HandleValue ValueOf(const void* handle) {
    return reinterpret_cast<HandleValue>(handle);
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
        slot.value = static_cast<uint64_t>(kKind) << kKindShift |
                     (slot.generation & kGenerationMask) << kSlotBits | (index + 1);
        ++slot.generation;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle is never followed.
        return reinterpret_cast<void*>(slot.value);
    }

    // Null for a handle that isn't live, or is of another kind.
    [[nodiscard]] std::shared_ptr<T> Find(const void* handle) const {
        const std::lock_guard<std::mutex> lock(mutex_);
        const Slot* slot = SlotOf(handle);
        return slot == nullptr ? nullptr : slot->object;
    }

    // Gives the handle back; the object, or null as above. Of two that do so, one gets it.
    [[nodiscard]] std::shared_ptr<T> Take(const void* handle) {
        const std::lock_guard<std::mutex> lock(mutex_);
        Slot* slot = const_cast<Slot*>(SlotOf(handle));
        if (slot == nullptr) {
            return nullptr;
        }
        slot->value = 0;
        free_.push_back(static_cast<uint64_t>(slot - slots_.data()));
        return std::move(slot->object);
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

    [[nodiscard]] size_t size() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return slots_.size() - free_.size();
    }

private:
    static constexpr int kSlotBits = 24;
    static constexpr int kKindShift = 60;
    static constexpr uint64_t kSlotMask = (1ULL << kSlotBits) - 1;
    static constexpr uint64_t kGenerationMask = (1ULL << (kKindShift - kSlotBits)) - 1;

    struct Slot {
        std::shared_ptr<T> object;
        uint64_t value = 0;  // the live handle of this slot, 0 for none
        uint64_t generation = 0;
    };

    [[nodiscard]] const Slot* SlotOf(const void* handle) const {
        const uint64_t value = ValueOf(handle);
        const uint64_t index = (value & kSlotMask) - 1;
        return value != 0 && index < slots_.size() && slots_[index].value == value ? &slots_[index]
                                                                                   : nullptr;
    }

    mutable std::mutex mutex_;
    // Guarded by mutex_.
    std::vector<Slot> slots_;
    std::vector<uint64_t> free_;  // has room for every slot, so giving back can't fail
};

}  // namespace orla::emulation
