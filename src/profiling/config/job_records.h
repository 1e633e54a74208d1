// The two small JSON records of the conversation with the host: StatusInfo in every answer,
// JobContext in every command and every chunk of data.
#pragma once

#include <cstdint>
#include <string>

#include "profiling/config/base_info.h"

namespace analysis::nedra::message {

// The outcome of one step and the text that goes to the host with it. A new one says failure;
// the step that succeeds sets `status` to 0.
struct StatusInfo : BaseInfo {
    std::string dev_id = "-1";  // never changed on the device
    int32_t status = 1;         // 0 success, 1 failure
    std::string info;

    void ToObject(nlohmann::json& object) const override;
    void FromObject(const nlohmann::json& object) override;
    std::string GetClassName() const override { return "StatusInfo"; }
};

// Which job a message belongs to. The device reads `dev_id` and `job_id` alone, and sends all
// other fields at their defaults.
struct JobContext : BaseInfo {
    std::string result_dir;
    std::string module;
    std::string tag;
    std::string dev_id;  // the host's number of the device, decimal
    std::string job_id;  // the job id of the handshake
    uint64_t chunkStartTime = 0;
    uint64_t chunkEndTime = 0;
    int32_t dataModule = 0;
    std::string stream_enabled;

    void ToObject(nlohmann::json& object) const override;
    void FromObject(const nlohmann::json& object) override;
    std::string GetClassName() const override { return "JobContext"; }
};

[[nodiscard]] bool operator==(const StatusInfo& left, const StatusInfo& right);
[[nodiscard]] bool operator==(const JobContext& left, const JobContext& right);

}  // namespace analysis::nedra::message
