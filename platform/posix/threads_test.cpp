// Threads: how they are made, and their names.
#include <sched.h>

#include <algorithm>
#include <cerrno>

#include "fixtures_test.h"

namespace {

// What a thread found out about itself.
struct Seen {
    size_t stack;
    int detached, policy;
    mmSem_t told;
};

void* Look(void* argument) {
    auto* seen = static_cast<Seen*>(argument);
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &seen->stack);
    pthread_attr_getdetachstate(&attributes, &seen->detached);
    pthread_attr_destroy(&attributes);
    seen->policy = sched_getscheduler(0);
    mmSemPost(&seen->told);
    return nullptr;
}

TEST(Threads, AreMadeAsAskedForOrNotAtAll) {
    const auto least = static_cast<size_t>(sysconf(_SC_THREAD_STACK_MIN));
    const struct {
        mmThreadAttr attributes;
        size_t stack;  // at least
        int error;
    } cases[] = {
        {{0, 0, 0, 0, 0, 1, 131072}, 131072, 0},   {{1, 0, 0, 0, 0, 1, 3 << 20}, 3 << 20, 0},
        {{0, 0, 0, 0, 0, 1, 0}, least, 0},         {{0, 0, 0, 0, 0, 0, 9}, 1 << 20, 0},
        {{0, 1, 1, 1, SCHED_RR, 0, 0}, 0, EPERM},  // or granted, to a mighty user
        {{0, 1, 0, 1, SCHED_RR, 0, 0}, 0, EINVAL}, {{0, 1, 5, 0, 0, 0, 0}, 0, EINVAL},
        {{0, 0, 0, 1, 99, 0, 0}, 0, EINVAL}};
    for (const auto& one : cases) {
        Seen seen{};
        ASSERT_EQ(mmSemInit(&seen.told, 0), EN_OK);
        const mmUserBlock_t body{Look, &seen};
        mmThread thread = 1;
        if (mmCreateTaskWithThreadAttr(&thread, &body, &one.attributes) != EN_OK) {
            EXPECT_EQ(errno, one.error);
            EXPECT_EQ(thread, 0u);
            continue;
        }
        while (mmSemWait(&seen.told) != EN_OK) {
        }
        EXPECT_NE(one.error, EINVAL);
        EXPECT_GE(seen.stack, one.stack);
        // Sanitized builds take eight times as much, or what their runtime insists on.
        EXPECT_TRUE(one.attributes.stackFlag == 0 ||
                    seen.stack <= std::max<size_t>(one.stack * 8, 2 << 20));
        EXPECT_EQ(seen.detached == PTHREAD_CREATE_DETACHED, one.attributes.detachFlag == 1);
        EXPECT_EQ(seen.policy, one.attributes.policy);
        EXPECT_EQ(one.attributes.detachFlag == 1 ? EN_OK : mmJoinTask(&thread), EN_OK);
        EXPECT_EQ(thread == 0, one.attributes.detachFlag == 0);
    }
    mmThread thread = 1;
    const mmUserBlock_t empty{nullptr, nullptr};
    EXPECT_EQ(mmCreateTaskWithDetach(&thread, &empty), EN_INVALID_PARAM);
    EXPECT_EQ(mmJoinTask(&thread), EN_INVALID_PARAM);
}

}  // namespace
