#include "profiling/datapath/message_buffer.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <mutex>
#include <vector>

#include "hdc/log_side.h"

namespace analysis::nedra::transport {

namespace {

// Below this the allocator is quick by itself.
constexpr size_t kSmallestKept = 64 * 1024;
constexpr size_t kMaxKept = 16;
constexpr size_t kMaxKeptBytes = 40u * 1024 * 1024;

using Buffer = std::unique_ptr<std::string>;

class FreeList {
public:
    FreeList() { kept_.reserve(kMaxKept); }

    // The smallest that fits, of equals the last to come back: the caches know it best. Null when
    // none does.
    Buffer Take(size_t capacity) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto best = std::min_element(
            kept_.rbegin(), kept_.rend(), [capacity](const Buffer& left, const Buffer& right) {
                return Waste(*left, capacity) < Waste(*right, capacity);
            });
        if (best == kept_.rend() || (*best)->capacity() < capacity) {
            return nullptr;
        }
        Buffer buffer = std::move(*best);
        kept_.erase(std::next(best).base());
        bytes_ -= buffer->capacity();
        return buffer;
    }

    // Whatever is not kept ends outside the lock.
    void Give(Buffer buffer) {
        const size_t capacity = buffer->capacity();
        const std::lock_guard<std::mutex> lock(mutex_);
        if (capacity >= kSmallestKept && kept_.size() < kMaxKept &&
            capacity <= kMaxKeptBytes - bytes_) {
            bytes_ += capacity;
            kept_.push_back(std::move(buffer));
        }
    }

    void Clear() {
        std::vector<Buffer> released;
        released.reserve(kMaxKept);
        const std::lock_guard<std::mutex> lock(mutex_);
        released.swap(kept_);
        bytes_ = 0;
    }

private:
    // Of one that is too small: more than of any that fits.
    static size_t Waste(const std::string& buffer, size_t capacity) {
        return buffer.capacity() - capacity;
    }

    std::mutex mutex_;
    // Guarded by mutex_.
    std::vector<Buffer> kept_;
    size_t bytes_ = 0;  // capacity of all in kept_
};

// Never destroyed: buffers may come back while the process runs its exit handlers.
FreeList& TheFreeList() {
    static auto* const list = new FreeList;
    return *list;
}

}  // namespace

namespace {

MessageBuffer TakeBuffer(size_t size, size_t capacity) {
    try {
        Buffer buffer = TheFreeList().Take(capacity);
        if (buffer == nullptr) {
            buffer = std::make_unique<std::string>();
            buffer->reserve(capacity);
        }
        // A used one has kept what was in it, which spares it most of the filling.
        buffer->resize(size);
        return {buffer.release(), [](std::string* used) { TheFreeList().Give(Buffer(used)); }};
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
}

}  // namespace

MessageBuffer TakeMessageBuffer(size_t messageSize) {
    return TakeBuffer(kFrontRoom, kFrontRoom + messageSize + kTailRoom);
}

MessageBuffer TakeFilledBuffer(size_t messageSize) {
    return TakeBuffer(kFrontRoom + messageSize, kFrontRoom + messageSize + kTailRoom);
}

void TrimMessageBuffers() {
    TheFreeList().Clear();
}

}  // namespace analysis::nedra::transport
