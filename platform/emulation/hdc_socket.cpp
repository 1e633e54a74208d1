#include "hdc_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orla::emulation {

namespace {

constexpr int kBacklog = 1024;
constexpr timeval kConnectTimeout = {5, 0};
constexpr mode_t kDirectoryMode = 0700;

// mkdir -p. What exists already keeps its mode.
bool MakeDirectories(const std::string& path) {
    for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const std::string part = path.substr(0, end);
        if (mkdir(part.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
            return false;
        }
        if (end == std::string::npos) {
            return true;
        }
    }
}

// The directory, open and locked for as long as the descriptor lives.
UniqueFd LockDirectory(const std::string& path) {
    UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    while (directory.valid() && flock(directory.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return UniqueFd();
        }
    }
    return directory;
}

bool MakeAddress(const std::string& path, sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address->sun_path, path.data(), path.size());
    return true;
}

const sockaddr* Generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// True when nothing is at the path any more. Only a connection tells a live socket from the one
// that a killed server left.
bool RemoveStale(const std::string& path, const sockaddr_un& address) {
    struct stat found = {};
    if (lstat(path.c_str(), &found) != 0) {
        return errno == ENOENT;
    }
    if (!S_ISSOCK(found.st_mode)) {
        errno = EEXIST;
        return false;
    }
    const UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe.valid()) {
        return false;
    }
    if (connect(probe.get(), Generic(address), sizeof(address)) == 0 || errno == EAGAIN) {
        errno = EADDRINUSE;
        return false;
    }
    return errno == ECONNREFUSED && unlink(path.c_str()) == 0;
}

}  // namespace

std::string HdcDirectory() {
    const char* own = std::getenv("ORLA_HDC_DIR");
    return own != nullptr && *own != '\0' ? own : "/run/orla/hdc";
}

std::string SocketPath(int logicalDevice, int serviceType) {
    return HdcDirectory() + "/" + std::to_string(logicalDevice) + "." + std::to_string(serviceType);
}

Listener Listen(int logicalDevice, int serviceType) {
    const std::string directory = HdcDirectory();
    Listener listener;
    listener.path = SocketPath(logicalDevice, serviceType);
    sockaddr_un address;
    if (!MakeAddress(listener.path, &address) || !MakeDirectories(directory)) {
        return listener;
    }
    const UniqueFd lock = LockDirectory(directory);
    if (!lock.valid() || !RemoveStale(listener.path, address)) {
        return listener;
    }
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    struct stat made = {};
    if (!fd.valid() || bind(fd.get(), Generic(address), sizeof(address)) != 0 ||
        lstat(listener.path.c_str(), &made) != 0 || listen(fd.get(), kBacklog) != 0) {
        return listener;
    }
    listener.device = made.st_dev;
    listener.inode = made.st_ino;
    listener.fd = std::move(fd);
    return listener;
}

void RemoveSocketFile(const Listener& listener) {
    const UniqueFd lock = LockDirectory(listener.path.substr(0, listener.path.rfind('/')));
    struct stat found = {};
    if (lstat(listener.path.c_str(), &found) == 0 && found.st_dev == listener.device &&
        found.st_ino == listener.inode) {
        unlink(listener.path.c_str());
    }
}

UniqueFd Connect(const std::string& path) {
    sockaddr_un address;
    if (!MakeAddress(path, &address)) {
        return UniqueFd();
    }
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        return fd;
    }
    // A send timeout is what bounds a Unix socket's wait for room in the listener's queue.
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kConnectTimeout, sizeof(kConnectTimeout));
    int result = 0;
    do {
        result = connect(fd.get(), Generic(address), sizeof(address));
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        return UniqueFd();
    }
    const timeval none = {};
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &none, sizeof(none));
    return fd;
}

void SetBufferSizes(int fd, uint32_t bytes) {
    const auto size = static_cast<int>(bytes);
    for (const auto& [forced, ordinary] :
         {std::pair{SO_SNDBUFFORCE, SO_SNDBUF}, std::pair{SO_RCVBUFFORCE, SO_RCVBUF}}) {
        if (setsockopt(fd, SOL_SOCKET, forced, &size, sizeof(size)) != 0) {
            setsockopt(fd, SOL_SOCKET, ordinary, &size, sizeof(size));
        }
    }
}

uint32_t PeerPid(int fd) {
    ucred peer = {};
    socklen_t size = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0
               ? static_cast<uint32_t>(peer.pid)
               : 0;
}

}  // namespace orla::emulation
