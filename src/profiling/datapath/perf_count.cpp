#include "profiling/datapath/perf_count.h"

#include <algorithm>

#include "hdc/log_side.h"

namespace Analysis::Nedra::Common::Statistics {

namespace {

constexpr unsigned long long kNsPerMs = 1000000;

}  // namespace

PerfCount::PerfCount(const std::string& name, uint64_t printFrequency)
    : moduleName_(name), printFrequency_(printFrequency) {}

void PerfCount::UpdatePerfInfo(uint64_t startNs, uint64_t endNs, uint64_t size) {
    if (startNs > endNs) {
        PROF_LOGE("[UpdatePerfInfo] startTime:%llu is larger than endTime:%llu",
                  static_cast<Number>(startNs), static_cast<Number>(endNs));
        return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    sums_.lastEnd = endNs;
    if (sums_.firstStart == 0) {
        sums_.firstStart = startNs;
    }
    const Number duration = endNs - startNs;
    if (duration > overHeadWaterLine_) {
        ++sums_.exceedWaterLineCounter;
    }
    sums_.overheadMin = std::min(sums_.overheadMin, duration);
    sums_.overheadMax = std::max(sums_.overheadMax, duration);
    sums_.overheadSum += duration;
    ++sums_.packetNums;
    sums_.packetSize += size;
    if (printFrequency_ != 0 && sums_.packetNums % printFrequency_ == 0) {
        Print(moduleName_);
        sums_ = Sums{};
    }
}

void PerfCount::OutPerfInfo(const std::string& tag) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Print(tag.empty() ? moduleName_ : tag);
}

void PerfCount::Print(const std::string& name) const {
    const Number ms = sums_.overheadSum / kNsPerMs;
    if (sums_.packetNums == 0 || ms == 0) {
        return;
    }
    PROF_LOGI(
        "moduleName: %s, overhead Min: %llu ns, overhead Max: %llu ns, overhead Avg: %llu "
        "ns,overhead Sum_: %llu ns, package nums: %llu, package size: %llu, throughput: "
        "%llu.%llu B/ms",
        name.c_str(), sums_.overheadMin, sums_.overheadMax, sums_.overheadSum / sums_.packetNums,
        sums_.overheadSum, sums_.packetNums, sums_.packetSize, sums_.packetSize / ms,
        sums_.packetSize % ms);
    PROF_LOGI("moduleName: %s, overHeadWaiterLine: %llu, exceedWaterLineCounter: %llu",
              name.c_str(), overHeadWaterLine_, sums_.exceedWaterLineCounter);
}

}  // namespace Analysis::Nedra::Common::Statistics
