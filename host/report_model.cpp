#include "host/report_model.h"

#include "host/report_order.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace orla::host {

namespace {

constexpr double kNsPerMs = 1e6;
constexpr double kTicksPerSecond = 100;  // what the kernel shows its programs, on every processor
constexpr double kMostProcessors = 4096;
constexpr double kGapFactor = 1.5;
constexpr uint64_t kLeastPageSize = 1024;
constexpr uint64_t kUsualPageSize = 4096;
constexpr uint64_t kLargestPageSize = 1 << 20;
constexpr double kAbsurdFactor = 1000;        // a damaged time, not a slow device
constexpr const char* kUnknownName = "self";  // what the device writes when it could not read it

double Growth(uint64_t before, uint64_t now) {
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

std::vector<uint32_t> Report::BusiestCores(size_t count) const {
    std::vector<uint32_t> numbers;
    for (const auto& [number, core] : cores) {
        numbers.push_back(number);
    }
    std::stable_sort(numbers.begin(), numbers.end(), [this](uint32_t a, uint32_t b) {
        return cores.at(a).busyShare() > cores.at(b).busyShare();
    });
    numbers.resize(std::min(numbers.size(), count));
    return numbers;
}

std::vector<size_t> Report::BiggestByMemory(size_t count) const {
    return Best(processes.size(), count,
                [this](size_t index) { return processes[index].residentPeak; });
}

double ReportBuilder::AskedNs(SampleKind kind) const {
    const auto asked = options_.askedMs.find(kind);
    return asked != options_.askedMs.end() ? asked->second * kNsPerMs : 0;
}

// The records of one source whose numbers and times both rise. Nothing stands beyond the first and
// the last that could contradict them: there an absurd distance is damage.
ReportBuilder::Records ReportBuilder::InOrder(SampleKind kind, const Records& all) const {
    const auto rising = [](const Records& records, uint64_t SampleRecord::*field) {
        std::vector<uint64_t> values;
        for (const SampleRecord& record : records) {
            values.push_back(record.*field);
        }
        Records kept;
        for (const size_t position : LongestRise(values, Rise::kStrict)) {
            kept.push_back(records[position]);
        }
        return kept;
    };
    Records good = rising(rising(all, &SampleRecord::index), &SampleRecord::time);
    const double asked = AskedNs(kind);
    const auto isAbsurd = [asked](const SampleRecord& before, const SampleRecord& after) {
        return asked > 0 && Growth(before.time, after.time) >
                                kAbsurdFactor * asked * Growth(before.index, after.index);
    };
    if (good.size() > 1 && isAbsurd(good[good.size() - 2], good.back())) {
        good.pop_back();
    }
    if (good.size() > 1 && isAbsurd(good[0], good[1])) {
        good.erase(good.begin());
    }
    return good;
}

// The processor samples of an id, one list for each of its processes.
std::vector<ReportBuilder::Samples> ReportBuilder::SplitByStart(std::string_view bytes,
                                                                uint64_t* damaged) const {
    Samples all;
    std::vector<uint64_t> starts;
    uint64_t unread = 0;
    unread += ReadRecords(bytes, [&](const SampleRecord& record) {
        if (auto sample = ReadProcessCpuSample(record.data)) {
            starts.push_back(sample->startTime);
            all.emplace_back(record, std::move(*sample));
        } else {
            ++unread;
        }
    });
    std::vector<Samples> lives;
    size_t kept = 0;
    const std::vector<size_t> order = LongestRise(starts, Rise::kOrEqual);
    for (size_t i = 0; i < order.size();) {
        Records records;
        const size_t begin = i;
        for (; i < order.size() && starts[order[i]] == starts[order[begin]]; ++i) {
            records.push_back(all[order[i]].first);
        }
        records = InOrder(SampleKind::kProcessCpu, records);
        DropBeyondTime(&records);
        Samples life;
        for (size_t from = begin; from < i && life.size() < records.size(); ++from) {
            if (all[order[from]].first.data.data() == records[life.size()].data.data()) {
                life.push_back(std::move(all[order[from]]));
            }
        }
        kept += life.size();
        if (!life.empty()) {
            lives.push_back(std::move(life));
        }
    }
    *damaged = unread + all.size() - kept;
    return lives;
}

void ReportBuilder::Span(const Records& records) {
    if (records.size() == 1) {
        loneTimes_.push_back(records.front().time);
    } else if (!records.empty()) {
        begin_ = std::min(begin_, records.front().time);
        end_ = std::max(end_, records.back().time);
    }
}

// A record that stands alone has no neighbour to contradict it, so it is believed only close to the
// others, while there are any.
void ReportBuilder::SpanLoneRecords(uint64_t slack) {
    const bool areAll = begin_ > end_;
    const uint64_t from = areAll ? 0 : begin_ - std::min(begin_, slack);
    const uint64_t to = areAll ? UINT64_MAX : end_ + std::min(slack, UINT64_MAX - end_);
    for (const uint64_t time : loneTimes_) {
        if (time >= from && time <= to) {
            begin_ = std::min(begin_, time);
            end_ = std::max(end_, time);
        }
    }
}

// In the second pass the span is known.
void ReportBuilder::DropBeyondTime(Records* records) const {
    if (!report_.has_value()) {
        return;
    }
    records->erase(std::remove_if(records->begin(), records->end(),
                                  [this](const SampleRecord& record) {
                                      return record.time < begin_ || record.time > end_;
                                  }),
                   records->end());
}

void ReportBuilder::Scan(const SampleSource& source, std::string_view bytes) {
    if (source.kind == SampleKind::kProcessCpu) {
        return ScanProcess(source.pid, bytes);
    }
    Records all;
    static_cast<void>(
        ReadRecords(bytes, [&all](const SampleRecord& record) { all.push_back(record); }));
    if (source.kind == SampleKind::kProcessMemory) {
        return ScanPages(source.pid, all);
    }
    const Records records = InOrder(source.kind, all);
    Span(records);
    if (source.kind == SampleKind::kCpu && !records.empty()) {
        const auto sample = ReadCpuSample(records.front().data);
        processors_ = sample.has_value() ? sample->processors : 0;
    }
}

void ReportBuilder::ScanProcess(uint32_t pid, std::string_view bytes) {
    uint64_t damaged = 0;
    for (const Samples& samples : SplitByStart(bytes, &damaged)) {
        Records records;
        for (const auto& [record, sample] : samples) {
            records.push_back(record);
        }
        Span(records);
        GuessProcessors(samples);
        const auto& [record, sample] = samples.front();
        firstBytes_.emplace(pid, std::pair(record.time, sample.virtualBytes));
        lives_[pid].push_back({sample.startTime, record.time, records.back().time, false, {}});
    }
}

// A process has its memory in bytes and, read at nearly the same time, in pages.
void ReportBuilder::ScanPages(uint32_t pid, const Records& records) {
    const auto first = firstBytes_.find(pid);
    if (first == firstBytes_.end()) {
        return Span(InOrder(SampleKind::kProcessMemory, records));
    }
    const auto sample =
        !records.empty() ? ReadProcessMemorySample(records.front().data) : std::nullopt;
    const auto& [time, bytes] = first->second;
    const double distance =
        records.empty() ? 0
                        : Growth(time, records.front().time) + Growth(records.front().time, time);
    if (sample && sample->virtualPages > 0 && bytes > 0 &&
        distance < AskedNs(SampleKind::kProcessMemory) + kNsPerMs) {
        pageSizes_.push_back(static_cast<double>(bytes) /
                             static_cast<double>(sample->virtualPages));
    }
}

// The middle one of what the processes tell: few change their memory between the two reads.
void ReportBuilder::FindPageSize() {
    report_->pageSize = options_.pageSize > 0 ? options_.pageSize : kUsualPageSize;
    report_->isPageSizeKnown = options_.pageSize > 0;
    if (options_.pageSize > 0 || pageSizes_.empty()) {
        return;
    }
    const auto middle = pageSizes_.begin() + static_cast<ptrdiff_t>(pageSizes_.size() / 2);
    std::nth_element(pageSizes_.begin(), middle, pageSizes_.end());
    const double size = *middle;
    for (uint64_t power = kLeastPageSize; power <= kLargestPageSize; power *= 2) {
        if (size == static_cast<double>(power)) {
            report_->pageSize = power;
            report_->isPageSizeKnown = true;
        }
    }
}

// A process began during the profile when it was not there at the first samples, and started after
// every one that was.
void ReportBuilder::FindBeginnings() {
    uint64_t first = end_;
    for (const auto& [pid, lives] : lives_) {
        for (const Life& life : lives) {
            first = life.from >= begin_ ? std::min(first, life.from) : first;
        }
    }
    const auto wasThere = [&](const Life& life) {
        return Growth(first, life.from) <= AskedNs(SampleKind::kProcessCpu);
    };
    uint64_t youngest = 0;
    for (const auto& [pid, lives] : lives_) {
        youngest = wasThere(lives.front()) ? std::max(youngest, lives.front().startTime) : youngest;
    }
    for (auto& [pid, lives] : lives_) {
        for (Life& life : lives) {
            life.isSeenToBegin = !wasThere(life) && life.startTime >= youngest;
        }
    }
}

// Should nobody have counted them: they are as many as tick together. The longest look is best.
void ReportBuilder::GuessProcessors(const Samples& samples) {
    const auto& [first, firstSample] = samples.front();
    const auto& [last, lastSample] = samples.back();
    const double seconds = Growth(first.time, last.time) / 1e9;
    if (seconds > guessSeconds_) {
        const double ticks = Growth(firstSample.machineTicks, lastSample.machineTicks);
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
    // The samples of one moment follow one another, so a last one may lie a little outside.
    SpanLoneRecords(static_cast<uint64_t>(2 * shortest * kNsPerMs));
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
    FindPageSize();
    FindBeginnings();
}

void ReportBuilder::Take(const SampleSource& source, std::string_view bytes) {
    ++report_->quality[source.kind].files;
    if (source.kind == SampleKind::kProcessCpu) {
        return TakeProcessCpu(source.pid, bytes);
    }
    if (source.kind == SampleKind::kProcessMemory) {
        return TakeProcessMemory(source.pid, bytes);
    }
    Records all;
    uint64_t damaged =
        ReadRecords(bytes, [&all](const SampleRecord& record) { all.push_back(record); });
    Records records = InOrder(source.kind, all);
    DropBeyondTime(&records);
    damaged += all.size() - records.size();
    report_->quality[source.kind].damaged += damaged;
    Rate(source.kind, records, 0);
    source.kind == SampleKind::kCpu ? TakeCpu(records) : TakeMemory(records);
    SamplingQuality& quality = report_->quality[source.kind];
    quality.missing -= std::min(quality.missing, damaged);
}

void ReportBuilder::Rate(SampleKind kind, const Records& records, uint64_t expected) {
    SamplingQuality& quality = report_->quality[kind];
    quality.samples += records.size();
    quality.missing += records.empty() ? 0 : records.front().index - expected;
    for (size_t i = 1; i < records.size(); ++i) {
        const double ms = Growth(records[i - 1].time, records[i].time) / kNsPerMs;
        quality.missing += records[i].index - records[i - 1].index - 1;
        ++quality.intervals;
        quality.sumMs += ms;
        quality.longestMs = std::max(quality.longestMs, ms);
        quality.gaps += quality.askedMs > 0 && ms > kGapFactor * quality.askedMs ? 1 : 0;
    }
}

void ReportBuilder::TakeCpu(const Records& records) {
    std::array<double, kCpuModes> sums = {};
    std::optional<CpuSample> before;
    uint64_t beforeTime = 0;
    for (const SampleRecord& record : records) {
        auto sample = ReadCpuSample(record.data);
        if (!sample.has_value()) {
            ++report_->quality[SampleKind::kCpu].damaged;
            continue;
        }
        if (before.has_value()) {
            std::array<double, kCpuModes> rises = {};
            for (int mode = 0; mode < kCpuModes; ++mode) {
                rises[mode] = Growth(before->ticks[mode], sample->ticks[mode]);
                sums[mode] += rises[mode];
            }
            const double total = std::accumulate(rises.begin(), rises.end(), 0.0);
            for (int mode = 0; mode < kCpuModes && total > 0; ++mode) {
                report_->cpu[mode].Add(beforeTime, record.time, Percent(rises[mode], total));
            }
            TakeCores(beforeTime, *before, record.time, *sample);
        }
        before = std::move(sample);
        beforeTime = record.time;
    }
    const double total = std::accumulate(sums.begin(), sums.end(), 0.0);
    for (int mode = 0; mode < kCpuModes; ++mode) {
        report_->cpuShare[mode] = Percent(sums[mode], total);
    }
}

void ReportBuilder::TakeCores(uint64_t from, const CpuSample& before, uint64_t to,
                              const CpuSample& now) {
    for (const auto& [number, ticks] : now.cores) {
        const auto earlier = before.cores.find(number);
        if (earlier == before.cores.end()) {
            continue;  // it has just been switched on
        }
        double total = 0;
        double busy = 0;
        for (int mode = 0; mode < kCpuModes; ++mode) {
            const double rise = Growth(earlier->second[mode], ticks[mode]);
            total += rise;
            busy += mode == kIdle || mode == kIoWait ? 0 : rise;
        }
        if (total > 0) {
            CoreReport& core = report_->cores.emplace(number, report_->grid).first->second;
            core.busy.Add(from, to, Percent(busy, total));
            core.busyPeak = std::max(core.busyPeak, Percent(busy, total));
            core.busyTicks += busy;
            core.totalTicks += total;
        }
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

ProcessReport& ReportBuilder::ProcessOf(uint32_t pid, Life* life) {
    if (!life->process.has_value()) {
        life->process = report_->processes.size();
        report_->processes.emplace_back(report_->grid);
        ProcessReport& process = report_->processes.back();
        process.pid = pid;
        process.firstTime = life->from;
        process.lastTime = life->to;
    }
    return report_->processes[*life->process];
}

void ReportBuilder::TakeProcessCpu(uint32_t pid, std::string_view bytes) {
    SamplingQuality& quality = report_->quality[SampleKind::kProcessCpu];
    uint64_t damaged = 0;
    uint64_t expected = 0;
    const uint64_t missingBefore = quality.missing;
    for (const Samples& samples : SplitByStart(bytes, &damaged)) {
        Life* life = LifeAt(&lives_[pid], samples.front().first.time);
        if (life == nullptr) {
            continue;  // the file changed between the passes
        }
        ProcessReport& process = ProcessOf(pid, life);
        Records records;
        std::optional<TimedCpu> before;
        for (const auto& [record, sample] : samples) {
            const TimedCpu now{record.time, sample};
            AddProcessCpu(&process, now, before.has_value() ? &*before : nullptr);
            before = now;
            records.push_back(record);
        }
        if (life->isSeenToBegin) {
            process.cpuSeconds +=
                static_cast<double>(samples.front().second.ticks) / kTicksPerSecond;
        }
        // A device that did not notice the new process goes on with the old one's numbers.
        Rate(SampleKind::kProcessCpu, records, records.front().index >= expected ? expected : 0);
        expected = records.back().index + 1;
    }
    quality.damaged += damaged;
    quality.missing -= std::min(quality.missing - missingBefore, damaged);
}

void ReportBuilder::AddProcessCpu(ProcessReport* process, const TimedCpu& now,
                                  const TimedCpu* before) {
    const ProcessCpuSample& sample = now.sample;
    if (process->name.empty() || sample.name != kUnknownName) {
        process->name = sample.name;
    }
    process->threads = std::max(process->threads, sample.threads);
    if (before == nullptr) {
        return;
    }
    const double machine = Growth(before->sample.machineTicks, sample.machineTicks);
    const double ticks = Growth(before->sample.ticks, sample.ticks);
    const double share = machine > 0 ? ticks / machine * processors_ : 0;
    process->cpuSeconds += share * Growth(before->time, now.time) / 1e9;
    process->cpuPeak = std::max(process->cpuPeak, 100 * share);
    process->cpu.Add(before->time, now.time, 100 * share);
}

// The life that a sample of that time belongs to. Memory is read a little after the ticks, of a
// process that has just been seen alive.
ReportBuilder::Life* ReportBuilder::LifeAt(Lives* lives, uint64_t time) const {
    const auto after = std::partition_point(lives->begin(), lives->end(),
                                            [time](const Life& life) { return life.from <= time; });
    if (after == lives->begin()) {
        return nullptr;
    }
    Life& life = *(after - 1);
    const double slack = AskedNs(SampleKind::kProcessMemory) / 2;
    return Growth(life.to, time) <= std::max(slack, kNsPerMs) ? &life : nullptr;
}

void ReportBuilder::TakeProcessMemory(uint32_t pid, std::string_view bytes) {
    Records all;
    std::vector<uint64_t> times;
    uint64_t damaged = ReadRecords(bytes, [&](const SampleRecord& record) {
        all.push_back(record);
        times.push_back(record.time);
    });
    Records timely;
    for (const size_t position : LongestRise(times, Rise::kStrict)) {
        timely.push_back(all[position]);
    }
    DropBeyondTime(&timely);
    Lives* lives = &lives_[pid];
    Lives own;  // what no processor sample tells of
    size_t kept = 0;
    uint64_t expected = 0;
    const uint64_t missingBefore = report_->quality[SampleKind::kProcessMemory].missing;
    for (size_t i = 0; i < timely.size();) {
        Life* const life = LifeAt(lives, timely[i].time);
        Records records{timely[i]};
        for (++i; i < timely.size() && LifeAt(lives, timely[i].time) == life &&
                  (life != nullptr || timely[i].index > 0);
             ++i) {
            records.push_back(timely[i]);
        }
        records = InOrder(SampleKind::kProcessMemory, records);
        own.push_back({0, records.front().time, records.back().time, false, {}});
        AddProcessMemory(&ProcessOf(pid, life != nullptr ? life : &own.back()), records);
        Rate(SampleKind::kProcessMemory, records, records.front().index >= expected ? expected : 0);
        expected = records.back().index + 1;
        kept += records.size();
    }
    damaged += all.size() - kept;
    SamplingQuality& quality = report_->quality[SampleKind::kProcessMemory];
    quality.damaged += damaged;
    quality.missing -= std::min(quality.missing - missingBefore, damaged);
}

void ReportBuilder::AddProcessMemory(ProcessReport* process, const Records& records) {
    uint64_t from = records.front().time;
    for (const SampleRecord& record : records) {
        const auto sample = ReadProcessMemorySample(record.data);
        if (!sample.has_value()) {
            ++report_->quality[SampleKind::kProcessMemory].damaged;
            continue;
        }
        if (process->name.empty() || (process->name == kUnknownName && !sample->name.empty())) {
            process->name = sample->name;
        }
        const double bytes =
            static_cast<double>(sample->residentPages) * static_cast<double>(report_->pageSize);
        process->residentPeak = std::max(process->residentPeak, bytes);
        process->residentLast = bytes;
        process->resident.Add(from, record.time + 1, bytes);
        from = record.time;
    }
}

}  // namespace orla::host
