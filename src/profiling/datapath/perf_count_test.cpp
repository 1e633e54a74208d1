#include "profiling/datapath/perf_count.h"

#include <gmock/gmock.h>

#include "hdc/test_support.h"

namespace Analysis::Nedra::Common::Statistics {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kMs = 1000000;

TEST(PerfCount, PrintsSumsOnceTheyMakeAMillisecondAndStartsAnewAtItsFrequency) {
    orla::test::LogCapture log;
    PerfCount counter("Name", 4);
    counter.OutPerfInfo("");
    counter.UpdatePerfInfo(5, 5, 10);
    counter.UpdatePerfInfo(0, kMs - 1, 20);
    counter.OutPerfInfo("");
    EXPECT_THAT(log.Take(), ElementsAre());
    counter.UpdatePerfInfo(7, 6, 1000);
    counter.UpdatePerfInfo(UINT64_MAX - 2 * kMs, UINT64_MAX, 5);
    counter.OutPerfInfo("Tag");
    EXPECT_THAT(
        log.Take(),
        ElementsAre("E [UpdatePerfInfo] startTime:7 is larger than endTime:6",
                    "I moduleName: Tag, overhead Min: 0 ns, overhead Max: 2000000 ns, overhead "
                    "Avg: 999999 ns,overhead Sum_: 2999999 ns, package nums: 3, package size: 35, "
                    "throughput: 17.1 B/ms",
                    "I moduleName: Tag, overHeadWaiterLine: 0, exceedWaterLineCounter: 2"));
    for (int i = 0; i < 5; ++i) {
        counter.UpdatePerfInfo(1, 1 + kMs, 1);
    }
    EXPECT_THAT(log.Take(), ElementsAre(HasSubstr("Name, overhead Min: 0 ns"), testing::_,
                                        HasSubstr("Min: 1000000 ns, overhead Max: 1000000 ns"),
                                        HasSubstr("exceedWaterLineCounter: 4")));
}

}  // namespace
}  // namespace Analysis::Nedra::Common::Statistics
