#include "hdc/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <climits>

namespace orla {

size_t WriteAll(int fd, const void* bytes, size_t size) {
    size_t done = 0;
    while (done < size) {
        const auto rest = static_cast<uint32_t>(std::min<size_t>(size - done, INT_MAX));
        const ssize_t count = mmWrite(fd, static_cast<const char*>(bytes) + done, rest);
        if (count < 0 && mmGetErrorCode() == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return done;
}

}  // namespace orla
