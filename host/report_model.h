// What a profile says, from the bytes of its data files: use of the processors by mode, memory,
// what every process took, and how well the sampling went. No I/O: the caller reads each file
// twice, first for the span of time, then for its samples. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
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

// One life of a process id; when the id is used again that is another one.
struct ProcessReport {
    explicit ProcessReport(const Grid& grid) : cpu(grid), resident(grid) {}

    uint32_t pid = 0;
    std::string name;
    uint64_t firstTime = 0;  // nanoseconds
    uint64_t lastTime = 0;
    double cpuSeconds = 0;
    double cpuPeak = 0;       // percent of one processor, over one interval
    double residentPeak = 0;  // bytes
    double residentLast = 0;  // bytes
    uint64_t threads = 0;
    Series cpu;       // percent of one processor
    Series resident;  // bytes
};

struct Report {
    explicit Report(const Grid& times) : grid(times) {}
    Report(const Report&) = delete;  // the series know where the grid is
    Report& operator=(const Report&) = delete;

    const Grid grid;
    uint32_t processors = 0;                      // 0: nothing tells
    std::array<double, kCpuModes> cpuShare = {};  // percent of all processors, over the whole time
    std::vector<Series> cpu;                      // the same over time, by mode
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
};

class ReportBuilder {
public:
    struct Options {
        std::map<SampleKind, double> askedMs;
        uint64_t pageSize = 4096;
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

    Records GoodRecords(SampleKind kind, std::string_view bytes, uint64_t* damaged) const;
    bool IsAbsurd(SampleKind kind, const SampleRecord& before, const SampleRecord& last) const;
    void GuessProcessors(const Records& records);
    void Rate(SampleKind kind, const Records& records, uint64_t damaged);
    void TakeCpu(const Records& records);
    void TakeMemory(const Records& records);
    void TakeProcess(const SampleSource& source, const Records& records);
    void AddProcessCpu(ProcessReport* process, const SampleRecord& record,
                       std::optional<TimedCpu>* last);
    void AddProcessMemory(ProcessReport* process, const SampleRecord* before,
                          const SampleRecord& record);

    const Options options_;
    uint64_t begin_ = UINT64_MAX;
    uint64_t end_ = 0;
    uint32_t processors_ = 0;
    uint32_t guessedProcessors_ = 0;
    double guessSeconds_ = 0;
    std::optional<Report> report_;
    std::map<std::pair<uint32_t, size_t>, size_t> lives_;  // pid and life to index
};

}  // namespace orla::host
