// A file descriptor that closes with its scope. For the sources of this folder; not shared
// between threads.
#pragma once

#include <unistd.h>

namespace orla::posix {

class Descriptor {
public:
    // Takes over what open gave, a failure (less than 0) included.
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    const int fd_;
};

}  // namespace orla::posix
