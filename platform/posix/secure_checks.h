// The checks that the functions of <secure_c.h> have in common. For the sources of this folder.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace orla::posix {

constexpr size_t kMaxDestination = 0x7FFFFFFF;
constexpr int kOverlap = 128 + EINVAL;

// EOK when bytes may be written to `dest` at all, else the error to answer.
inline int CheckDestination(const void* dest, size_t destMax) {
    if (destMax == 0 || destMax > kMaxDestination) {
        return ERANGE;
    }
    return dest == nullptr ? EINVAL : 0;
}

// Whether two stretches of memory share a byte. Compared as numbers, since the order of
// pointers into different objects is undefined.
inline bool Overlap(const void* left, size_t leftSize, const void* right, size_t rightSize) {
    const auto leftStart = reinterpret_cast<uintptr_t>(left);
    const auto rightStart = reinterpret_cast<uintptr_t>(right);
    return leftStart < rightStart ? rightStart - leftStart < leftSize
                                  : leftStart - rightStart < rightSize;
}

}  // namespace orla::posix
