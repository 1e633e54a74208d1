// A byte buffer of a size that is set once, and how much of it is in use. Made, used and
// destroyed by one thread, or handed from one to the next.
#pragma once

#include <cstdint>
#include <memory>

#include "hdc/hdc_packet.h"

namespace analysis::nedra::common::memory {

class Chunk {
public:
    // `size` in bytes. There is no memory before Init.
    explicit Chunk(uint64_t size) : size_(size) {}
    virtual ~Chunk() { Uninit(); }
    Chunk(const Chunk&) = delete;
    Chunk& operator=(const Chunk&) = delete;

    // Takes zero-filled memory, with nothing in use. False when memory is out; true without any
    // memory for a size of 0.
    [[nodiscard]] bool Init();
    // Gives the memory back. The size is 0 from then on, so another Init takes none.
    void Uninit();

    // Null without memory; stays the chunk's.
    [[nodiscard]] char* GetBuffer() { return buffer_.get(); }
    [[nodiscard]] uint64_t GetUsedSize() const { return used_; }
    // `used` is at most the buffer's size.
    void SetUsedSize(uint64_t used) { used_ = used; }
    [[nodiscard]] uint64_t GetFreeSize() const { return size_ - used_; }
    [[nodiscard]] uint64_t GetBufferSize() const { return size_; }

private:
    orla::HeapBlock buffer_;
    uint64_t size_;
    uint64_t used_ = 0;
};

}  // namespace analysis::nedra::common::memory
