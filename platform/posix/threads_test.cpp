// Threads, mutexes and semaphores.
#include <limits.h>
#include <portability.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "fixtures_test.h"

namespace {

// What a thread found out about itself.
struct Seen {
    size_t stack = 0;
    int detached = -1;
    int policy = -1;
    mmSem_t told{};
};

void* Look(void* argument) {
    auto* seen = static_cast<Seen*>(argument);
    pthread_attr_t attributes;
    void* lowest = nullptr;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &lowest, &seen->stack);
    pthread_attr_getdetachstate(&attributes, &seen->detached);
    pthread_attr_destroy(&attributes);
    seen->policy = sched_getscheduler(0);
    mmSemPost(&seen->told);
    return nullptr;
}

TEST(Threads, GetTheStackAskedForAndEndDetachedWhenTold) {
    const auto least = static_cast<size_t>(sysconf(_SC_THREAD_STACK_MIN));
    const struct {
        mmThreadAttr attributes;
        size_t least;
    } cases[] = {{{0, 0, 0, 0, 0, 1, 131072}, 131072},
                 {{0, 0, 0, 0, 0, 1, 3 << 20}, 3 << 20},
                 {{0, 0, 0, 0, 0, 1, 0}, least},
                 {{0, 0, 0, 0, 0, 0, 131072}, 1 << 20},  // the system's default
                 {{1, 0, 0, 0, 0, 1, 131072}, 131072}};
    for (const auto& one : cases) {
        Seen seen;
        ASSERT_EQ(mmSemInit(&seen.told, 0), EN_OK);
        const mmUserBlock_t body{Look, &seen};
        mmThread thread = 0;
        ASSERT_EQ(mmCreateTaskWithThreadAttr(&thread, &body, &one.attributes), EN_OK);
        EXPECT_NE(thread, 0u);
        while (mmSemWait(&seen.told) != EN_OK) {
        }
        EXPECT_GE(seen.stack, one.least);
        // Not rounded up to some default either; sanitized builds take up to eight times as much,
        // or what their runtime insists on.
        if (one.attributes.stackFlag == 1) {
            EXPECT_LE(seen.stack, std::max<size_t>(one.least * 8, 2 << 20));
        }
        EXPECT_EQ(seen.detached, one.attributes.detachFlag == 1 ? PTHREAD_CREATE_DETACHED
                                                                : PTHREAD_CREATE_JOINABLE);
        if (one.attributes.detachFlag == 0) {
            EXPECT_EQ(mmJoinTask(&thread), EN_OK);
            EXPECT_EQ(thread, 0u);
            EXPECT_EQ(mmJoinTask(&thread), EN_INVALID_PARAM);
        }
    }
}

TEST(Threads, ARealTimePolicyIsGivenOrRefusedButNeverForgotten) {
    Seen seen;
    ASSERT_EQ(mmSemInit(&seen.told, 0), EN_OK);
    const mmUserBlock_t body{Look, &seen};
    const mmThreadAttr attributes{0, 1, 1, 1, SCHED_RR, 0, 0};
    mmThread thread = 1;
    if (mmCreateTaskWithThreadAttr(&thread, &body, &attributes) != EN_OK) {
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(thread, 0u);
        return;
    }
    ASSERT_EQ(mmJoinTask(&thread), EN_OK);
    EXPECT_EQ(seen.policy, SCHED_RR);
}

TEST(Threads, AFailureGivesNoThread) {
    int runs = 0;
    const mmUserBlock_t body{
        [](void* count) -> void* { return ++*static_cast<int*>(count), nullptr; }, &runs};
    const mmThreadAttr refused[] = {{0, 1, 0, 1, SCHED_FIFO, 0, 0},
                                    {0, 1, 100, 1, SCHED_RR, 0, 0},
                                    {0, 1, 5, 0, 0, 0, 0},
                                    {0, 0, 0, 1, 99, 0, 0}};
    for (const mmThreadAttr& attributes : refused) {
        mmThread thread = 1;
        errno = 0;
        EXPECT_EQ(mmCreateTaskWithThreadAttr(&thread, &body, &attributes), EN_ERROR);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(thread, 0u);
    }
    const mmUserBlock_t empty{nullptr, nullptr};
    const mmThreadAttr plain{};
    mmThread thread = 1;
    EXPECT_EQ(mmCreateTaskWithThreadAttr(nullptr, &body, &plain), EN_INVALID_PARAM);
    EXPECT_EQ(mmCreateTaskWithThreadAttr(&thread, nullptr, &plain), EN_INVALID_PARAM);
    EXPECT_EQ(mmCreateTaskWithThreadAttr(&thread, &body, nullptr), EN_INVALID_PARAM);
    EXPECT_EQ(mmCreateTaskWithDetach(&thread, &empty), EN_INVALID_PARAM);
    EXPECT_EQ(thread, 0u);
    EXPECT_EQ(runs, 0);
}

TEST(Threads, NamesAreCutToWhatTheKernelKeeps) {
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof(name));
    const std::string before = name;
    mmThread self = pthread_self();
    for (const std::string wanted : {"short", "fifteen-letters", "sixteen--letters", ""}) {
        EXPECT_EQ(mmSetThreadName(&self, "other"), EN_OK);
        EXPECT_EQ(mmSetCurrentThreadName(wanted.c_str()), EN_OK);
        ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
        EXPECT_EQ(name, wanted.substr(0, 15));
    }
    EXPECT_EQ(mmSetThreadName(&self, "from-the-outside"), EN_OK);
    ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
    EXPECT_STREQ(name, "from-the-outsid");
    mmThread none = 0;
    EXPECT_EQ(mmSetThreadName(&none, "x"), EN_INVALID_PARAM);
    EXPECT_EQ(mmSetCurrentThreadName(nullptr), EN_INVALID_PARAM);
    mmSetCurrentThreadName(before.c_str());
}

struct Shared {
    mmMutex_t mutex{};
    mmSem_t turns{};
    int count = 0;  // under the mutex
};

void* Add(void* argument) {
    auto* shared = static_cast<Shared*>(argument);
    while (mmSemWait(&shared->turns) != EN_OK) {
    }
    for (int i = 0; i < 10000; ++i) {
        mmMutexLock(&shared->mutex);
        ++shared->count;
        mmMutexUnLock(&shared->mutex);
    }
    return nullptr;
}

TEST(Locks, MutexExcludesAndSemaphoreCounts) {
    Shared shared;
    ASSERT_EQ(mmMutexInit(&shared.mutex), EN_OK);
    ASSERT_EQ(mmSemInit(&shared.turns, 1), EN_OK);
    const mmUserBlock_t body{Add, &shared};
    const mmThreadAttr plain{};
    mmThread threads[3] = {};
    for (mmThread& thread : threads) {
        ASSERT_EQ(mmCreateTaskWithThreadAttr(&thread, &body, &plain), EN_OK);
    }
    EXPECT_EQ(mmSemPost(&shared.turns), EN_OK);
    EXPECT_EQ(mmSemPost(&shared.turns), EN_OK);
    for (mmThread& thread : threads) {
        EXPECT_EQ(mmJoinTask(&thread), EN_OK);
    }
    EXPECT_EQ(shared.count, 30000);
    EXPECT_EQ(mmSemDestroy(&shared.turns), EN_OK);
    EXPECT_EQ(mmMutexDestroy(&shared.mutex), EN_OK);
}

TEST(Locks, FailuresSetErrno) {
    mmSem_t semaphore;
    EXPECT_EQ(mmSemInit(&semaphore, SEM_VALUE_MAX + 1u), EN_ERROR);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(mmSemInit(&semaphore, 0), EN_OK);
    {
        const Interruptions interruptions;
        EXPECT_EQ(mmSemWait(&semaphore), EN_ERROR);
        EXPECT_EQ(errno, EINTR);
    }
    EXPECT_EQ(mmSemDestroy(&semaphore), EN_OK);
    for (const auto call : {mmMutexInit, mmMutexLock, mmMutexUnLock, mmMutexDestroy}) {
        EXPECT_EQ(call(nullptr), EN_INVALID_PARAM);
    }
    for (const auto call : {mmSemWait, mmSemPost, mmSemDestroy}) {
        EXPECT_EQ(call(nullptr), EN_INVALID_PARAM);
    }
#if !defined(__SANITIZE_THREAD__)  // which ends the program at a misuse like this
    mmMutex_t robust;
    pthread_mutexattr_t checking;
    pthread_mutexattr_init(&checking);
    pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&robust, &checking);
    errno = 0;
    EXPECT_EQ(mmMutexUnLock(&robust), EN_ERROR);
    EXPECT_EQ(errno, EPERM);
    pthread_mutex_destroy(&robust);
    pthread_mutexattr_destroy(&checking);
#endif
}

}  // namespace
