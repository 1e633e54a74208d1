// A mutex of the log side with a life of its own: made by Init, gone after Destroy. Before and
// after, locking is refused with EINVAL instead of being undefined, because requests may still
// be in flight when their component ends. Init and Destroy are called by one thread (start and
// end of the component), the others by any.
#pragma once

#include <portability.h>

#include <atomic>
#include <cstdint>

namespace orla {

class LogMutex {
public:
    // 0 at once when it exists already. -1 with errno on failure.
    [[nodiscard]] int Init();
    // A mutex that is held or waited for is left alive, with EBUSY.
    int Destroy();
    [[nodiscard]] int Lock();
    [[nodiscard]] int Unlock();

private:
    mmMutex_t mutex_{};
    std::atomic<uint32_t> ready_{0};
    std::atomic<uint32_t> users_{0};  // threads that hold it, wait for it or are about to
};

// Holds a LogMutex for a scope. A failure to lock costs a warning only: a
// reply that may be mixed up is worth more to the user than none. What was not locked is not
// released.
class LogLock {
public:
    explicit LogLock(LogMutex& mutex);
    ~LogLock();
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;

private:
    LogMutex* mutex_;  // null when not held
};

}  // namespace orla
