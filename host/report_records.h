// The sample records that a device writes into its data files, found again in bytes that may be
// cut off or damaged. A file is records one after another with nothing between them:
//
//     TimeStamp:<nanoseconds>\n Index:<number>\n DataLen:<bytes>\n <data> \n
//
// (the blanks are not there). Index counts the samples of one source from 0; a gap is a sample
// that was lost, or had nothing in it. The time is the device's own clock. No I/O, no state; any
// thread. Everything read is foreign.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace orla::host {

// Where the samples of a file come from.
enum class SampleKind { kCpu, kMemory, kProcessCpu, kProcessMemory };

struct SampleSource {
    SampleKind kind;
    uint32_t pid = 0;  // of the two kinds of processes
};

// The source of a file by the name that the device gave it ("data/12-Memory.data"); nothing for
// files of other kinds.
[[nodiscard]] std::optional<SampleSource> SourceOf(std::string_view fileName);

struct SampleRecord {
    uint64_t time = 0;  // nanoseconds
    uint64_t index = 0;
    std::string_view data;  // lies in the bytes that were read
};

// Hands out the records of `bytes` in their order. Where a record is damaged the search goes on
// at the next place that looks like one. Returns the number of damaged records: places that
// begin like a record and are none, and stretches that belong to no record.
[[nodiscard]] uint64_t ReadRecords(std::string_view bytes,
                                   const std::function<void(const SampleRecord&)>& take);

// The whole records in `bytes`.
[[nodiscard]] uint64_t CountRecords(std::string_view bytes);

}  // namespace orla::host
