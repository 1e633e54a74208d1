#include "hdc/memory_utils.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

void* IdeXmalloc(size_t size) {
    return size == 0 ? nullptr : std::calloc(1, size);
}

void* IdeXrmalloc(const void* old, size_t oldSize, size_t newSize) {
    void* block = IdeXmalloc(newSize);
    if (block != nullptr && old != nullptr) {
        std::memcpy(block, old, std::min(oldSize, newSize));
    }
    return block;
}
