// orlactl profile: runs a profiling job on each device and keeps what they send.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>

#include "host/commands.h"
#include "host/end_signals.h"
#include "host/profile_manifest.h"
#include "host/profile_request.h"
#include "host/profile_run.h"
#include "host/terminal_text.h"

namespace orla::host {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

constexpr int kShortestIntervalMs = 100;  // of a device's samplers

struct CommandOptions {
    ProfileOptions profile;
    double durationSeconds = 0;
    int patienceSeconds = 60;
    std::string dir = ".";
};

struct Run {
    ProfileJobInfo info;
    std::unique_ptr<ProfileRun> run;
    ProfileResult result = {};  // when it has ended
};

void RemoveEmpty(const std::filesystem::path& dir) {
    std::error_code ignored;
    std::filesystem::remove(dir / kManifestName, ignored);
    std::filesystem::remove(dir, ignored);  // only an empty one goes
}

// Makes the job's directory and everything that its name and its id stand for.
ProfileJobInfo Prepare(uint32_t device, const CommandOptions& options,
                       const ProfileRequest& request) {
    const std::time_t now = std::time(nullptr);
    const auto random = static_cast<uint32_t>(std::random_device()());
    ProfileJobInfo info;
    info.beganAt = now;
    info.job.device = device;
    // A daemon that serves several devices tells jobs by their ids alone.
    info.job.id = fmt::format("orla-{:%Y%m%d%H%M%S}-{}-{:08x}", fmt::gmtime(now), device, random);
    info.job.dir =
        std::filesystem::path(options.dir) /
        fmt::format("PROF_{:%Y%m%d-%H%M%S}_device{}_{:08x}", fmt::localtime(now), device, random);
    info.job.durationSeconds = options.durationSeconds;
    info.job.patience = std::chrono::seconds(options.patienceSeconds);
    std::error_code error;
    std::filesystem::create_directories(options.dir, error);
    if (!std::filesystem::create_directory(info.job.dir, error)) {
        throw std::runtime_error(fmt::format("{}: {}", info.job.dir.string(),
                                             error ? error.message() : "it exists already"));
    }
    const std::string problem = WriteManifest(info.job.dir, MakeManifest(info, request, nullptr));
    if (!problem.empty()) {
        RemoveEmpty(info.job.dir);
        throw std::runtime_error(fmt::format("{}: {}", info.job.dir.string(), problem));
    }
    return info;
}

// What all jobs together have got, as one line; the rate is that of the time since the last one.
class Progress {
public:
    explicit Progress(bool wanted) : line_(wanted) {}

    void Update(const std::vector<Run>& runs, int signals) {
        const auto now = Clock::now();
        const double spent = std::chrono::duration<double>(now - drawn_).count();
        if (!line_.shown() || spent < 0.2) {
            return;
        }
        uint64_t bytes = 0;
        uint64_t samples = 0;
        ProfilePhase phase = ProfilePhase::kDone;
        for (const Run& run : runs) {
            if (run.run == nullptr) {
                phase = ProfilePhase::kStarting;
                continue;
            }
            const ProfileProgress progress = run.run->progress();
            bytes += progress.bytes;
            samples += progress.samples;
            phase = std::min(phase, progress.phase);
        }
        const char* const doing[] = {"starting", "running", "ending", "done"};
        line_.Show(fmt::format(
            "{}{}, {:.0f} s: {}, {} samples, {}/s", doing[static_cast<int>(phase)],
            signals > 0 ? " (once more breaks off)" : "",
            std::chrono::duration<double>(now - start_).count(), Amount(static_cast<double>(bytes)),
            samples, Amount(static_cast<double>(bytes - bytes_) / spent)));
        bytes_ = bytes;
        drawn_ = now;
    }

private:
    const StatusLine line_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point drawn_ = start_;
    uint64_t bytes_ = 0;
};

// Looks after the jobs that were started, until the condition is met.
template <typename Condition>
void Tend(const std::vector<Run>& runs, EndSignals* signals, Progress* progress,
          const Condition& isMet) {
    while (!isMet()) {
        signals->Wait(std::chrono::milliseconds(20));
        for (const Run& run : runs) {
            if (run.run == nullptr) {
                continue;
            }
            run.run->Tend();
            if (signals->count() >= 2) {
                run.run->Abort();
            } else if (signals->count() == 1) {
                run.run->Interrupt();
            }
        }
        progress->Update(runs, signals->count());
    }
}

// Runs all jobs to their ends. They start one after another: of a source that the card has once,
// the first device's job is the one that has it, and which one that is must not be chance.
void RunAll(std::vector<Run>* runs, const ProfileRequest& request, EndSignals* signals,
            bool quiet) {
    Progress progress(!quiet);
    for (Run& run : *runs) {
        run.run = std::make_unique<ProfileRun>(run.info.job, request);
        run.run->Start();
        Tend(*runs, signals, &progress,
             [&run] { return run.run->progress().phase != ProfilePhase::kStarting; });
    }
    const auto isDone = [](const Run& run) {
        return run.run->progress().phase == ProfilePhase::kDone;
    };
    Tend(*runs, signals, &progress,
         [&] { return std::all_of(runs->begin(), runs->end(), isDone); });
    for (Run& run : *runs) {
        run.result = run.run->Join();
    }
}

// A device lacks nothing when a job that was started before its own has given all that it misses,
// and the card has that only once.
void FindServed(std::vector<Run>* runs, const ProfileRequest& request) {
    for (auto run = runs->begin(); run != runs->end(); ++run) {
        ProfileResult& result = run->result;
        if (!result.onlySilent && !result.heldOrOff) {
            continue;
        }
        const auto& missing = result.heldOrOff ? request.sources : result.silent;
        const auto serves = [&missing](const Run& other) {
            const auto& silent = other.result.silent;
            return other.result.started &&
                   std::all_of(
                       missing.begin(), missing.end(), [&silent](const std::string& source) {
                           return IsOfTheCard(source) &&
                                  std::find(silent.begin(), silent.end(), source) == silent.end();
                       });
        };
        const auto server = std::find_if(runs->begin(), run, serves);
        if (server != run && !missing.empty()) {
            result.servedBy = server->info.job.device;
            result.code = kExitOk;
            result.reason.clear();
        }
    }
}

void Print(const ProfileJobInfo& info, const ProfileResult& result, bool kept) {
    uint64_t bytes = 0;
    uint64_t samples = 0;
    for (const auto& [name, file] : result.files) {
        bytes += file.bytes;
        samples += file.samples;
    }
    if (kept) {
        Say("device {}: {}: {:.1f} s, {} in {} files, {} samples\n", info.job.device,
            info.job.dir.string(), result.seconds, Amount(static_cast<double>(bytes)),
            result.files.size(), samples);
    }
    if (result.servedBy.has_value()) {
        Say("device {}: served by device {}'s job\n", info.job.device, *result.servedBy);
    }
    if (result.code != kExitOk) {
        Complain("device {}: {}", info.job.device, Printable(result.reason));
    }
}

// Ends a job's directory. Returns the exit code of the job.
int Finish(Run& run, const ProfileRequest& request, bool json, Json* list) {
    ProfileResult& result = run.result;
    const ProfileJobInfo& info = run.info;
    // A job that never began leaves nothing behind.
    const bool kept = result.started || !result.files.empty();
    if (kept) {
        const std::string problem =
            WriteManifest(info.job.dir, MakeManifest(info, request, &result));
        if (!problem.empty() && result.code == kExitOk) {
            result.code = kExitIncomplete;
            result.reason = fmt::format("the manifest could not be written: {}", problem);
        }
    } else {
        RemoveEmpty(info.job.dir);
    }
    if (json) {
        Json entry = MakeManifest(info, request, &result);
        entry["directory"] = kept ? info.job.dir.string() : "";
        list->push_back(entry);
    } else {
        Print(info, result, kept);
    }
    return result.code;
}

int RunProfile(const CommonOptions& common, const CommandOptions& options) {
    const ProfileRequest request = MakeRequest(options.profile);
    if (options.profile.intervalMs > 0 && options.profile.intervalMs < kShortestIntervalMs) {
        Complain("the device samples every {} ms at the most often", kShortestIntervalMs);
    }
    const auto devices = SelectDevices(common);
    if (devices.empty()) {
        return kExitConnection;
    }
    std::vector<Run> runs;
    EndSignals signals;
    try {
        for (const Device& device : devices) {
            runs.push_back({Prepare(device.logicalId, options, request), nullptr, {}});
        }
    } catch (...) {
        for (const Run& run : runs) {
            RemoveEmpty(run.info.job.dir);
        }
        throw;
    }
    RunAll(&runs, request, &signals, common.json);
    FindServed(&runs, request);
    int code = kExitOk;
    Json list = Json::array();
    for (Run& run : runs) {
        code = std::max(code, Finish(run, request, common.json, &list));
    }
    if (common.json) {
        Say("{}\n", list.dump(2, ' ', false, Json::error_handler_t::replace));
    }
    return code;
}

// Up to a year; written so that "nan" is none either.
std::string IsDuration(const std::string& text) {
    double seconds = 0;
    const bool isOne =
        CLI::detail::lexical_cast(text, seconds) && seconds >= 0.001 && seconds <= 31'536'000;
    return isOne ? "" : "Value " + text + " not in range 0.001 to 31536000";
}

void AddOptions(CLI::App& command, CommandOptions& options) {
    ProfileOptions& profile = options.profile;
    command.add_flag("--cpu", profile.cpu, "Sample the use of the processors");
    command.add_flag("--mem", profile.memory, "Sample the use of memory (brings the processors)");
    command.add_flag("--pids", profile.processes,
                     "Sample every process (default: all three, unless --params says)");
    command
        .add_option("--interval", profile.intervalMs,
                    "Milliseconds between samples (default: 100, which is also the least)")
        ->check(CLI::Range(1, 86'400'000));
    command
        .add_option("--cpu-events", profile.cpuEvents,
                    "Events of the control processor to record, for example 0x11,0x8")
        ->delimiter(',');
    command
        .add_option("--llc-events", profile.llcEvents,
                    "Events of the last level cache to count, for example read,write")
        ->delimiter(',');
    command.add_option(
        "--set", profile.settings,
        "KEY=VALUE: any parameter of the record, see below; a whole number is sent as one "
        "unless it stands in \"\" (repeatable)");
    command.add_option("--params", profile.paramsFile,
                       "JSON file with a parameter record; the options stand over it");
    command
        .add_option("--mode", profile.mode,
                    "Mode of the job: def_mode (default) or system-wide; a device runs one job "
                    "of each")
        ->check(CLI::IsMember({"def_mode", "system-wide"}));
    command
        .add_option("--duration", options.durationSeconds,
                    "Seconds to run (default: until Ctrl-C, which ends the job in order)")
        ->check(IsDuration);
    command.add_option("-o,--output", options.dir,
                       "Directory in which each job makes its PROF_... (default: here)");
    command
        .add_option("--timeout", options.patienceSeconds,
                    "Longest silence of the device in seconds")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
}

}  // namespace

Command AddProfileCommand(CLI::App& app, const CommonOptions& common) {
    auto* command = app.add_subcommand("profile", "Run a profiling job and keep what it gives");
    auto options = std::make_shared<CommandOptions>();
    AddOptions(*command, *options);
    command->footer("Keys of --set: " + SettableKeys());
    return [&common, options] { return RunProfile(common, *options); };
}

}  // namespace orla::host
