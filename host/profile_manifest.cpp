#include "host/profile_manifest.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "host/safe_file.h"

namespace orla::host {

namespace {

using Json = nlohmann::ordered_json;

Json FileList(const std::map<std::string, ReceivedFile>& files) {
    Json list = Json::array();
    for (const auto& [name, file] : files) {
        list.push_back({{"name", name},
                        {"bytes", file.bytes},
                        {"chunks", file.chunks},
                        {"samples", file.samples},
                        {"dropped", file.dropped},
                        {"problem", file.problem}});
    }
    return list;
}

}  // namespace

Json MakeManifest(const ProfileJobInfo& info, const ProfileRequest& request,
                  const ProfileResult* result) {
    Json manifest = {
        {"format", 1},
        {"device", info.job.device},
        {"job", info.job.id},
        {"began", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(info.beganAt))},
        {"state", result == nullptr         ? "running"
                  : result->code == kExitOk ? "done"
                                            : "failed"},
        {"asked",
         {{"sources", request.sources},
          {"cpu_events", request.cpuEvents},
          {"llc_events", request.llcEvents},
          {"mode", request.mode},
          {"duration_s", info.job.durationSeconds},
          {"parameters", request.parameters}}},
    };
    if (result != nullptr) {
        manifest["code"] = result->code;
        manifest["reason"] = result->reason;
        manifest["seconds"] = result->seconds;
        manifest["ended_by"] = NameOf(result->cause);
        manifest["interrupted"] =
            result->cause == EndCause::kInterrupted || result->cause == EndCause::kBrokenOff;
        manifest["stopped"] = result->stopped;
        manifest["finish_came"] = result->finishCame;
        manifest["silent"] = result->silent;
        if (result->servedBy.has_value()) {
            manifest["served_by"] = *result->servedBy;
        }
        manifest["files"] = FileList(result->files);
    }
    return manifest;
}

std::string WriteManifest(const std::filesystem::path& dir, const Json& manifest) {
    return WriteWhole(dir / kManifestName,
                      manifest.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

}  // namespace orla::host
