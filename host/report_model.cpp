#include "host/report_model.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace orla::host {

namespace {

constexpr double kNsPerMs = 1e6;
constexpr double kTicksPerSecond = 100;  // what the kernel shows its programs, on every processor
constexpr double kMostProcessors = 4096;
constexpr double kGapFactor = 1.5;
constexpr double kAbsurdFactor = 1000;        // a damaged time, not a slow device
constexpr const char* kUnknownName = "self";  // what the device writes when it could not read it

// A source numbers its samples on; a new process under an old id starts over.
bool Follows(const SampleRecord& before, const SampleRecord& record) {
    return record.time > before.time && (record.index > before.index || record.index == 0);
}

double Rise(uint64_t before, uint64_t now) {
    return now > before ? static_cast<double>(now - before) : 0;
}

double Percent(double part, double whole) {
    return whole > 0 ? 100 * part / whole : 0;
}

std::vector<size_t> Best(size_t size, size_t count, const std::function<double(size_t)>& weight) {
    std::vector<size_t> order(size);
    std::iota(order.begin(), order.end(), size_t{0});
    order.erase(std::remove_if(order.begin(), order.end(),
                               [&weight](size_t index) { return weight(index) <= 0; }),
                order.end());
    std::stable_sort(order.begin(), order.end(),
                     [&weight](size_t a, size_t b) { return weight(a) > weight(b); });
    order.resize(std::min(order.size(), count));
    return order;
}

}  // namespace

double Report::seconds() const {
    return static_cast<double>(grid.end - grid.begin) / 1e9;
}

std::vector<size_t> Report::BusiestByCpu(size_t count) const {
    return Best(processes.size(), count,
                [this](size_t index) { return processes[index].cpuSeconds; });
}

std::vector<size_t> Report::BiggestByMemory(size_t count) const {
    return Best(processes.size(), count,
                [this](size_t index) { return processes[index].residentPeak; });
}

// The records without those whose time or number makes no sense between their neighbours'. A
// record is believed when it follows the last one believed, unless its successor follows that
// one and not this. Of the first two the third one tells which is wrong.
ReportBuilder::Records ReportBuilder::GoodRecords(SampleKind kind, std::string_view bytes,
                                                  uint64_t* damaged) const {
    Records all;
    *damaged = ReadRecords(bytes, [&all](const SampleRecord& record) { all.push_back(record); });
    Records good;
    const auto leadsAstray = [&](size_t i) {
        if (i + 1 == all.size()) {
            return !good.empty() && IsAbsurd(kind, good.back(), all[i]);
        }
        if (Follows(all[i], all[i + 1])) {
            return false;
        }
        return good.empty() ? i + 2 == all.size() || !Follows(all[i], all[i + 2])
                            : Follows(good.back(), all[i + 1]);
    };
    for (size_t i = 0; i < all.size(); ++i) {
        if ((good.empty() || Follows(good.back(), all[i])) && !leadsAstray(i)) {
            good.push_back(all[i]);
        } else {
            ++*damaged;
        }
    }
    return good;
}

// Nothing follows a last record that could contradict it.
bool ReportBuilder::IsAbsurd(SampleKind kind, const SampleRecord& before,
                             const SampleRecord& last) const {
    const auto asked = options_.askedMs.find(kind);
    return asked != options_.askedMs.end() &&
           Rise(before.time, last.time) >
               kAbsurdFactor * asked->second * kNsPerMs * (1 + Rise(before.index, last.index));
}

void ReportBuilder::Scan(const SampleSource& source, std::string_view bytes) {
    uint64_t damaged = 0;
    const Records records = GoodRecords(source.kind, bytes, &damaged);
    if (!records.empty()) {
        begin_ = std::min(begin_, records.front().time);
        end_ = std::max(end_, records.back().time);
    }
    if (source.kind == SampleKind::kCpu && !records.empty()) {
        const auto sample = ReadCpuSample(records.front().data);
        processors_ = sample.has_value() ? sample->processors : 0;
    } else if (source.kind == SampleKind::kProcessCpu && records.size() > 1) {
        GuessProcessors(records);
    }
}

// Should nobody have counted them: they are as many as tick together. The longest look is best.
void ReportBuilder::GuessProcessors(const Records& records) {
    const auto first = ReadProcessCpuSample(records.front().data);
    const auto last = ReadProcessCpuSample(records.back().data);
    const double seconds = Rise(records.front().time, records.back().time) / 1e9;
    if (first && last && seconds > guessSeconds_) {
        const double ticks = Rise(first->machineTicks, last->machineTicks);
        const double count = std::round(ticks / kTicksPerSecond / seconds);
        guessedProcessors_ = static_cast<uint32_t>(std::clamp(count, 1.0, kMostProcessors));
        guessSeconds_ = seconds;
    }
}

void ReportBuilder::BeginReport() {
    double shortest = 1e9;
    for (const auto& [kind, asked] : options_.askedMs) {
        shortest = std::min(shortest, asked);
    }
    const bool empty = begin_ > end_;
    report_.emplace(empty ? Grid()
                          : Grid::Over(begin_, end_, static_cast<uint64_t>(shortest * kNsPerMs)));
    processors_ = processors_ > 0 ? processors_ : guessedProcessors_;
    report_->processors = processors_;
    report_->cpu.assign(kCpuModes, Series(report_->grid));
    report_->memory.assign(3, Series(report_->grid));
    for (const auto& [kind, asked] : options_.askedMs) {
        report_->quality[kind].askedMs = asked;
    }
}

void ReportBuilder::Take(const SampleSource& source, std::string_view bytes) {
    uint64_t damaged = 0;
    const Records records = GoodRecords(source.kind, bytes, &damaged);
    Rate(source.kind, records, damaged);
    switch (source.kind) {
        case SampleKind::kCpu:
            return TakeCpu(records);
        case SampleKind::kMemory:
            return TakeMemory(records);
        case SampleKind::kProcessCpu:
        case SampleKind::kProcessMemory:
            return TakeProcess(source, records);
    }
}

void ReportBuilder::Rate(SampleKind kind, const Records& records, uint64_t damaged) {
    SamplingQuality& quality = report_->quality[kind];
    uint64_t missing = records.empty() ? 0 : records.front().index;
    for (size_t i = 1; i < records.size(); ++i) {
        if (records[i].index == 0) {
            continue;  // another process; the time between the two is nobody's
        }
        const double ms = Rise(records[i - 1].time, records[i].time) / kNsPerMs;
        missing += records[i].index - records[i - 1].index - 1;
        ++quality.intervals;
        quality.sumMs += ms;
        quality.longestMs = std::max(quality.longestMs, ms);
        quality.gaps += quality.askedMs > 0 && ms > kGapFactor * quality.askedMs ? 1 : 0;
    }
    ++quality.files;
    quality.samples += records.size();
    quality.damaged += damaged;
    quality.missing += missing > damaged ? missing - damaged : 0;
}

void ReportBuilder::TakeCpu(const Records& records) {
    std::array<double, kCpuModes> sums = {};
    std::optional<CpuSample> before;
    uint64_t beforeTime = 0;
    for (const SampleRecord& record : records) {
        const auto sample = ReadCpuSample(record.data);
        if (!sample.has_value()) {
            ++report_->quality[SampleKind::kCpu].damaged;
            continue;
        }
        if (before.has_value()) {
            std::array<double, kCpuModes> rises = {};
            for (int mode = 0; mode < kCpuModes; ++mode) {
                rises[mode] = Rise(before->ticks[mode], sample->ticks[mode]);
                sums[mode] += rises[mode];
            }
            const double total = std::accumulate(rises.begin(), rises.end(), 0.0);
            for (int mode = 0; mode < kCpuModes && total > 0; ++mode) {
                report_->cpu[mode].Add(beforeTime, record.time, Percent(rises[mode], total));
            }
        }
        before = sample;
        beforeTime = record.time;
    }
    const double total = std::accumulate(sums.begin(), sums.end(), 0.0);
    for (int mode = 0; mode < kCpuModes; ++mode) {
        report_->cpuShare[mode] = Percent(sums[mode], total);
    }
}

void ReportBuilder::TakeMemory(const Records& records) {
    double sum = 0;
    uint64_t count = 0;
    uint64_t beforeTime = 0;
    for (const SampleRecord& record : records) {
        const auto sample = ReadMemorySample(record.data);
        if (!sample.has_value()) {
            ++report_->quality[SampleKind::kMemory].damaged;
            continue;
        }
        const uint64_t used = sample->total - sample->available;
        const uint64_t cached = sample->available - std::min(sample->available, sample->free);
        const uint64_t from = beforeTime != 0 ? beforeTime : record.time;
        const double values[] = {static_cast<double>(used), static_cast<double>(cached),
                                 static_cast<double>(std::min(sample->available, sample->free))};
        for (size_t i = 0; i < std::size(values); ++i) {
            report_->memory[i].Add(from, record.time + 1, values[i]);
        }
        sum += static_cast<double>(used);
        ++count;
        report_->memoryUsedPeak = std::max(report_->memoryUsedPeak, used);
        report_->memoryLast = *sample;
        beforeTime = record.time;
    }
    report_->memoryUsedMean = count > 0 ? sum / static_cast<double>(count) : 0;
}

void ReportBuilder::TakeProcess(const SampleSource& source, const Records& records) {
    size_t life = 0;
    const SampleRecord* before = nullptr;
    std::optional<TimedCpu> last;
    for (const SampleRecord& record : records) {
        if (before != nullptr && record.index == 0) {
            ++life;
            before = nullptr;
            last.reset();
        }
        const auto [found, isNew] =
            lives_.emplace(std::pair(source.pid, life), report_->processes.size());
        if (isNew) {
            report_->processes.emplace_back(report_->grid);
            report_->processes.back().pid = source.pid;
            report_->processes.back().firstTime = record.time;
        }
        ProcessReport& process = report_->processes[found->second];
        process.firstTime = std::min(process.firstTime, record.time);
        process.lastTime = std::max(process.lastTime, record.time);
        if (source.kind == SampleKind::kProcessCpu) {
            AddProcessCpu(&process, record, &last);
        } else {
            AddProcessMemory(&process, before, record);
        }
        before = &record;
    }
}

void ReportBuilder::AddProcessCpu(ProcessReport* process, const SampleRecord& record,
                                  std::optional<TimedCpu>* last) {
    const auto sample = ReadProcessCpuSample(record.data);
    if (!sample.has_value()) {
        ++report_->quality[SampleKind::kProcessCpu].damaged;
        return;
    }
    if (process->name.empty() || sample->name != kUnknownName) {
        process->name = sample->name;
    }
    process->threads = std::max(process->threads, sample->threads);
    // The id can have gone to another process between two samples, with no gap to be seen.
    if (last->has_value() && (*last)->sample.startTime == sample->startTime) {
        const TimedCpu& before = **last;
        const double machine = Rise(before.sample.machineTicks, sample->machineTicks);
        const double ticks = Rise(before.sample.ticks, sample->ticks);
        const double share = machine > 0 ? ticks / machine * processors_ : 0;
        process->cpuSeconds += share * Rise(before.time, record.time) / 1e9;
        process->cpuPeak = std::max(process->cpuPeak, 100 * share);
        process->cpu.Add(before.time, record.time, 100 * share);
    }
    *last = TimedCpu{record.time, *sample};
}

void ReportBuilder::AddProcessMemory(ProcessReport* process, const SampleRecord* before,
                                     const SampleRecord& record) {
    const auto sample = ReadProcessMemorySample(record.data);
    if (!sample.has_value()) {
        ++report_->quality[SampleKind::kProcessMemory].damaged;
        return;
    }
    if (process->name.empty() || (sample->name != kUnknownName && !sample->name.empty())) {
        process->name = sample->name;
    }
    const double bytes =
        static_cast<double>(sample->residentPages) * static_cast<double>(options_.pageSize);
    process->residentPeak = std::max(process->residentPeak, bytes);
    process->residentLast = bytes;
    process->resident.Add(before != nullptr ? before->time : record.time, record.time + 1, bytes);
}

}  // namespace orla::host
