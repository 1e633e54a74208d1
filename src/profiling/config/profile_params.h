// The whole configuration of one profiling job: a flat record of named texts and integers that
// the host sends as JSON when it starts a job. It is parsed once and then read through a shared
// pointer by every job and driver operation, on any thread. Two writers exist before that: the
// configuration manager replaces the L2 cache events, the storage limit check raises a limit.
//
// A switch is a text and is on only when it is exactly "on"; "off" and the empty text are the
// same. A list is text separated by commas. Each job says in which unit it takes its interval.
// A record that failed to parse holds what was read before the failure and must be dropped.
#pragma once

#include <cstdint>
#include <string>

#include "profiling/config/base_info.h"

namespace analysis::nedra::message {

struct ProfileParams : BaseInfo {
#define FIELD(type, name, initial, absent) type name{initial};
#include "profiling/config/profile_params_table.inc"
#undef FIELD

    void ToObject(nlohmann::json& object) const override;
    void FromObject(const nlohmann::json& object) override;
    std::string GetClassName() const override {
        return "ProfileParams";
    }
};

// Whether a switch of the record is on.
[[nodiscard]] inline bool IsOn(const std::string& value) {
    return value == "on";
}

[[nodiscard]] bool operator==(const ProfileParams& left, const ProfileParams& right);

}  // namespace analysis::nedra::message
