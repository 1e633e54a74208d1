// The manifest of a profile's directory: what was asked for, and what came. Written when a job
// begins and again at its end, read by the report. Thread-neutral values.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "host/profile_request.h"
#include "host/profile_run.h"

namespace orla::host {

constexpr const char* kManifestName = "manifest.json";

struct ProfileJobInfo {
    ProfileRun::Job job;
    int64_t beganAt = 0;  // seconds since 1970
};

// `result` is null while the job runs.
[[nodiscard]] nlohmann::ordered_json MakeManifest(const ProfileJobInfo& info,
                                                  const ProfileRequest& request,
                                                  const ProfileResult* result);

// Writes it into the job's directory. Empty on success, else why not.
[[nodiscard]] std::string WriteManifest(const std::filesystem::path& dir,
                                        const nlohmann::ordered_json& manifest);

}  // namespace orla::host
