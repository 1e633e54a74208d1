// File descriptors that close with their scope, and writing that survives interruptions. No state;
// any thread.
#pragma once

#include <portability.h>

#include <cstddef>
#include <utility>

namespace orla {

class Descriptor {
public:
    // Takes over what an open returned, a failure (less than 0) included.
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { Close(); }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    // Less than 0 when nothing is open.
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    void Close() {
        if (fd_ >= 0) {
            mmClose(fd_);
        }
    }

    int fd_;
};

// Writes all `size` bytes, following short writes. Returns how many the system says it took:
// `size`, or less after a failure that errno tells. More is a system that can't count.
[[nodiscard]] size_t WriteAll(int fd, const void* bytes, size_t size);

}  // namespace orla
