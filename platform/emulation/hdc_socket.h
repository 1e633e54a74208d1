// The operating system under the emulated channel: where the sockets lie and how they are made.
// All descriptors are close-on-exec from birth. Functions without state, for any thread; a
// failure is an invalid descriptor with errno telling why.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

namespace orla::emulation {

// Owns a descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// $ORLA_HDC_DIR, else /run/orla/hdc.
[[nodiscard]] std::string HdcDirectory();
[[nodiscard]] std::string SocketPath(int logicalDevice, int serviceType);

// A listening socket and the file that belongs to it.
struct Listener {
    UniqueFd fd;  // non-blocking
    std::string path;
    dev_t device = 0;  // of the file
    ino_t inode = 0;
};

// Makes the directory if needed, with mode 0700, and listens in it. A socket file that nobody
// listens on is replaced; with a live one the errno is EADDRINUSE, with a file of another kind
// EEXIST. Servers that start at the same moment agree on one through a lock on the directory.
[[nodiscard]] Listener Listen(int logicalDevice, int serviceType);
// Removes the socket file, unless it is another server's by now.
void RemoveSocketFile(const Listener& listener);

// A blocking socket, connected. ENOENT or ECONNREFUSED: nobody listens; EAGAIN: the server took
// no connection for 5 s.
[[nodiscard]] UniqueFd Connect(const std::string& path);

// Asks for buffers of so many bytes, which the system may cut down for an ordinary user.
void SetBufferSizes(int fd, uint32_t bytes);
// Process id of the other end, 0 when it isn't visible from here.
[[nodiscard]] uint32_t PeerPid(int fd);

}  // namespace orla::emulation
