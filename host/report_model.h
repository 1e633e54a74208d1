// What a profile says, from the bytes of its data files: use of the processors by mode, memory,
// what every process took, and how well the sampling went. No I/O: the caller reads each file
// twice, in byte order of the names, first for the span of time and the lives of processes, then
// for the samples. One thread.
//
// A damaged record costs itself: of each file, or life of a process, those records are believed
// whose numbers and times rise.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/report_records.h"
#include "host/report_samples.h"
#include "host/report_series.h"

namespace orla::host {

// How the samples of one kind came, over all files of that kind.
struct SamplingQuality {
    double askedMs = 0;
    uint64_t files = 0;
    uint64_t samples = 0;
    uint64_t damaged = 0;  // records that could not be read
    uint64_t missing = 0;  // records that are not there, by their numbers
    uint64_t intervals = 0;
    double sumMs = 0;
    double longestMs = 0;
    uint64_t gaps = 0;  // intervals of more than one and a half times what was asked for

    double meanMs() const { return intervals > 0 ? sumMs / static_cast<double>(intervals) : 0; }
};

// One life of a process id, from the start of its process to the end; when the id is used again
// that is another life.
struct ProcessReport {
    explicit ProcessReport(const Grid& grid) : cpu(grid), resident(grid) {}

    uint32_t pid = 0;
    std::string name;
    uint64_t firstTime = 0;  // nanoseconds
    uint64_t lastTime = 0;
    double cpuSeconds = 0;
    double cpuPeak = 0;       // percent of one processor, over one interval; the kernel counts in
                              // ticks of 10 ms, so a short interval can show more than there was
    double residentPeak = 0;  // bytes
    double residentLast = 0;  // bytes
    uint64_t threads = 0;
    Series cpu;       // percent of one processor
    Series resident;  // bytes
};

// One processor; busy is what is neither idle nor waiting for a disk.
struct CoreReport {
    explicit CoreReport(const Grid& grid) : busy(grid) {}

    double busyShare() const { return totalTicks > 0 ? 100 * busyTicks / totalTicks : 0; }

    double busyTicks = 0;  // over the whole time
    double totalTicks = 0;
    double busyPeak = 0;  // percent, over one interval
    Series busy;          // percent
};

struct Report {
    explicit Report(const Grid& times) : grid(times) {}
    Report(const Report&) = delete;  // the series know where the grid is
    Report& operator=(const Report&) = delete;

    const Grid grid;
    uint32_t processors = 0;                      // 0: nothing tells
    uint64_t pageSize = 0;                        // bytes of a memory page
    bool isPageSizeKnown = false;                 // the data or the user tells it
    std::array<double, kCpuModes> cpuShare = {};  // percent of all processors, over the whole time
    std::vector<Series> cpu;                      // the same over time, by mode
    std::map<uint32_t, CoreReport> cores;         // by the number of the processor
    MemorySample memoryLast;
    uint64_t memoryUsedPeak = 0;  // bytes
    double memoryUsedMean = 0;
    std::vector<Series> memory;  // bytes: used, cached, free; without what is shared by two
    std::map<SampleKind, SamplingQuality> quality;
    std::vector<ProcessReport> processes;

    double seconds() const;
    // Indices of the processes that took most, the most first.
    [[nodiscard]] std::vector<size_t> BusiestByCpu(size_t count) const;
    [[nodiscard]] std::vector<size_t> BiggestByMemory(size_t count) const;
    // Numbers of the busiest processors, the busiest first.
    [[nodiscard]] std::vector<uint32_t> BusiestCores(size_t count) const;
};

class ReportBuilder {
public:
    struct Options {
        std::map<SampleKind, double> askedMs;
        uint64_t pageSize = 0;  // bytes; 0: as the data tells
    };

    explicit ReportBuilder(Options options) : options_(std::move(options)) {}

    // First pass, each sample file once.
    void Scan(const SampleSource& source, std::string_view bytes);
    // Between the passes.
    void BeginReport();
    // Second pass, each file once.
    void Take(const SampleSource& source, std::string_view bytes);
    // Valid after BeginReport; complete after the second pass.
    Report& report() { return *report_; }

private:
    using Records = std::vector<SampleRecord>;
    struct TimedCpu {
        uint64_t time;
        ProcessCpuSample sample;
    };
    using Samples = std::vector<std::pair<SampleRecord, ProcessCpuSample>>;
    // A life of a process id as its processor samples tell it. The start time begins it: the device
    // may not have noticed that the id went to another process.
    struct Life {
        uint64_t startTime;  // ticks since the start of the machine
        uint64_t from;       // nanoseconds, of the first sample
        uint64_t to;         // and of the last
        bool isSeenToBegin = false;
        std::optional<size_t> process;  // index in the report
    };
    using Lives = std::vector<Life>;  // in the order of time

    double AskedNs(SampleKind kind) const;
    Records InOrder(SampleKind kind, const Records& all) const;
    std::vector<Samples> SplitByStart(std::string_view bytes, uint64_t* damaged) const;
    void Span(const Records& records);
    void SpanLoneRecords(uint64_t slack);
    void DropBeyondTime(Records* records) const;
    void GuessProcessors(const Samples& samples);
    void ScanProcess(uint32_t pid, std::string_view bytes);
    void ScanPages(uint32_t pid, const Records& records);
    void FindPageSize();
    void FindBeginnings();
    // `expected`: the number that the first of the records should have.
    void Rate(SampleKind kind, const Records& records, uint64_t expected);
    void TakeCpu(const Records& records);
    void TakeCores(uint64_t from, const CpuSample& before, uint64_t to, const CpuSample& now);
    void TakeMemory(const Records& records);
    void TakeProcessCpu(uint32_t pid, std::string_view bytes);
    void TakeProcessMemory(uint32_t pid, std::string_view bytes);
    Life* LifeAt(Lives* lives, uint64_t time) const;
    ProcessReport& ProcessOf(uint32_t pid, Life* life);
    void AddProcessCpu(ProcessReport* process, const TimedCpu& now, const TimedCpu* before);
    void AddProcessMemory(ProcessReport* process, const Records& records);

    const Options options_;
    uint64_t begin_ = UINT64_MAX;
    uint64_t end_ = 0;
    std::vector<uint64_t> loneTimes_;  // of records that stand alone in their file
    uint32_t processors_ = 0;
    uint32_t guessedProcessors_ = 0;
    double guessSeconds_ = 0;
    std::map<uint32_t, Lives> lives_;                               // by process id
    std::map<uint32_t, std::pair<uint64_t, uint64_t>> firstBytes_;  // time and virtual bytes
    std::vector<double> pageSizes_;                                 // as each process tells it
    std::optional<Report> report_;
};

}  // namespace orla::host
