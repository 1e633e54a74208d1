#include "profiling/config/profile_params.h"

#include "profiling/config/record_fields.h"

namespace analysis::nedra::message {

namespace {

constexpr RecordField<ProfileParams> kFields[] = {
#define FIELD(type, name, initial, absent) {#name, &ProfileParams::name, absent},
#include "profiling/config/profile_params_table.inc"
#undef FIELD
};

}  // namespace

void ProfileParams::ToObject(nlohmann::json& object) const {
    WriteFields(kFields, *this, object);
}

void ProfileParams::FromObject(const nlohmann::json& object) {
    ReadFields(kFields, object, *this);
}

bool operator==(const ProfileParams& left, const ProfileParams& right) {
    return SameFields(kFields, left, right);
}

}  // namespace analysis::nedra::message
