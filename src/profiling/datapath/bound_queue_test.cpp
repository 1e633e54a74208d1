#include "profiling/datapath/bound_queue.h"

#include <gmock/gmock.h>

#include <map>
#include <memory>

#include "profiling/datapath/thread_test_support.h"

namespace analysis::nedra::common::queue {
namespace {

using orla::test::LogCapture;
using orla::test::WaitFor;
using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

// Waits until `count` lines since the last Take are `text`.
bool WaitForLines(const std::string& text, int count) {
    return WaitFor([&] {
        const auto lines = orla::control::CapturedLines();
        return std::count_if(lines.begin(), lines.end(), [&](const orla::control::LogLine& line) {
                   return line.text.find(text) != std::string::npos;
               }) >= count;
    });
}

TEST(BoundQueue, AFullQueueHoldsItsProducerUntilThereIsRoom) {
    for (const bool quits : {false, true}) {
        LogCapture log;
        BoundQueue<int> queue(1);
        queue.SetQueueName("Name");
        queue.SetQueueName("");
        ASSERT_TRUE(queue.Push(1));
        EXPECT_THAT(log.Take(), IsEmpty());
        std::atomic<int> pushed{-1};
        std::thread producer([&] { pushed = queue.Push(2) ? 1 : 0; });
        // A Push that has found the queue full twice is asleep.
        ASSERT_TRUE(WaitForLines("IsFULL, QueueName: Name, QueueCapacity:1, QueueSize:1", 2));
        EXPECT_EQ(-1, pushed);
        int popped = 0;
        if (quits) {
            queue.Quit();
        } else {
            EXPECT_TRUE(queue.TryPop(popped));
        }
        producer.join();
        EXPECT_EQ(quits ? 0 : 1, pushed);
        EXPECT_EQ(1u, queue.Size());
        EXPECT_TRUE(queue.TryPop(popped));
        EXPECT_EQ(quits ? 1 : 2, popped);
    }
}

TEST(BoundQueue, QuitRefusesPushesAndLeavesWhatIsQueued) {
    BoundQueue<std::shared_ptr<int>> queue(4);
    ASSERT_TRUE(queue.Push(std::make_shared<int>(1)));
    ASSERT_TRUE(queue.Push(std::make_shared<int>(2)));
    queue.Quit();
    queue.Quit();
    const auto refused = std::make_shared<int>(3);
    EXPECT_FALSE(queue.Push(refused));
    EXPECT_EQ(1, refused.use_count()) << "what was refused is still held";
    std::shared_ptr<int> out;
    EXPECT_TRUE(queue.TryPop(out));
    EXPECT_EQ(1, *out);
    queue.Pop(out);
    EXPECT_EQ(2, *out);
    out.reset();
    queue.Pop(out);
    EXPECT_EQ(nullptr, out);
    EXPECT_FALSE(queue.TryPop(out));
}

TEST(BoundQueue, EveryFiveHundredthPushReports) {
    LogCapture log;
    BoundQueue<int> queue(3);
    queue.SetQueueName("Q");
    int out = 0;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(queue.Push(i));
    }
    ASSERT_TRUE(queue.Push(2) && queue.TryPop(out) && queue.TryPop(out));
    for (int i = 3; i < 500; ++i) {
        EXPECT_THAT(log.Take(), IsEmpty()) << i;
        ASSERT_TRUE(queue.Push(i) && queue.TryPop(out));
    }
    EXPECT_THAT(log.Take(), ElementsAre("I QueueName: Q, QueueCapacity:3, QueueSize:1, "
                                        "HisMaxCut:2, Percent:33.3333%"));
    ASSERT_TRUE(queue.TryPop(out));
    for (int i = 0; i < 500; ++i) {
        EXPECT_THAT(log.Take(), IsEmpty()) << i;
        ASSERT_TRUE(queue.Push(i) && queue.TryPop(out));
    }
    EXPECT_THAT(log.Take(), ElementsAre("I QueueName: Q, QueueCapacity:3, QueueSize:0, "
                                        "HisMaxCut:2, Percent:0.0000 %"));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(queue.Push(i));
    }
    queue.Quit();
    EXPECT_FALSE(queue.Push(4));
    EXPECT_EQ("W QueueFull,QueueName: Q, QueueCapacity:3, QueueSize:3, Percent:100.0000%",
              log.Take().at(1));
}

TEST(BoundQueue, WithoutCapacityNothingGetsInAndNothingIsDivided) {
    LogCapture log;
    BoundQueue<int> queue(0);
    queue.Quit();
    for (int i = 0; i < 500; ++i) {
        EXPECT_FALSE(queue.Push(i));
    }
    for (const std::string& line : log.Take()) {
        EXPECT_EQ("W IsFULL, QueueName: , QueueCapacity:0, QueueSize:0", line);
    }
}

// Producers push numbers that tell where they come from, consumers collect them, and somebody
// quits when a given number of elements has come through.
struct Traffic {
    static constexpr int kProducers = 4;
    static constexpr int kConsumers = 3;
    static constexpr int kEach = 300;

    explicit Traffic(int quitAt) : quitAfter(quitAt) {}

    void Produce(int producer) {
        for (int i = 0; i < kEach && queue.Push(producer * kEach + i); ++i) {
            ++accepted;
        }
        if (++finished == kProducers) {
            queue.Quit();
        }
    }

    void Consume(std::vector<int>& mine) {
        for (;;) {
            int element = -1;
            if (!queue.TryPop(element)) {
                queue.Pop(element);
            }
            if (element < 0) {
                return;
            }
            mine.push_back(element);
            if (++popped == quitAfter) {
                queue.Quit();
            }
        }
    }

    void Run() {
        std::vector<std::thread> threads;
        for (int i = 0; i < kProducers; ++i) {
            threads.emplace_back([this, i] { Produce(i); });
        }
        for (auto& mine : taken) {
            threads.emplace_back([this, &mine] { Consume(mine); });
        }
        if (quitAfter == 0) {
            queue.Quit();
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    const int quitAfter;
    BoundQueue<int> queue{8};
    std::atomic<int> accepted{0};
    std::atomic<int> popped{0};
    std::atomic<int> finished{0};
    std::vector<int> taken[kConsumers];
};

TEST(BoundQueue, LosesAndDoublesNothingWhereverItQuits) {
    constexpr int kAll = Traffic::kProducers * Traffic::kEach;
    for (const int quitAfter : {0, 1, 2, 7, 8, 9, 100, 501, kAll - 9, kAll - 1, kAll, kAll + 1}) {
        Traffic traffic(quitAfter);
        traffic.Run();
        std::vector<int> seen(kAll, 0);
        int sum = 0;
        for (const auto& mine : traffic.taken) {
            std::map<int, int> last;
            for (const int element : mine) {
                ++seen[static_cast<size_t>(element)];
                ++sum;
                const auto [before, isFirst] = last.emplace(element / Traffic::kEach, element);
                EXPECT_TRUE(isFirst || before->second < element) << "out of order";
                before->second = element;
            }
        }
        EXPECT_EQ(traffic.accepted, sum) << quitAfter;
        EXPECT_EQ(0u, traffic.queue.Size()) << quitAfter;
        EXPECT_EQ(0, std::count_if(seen.begin(), seen.end(), [](int n) { return n > 1; }));
        EXPECT_TRUE(quitAfter < kAll || sum == kAll) << quitAfter;
    }
}

}  // namespace
}  // namespace analysis::nedra::common::queue
