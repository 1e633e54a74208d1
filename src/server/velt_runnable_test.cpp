#include "server/velt_runnable.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "server/velt_bound_queue.h"

namespace Velt {
namespace {

class Looper : public Runnable {
public:
    ~Looper() override { Stop(); }
    void Run() override {
        ++runs;
        while (!IsQuit()) {
            mmSleep(1);
        }
    }
    using Runnable::RefuseStart;

    std::atomic<int> runs{0};
};

TEST(Runnable, StopsAndStartsAgain) {
    Looper looper;
    EXPECT_EQ(0, looper.Stop());
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0, looper.Start());
        EXPECT_EQ(-1, looper.Start());
        EXPECT_EQ(0, looper.Stop());
        EXPECT_EQ(i + 1, looper.runs.load());
    }
    looper.RefuseStart();
    EXPECT_EQ(-1, looper.Start());
}

// Whoever joins, all who wait return, and the thread is joined once.
TEST(Runnable, ManyMayWaitForTheEnd) {
    Looper looper;
    ASSERT_EQ(0, looper.Start());
    std::vector<std::future<void>> waiting;
    for (int i = 0; i < 4; ++i) {
        waiting.push_back(std::async(std::launch::async, [&looper, i] {
            i % 2 == 0 ? looper.Join() : static_cast<void>(looper.Stop());
        }));
    }
    for (auto& one : waiting) {
        one.get();
    }
    EXPECT_EQ(0, looper.Start());
}

TEST(BoundQueue, QuitReleasesWhoeverWaits) {
    BoundQueue<unsigned long> full(1);
    ASSERT_TRUE(full.Push(7));
    auto pusher = std::async(std::launch::async, [&full] { return full.Push(8); });
    BoundQueue<unsigned long> empty(1);
    unsigned long untouched = 5;
    auto popper = std::async(std::launch::async, [&] { return empty.Pop(untouched); });
    full.Quit();
    empty.Quit();
    EXPECT_FALSE(pusher.get());
    EXPECT_FALSE(popper.get());
    EXPECT_EQ(5u, untouched);
    unsigned long left = 0;
    EXPECT_TRUE(full.Pop(left));
    EXPECT_EQ(7u, left);
    EXPECT_FALSE(full.Pop(left));
}

TEST(BoundQueue, KeepsTheOrderAcrossAFullQueue) {
    BoundQueue<unsigned long> queue(2);
    auto pusher = std::async(std::launch::async, [&queue] {
        bool all = true;
        for (unsigned long i = 0; i < 1000; ++i) {
            all = queue.Push(i) && all;
        }
        return all;
    });
    for (unsigned long i = 0; i < 1000; ++i) {
        unsigned long value = 0;
        ASSERT_TRUE(queue.Pop(value));
        ASSERT_EQ(i, value);
    }
    EXPECT_TRUE(pusher.get());
}

}  // namespace
}  // namespace Velt
