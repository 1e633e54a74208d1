// The input is the text of a job's parameters, and of the job's context: what the checks accept
// holds nothing that a path, a shell or a number would trip over.
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "profiling/config/job_records.h"
#include "profiling/config/param_validation.h"

using namespace analysis::nedra;

namespace {

void AbortIf(bool wrong) {
    if (wrong) {
        std::abort();
    }
}

bool HoldsAny(const std::string& text, std::string_view characters) {
    return text.find_first_of(characters) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& checks = common::validation::ParamValidation::instance();
    const std::string text(reinterpret_cast<const char*>(data), size);
    message::JobContext context;
    if (context.FromString(text)) {
        AbortIf(checks.CheckJobIdIsValid(context.job_id) && HoldsAny(context.job_id, "/.\n '\"$"));
        AbortIf(checks.CheckDeviceIdIsValid(context.dev_id) && std::stoi(context.dev_id) > 63);
    }
    auto params = std::make_shared<message::ProfileParams>();
    if (params->FromString(text) && checks.CheckProfilingParams(params, {})) {
        AbortIf(HoldsAny(params->llc_profiling_events, ";|&$`'\\"));
    }
    return 0;
}
