// What a user asks a profiling job for, turned into what the device is told: the parameter
// record, the event lists, and the sources that must give something. No I/O but reading the
// parameter file; any thread.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/chunk_files.h"

namespace orla::host {

// As on the command line.
struct ProfileOptions {
    bool cpu = false;
    bool memory = false;
    bool processes = false;
    int intervalMs = 0;  // 0: not given
    std::vector<std::string> cpuEvents;
    std::vector<std::string> llcEvents;
    std::vector<std::string> settings;  // "key=value"
    std::string paramsFile;
    std::string mode;
};

struct ProfileRequest {
    nlohmann::ordered_json parameters;  // without the job's own keys
    std::vector<std::string> cpuEvents;
    std::vector<std::string> llcEvents;
    std::string mode;
    std::vector<std::string> sources;  // names of those that were switched on
};

// The keys of a parameter record, in its own order; null after the last.
extern const char* const kParameterKeys[];
// Returns the keys that a user may set, for people to read.
[[nodiscard]] std::string SettableKeys();

// Throws std::invalid_argument with a text for the user.
[[nodiscard]] ProfileRequest MakeRequest(const ProfileOptions& options);

// The parameter record of one job: a job's keys stand over those that the user gave.
[[nodiscard]] std::string ParametersText(const ProfileRequest& request, const std::string& jobId,
                                         uint32_t device);

// Whether a card has that source once, for all of its devices: its control CPU's samples and
// recordings.
[[nodiscard]] bool IsOfTheCard(const std::string& source);

// The sources of the request that gave not one byte.
[[nodiscard]] std::vector<std::string> SilentSources(
    const ProfileRequest& request, const std::map<std::string, ReceivedFile>& files);

}  // namespace orla::host
