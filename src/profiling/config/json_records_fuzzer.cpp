// The input is the JSON text of a record, read as each of the three. What can be read is written
// and read again, to the same record; what the checks accept of it holds nothing that a path, a
// shell or a number would trip over.
#include <cstdlib>
#include <memory>

#include "profiling/config/job_records.h"
#include "profiling/config/param_validation.h"

using namespace analysis::nedra;

template <typename Record>
static std::shared_ptr<Record> ReadWriteRead(const std::string& text) {
    auto record = std::make_shared<Record>();
    if (!record->FromString(text)) {
        return nullptr;
    }
    if (Record again; !again.FromString(record->ToString()) || !(again == *record)) {
        std::abort();
    }
    return record;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto& checks = common::validation::ParamValidation::instance();
    const std::string text(reinterpret_cast<const char*>(data), size);
    ReadWriteRead<message::StatusInfo>(text);
    const auto context = ReadWriteRead<message::JobContext>(text);
    const auto params = ReadWriteRead<message::ProfileParams>(text);
    if ((context != nullptr && checks.CheckJobIdIsValid(context->job_id) &&
         context->job_id.find_first_of("/.\n '\"$") != std::string::npos) ||
        (context != nullptr && checks.CheckDeviceIdIsValid(context->dev_id) &&
         std::stoi(context->dev_id) > 63) ||
        (checks.CheckProfilingParams(params, {}) &&
         params->llc_profiling_events.find_first_of(";|&$`'\\") != std::string::npos)) {
        std::abort();
    }
    return 0;
}
