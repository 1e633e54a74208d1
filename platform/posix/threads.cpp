// Threads of <portability.h>.
#include <portability.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "results.h"

using orla::posix::FromError;

namespace {

#if defined(__has_feature)
#define ORLA_BUILT_WITH(sanitizer) __has_feature(sanitizer)
#else
#define ORLA_BUILT_WITH(sanitizer) 0
#endif

// Under the address sanitizer the same work was seen to take up to five times the stack, for the
// red zones around every local. The thread sanitizer hardly widens frames, but its runtime may
// keep some 770 KiB of a thread's state in the thread's own stack area. Eight times 128 KiB
// leaves either more room than the plain build has.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    ORLA_BUILT_WITH(address_sanitizer) || ORLA_BUILT_WITH(thread_sanitizer)
constexpr size_t kStackFactor = 8;
#else
constexpr size_t kStackFactor = 1;
#endif

constexpr int32_t kOn = 1;
constexpr size_t kNameSize = 16;  // the kernel's, terminating zero included

// A pthread attribute object for as long as a thread is being made.
class Attributes {
public:
    Attributes() : error_(pthread_attr_init(&value_)), made_(error_ == 0) {}
    ~Attributes() {
        if (made_) {
            pthread_attr_destroy(&value_);
        }
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    // Takes over what is turned on. 0, or the error number of the first item refused.
    [[nodiscard]] int Set(const mmThreadAttr& wanted) {
        if (wanted.detachFlag == kOn) {
            Try([&] { return pthread_attr_setdetachstate(&value_, PTHREAD_CREATE_DETACHED); });
        }
        if (wanted.policyFlag == kOn || wanted.priorityFlag == kOn) {
            // Otherwise the creator's scheduling is inherited and the two below are ignored.
            Try([&] { return pthread_attr_setinheritsched(&value_, PTHREAD_EXPLICIT_SCHED); });
        }
        if (wanted.policyFlag == kOn) {
            Try([&] { return pthread_attr_setschedpolicy(&value_, wanted.policy); });
        }
        if (wanted.priorityFlag == kOn) {
            sched_param parameters{};
            parameters.sched_priority = wanted.priority;
            Try([&] { return pthread_attr_setschedparam(&value_, &parameters); });
        }
        if (wanted.stackFlag == kOn) {
            const auto least = static_cast<size_t>(sysconf(_SC_THREAD_STACK_MIN));
            const size_t size = std::max<size_t>(wanted.stackSize, least) * kStackFactor;
            Try([&] { return pthread_attr_setstacksize(&value_, size); });
        }
        return error_;
    }

    const pthread_attr_t* get() const { return &value_; }

private:
    template <typename Call>
    void Try(Call call) {
        if (error_ == 0) {
            error_ = call();
        }
    }

    pthread_attr_t value_;
    int error_;
    bool made_;
};

int32_t SetName(pthread_t thread, const char* name) {
    if (name == nullptr) {
        return EN_INVALID_PARAM;
    }
    char cut[kNameSize] = {};
    strncpy(cut, name, kNameSize - 1);
    return FromError(pthread_setname_np(thread, cut));
}

}  // namespace

int32_t mmCreateTaskWithThreadAttr(mmThread* handle, const mmUserBlock_t* routine,
                                   const mmThreadAttr* attributes) {
    if (handle == nullptr) {
        return EN_INVALID_PARAM;
    }
    *handle = 0;
    if (routine == nullptr || routine->procFunc == nullptr || attributes == nullptr) {
        return EN_INVALID_PARAM;
    }
    Attributes made;
    int error = made.Set(*attributes);
    if (error == 0) {
        error = pthread_create(handle, made.get(), routine->procFunc, routine->pulArg);
    }
    if (error != 0) {
        *handle = 0;  // what pthread_create leaves there on failure is undefined
    }
    return FromError(error);
}

int32_t mmCreateTaskWithDetach(mmThread* handle, const mmUserBlock_t* routine) {
    mmThreadAttr attributes{};
    attributes.detachFlag = kOn;
    return mmCreateTaskWithThreadAttr(handle, routine, &attributes);
}

int32_t mmJoinTask(mmThread* handle) {
    if (handle == nullptr || *handle == 0) {
        return EN_INVALID_PARAM;
    }
    const int32_t result = FromError(pthread_join(*handle, nullptr));
    if (result == EN_OK) {
        *handle = 0;
    }
    return result;
}

int32_t mmSetThreadName(mmThread* handle, const char* name) {
    if (handle == nullptr || *handle == 0) {
        return EN_INVALID_PARAM;
    }
    return SetName(*handle, name);
}

int32_t mmSetCurrentThreadName(const char* name) {
    return SetName(pthread_self(), name);
}

int32_t mmGetTid(void) {
    return gettid();
}

int32_t mmGetPid(void) {
    return getpid();
}
