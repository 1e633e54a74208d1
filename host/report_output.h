// A report in the forms in which it goes out: text for a terminal, JSON for machines, one page
// for a browser, events for trace viewers. No I/O; one thread. Texts of the device are escaped
// for the place they go to.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/report_model.h"

namespace orla::host {

// A data file that holds no samples: the text of a script, or something else.
struct OtherFile {
    std::string name;
    uint64_t bytes = 0;
    uint64_t lines = 0;
    std::string head;  // the first lines of a text; empty for everything else
};

struct ReportInput {
    std::string directory;
    nlohmann::ordered_json manifest;  // an empty object when there is none
    std::vector<OtherFile> others;
    std::vector<std::string> problems;  // of files that could not be read at all
    std::vector<std::string> losses;    // of files that are not whole, as the manifest tells
    uint64_t dropped = 0;               // chunks that were not stored
    size_t top = 10;                    // processes in lists and charts
};

[[nodiscard]] std::string ReportText(const Report& report, const ReportInput& input);
[[nodiscard]] nlohmann::ordered_json ReportJson(const Report& report, const ReportInput& input);
[[nodiscard]] std::string ReportPage(const Report& report, const ReportInput& input);
// The format of Chrome's trace events: counters for the machine and for the busiest processes,
// and the life of every process.
[[nodiscard]] std::string ReportTrace(const Report& report, const ReportInput& input);

// What the page is made of, put into the program when it was built.
extern const char kPageTemplate[];
extern const char kDygraphScript[];
extern const char kDygraphStyle[];

}  // namespace orla::host
