#include "profiling/datapath/perf_count.h"

#include <gmock/gmock.h>

#include <thread>

#include "hdc/test_support.h"
#include "profiling/datapath/chunk.h"

namespace Analysis::Nedra::Common::Statistics {
namespace {

using orla::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t kMs = 1000000;

TEST(PerfCount, PrintsSumsOnceTheyMakeAMillisecond) {
    LogCapture log;
    PerfCount counter("Name");
    counter.OutPerfInfo("");
    counter.UpdatePerfInfo(5, 5, 10);
    counter.UpdatePerfInfo(0, kMs - 1, 20);
    counter.OutPerfInfo("");
    EXPECT_THAT(log.Take(), IsEmpty());
    counter.UpdatePerfInfo(7, 6, 1000);
    EXPECT_THAT(log.Take(), ElementsAre("E [UpdatePerfInfo] startTime:7 is larger than endTime:6"));
    counter.UpdatePerfInfo(UINT64_MAX - 2 * kMs, UINT64_MAX, 5);
    for (const char* tag : {"", "Tag"}) {
        counter.OutPerfInfo(tag);
        const std::string name = *tag == '\0' ? "Name" : tag;
        EXPECT_THAT(
            log.Take(),
            ElementsAre(
                "I moduleName: " + name +
                    ", overhead Min: 0 ns, overhead Max: 2000000 ns, overhead Avg: 999999 "
                    "ns,overhead Sum_: 2999999 ns, package nums: 3, package size: 35, "
                    "throughput: 17.1 B/ms",
                "I moduleName: " + name + ", overHeadWaiterLine: 0, exceedWaterLineCounter: 2"));
    }
}

TEST(PerfCount, PrintsAtItsFrequencyAndStartsAnew) {
    LogCapture log;
    PerfCount counter("T", 128);
    for (const uint64_t duration : {kMs, kMs / 128, 3 * kMs}) {
        for (int i = 0; i < 128; ++i) {
            EXPECT_THAT(log.Take(), IsEmpty()) << i;
            counter.UpdatePerfInfo(1, 1 + duration, 1000);
        }
        const auto lines = log.Take();
        if (duration < kMs) {
            EXPECT_THAT(lines, IsEmpty());
            continue;
        }
        ASSERT_EQ(2u, lines.size());
        const std::string ns = std::to_string(duration);
        EXPECT_THAT(lines[0], testing::StartsWith("I moduleName: T, overhead Min: " + ns +
                                                  " ns, overhead Max: " + ns + " ns,"));
        EXPECT_THAT(lines[0], testing::HasSubstr("package nums: 128, package size: 128000,"));
    }
}

TEST(PerfCount, CountsForManyThreads) {
    LogCapture log;
    PerfCount counter("T");
    const auto update = [&] {
        for (int i = 0; i < 1000; ++i) {
            counter.UpdatePerfInfo(0, kMs, 1);
        }
    };
    std::thread other(update);
    update();
    other.join();
    counter.OutPerfInfo("");
    EXPECT_THAT(log.Take().at(0), testing::HasSubstr("package nums: 2000, package size: 2000,"));
}

TEST(Chunk, OwnsItsBytesUntilItGivesThemBack) {
    analysis::nedra::common::memory::Chunk chunk(1000);
    EXPECT_EQ(nullptr, chunk.GetBuffer());
    ASSERT_TRUE(chunk.Init());
    EXPECT_EQ(std::string(1000, '\0'), std::string(chunk.GetBuffer(), 1000));
    chunk.SetUsedSize(400);
    EXPECT_EQ(600u, chunk.GetFreeSize());
    chunk.Uninit();
    EXPECT_EQ(nullptr, chunk.GetBuffer());
    EXPECT_EQ(0u, chunk.GetFreeSize() | chunk.GetBufferSize() | chunk.GetUsedSize());
    EXPECT_TRUE(chunk.Init());
    EXPECT_EQ(nullptr, chunk.GetBuffer()) << "it has no size any more";
}

}  // namespace
}  // namespace Analysis::Nedra::Common::Statistics
