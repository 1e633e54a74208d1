#include "host/report_output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "host/terminal_text.h"

namespace orla::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kCoresInText = 4;
constexpr size_t kMostCoresOverTime = 256;  // more rows than a page or a trace can show
constexpr const char* kMemoryNames[] = {"used", "cached", "free"};

const char* NameOf(SampleKind kind) {
    switch (kind) {
        case SampleKind::kCpu:
            return "cpu";
        case SampleKind::kMemory:
            return "memory";
        case SampleKind::kProcessCpu:
            return "process_cpu";
        case SampleKind::kProcessMemory:
            return "process_memory";
    }
    return "";
}

std::string Dump(const Json& json, int indent = -1) {
    return json.dump(indent, ' ', true, Json::error_handler_t::replace);
}

// Digits behind the point that nobody needs would double the size of a page.
double Rounded(double value, double digits) {
    return std::round(value * digits) / digits;
}

double PercentOf(double part, uint64_t whole) {
    return whole > 0 ? 100 * part / static_cast<double>(whole) : 0;
}

std::string NameOf(const ProcessReport& process) {
    return fmt::format("{} ({})", process.name, process.pid);
}

double MeanCpu(const Report& report, const ProcessReport& process) {
    return report.seconds() > 0 ? 100 * process.cpuSeconds / report.seconds() : 0;
}

Json ProcessJson(const Report& report, const ProcessReport& process) {
    const auto second = [&report](uint64_t time) {
        return Rounded(static_cast<double>(time - report.grid.begin) / 1e9, 1000);
    };
    return {{"pid", process.pid},
            {"name", process.name},
            {"threads", process.threads},
            {"from_s", second(process.firstTime)},
            {"to_s", second(process.lastTime)},
            {"cpu_s", Rounded(process.cpuSeconds, 1000)},
            {"cpu_percent", Rounded(MeanCpu(report, process), 10)},
            {"cpu_peak_percent", Rounded(process.cpuPeak, 10)},
            {"resident_peak", process.residentPeak},
            {"resident_last", process.residentLast}};
}

Json ProcessList(const Report& report, const std::vector<size_t>& indices) {
    Json list = Json::array();
    for (const size_t index : indices) {
        list.push_back(ProcessJson(report, report.processes[index]));
    }
    return list;
}

Json CoresJson(const Report& report) {
    Json list = Json::array();
    for (const auto& [number, core] : report.cores) {
        list.push_back({{"number", number},
                        {"busy_percent", Rounded(core.busyShare(), 100)},
                        {"busy_peak_percent", Rounded(core.busyPeak, 100)}});
    }
    return list;
}

// The processors that are shown over time, in the order of their numbers.
std::vector<uint32_t> CoresOverTime(const Report& report) {
    auto numbers = report.BusiestCores(kMostCoresOverTime);
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

Json QualityJson(const Report& report) {
    Json list = Json::array();
    for (const auto& [kind, quality] : report.quality) {
        if (quality.files == 0) {
            continue;
        }
        list.push_back({{"source", NameOf(kind)},
                        {"files", quality.files},
                        {"samples", quality.samples},
                        {"asked_ms", quality.askedMs},
                        {"mean_ms", Rounded(quality.meanMs(), 100)},
                        {"longest_ms", Rounded(quality.longestMs, 100)},
                        {"gaps", quality.gaps},
                        {"missing", quality.missing},
                        {"damaged", quality.damaged}});
    }
    return list;
}

Json ValuesOf(const Report& report, const Series& series, double digits) {
    Json values = Json::array();
    for (size_t i = 0; i < report.grid.steps; ++i) {
        const auto value = series.At(i);
        values.push_back(value.has_value() ? Json(Rounded(*value, digits)) : Json());
    }
    return values;
}

Json NamedSeries(const Report& report, const std::string& name, const Series& series,
                 double digits) {
    return {{"name", name}, {"values", ValuesOf(report, series, digits)}};
}

// Everything over time, for the charts of the page.
Json ChartsJson(const Report& report, const ReportInput& input) {
    Json charts = {{"step_s", report.grid.SecondsAt(1)},
                   {"steps", report.grid.steps},
                   {"cpu", Json::array()},
                   {"cores", Json::array()},
                   {"memory", Json::array()},
                   {"process_cpu", Json::array()},
                   {"process_memory", Json::array()}};
    for (int mode = 0; mode < kIdle; ++mode) {
        charts["cpu"].push_back(
            NamedSeries(report, NameOf(static_cast<CpuMode>(mode)), report.cpu[mode], 100));
    }
    for (const uint32_t number : CoresOverTime(report)) {
        charts["cores"].push_back(
            NamedSeries(report, fmt::format("cpu{}", number), report.cores.at(number).busy, 1));
    }
    for (size_t i = 0; i < report.memory.size(); ++i) {
        charts["memory"].push_back(NamedSeries(report, kMemoryNames[i], report.memory[i], 1));
    }
    for (const size_t index : report.BusiestByCpu(input.top)) {
        const ProcessReport& process = report.processes[index];
        charts["process_cpu"].push_back(NamedSeries(report, NameOf(process), process.cpu, 10));
    }
    for (const size_t index : report.BiggestByMemory(input.top)) {
        const ProcessReport& process = report.processes[index];
        charts["process_memory"].push_back(
            NamedSeries(report, NameOf(process), process.resident, 1));
    }
    return charts;
}

void Replace(std::string* text, std::string_view mark, std::string_view content) {
    if (const size_t at = text->find(mark); at != std::string::npos) {
        text->replace(at, mark.size(), content);
    }
}

// JSON that may stand inside a script element: no text in it can end the element.
std::string ForScript(const Json& json) {
    std::string text = Dump(json);
    std::string safe;
    safe.reserve(text.size());
    for (const char c : text) {
        safe += c == '<' ? "\\u003c" : std::string(1, c);
    }
    return safe;
}

void AddProcesses(std::string* text, const Report& report, const char* title,
                  const std::vector<size_t>& indices) {
    if (indices.empty()) {
        return;
    }
    *text += fmt::format("\n{}\n{:>8}  {:<16} {:>8} {:>8} {:>9} {:>10}\n", title, "PID", "NAME",
                         "CPU %", "PEAK %", "CPU s", "RESIDENT");
    for (const size_t index : indices) {
        const ProcessReport& process = report.processes[index];
        *text += fmt::format("{:>8}  {:<16} {:>8.1f} {:>8.1f} {:>9.2f} {:>10}\n", process.pid,
                             Printable(process.name), MeanCpu(report, process), process.cpuPeak,
                             process.cpuSeconds, Amount(process.residentPeak));
    }
}

void AddQuality(std::string* text, const Report& report) {
    *text += fmt::format("\nSampling\n  {:<16}{:>7}{:>9}{:>10}{:>10}{:>11}{:>7}{:>9}{:>9}\n", "",
                         "FILES", "SAMPLES", "ASKED ms", "MEAN ms", "LONGEST ms", "GAPS", "MISSING",
                         "DAMAGED");
    for (const auto& [kind, quality] : report.quality) {
        if (quality.files > 0) {
            *text += fmt::format("  {:<16}{:>7}{:>9}{:>10.0f}{:>10.1f}{:>11.1f}{:>7}{:>9}{:>9}\n",
                                 NameOf(kind), quality.files, quality.samples, quality.askedMs,
                                 quality.meanMs(), quality.longestMs, quality.gaps, quality.missing,
                                 quality.damaged);
        }
    }
}

// One event of a trace; `time` in nanoseconds of the device's clock.
Json Event(const char* phase, const std::string& name, uint32_t pid, double microseconds) {
    return {{"ph", phase}, {"name", name}, {"pid", pid}, {"tid", 0}, {"ts", microseconds}};
}

// A value of the manifest, which is foreign; null when it has none of that kind.
Json Of(const Json& manifest, const char* key) {
    const auto found = manifest.find(key);
    return found != manifest.end() && found->is_primitive() ? *found : Json();
}

// A value of the manifest as a text; empty when there is none.
std::string TextOf(const Json& manifest, const char* key) {
    const Json value = Of(manifest, key);
    return value.is_string() ? Printable(value.get<std::string>())
           : value.is_null() ? ""
                             : Dump(value);
}

// Whose profile it is, when it began and how it ended.
std::string Receipt(const ReportInput& input) {
    const std::string state = TextOf(input.manifest, "state");
    const std::string reason = TextOf(input.manifest, "reason");
    std::string text =
        fmt::format("Device {}, job {}, began {}\n", TextOf(input.manifest, "device"),
                    TextOf(input.manifest, "job"), TextOf(input.manifest, "began"));
    if (state == "running") {
        text += "The job had not ended when its manifest was written.\n";
    } else if (!reason.empty() || state == "failed") {
        text += fmt::format("The job failed ({}): {}\n", TextOf(input.manifest, "code"), reason);
    } else {
        text += fmt::format("The job ended well ({}).\n", TextOf(input.manifest, "ended_by"));
    }
    for (const std::string& loss : input.losses) {
        text += Printable(loss) + "\n";
    }
    return text;
}

}  // namespace

std::string ReportText(const Report& report, const ReportInput& input) {
    std::string text = fmt::format("{}: {:.1f} s, {} processors, {} processes\n", input.directory,
                                   report.seconds(), report.processors, report.processes.size());
    text += input.manifest.empty() ? "" : Receipt(input);
    if (!report.cpu.empty() && std::any_of(report.cpuShare.begin(), report.cpuShare.end(),
                                           [](double share) { return share > 0; })) {
        text += "\nProcessors  ";
        for (int mode = 0; mode < kCpuModes; ++mode) {
            text += fmt::format("{} {:.1f} %{}", NameOf(static_cast<CpuMode>(mode)),
                                report.cpuShare[mode], mode + 1 < kCpuModes ? ", " : "\n");
        }
    }
    if (report.cores.size() > 1) {
        text += "Busiest     ";
        const auto numbers = report.BusiestCores(kCoresInText);
        for (const uint32_t number : numbers) {
            const CoreReport& core = report.cores.at(number);
            text += fmt::format("cpu{} {:.1f} % (peak {:.1f} %){}", number, core.busyShare(),
                                core.busyPeak, number != numbers.back() ? ", " : "\n");
        }
    }
    if (const MemorySample& memory = report.memoryLast; memory.total > 0) {
        text += fmt::format("Memory      used {} ({:.1f} %) of {} on average, {} at most\n",
                            Amount(report.memoryUsedMean),
                            PercentOf(report.memoryUsedMean, memory.total),
                            Amount(static_cast<double>(memory.total)),
                            Amount(static_cast<double>(report.memoryUsedPeak)));
    }
    AddProcesses(&text, report, "Busiest processes", report.BusiestByCpu(input.top));
    AddProcesses(&text, report, "Largest processes", report.BiggestByMemory(input.top));
    if (!report.processes.empty()) {
        text += fmt::format(
            "\nCPU % is of one processor; the kernel counts ticks of 10 ms, so a peak can lie "
            "above "
            "100 % of a thread.\nResident memory is in pages of {}{}.\n",
            Amount(static_cast<double>(report.pageSize)),
            report.isPageSizeKnown ? "" : ", a guess: --page-size tells better");
    }
    AddQuality(&text, report);
    for (const OtherFile& file : input.others) {
        text += fmt::format("\n{}: {}, {}\n", Printable(file.name),
                            Amount(static_cast<double>(file.bytes)),
                            file.head.empty() ? "no text" : fmt::format("{} lines", file.lines));
    }
    for (const std::string& problem : input.problems) {
        text += fmt::format("\nnot read: {}\n", Printable(problem));
    }
    return text;
}

Json ReportJson(const Report& report, const ReportInput& input) {
    Json cpu = Json::object();
    for (int mode = 0; mode < kCpuModes; ++mode) {
        cpu[NameOf(static_cast<CpuMode>(mode))] = Rounded(report.cpuShare[mode], 100);
    }
    Json others = Json::array();
    for (const OtherFile& file : input.others) {
        others.push_back({{"name", file.name}, {"bytes", file.bytes}, {"lines", file.lines}});
    }
    return {{"format", 1},
            {"directory", input.directory},
            {"device", Of(input.manifest, "device")},
            {"job", Of(input.manifest, "job")},
            {"began", Of(input.manifest, "began")},
            {"state", Of(input.manifest, "state")},
            {"code", Of(input.manifest, "code")},
            {"reason", Of(input.manifest, "reason")},
            {"ended_by", Of(input.manifest, "ended_by")},
            {"losses", input.losses},
            {"dropped_chunks", input.dropped},
            {"page_size", report.pageSize},
            {"page_size_known", report.isPageSizeKnown},
            {"seconds", Rounded(report.seconds(), 1000)},
            {"processors", report.processors},
            {"cpu_percent", cpu},
            {"cores", CoresJson(report)},
            {"memory",
             {{"total", report.memoryLast.total},
              {"used_mean", Rounded(report.memoryUsedMean, 1)},
              {"used_peak", report.memoryUsedPeak},
              {"swap_used", report.memoryLast.swapTotal - report.memoryLast.swapFree}}},
            {"processes", report.processes.size()},
            {"busiest", ProcessList(report, report.BusiestByCpu(input.top))},
            {"largest", ProcessList(report, report.BiggestByMemory(input.top))},
            {"sampling", QualityJson(report)},
            {"others", others},
            {"problems", input.problems}};
}

std::string ReportPage(const Report& report, const ReportInput& input) {
    Json data = ReportJson(report, input);
    data["manifest"] = input.manifest;
    data["charts"] = ChartsJson(report, input);
    for (size_t i = 0; i < input.others.size(); ++i) {
        data["others"][i]["head"] = input.others[i].head;
    }
    std::string page = kPageTemplate;
    Replace(&page, "/* dygraph.css */", kDygraphStyle);
    Replace(&page, "/* dygraph.js */", kDygraphScript);
    Replace(&page, "null /* data */", ForScript(data));
    return page;
}

std::string ReportTrace(const Report& report, const ReportInput& input) {
    Json events = Json::array();
    const auto name = [&events](uint32_t pid, const std::string& text) {
        Json event = Event("M", "process_name", pid, 0);
        event["args"] = {{"name", text}};
        events.push_back(std::move(event));
    };
    const auto count = [&](uint32_t pid, const char* what, size_t step, Json values) {
        if (!values.empty()) {
            Json event = Event("C", what, pid, Rounded(report.grid.SecondsAt(step) * 1e6, 1));
            event["args"] = std::move(values);
            events.push_back(std::move(event));
        }
    };
    const auto put = [](Json* values, const char* key, const Series& series, size_t step,
                        double unit) {
        if (const auto value = series.At(step)) {
            (*values)[key] = Rounded(*value / unit, 100);
        }
    };
    name(0, "machine");
    const auto coresOverTime = CoresOverTime(report);
    for (size_t step = 0; step < report.grid.steps; ++step) {
        Json cpu = Json::object();
        for (int mode = 0; mode < kIdle; ++mode) {
            put(&cpu, NameOf(static_cast<CpuMode>(mode)), report.cpu[mode], step, 1);
        }
        count(0, "CPU %", step, std::move(cpu));
        Json cores = Json::object();
        for (const uint32_t number : coresOverTime) {
            put(&cores, fmt::format("cpu{}", number).c_str(), report.cores.at(number).busy, step,
                1);
        }
        count(0, "single processors %", step, std::move(cores));
        Json memory = Json::object();
        for (size_t i = 0; i < report.memory.size(); ++i) {
            put(&memory, kMemoryNames[i], report.memory[i], step, 1e6);
        }
        count(0, "memory MB", step, std::move(memory));
    }
    auto shown = report.BusiestByCpu(input.top);
    const auto biggest = report.BiggestByMemory(input.top);
    shown.insert(shown.end(), biggest.begin(), biggest.end());
    std::sort(shown.begin(), shown.end());
    shown.erase(std::unique(shown.begin(), shown.end()), shown.end());
    for (const size_t index : shown) {
        const ProcessReport& process = report.processes[index];
        for (size_t step = 0; step < report.grid.steps; ++step) {
            Json cpu = Json::object();
            put(&cpu, "%", process.cpu, step, 1);
            count(process.pid, "CPU %", step, std::move(cpu));
            Json memory = Json::object();
            put(&memory, "MB", process.resident, step, 1e6);
            count(process.pid, "resident MB", step, std::move(memory));
        }
    }
    for (const ProcessReport& process : report.processes) {
        name(process.pid, process.name);
        Json event = Event("X", process.name, process.pid,
                           static_cast<double>(process.firstTime - report.grid.begin) / 1e3);
        event["dur"] = static_cast<double>(process.lastTime - process.firstTime) / 1e3;
        event["args"] = ProcessJson(report, process);
        events.push_back(std::move(event));
    }
    return Dump({{"displayTimeUnit", "ms"}, {"traceEvents", events}});
}

}  // namespace orla::host
