// Heap blocks of the core: zero-filled, released with free(). Packets and received messages
// are such blocks because their ownership crosses C-style interfaces. No state; any thread.
#pragma once

#include <cstddef>

// A zero-filled block of `size` bytes; null for size 0, and with a log line when memory is out.
[[nodiscard]] void* IdeXmalloc(size_t size);

// A new block of `newSize` bytes, zero-filled beyond the smaller of both sizes, which is copied
// from `old`. `old` stays with the caller in every case, and may be null. Null as above.
[[nodiscard]] void* IdeXrmalloc(const void* old, size_t oldSize, size_t newSize);

// Releases such a block; null is ignored. The same as free().
void IdeXfree(void* block);
