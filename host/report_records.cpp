#include "host/report_records.h"

#include <charconv>

namespace orla::host {

namespace {

constexpr std::string_view kStart = "TimeStamp:";
constexpr std::string_view kStartOfLine = "\nTimeStamp:";

// Takes "<label><decimal>\n" off the front.
bool TakeField(std::string_view* rest, std::string_view label, uint64_t* value) {
    if (rest->substr(0, label.size()) != label) {
        return false;
    }
    const char* begin = rest->data() + label.size();
    const char* end = rest->data() + rest->size();
    const auto [stop, error] = std::from_chars(begin, end, *value);
    if (error != std::errc() || stop == end || *stop != '\n') {
        return false;
    }
    rest->remove_prefix(static_cast<size_t>(stop + 1 - rest->data()));
    return true;
}

// Takes one whole record off the front. What follows it may be damaged, which is no fault of this
// one; but then a record that holds the start of another has swallowed it: its length lies.
bool TakeRecord(std::string_view* rest, SampleRecord* record) {
    std::string_view bytes = *rest;
    uint64_t length = 0;
    if (!TakeField(&bytes, kStart, &record->time) || !TakeField(&bytes, "Index:", &record->index) ||
        !TakeField(&bytes, "DataLen:", &length) || length >= bytes.size() ||
        bytes[length] != '\n') {
        return false;
    }
    record->data = bytes.substr(0, length);
    bytes.remove_prefix(length + 1);
    const bool nextIsWhole = bytes.substr(0, kStart.size()) == kStart.substr(0, bytes.size());
    if (!nextIsWhole && record->data.find(kStartOfLine) != std::string_view::npos) {
        return false;
    }
    *rest = bytes;
    return true;
}

}  // namespace

std::optional<SampleSource> SourceOf(std::string_view fileName) {
    constexpr std::string_view folder = "data/";
    if (fileName.substr(0, folder.size()) != folder) {
        return std::nullopt;
    }
    fileName.remove_prefix(folder.size());
    if (fileName == "SystemCpuUsage.data") {
        return SampleSource{SampleKind::kCpu};
    }
    if (fileName == "Memory.data") {
        return SampleSource{SampleKind::kMemory};
    }
    uint32_t pid = 0;
    const auto [stop, error] =
        std::from_chars(fileName.data(), fileName.data() + fileName.size(), pid);
    if (error != std::errc()) {
        return std::nullopt;
    }
    fileName.remove_prefix(static_cast<size_t>(stop - fileName.data()));
    if (fileName == "-CpuUsage.data") {
        return SampleSource{SampleKind::kProcessCpu, pid};
    }
    if (fileName == "-Memory.data") {
        return SampleSource{SampleKind::kProcessMemory, pid};
    }
    return std::nullopt;
}

uint64_t ReadRecords(std::string_view bytes, const std::function<void(const SampleRecord&)>& take) {
    uint64_t damaged = 0;
    SampleRecord record;
    while (!bytes.empty()) {
        if (TakeRecord(&bytes, &record)) {
            take(record);
            continue;
        }
        ++damaged;
        // The data of a record may hold anything, so a start counts at the start of a line only.
        const size_t next = bytes.find(kStartOfLine);
        if (next == std::string_view::npos) {
            break;
        }
        bytes.remove_prefix(next + 1);
    }
    return damaged;
}

uint64_t CountRecords(std::string_view bytes) {
    uint64_t count = 0;
    static_cast<void>(ReadRecords(bytes, [&count](const SampleRecord&) { ++count; }));
    return count;
}

}  // namespace orla::host
