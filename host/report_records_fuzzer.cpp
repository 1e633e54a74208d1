// The input is a data file of each of the four kinds in turn: whatever it holds, the report is
// made, and counts no more samples and no more damage than there are bytes.
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "host/report_output.h"

using namespace orla::host;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const SampleSource sources[] = {{SampleKind::kCpu},
                                    {SampleKind::kMemory},
                                    {SampleKind::kProcessCpu, 7},
                                    {SampleKind::kProcessMemory, 7}};
    ReportBuilder builder({{{SampleKind::kCpu, 100.0}, {SampleKind::kProcessCpu, 100.0}}});
    for (const SampleSource& source : sources) {
        builder.Scan(source, bytes);
    }
    builder.BeginReport();
    for (const SampleSource& source : sources) {
        builder.Take(source, bytes);
    }
    const Report& report = builder.report();
    for (const auto& [kind, quality] : report.quality) {
        if (quality.samples > size || quality.damaged > size) {
            std::abort();
        }
    }
    const ReportInput input;
    // Writing a report costs more than reading its files; one in eight is enough.
    if (size % 8 == 0 && (ReportText(report, input).empty() || ReportPage(report, input).empty() ||
                          ReportTrace(report, input).empty())) {
        std::abort();
    }
    return 0;
}
