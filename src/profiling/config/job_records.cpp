#include "profiling/config/job_records.h"

#include "profiling/config/record_fields.h"

namespace analysis::nedra::message {

namespace {

constexpr RecordField<StatusInfo> kStatusFields[] = {
    {"dev_id", &StatusInfo::dev_id, ""},
    {"status", &StatusInfo::status, 1},
    {"info", &StatusInfo::info, ""},
};

constexpr RecordField<JobContext> kContextFields[] = {
    {"result_dir", &JobContext::result_dir, ""},
    {"module", &JobContext::module, ""},
    {"tag", &JobContext::tag, ""},
    {"dev_id", &JobContext::dev_id, ""},
    {"job_id", &JobContext::job_id, ""},
    {"chunkStartTime", &JobContext::chunkStartTime, 0},
    {"chunkEndTime", &JobContext::chunkEndTime, 0},
    {"dataModule", &JobContext::dataModule, 0},
    {"stream_enabled", &JobContext::stream_enabled, ""},
};

}  // namespace

void StatusInfo::ToObject(nlohmann::json& object) const {
    WriteFields(kStatusFields, *this, object);
}

void StatusInfo::FromObject(const nlohmann::json& object) {
    ReadFields(kStatusFields, object, *this);
}

void JobContext::ToObject(nlohmann::json& object) const {
    WriteFields(kContextFields, *this, object);
}

void JobContext::FromObject(const nlohmann::json& object) {
    ReadFields(kContextFields, object, *this);
}

bool operator==(const StatusInfo& left, const StatusInfo& right) {
    return SameFields(kStatusFields, left, right);
}

bool operator==(const JobContext& left, const JobContext& right) {
    return SameFields(kContextFields, left, right);
}

}  // namespace analysis::nedra::message
