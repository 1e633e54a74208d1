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
    if (ready_ == 0) {
        return EN_OK;
    }
    const int result = ToolMutexDestroy(&mutex_);
    ready_ = result == EN_OK ? 0 : 1;
    return result;
}

int LogMutex::Lock() {
    if (ready_ == 0) {
        errno = EINVAL;
        return EN_ERROR;
    }
    return ToolMutexLock(&mutex_);
}

int LogMutex::Unlock() {
    return ToolMutexUnLock(&mutex_);
}

LogLock::LogLock(LogMutex& mutex) : mutex_(&mutex) {
    if (mutex_->Lock() != EN_OK) {
        SELF_LOG_WARN("can not lock, strerr=%s", SelfLogErrorText());
        mutex_ = nullptr;
    }
}

void LogLock::Release() {
    if (mutex_ != nullptr && mutex_->Unlock() != EN_OK) {
        SELF_LOG_WARN("can not unlock, strerr=%s", SelfLogErrorText());
    }
    mutex_ = nullptr;
}

}  // namespace orla
