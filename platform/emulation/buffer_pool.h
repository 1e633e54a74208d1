// Receive buffers that are used again: a fresh block of half a megabyte costs more in page
// faults than copying into it does. One pool per session, shared with its messages, since a
// message outlives its session. Any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace orla::emulation {

struct Buffer {
    std::unique_ptr<char[]> data;
    size_t capacity = 0;
};

class BufferPool {
public:
    BufferPool() { spare_.reserve(kMaxSpare); }

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
        if (spare_.size() < kMaxSpare) {
            spare_.push_back(std::move(buffer));
        }
    }

private:
    static constexpr size_t kMaxSpare = 2;  // one under way, one with the caller
    static constexpr size_t kSmallest = 4096;

    std::mutex mutex_;
    std::vector<Buffer> spare_;  // guarded by mutex_
};

}  // namespace orla::emulation
