// Receive buffers that are used again: a fresh block of half a megabyte costs more in page
// faults than copying into it does. One pool per session, shared with its messages, since a
// message outlives its session. Any thread.
//
// Nobody may read a buffer that is in the pool: the address sanitizer stops such a reader, and
// without it the reader finds other bytes where the segment began.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define ORLA_POISONS_BUFFERS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORLA_POISONS_BUFFERS
#endif
#endif
#ifdef ORLA_POISONS_BUFFERS
#include <sanitizer/asan_interface.h>
#endif

namespace orla::emulation {

struct Buffer {
    std::unique_ptr<char[]> data;
    size_t capacity = 0;
};

class BufferPool {
public:
    BufferPool() { spare_.reserve(kMaxSpare); }
    ~BufferPool() {
        for (Buffer& buffer : spare_) {
            Open(buffer);
        }
    }
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    // At least `size` bytes of unspecified content.
    [[nodiscard]] Buffer Take(size_t size) {
        Buffer buffer;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            if (!spare_.empty()) {
                buffer = std::move(spare_.back());
                spare_.pop_back();
            }
        }
        Open(buffer);
        if (buffer.capacity < size) {
            const size_t capacity = std::max(size, kSmallest);
            buffer.data.reset();  // before the larger one is made
            buffer.data.reset(new char[capacity]);
            buffer.capacity = capacity;
        }
        return buffer;
    }

    // Takes it back; one that is not needed is released.
    void Give(Buffer buffer) {
        if (buffer.data == nullptr) {
            return;
        }
        const std::lock_guard<std::mutex> lock(mutex_);
        Spoil(buffer);
        if (spare_.size() < kMaxSpare) {
            spare_.push_back(std::move(buffer));
        } else {
            Open(buffer);
        }
    }

private:
    static constexpr size_t kMaxSpare = 2;  // one under way, one with the caller
    static constexpr size_t kSmallest = 4096;
    static constexpr int kSpoilt = 0xDB;
    static constexpr size_t kSpoiltBytes = 64;  // a header, and what follows it

    static void Spoil(const Buffer& buffer) {
        std::memset(buffer.data.get(), kSpoilt, std::min(buffer.capacity, kSpoiltBytes));
#ifdef ORLA_POISONS_BUFFERS
        __asan_poison_memory_region(buffer.data.get(), buffer.capacity);
#endif
    }
    static void Open([[maybe_unused]] const Buffer& buffer) {
#ifdef ORLA_POISONS_BUFFERS
        __asan_unpoison_memory_region(buffer.data.get(), buffer.capacity);
#endif
    }

    std::mutex mutex_;
    std::vector<Buffer> spare_;  // guarded by mutex_
};

}  // namespace orla::emulation
