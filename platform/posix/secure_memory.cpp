// The functions of <secure_c.h> on bytes.
#include <secure_c.h>

#include <cerrno>
#include <cstring>

#include "secure_checks.h"

using orla::posix::CheckDestination;
using orla::posix::kOverlap;
using orla::posix::Overlap;

namespace {

errno_t CheckCopy(const void* dest, size_t destMax, const void* src, size_t count) {
    if (src == nullptr) {
        return EINVAL;
    }
    if (count > destMax) {
        return ERANGE;
    }
    return count > 0 && Overlap(dest, count, src, count) ? kOverlap : EOK;
}

}  // namespace

errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    errno_t error = CheckDestination(dest, destMax);
    if (error != EOK) {
        return error;
    }
    error = CheckCopy(dest, destMax, src, count);
    if (error != EOK) {
        memset(dest, 0, destMax);
        return error;
    }
    memcpy(dest, src, count);
    return EOK;
}

errno_t memset_s(void* dest, size_t destMax, int c, size_t count) {
    const errno_t error = CheckDestination(dest, destMax);
    if (error != EOK) {
        return error;
    }
    if (count > destMax) {
        memset(dest, c, destMax);
        return ERANGE;
    }
    memset(dest, c, count);
    return EOK;
}
