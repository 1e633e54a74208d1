// The input is the JSON text of a record, read as each of the three. What can be read is written
// and read again, to the same record; what the checks accept of it holds nothing that a path, a
// shell or a number would trip over.
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "profiling/config/job_records.h"
#include "profiling/config/param_validation.h"

using namespace analysis::nedra;

namespace {

void AbortIf(bool wrong) {
    if (wrong) {
        std::abort();
    }
}

bool HoldsAny(const std::string& text, const char* characters) {
    return text.find_first_of(characters) != std::string::npos;
}

template <typename Record>
std::shared_ptr<Record> ReadWriteRead(const std::string& text) {
    auto record = std::make_shared<Record>();
    if (!record->FromString(text)) {
        return nullptr;
    }
    Record again;
    AbortIf(!again.FromString(record->ToString()) || !(again == *record));
    return record;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& checks = common::validation::ParamValidation::instance();
    const std::string text(reinterpret_cast<const char*>(data), size);
    ReadWriteRead<message::StatusInfo>(text);
    if (const auto context = ReadWriteRead<message::JobContext>(text)) {
        AbortIf(checks.CheckJobIdIsValid(context->job_id) &&
                HoldsAny(context->job_id, "/.\n '\"$"));
        AbortIf(checks.CheckDeviceIdIsValid(context->dev_id) && std::stoi(context->dev_id) > 63);
    }
    const auto params = ReadWriteRead<message::ProfileParams>(text);
    if (checks.CheckProfilingParams(params, {})) {
        AbortIf(HoldsAny(params->llc_profiling_events, ";|&$`'\\"));
    }
    return 0;
}
