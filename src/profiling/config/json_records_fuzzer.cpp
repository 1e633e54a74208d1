// The input is the JSON text of a record, read as each of the three. What can be read is written
// and read again, to the same record.
#include <cstdint>
#include <cstdlib>

#include "profiling/config/job_records.h"
#include "profiling/config/profile_params.h"

namespace {

template <typename Record>
void ReadWriteRead(const std::string& text) {
    Record record;
    if (!record.FromString(text)) {
        return;
    }
    Record again;
    if (!again.FromString(record.ToString()) || !(again == record)) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace analysis::nedra::message;
    const std::string text(reinterpret_cast<const char*>(data), size);
    ReadWriteRead<StatusInfo>(text);
    ReadWriteRead<JobContext>(text);
    ReadWriteRead<ProfileParams>(text);
    return 0;
}
