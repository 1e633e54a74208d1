#include "log/log_platform.h"

#include <fcntl.h>
#include <unistd.h>

#include <sched.h>
#include <algorithm>
#include <cerrno>

namespace {

constexpr uint32_t kMinStackSize = 0x20000;
constexpr uint32_t kLongestSleepUs = 0xFFFFFFFF;
constexpr int kMinPriority = 1;
constexpr int kMaxPriority = 99;
constexpr int kPolicyEnd = 3;

bool AreAttributesValid(const mmThreadAttr& attributes) {
    if (attributes.stackFlag == 1 && attributes.stackSize < kMinStackSize) {
        return false;
    }
    if (attributes.policyFlag == 1 && (attributes.policy < 0 || attributes.policy >= kPolicyEnd)) {
        return false;
    }
    return attributes.priorityFlag != 1 ||
           (attributes.priority >= kMinPriority && attributes.priority <= kMaxPriority);
}

// The system call's own answer, reduced to the convention of this layer.
int Result(int answer) {
    return answer == 0 ? EN_OK : EN_ERROR;
}

int MutexResult(int (*operation)(mmMutex_t*), mmMutex_t* mutex) {
    if (mutex == nullptr) {
        return EN_INVALID_PARAM;
    }
    const int error = operation(mutex);
    if (error > 0) {  // the thread calls answer their error instead of setting it
        errno = error;
    }
    return Result(error);
}

}  // namespace

int ToolGetErrorCode(void) {
    return mmGetErrorCode();
}

int ToolSleep(uint32_t ms) {
    if (ms == 0) {
        return EN_INVALID_PARAM;
    }
    const uint64_t us = std::min<uint64_t>(uint64_t{ms} * 1000, kLongestSleepUs);
    return Result(usleep(static_cast<useconds_t>(us)));
}

int ToolCreateTaskWithThreadAttr(mmThread* handle, const mmUserBlock_t* routine,
                                 const mmThreadAttr* attributes) {
    if (handle == nullptr || routine == nullptr || routine->procFunc == nullptr ||
        attributes == nullptr || !AreAttributesValid(*attributes)) {
        return EN_INVALID_PARAM;
    }
    return Result(mmCreateTaskWithThreadAttr(handle, routine, attributes));
}

int ToolScandir(const char* directory, mmDirent*** list, mmFilter selector, mmSort compare) {
    if (directory == nullptr || list == nullptr) {
        return EN_INVALID_PARAM;
    }
    return mmScandir(directory, list, selector, compare);
}

void ToolScandirFree(mmDirent** list, int count) {
    mmScandirFree(list, count);
}

int ToolStatGet(const char* path, mmStat_t* buffer) {
    if (path == nullptr || buffer == nullptr) {
        return EN_INVALID_PARAM;
    }
    return Result(mmStatGet(path, buffer));
}

int ToolOpenWithMode(const char* path, int flags, mode_t mode) {
    constexpr int kWanted = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;
    if (path == nullptr || (flags != 0 && (flags & kWanted) == 0) ||
        (mode & (S_IRUSR | S_IWUSR)) == 0) {
        return EN_INVALID_PARAM;
    }
    return mmOpen2(path, flags, mode);
}

int ToolClose(int fd) {
    return fd < 0 ? EN_INVALID_PARAM : Result(mmClose(fd));
}

ssize_t ToolWrite(int fd, const void* buffer, uint32_t size) {
    if (fd < 0 || buffer == nullptr) {
        return EN_INVALID_PARAM;
    }
    return mmWrite(fd, buffer, size);
}

int ToolMkdir(const char* path, mode_t mode) {
    return path == nullptr ? EN_INVALID_PARAM : Result(mmMkdir(path, mode));
}

int ToolAccess(const char* path) {
    return ToolAccessWithMode(path, F_OK);
}

int ToolAccessWithMode(const char* path, int mode) {
    return path == nullptr ? EN_INVALID_PARAM : Result(mmAccess2(path, mode));
}

int ToolRealPath(const char* path, char* resolved, int size) {
    if (path == nullptr || resolved == nullptr || size <= 0) {
        return EN_INVALID_PARAM;
    }
    return Result(mmRealPath(path, resolved, size));
}

int ToolChmod(const char* path, mode_t mode) {
    return path == nullptr ? EN_INVALID_PARAM : Result(mmChmod(path, mode));
}

int ToolChown(const char* path, uid_t owner, gid_t group) {
    return path == nullptr ? EN_INVALID_PARAM : Result(chown(path, owner, group));
}

int ToolGetTimeOfDay(struct timeval* now) {
    return now == nullptr ? EN_INVALID_PARAM : Result(gettimeofday(now, nullptr));
}

int ToolLocalTimeR(const time_t* time, struct tm* local) {
    if (time == nullptr || local == nullptr) {
        return EN_INVALID_PARAM;
    }
    return localtime_r(time, local) == nullptr ? EN_ERROR : EN_OK;
}

int ToolMutexInit(mmMutex_t* mutex) {
    return MutexResult(mmMutexInit, mutex);
}
int ToolMutexLock(mmMutex_t* mutex) {
    return MutexResult(mmMutexLock, mutex);
}
int ToolMutexUnLock(mmMutex_t* mutex) {
    return MutexResult(mmMutexUnLock, mutex);
}
int ToolMutexDestroy(mmMutex_t* mutex) {
    return MutexResult(mmMutexDestroy, mutex);
}
