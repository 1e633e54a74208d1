// How long an operation takes and how many bytes it moves, summed up and written to the log: it
// tells from the log alone how fast a channel or a transport ran. Any thread; one mutex guards
// everything but the name and the frequency, which are constant.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace Analysis::Nedra::Common::Statistics {

class PerfCount {
public:
    // `printFrequency` in updates: after that many the sums are printed and start anew. 0: they
    // are only printed when asked for.
    explicit PerfCount(const std::string& name, uint64_t printFrequency = 0);

    // One operation from `startNs` to `endNs` that moved `size` bytes. One that ends before it
    // starts is refused with a log line.
    void UpdatePerfInfo(uint64_t startNs, uint64_t endNs, uint64_t size);
    // Prints the sums, which go on, under the name `tag`; under that of the counter when empty.
    // Nothing is printed as long as all durations together make less than 1 ms.
    void OutPerfInfo(const std::string& tag);

private:
    using Number = unsigned long long;
    static_assert(sizeof(Number) == sizeof(uint64_t), "the log lines print 64 bits");

    struct Sums {
        Number overheadMin = ~Number{0};  // ns, as the next two
        Number overheadMax = 0;
        Number overheadSum = 0;
        Number packetNums = 0;
        Number firstStart = 0;
        Number lastEnd = 0;
        Number packetSize = 0;  // bytes
        Number exceedWaterLineCounter = 0;
    };

    // With the lock held.
    void Print(const std::string& name) const;

    const std::string moduleName_;
    const uint64_t printFrequency_;
    const Number overHeadWaterLine_ = 0;  // ns

    std::mutex mutex_;
    Sums sums_;  // guarded by mutex_
};

}  // namespace Analysis::Nedra::Common::Statistics
