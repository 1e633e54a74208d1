#include "profiling/datapath/bound_queue.h"

#include <gmock/gmock.h>

#include <set>

#include "profiling/datapath/thread_test_support.h"

namespace analysis::nedra::common::queue {
namespace {

using orla::test::LogCapture;
using testing::ElementsAre;

TEST(BoundQueue, AFullQueueHoldsItsProducerUntilThereIsRoom) {
    for (const bool quits : {false, true}) {
        LogCapture log;
        BoundQueue<int> queue(1);
        queue.SetQueueName("Q");
        queue.SetQueueName("");
        ASSERT_TRUE(queue.Push(1));
        std::atomic<int> pushed{-1};
        std::thread producer([&] { pushed = queue.Push(2) ? 1 : 0; });
        // Full for the warning and for the wait: the producer is asleep.
        const std::string full = "W IsFULL, QueueName: Q, QueueCapacity:1, QueueSize:1";
        ASSERT_TRUE(orla::test::WaitFor([] { return orla::control::CapturedLines().size() == 3; }));
        EXPECT_THAT(log.Take(), ElementsAre(full,
                                            "W QueueFull,QueueName: Q, QueueCapacity:1, "
                                            "QueueSize:1, Percent:100.0000%",
                                            full));
        EXPECT_EQ(-1, pushed);
        int popped = 0;
        if (quits) {
            queue.Quit();
        } else {
            EXPECT_TRUE(queue.TryPop(popped));
        }
        producer.join();
        EXPECT_EQ(quits ? 0 : 1, pushed);
        EXPECT_TRUE(queue.TryPop(popped));
        EXPECT_EQ(quits ? 1 : 2, popped);
        EXPECT_EQ(0u, queue.Size());
    }
}

TEST(BoundQueue, EveryFiveHundredthPushReports) {
    LogCapture log;
    BoundQueue<int> queue(3);
    queue.SetQueueName("Q");
    int out = 0;
    ASSERT_TRUE(queue.Push(1) && queue.Push(2) && queue.Push(3));
    ASSERT_TRUE(queue.TryPop(out) && queue.TryPop(out));
    for (int i = 3; i < 500; ++i) {
        EXPECT_THAT(log.Take(), ElementsAre()) << i;
        ASSERT_TRUE(queue.Push(i) && queue.TryPop(out));
    }
    EXPECT_THAT(log.Take(), ElementsAre("I QueueName: Q, QueueCapacity:3, QueueSize:1, "
                                        "HisMaxCut:2, Percent:33.3333%"));
}

TEST(BoundQueue, WhatFailsToGoInTakesNoRoom) {
    struct Element {
        explicit Element(bool breaks) : isBreaking(breaks) {}
        Element(Element&& other) : isBreaking(other.isBreaking) {
            if (isBreaking) {
                throw std::bad_alloc();
            }
        }
        Element& operator=(Element&&) = default;
        bool isBreaking;
    };
    struct Queue : BoundQueue<Element> {
        using BoundQueue::BoundQueue;
        bool Admit(const Element& /*element*/) override { return ++held < 3; }
        void Leave(const Element& /*element*/) override { --held; }
        int held = 0;
    };
    Queue queue(4);
    for (int i = 0; i < 3; ++i) {
        Element element(true);
        EXPECT_THROW(static_cast<void>(queue.TryPush(element)), std::bad_alloc);
        EXPECT_EQ(queue.held, 0);
    }
    Element element(false);
    EXPECT_EQ(queue.TryPush(element), Queue::Entry::kIn);
    EXPECT_EQ(queue.held, 1);
}

// Four producers push numbers that tell where they come from, three consumers take them, and
// somebody quits after a given number of pops. What was accepted must come out, once, and in the
// order of its producer.
TEST(BoundQueue, LosesAndDoublesNothingWhereverItQuits) {
    constexpr int kEach = 300;
    constexpr int kAll = 4 * kEach;
    for (const int quitAfter : {1, 2, 7, 8, 9, 100, 501, kAll - 9, kAll - 1, kAll}) {
        BoundQueue<int> queue(8);
        std::atomic<int> accepted{0};
        std::atomic<int> popped{0};
        std::vector<int> taken[3];
        std::vector<std::thread> threads;
        for (int first = 0; first < kAll; first += kEach) {
            threads.emplace_back([&, first] {
                for (int i = 0; i < kEach && queue.Push(first + i); ++i) {
                    ++accepted;
                }
            });
        }
        for (auto& mine : taken) {
            threads.emplace_back([&] {
                for (int element = 0; element >= 0; mine.push_back(element)) {
                    element = -1;
                    queue.Pop(element);
                    if (element >= 0 && ++popped == quitAfter) {
                        queue.Quit();
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        std::set<int> all;
        for (auto& mine : taken) {
            mine.pop_back();  // the -1 of the end
            all.insert(mine.begin(), mine.end());
            for (int first = 0; first < kAll; first += kEach) {
                int last = -1;
                for (const int element : mine) {
                    if (element >= first && element < first + kEach) {
                        EXPECT_LT(last, element) << "out of order";
                        last = element;
                    }
                }
            }
        }
        EXPECT_EQ(accepted, popped) << quitAfter;
        EXPECT_EQ(static_cast<size_t>(popped), all.size()) << quitAfter;
        EXPECT_GE(accepted, quitAfter);
    }
}

}  // namespace
}  // namespace analysis::nedra::common::queue
