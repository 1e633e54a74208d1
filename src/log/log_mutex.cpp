#include "log/log_mutex.h"

#include <cerrno>

#include "log/log_platform.h"
#include "log/self_log.h"

namespace orla {

int LogMutex::Init() {
    if (ready_ != 0) {
        return EN_OK;
    }
    const int result = ToolMutexInit(&mutex_);
    ready_ = result == EN_OK ? 1 : 0;
    return result;
}

int LogMutex::Destroy() {
    // First the flag, then the count, and Lock the other way round: one of both sees the other.
    if (ready_.exchange(0) == 0) {
        return EN_OK;
    }
    if (users_ != 0) {
        ready_ = 1;
        errno = EBUSY;
        return EN_ERROR;
    }
    return ToolMutexDestroy(&mutex_);
}

int LogMutex::Lock() {
    ++users_;
    if (ready_ == 0) {
        --users_;
        errno = EINVAL;
        return EN_ERROR;
    }
    const int result = ToolMutexLock(&mutex_);
    if (result != EN_OK) {
        --users_;
    }
    return result;
}

int LogMutex::Unlock() {
    const int result = ToolMutexUnLock(&mutex_);
    --users_;
    return result;
}

LogLock::LogLock(LogMutex& mutex) : mutex_(&mutex) {
    if (mutex_->Lock() != EN_OK) {
        SELF_LOG_WARN("can not lock, strerr=%s", SelfLogErrorText());
        mutex_ = nullptr;
    }
}

LogLock::~LogLock() {
    if (mutex_ != nullptr && mutex_->Unlock() != EN_OK) {
        SELF_LOG_WARN("can not unlock, strerr=%s", SelfLogErrorText());
    }
}

}  // namespace orla
