// Open files of <portability.h>.
#include <fcntl.h>
#include <portability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

int32_t mmOpen2(const char* path, int32_t flags, mode_t mode) {
    if (path == nullptr) {
        return EN_INVALID_PARAM;
    }
    return open(path, flags | O_CLOEXEC, mode);
}

int32_t mmClose(int32_t fd) {
    // After EINTR the descriptor is gone all the same; a caller that tried again would close
    // what another thread has opened since.
    return close(fd) == 0 || errno == EINTR ? EN_OK : EN_ERROR;
}

ssize_t mmRead(int32_t fd, void* buffer, uint32_t size) {
    if (buffer == nullptr) {
        return EN_INVALID_PARAM;
    }
    return read(fd, buffer, size);
}

ssize_t mmWrite(int32_t fd, const void* buffer, uint32_t size) {
    if (buffer == nullptr) {
        return EN_INVALID_PARAM;
    }
    return write(fd, buffer, size);
}

int64_t mmLseek(int32_t fd, int64_t offset, int32_t whence) {
    return lseek(fd, offset, whence);
}

mode_t mmUmask(mode_t mask) {
    return umask(mask);
}
