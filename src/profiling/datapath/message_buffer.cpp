#include "profiling/datapath/message_buffer.h"

#include <array>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "hdc/log_side.h"

namespace analysis::nedra::transport {

namespace {

constexpr size_t kSmall = 64 * 1024;  // capacities below come in whole steps
constexpr size_t kStep = 1024;
constexpr size_t kMaxSmallBytes = 8u * 1024 * 1024;
constexpr size_t kMaxLarge = 16;
constexpr size_t kMaxLargeBytes = 40u * 1024 * 1024;

using Block = std::unique_ptr<MessageBlock>;
using Blocks = std::vector<Block>;

size_t Capacity(const Block& block) {
    return block->bytes.capacity();
}

class FreeList {
public:
    // Returns null when no block fits.
    Block Take(size_t capacity) {
        const std::lock_guard<std::mutex> lock(mutex_);
        return capacity < kSmall ? TakeSmall(capacity) : TakeLarge(capacity);
    }

    // A block that is not kept is freed after the lock is released.
    void Give(Block block) {
        const size_t capacity = Capacity(block);
        const std::lock_guard<std::mutex> lock(mutex_);
        const bool isSmall = capacity < kSmall;
        Blocks& blocks = isSmall ? small_[capacity / kStep] : large_;
        size_t& bytes = isSmall ? smallBytes_ : largeBytes_;
        const size_t limit = isSmall ? kMaxSmallBytes : kMaxLargeBytes;
        if (capacity <= limit - bytes && (isSmall || blocks.size() < kMaxLarge)) {
            blocks.push_back(std::move(block));
            bytes += capacity;
        }
    }

    void Clear() {
        std::array<Blocks, kSmall / kStep> small;
        Blocks large;
        const std::lock_guard<std::mutex> lock(mutex_);
        small.swap(small_);
        large.swap(large_);
        smallBytes_ = largeBytes_ = 0;
    }

private:
    Block TakeSmall(size_t capacity) {
        Blocks& blocks = small_[capacity / kStep];
        if (blocks.empty()) {
            return nullptr;
        }
        Block block = std::move(blocks.back());
        blocks.pop_back();
        smallBytes_ -= Capacity(block);
        return block;
    }

    // The smallest that fits, of equals the last to come back: the caches know it best.
    Block TakeLarge(size_t capacity) {
        auto best = large_.end();
        for (auto at = large_.begin(); at != large_.end(); ++at) {
            const bool fits = Capacity(*at) >= capacity && Capacity(*at) / 2 <= capacity;
            if (fits && (best == large_.end() || Capacity(*at) <= Capacity(*best))) {
                best = at;
            }
        }
        if (best == large_.end()) {
            return nullptr;
        }
        Block block = std::move(*best);
        large_.erase(best);
        largeBytes_ -= Capacity(block);
        return block;
    }

    std::mutex mutex_;
    // Guarded by mutex_.
    std::array<Blocks, kSmall / kStep> small_;  // by capacity in steps
    Blocks large_;
    size_t smallBytes_ = 0;  // capacity of all in small_
    size_t largeBytes_ = 0;
};

// Never destroyed: buffers may come back while the process runs its exit handlers.
FreeList& TheFreeList() {
    static auto* const list = new FreeList;
    return *list;
}

MessageBuffer TakeBuffer(size_t size, size_t capacity) {
    try {
        if (capacity < kSmall) {
            capacity = (capacity / kStep + 1) * kStep;
        }
        Block block = TheFreeList().Take(capacity);
        if (block == nullptr) {
            block = std::make_unique<MessageBlock>();
            block->bytes.reserve(capacity);
        }
        // A used one has kept what was in it, which spares it most of the filling.
        block->bytes.resize(size);
        block->begin = kFrontRoom;
        return MessageBuffer(block.release());
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
}

}  // namespace

void ReturnBlock::operator()(MessageBlock* block) const {
    try {
        TheFreeList().Give(Block(block));
    } catch (const std::exception&) {  // no memory for the list: the block has ended
    }
}

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
