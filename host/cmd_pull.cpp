// orlactl pull: fetches all files of one or more types.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "hdc/hdc_api.h"
#include "host/commands.h"
#include "host/device_session.h"
#include "host/exit_codes.h"
#include "host/file_pull.h"
#include "host/limits.h"
#include "host/terminal_text.h"

namespace orla::host {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

struct PullOptions {
    std::vector<std::string> types;
    std::string dir = ".";
    bool list = false;
    int timeoutSeconds = 300;
};

// One line that is written over, a few times a second, on a terminal only.
class Progress {
public:
    explicit Progress(bool wanted) : line_(wanted) {}

    void Update(const PulledFile& file) {
        total_ += file.bytes >= last_ ? file.bytes - last_ : file.bytes;
        last_ = file.bytes == file.size ? 0 : file.bytes;
        const auto now = Clock::now();
        if (!line_.shown() || now - drawn_ < std::chrono::milliseconds(100)) {
            return;
        }
        drawn_ = now;
        const double seconds = std::max(std::chrono::duration<double>(now - start_).count(), 0.1);
        line_.Show(fmt::format(
            "{}: {} of {}, {}/s", Printable(file.name), Amount(static_cast<double>(file.bytes)),
            Amount(static_cast<double>(file.size)), Amount(static_cast<double>(total_) / seconds)));
    }

private:
    const StatusLine line_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point drawn_;
    uint64_t total_ = 0;
    uint64_t last_ = 0;  // bytes of the file that is being received
};

struct TypeResult {
    uint32_t device;
    std::string type;
    std::vector<PulledFile> files;
    ExitCode code;
    std::string reason;
};

TypeResult PullType(const Client& client, uint32_t device, const std::string& type,
                    const std::filesystem::path& dir, const PullOptions& options, bool quiet) {
    const auto session = client.Connect(device);
    if (session == nullptr) {
        return {device, type, {}, kExitConnection, "no daemon listens on this device"};
    }
    Progress progress(!quiet);
    FilePull pull({dir / type, options.list, options.timeoutSeconds * 1000,
                   [&progress](const PulledFile& file) { progress.Update(file); }});
    const PullEnd end = pull.Run(*session, type);
    TypeResult result{device, type, pull.files(), kExitOk, pull.reason()};
    switch (end) {
        case PullEnd::kDone:
            for (const PulledFile& file : result.files) {
                if (!file.problem.empty()) {
                    result.code = kExitIncomplete;
                }
            }
            break;
        case PullEnd::kRefused:
            result.code = kExitRefused;
            break;
        case PullEnd::kNoAnswer:
            result.code = kExitRefused;
            result.reason =
                "the device closed the session: it may not know this type "
                "(pull --help lists them)";
            break;
        case PullEnd::kBroken:
            result.code = result.files.empty() ? kExitConnection : kExitIncomplete;
            break;
    }
    return result;
}

// `folder`: of this device below the output directory; empty when there is one device only.
void Print(const TypeResult& result, const std::string& folder) {
    for (const PulledFile& file : result.files) {
        // Some names begin with a slash, those of files in subfolders.
        const size_t begin = std::min(file.name.find_first_not_of('/'), file.name.size());
        const std::string name = Printable(folder + result.type + "/" + file.name.substr(begin));
        if (file.problem.empty()) {
            Say("{:>12}  {}\n", file.bytes, name);
        } else {
            Complain("{}: {}", name, file.problem);
        }
    }
    if (result.code != kExitOk && !result.reason.empty()) {
        Complain("device {}, {}: {}", result.device, result.type, Printable(result.reason));
    }
}

Json ToJson(const TypeResult& result) {
    auto files = Json::array();
    for (const PulledFile& file : result.files) {
        files.push_back({{"name", file.name},
                         {"bytes", file.bytes},
                         {"size", file.size},
                         {"problem", file.problem}});
    }
    return {{"device", result.device},
            {"type", result.type},
            {"code", result.code},
            {"reason", result.reason},
            {"files", files}};
}

int RunPull(const CommonOptions& common, const PullOptions& options) {
    const auto devices = SelectDevices(common);
    if (devices.empty()) {
        return kExitConnection;
    }
    const auto client = Client::Create(kHdcServiceFramework, limits::kPullMessage);
    if (client == nullptr) {
        Complain("the driver gives no client");
        return kExitConnection;
    }
    std::error_code error;
    if (!options.list) {
        std::filesystem::create_directories(options.dir, error);
    }
    if (error) {
        throw std::runtime_error(fmt::format("{}: {}", options.dir, error.message()));
    }
    int code = kExitOk;
    auto list = Json::array();
    for (const Device& device : devices) {
        const std::string folder =
            devices.size() > 1 ? fmt::format("device-{}/", device.logicalId) : "";
        const std::filesystem::path dir = std::filesystem::path(options.dir) / folder;
        for (const std::string& type : options.types) {
            const TypeResult result =
                PullType(*client, device.logicalId, type, dir, options, common.json);
            code = std::max<int>(code, result.code);
            common.json ? list.push_back(ToJson(result)) : Print(result, folder);
        }
    }
    if (common.json) {
        Say("{}\n", list.dump(2, ' ', false, Json::error_handler_t::replace));
    }
    return code;
}

}  // namespace

Command AddPullCommand(CLI::App& app, const CommonOptions& common) {
    auto* command = app.add_subcommand("pull", "Fetch the device's log and dump files");
    auto options = std::make_shared<PullOptions>();
    command
        ->add_option("TYPE", options->types,
                     "slog, stackcore, bbox, message, event_sched or module_info; several allowed")
        ->required();
    command->add_option("-o,--output", options->dir,
                        "Directory to write to; files go to DIR/TYPE (default: here)");
    command->add_flag(
        "--list", options->list,
        "Show names and sizes, write nothing; the device sends the contents all the same");
    command
        ->add_option("--timeout", options->timeoutSeconds,
                     "Longest silence of the device in seconds")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    return [&common, options] { return RunPull(common, *options); };
}

}  // namespace orla::host
