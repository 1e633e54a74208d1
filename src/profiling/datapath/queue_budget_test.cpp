#include "profiling/datapath/queue_budget.h"

#include <gtest/gtest.h>

namespace analysis::nedra::transport {
namespace {

using Share = QueueBudget::Share;

int Fill(Share& share, size_t bytes) {
    int count = 0;
    while (share.TryTake(bytes)) {
        ++count;
    }
    return count;
}

TEST(QueueBudget, AShareGrowsToWhatTheOthersLeaveFree) {
    const auto budget = std::make_shared<QueueBudget>(120);
    Share first(budget);
    EXPECT_EQ(60, Fill(first, 1));
    {
        Share second(budget);
        EXPECT_EQ(30, Fill(second, 1));
        Share third(budget);
        EXPECT_EQ(15, Fill(third, 1));
        EXPECT_EQ(105u, budget->used());
        Share large(budget);
        EXPECT_TRUE(large.TryTake(1000)) << "its queue is empty";
        EXPECT_FALSE(large.TryTake(1));
        EXPECT_FALSE(first.TryTake(1));
    }
    EXPECT_EQ(60u, budget->used());
    first.Give(60);
    EXPECT_EQ(60, Fill(first, 1));
}

TEST(QueueBudget, FindsTheLimitOfItsControlGroup) {
    const struct {
        const char* text;
        const char* path;
    } groups[] = {
        {"0::/system.slice/agent.service\n", "/system.slice/agent.service"},
        {"12:cpu:/a\n4:memory:/b/c\n0::/d\n", "/b/c"},
        {"0::/\n", ""},
        {"", ""},
        {"nonsense\n:\n1:memory\n0::relative\n", ""},
    };
    for (const auto& group : groups) {
        EXPECT_EQ(group.path, MemoryGroupPath(group.text)) << group.text;
    }
    EXPECT_EQ(536870912u, MemoryLimitOf("536870912\n"));
    for (const char* none : {"max\n", "", "-1", "99999999999999999999999"}) {
        EXPECT_EQ(0u, MemoryLimitOf(none)) << none;
    }
    EXPECT_GE(QueueBudget::LimitOfProcess(), size_t{64} << 20);
}

}  // namespace
}  // namespace analysis::nedra::transport
