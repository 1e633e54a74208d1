#include "host/report_samples.h"

#include <charconv>
#include <map>
#include <numeric>

namespace orla::host {

namespace {

constexpr uint64_t kMostProcessors = 4096;
constexpr std::string_view kNameLabel = "\nProcessName:";

// Cuts the first piece off, up to a separator, which goes too.
std::string_view Cut(std::string_view* rest, char separator) {
    const size_t end = rest->find(separator);
    const std::string_view piece = rest->substr(0, end);
    rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + 1);
    return piece;
}

// Cuts the first word off; words stand apart by one or more blanks.
std::string_view CutWord(std::string_view* rest) {
    while (!rest->empty() && rest->front() == ' ') {
        rest->remove_prefix(1);
    }
    return Cut(rest, ' ');
}

bool CutNumber(std::string_view* rest, uint64_t* value) {
    const std::string_view word = CutWord(rest);
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), *value);
    return error == std::errc() && stop == word.data() + word.size();
}

// The rest of the line of a processor, or of all: ticks by mode in the kernel's order. The guests'
// ticks that follow them are in the first two already.
bool ReadModes(std::string_view line, CpuTicks* ticks) {
    uint64_t softIrq = 0;
    uint64_t* const order[] = {&(*ticks)[kUser], &(*ticks)[kNice],   &(*ticks)[kSystem],
                               &(*ticks)[kIdle], &(*ticks)[kIoWait], &(*ticks)[kIrq],
                               &softIrq,         &(*ticks)[kSteal]};
    for (uint64_t* field : order) {
        if (!CutNumber(&line, field)) {
            return false;
        }
    }
    (*ticks)[kIrq] += softIrq;
    return true;
}

bool ReadTicks(std::string_view line, CpuTicks* ticks) {
    return CutWord(&line) == "cpu" && ReadModes(line, ticks);
}

// Splits off what the device added behind the source's own lines: the process name and more. The
// last label counts, since a process may put one into its own name.
std::string_view CutAddition(std::string_view* data, std::string* name) {
    const size_t label = data->rfind(kNameLabel);
    if (label == std::string_view::npos) {
        return {};
    }
    std::string_view addition = data->substr(label + kNameLabel.size());
    *data = data->substr(0, label);
    *name = Cut(&addition, '\n');
    return addition;
}

}  // namespace

const char* NameOf(CpuMode mode) {
    const char* const names[kCpuModes] = {"user",  "nice",   "system", "irq",
                                          "steal", "iowait", "idle"};
    return names[mode];
}

uint64_t Total(const CpuTicks& ticks) {
    return std::accumulate(ticks.begin(), ticks.end(), uint64_t{0});
}

std::optional<CpuSample> ReadCpuSample(std::string_view data) {
    CpuSample sample;
    if (!ReadTicks(Cut(&data, '\n'), &sample.ticks)) {
        return std::nullopt;
    }
    constexpr std::string_view label = "cpu";
    while (!data.empty()) {
        std::string_view line = Cut(&data, '\n');
        std::string_view word = CutWord(&line);
        if (word.substr(0, label.size()) != label) {
            continue;
        }
        ++sample.processors;
        word.remove_prefix(label.size());
        uint64_t number = 0;
        CpuTicks ticks = {};
        if (CutNumber(&word, &number) && number < kMostProcessors && ReadModes(line, &ticks)) {
            sample.cores[static_cast<uint32_t>(number)] = ticks;
        }
    }
    return sample;
}

std::optional<MemorySample> ReadMemorySample(std::string_view data) {
    std::map<std::string_view, uint64_t> kilobytes;
    while (!data.empty()) {
        std::string_view line = Cut(&data, '\n');
        const std::string_view key = Cut(&line, ':');
        uint64_t value = 0;
        if (CutNumber(&line, &value) && value <= UINT64_MAX / 1024) {
            kilobytes[key] = value;
        }
    }
    const auto bytes = [&kilobytes](std::string_view key) { return kilobytes[key] * 1024; };
    MemorySample sample;
    sample.total = bytes("MemTotal");
    sample.free = bytes("MemFree");
    sample.cached = bytes("Buffers") + bytes("Cached") + bytes("SReclaimable");
    // Kernels before 3.14 do not tell what is available.
    sample.available =
        kilobytes.count("MemAvailable") != 0 ? bytes("MemAvailable") : sample.free + sample.cached;
    sample.swapTotal = bytes("SwapTotal");
    sample.swapFree = bytes("SwapFree");
    const bool sane = sample.total > 0 && sample.available <= sample.total &&
                      sample.free <= sample.total && sample.swapFree <= sample.swapTotal;
    return sane ? std::optional(sample) : std::nullopt;
}

std::optional<ProcessCpuSample> ReadProcessCpuSample(std::string_view data) {
    ProcessCpuSample sample;
    CpuTicks machine = {};
    std::string_view addition = CutAddition(&data, &sample.name);
    // The name in parentheses may hold blanks and parentheses of its own.
    const size_t parenthesis = data.rfind(')');
    if (parenthesis == std::string_view::npos || !ReadTicks(Cut(&addition, '\n'), &machine)) {
        return std::nullopt;
    }
    std::string_view fields = data.substr(parenthesis + 1);
    static_cast<void>(CutWord(&fields));  // field 3, the state
    uint64_t userTicks = 0;
    uint64_t systemTicks = 0;
    for (int field = 4; field <= 23; ++field) {
        uint64_t* const wanted = field == 14   ? &userTicks
                                 : field == 15 ? &systemTicks
                                 : field == 20 ? &sample.threads
                                 : field == 22 ? &sample.startTime
                                 : field == 23 ? &sample.virtualBytes
                                               : nullptr;
        if (wanted == nullptr ? CutWord(&fields).empty() : !CutNumber(&fields, wanted)) {
            return std::nullopt;
        }
    }
    sample.ticks = userTicks + systemTicks;
    sample.machineTicks = Total(machine);
    return sample;
}

std::optional<ProcessMemorySample> ReadProcessMemorySample(std::string_view data) {
    ProcessMemorySample sample;
    static_cast<void>(CutAddition(&data, &sample.name));
    std::string_view line = Cut(&data, '\n');
    if (!CutNumber(&line, &sample.virtualPages) || !CutNumber(&line, &sample.residentPages)) {
        return std::nullopt;
    }
    return sample;
}

}  // namespace orla::host
