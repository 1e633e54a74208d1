#include "hdc/memory_utils.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hdc/log_side.h"

void* IdeXmalloc(size_t size) {
    if (size == 0) {
        return nullptr;
    }
    void* block = std::calloc(1, size);
    if (block == nullptr) {
        PROF_LOGE("ran out of memory while trying to allocate %lu bytes", size);
    }
    return block;
}

void* IdeXrmalloc(const void* old, size_t oldSize, size_t newSize) {
    void* block = IdeXmalloc(newSize);
    if (block != nullptr && old != nullptr) {
        std::memcpy(block, old, std::min(oldSize, newSize));
    }
    return block;
}

void IdeXfree(void* block) {
    std::free(block);
}
