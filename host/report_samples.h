// The numbers in the data of sample records: what the four kinds of samples say. No I/O, no
// state; any thread. The texts are foreign: one that makes no sense gives nothing.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace orla::host {

// How the processor time of a machine is divided. Waiting for a disk is a part of idle time.
enum CpuMode { kUser, kNice, kSystem, kIrq, kSteal, kIoWait, kIdle, kCpuModes };
[[nodiscard]] const char* NameOf(CpuMode mode);

using CpuTicks = std::array<uint64_t, kCpuModes>;
[[nodiscard]] uint64_t Total(const CpuTicks& ticks);

// Clock ticks since the machine started, summed over all processors.
struct CpuSample {
    CpuTicks ticks = {};
    uint32_t processors = 0;
    std::map<uint32_t, CpuTicks> cores;  // the same of each processor, by its number
};

// Bytes.
struct MemorySample {
    uint64_t total = 0;
    uint64_t available = 0;  // what programs could still get
    uint64_t free = 0;
    uint64_t cached = 0;  // file pages and reclaimable kernel memory
    uint64_t swapTotal = 0;
    uint64_t swapFree = 0;
};

struct ProcessCpuSample {
    uint64_t ticks = 0;         // of the process since its start, in user mode and in the kernel
    uint64_t machineTicks = 0;  // of all processors, in all modes, at that time
    uint64_t startTime = 0;  // ticks since the start of the machine; tells a process from the next
                             // one of the same id
    uint64_t virtualBytes = 0;
    uint64_t threads = 0;
    std::string name;
};

// Pages, whose size follows from the bytes of the same memory in ProcessCpuSample.
struct ProcessMemorySample {
    uint64_t virtualPages = 0;
    uint64_t residentPages = 0;
    std::string name;
};

[[nodiscard]] std::optional<CpuSample> ReadCpuSample(std::string_view data);
[[nodiscard]] std::optional<MemorySample> ReadMemorySample(std::string_view data);
[[nodiscard]] std::optional<ProcessCpuSample> ReadProcessCpuSample(std::string_view data);
[[nodiscard]] std::optional<ProcessMemorySample> ReadProcessMemorySample(std::string_view data);

}  // namespace orla::host
