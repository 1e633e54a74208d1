#include "profiling/datapath/chunk.h"

#include "hdc/memory_utils.h"

namespace analysis::nedra::common::memory {

bool Chunk::Init() {
    if (size_ == 0) {
        return true;
    }
    buffer_.reset(static_cast<char*>(IdeXmalloc(size_)));
    used_ = 0;
    return buffer_ != nullptr;
}

void Chunk::Uninit() {
    buffer_.reset();
    size_ = 0;
    used_ = 0;  // or the free size would be below zero
}

}  // namespace analysis::nedra::common::memory
