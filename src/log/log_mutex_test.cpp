#include "log/log_mutex.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(LogMutex, LivesFromInitToAnUndisturbedDestroy) {
    orla::LogMutex mutex;
    EXPECT_EQ(mutex.Lock(), EN_ERROR);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(mutex.Init(), EN_OK);
    ASSERT_EQ(mutex.Lock(), EN_OK);
    EXPECT_EQ(mutex.Init(), EN_OK);
    EXPECT_EQ(mutex.Destroy(), EN_ERROR);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(mutex.Unlock(), EN_OK);
    EXPECT_EQ(mutex.Lock(), EN_OK) << "still there";
    EXPECT_EQ(mutex.Unlock(), EN_OK);
    EXPECT_EQ(mutex.Destroy(), EN_OK);
    EXPECT_EQ(mutex.Lock(), EN_ERROR);
}

}  // namespace
