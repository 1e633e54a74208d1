// orlactl report: reads the directory of a profile and makes its summary, its page, its trace.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "host/commands.h"
#include "host/exit_codes.h"
#include "host/profile_manifest.h"
#include "host/report_model.h"
#include "host/report_output.h"
#include "host/safe_file.h"
#include "host/terminal_text.h"

namespace orla::host {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr size_t kMaxManifest = 256u << 20;  // one line for each file of a job
constexpr int kMaxDepth = 16;
constexpr size_t kMaxFile = size_t{8} << 30;
constexpr size_t kMaxHead = 64 * 1024;
constexpr double kShortestIntervalMs = 100;  // of a device's samplers
constexpr double kIntervalWhenAbsentMs = 10;

struct ReportOptions {
    std::vector<std::string> directories;
    size_t top = 10;
    uint64_t pageSize = 0;
};

struct DataFile {
    std::string name;  // as the device gave it
    fs::path path;
};

// The files below data/, in byte order of their names.
std::vector<DataFile> FindData(const fs::path& dir) {
    std::vector<DataFile> files;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(dir / "data", error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->is_regular_file(error) && !entry->is_symlink(error)) {
            files.push_back({entry->path().lexically_relative(dir).string(), entry->path()});
        }
    }
    std::sort(files.begin(), files.end(),
              [](const DataFile& a, const DataFile& b) { return a.name < b.name; });
    return files;
}

// Null when there is none, or nothing that could have one.
Json Member(const Json& json, const char* key) {
    const auto found = json.is_object() ? json.find(key) : json.end();
    return found != json.end() ? *found : Json();
}

// What stood in the request for a kind, as a device understands it.
std::map<SampleKind, double> AskedIntervals(const Json& manifest) {
    const Json parameters = Member(Member(manifest, "asked"), "parameters");
    const auto asked = [&parameters](const char* key) {
        const Json value = Member(parameters, key);
        return std::max(value.is_number() ? value.get<double>() : kIntervalWhenAbsentMs,
                        kShortestIntervalMs);
    };
    return {{SampleKind::kCpu, asked("cpu_sampling_interval")},
            {SampleKind::kMemory, asked("sys_sampling_interval")},
            {SampleKind::kProcessCpu, asked("pid_sampling_interval")},
            {SampleKind::kProcessMemory, asked("pid_sampling_interval")}};
}

// What is nested deeper than any manifest is left out: what walks through it has a bounded stack.
bool IsShallow(int depth, Json::parse_event_t, const Json&) {
    return depth <= kMaxDepth;
}

Json ReadManifest(const fs::path& dir, std::vector<std::string>* problems) {
    std::string text;
    const std::string problem = ReadWhole(dir / kManifestName, kMaxManifest, &text);
    Json manifest = problem.empty() ? Json::parse(text, IsShallow, false) : Json::object();
    if (!problem.empty() || !manifest.is_object()) {
        problems->push_back(
            fmt::format("{}: {}", kManifestName, problem.empty() ? "no JSON object" : problem));
        return Json::object();
    }
    manifest.erase("files");  // the files themselves are read
    return manifest;
}

OtherFile Describe(const std::string& name, const std::string& bytes) {
    OtherFile file;
    file.name = name;
    file.bytes = bytes.size();
    const bool isText = std::none_of(bytes.begin(), bytes.end(), [](unsigned char c) {
        return c < ' ' && c != '\n' && c != '\t' && c != '\r';
    });
    if (isText) {
        file.lines = static_cast<uint64_t>(std::count(bytes.begin(), bytes.end(), '\n'));
        file.head = bytes.substr(0, kMaxHead);
        file.head.resize(bytes.size() > kMaxHead ? file.head.rfind('\n') + 1 : file.head.size());
    }
    return file;
}

// Reads every file twice: what the report keeps of a file is little, the file may be large.
void ReadFiles(const std::vector<DataFile>& files, ReportBuilder* builder, ReportInput* input) {
    for (const bool first : {true, false}) {
        for (const DataFile& file : files) {
            std::string bytes;
            const std::string problem = ReadWhole(file.path, kMaxFile, &bytes);
            const auto source = SourceOf(file.name);
            if (!problem.empty()) {
                if (first) {
                    input->problems.push_back(fmt::format("{}: {}", file.name, problem));
                }
            } else if (source.has_value()) {
                first ? builder->Scan(*source, bytes) : builder->Take(*source, bytes);
            } else if (first) {
                input->others.push_back(Describe(file.name, bytes));
            }
        }
        if (first) {
            builder->BeginReport();
        }
    }
}

void Write(const fs::path& path, const std::string& content) {
    const std::string problem = WriteWhole(path, content);
    if (!problem.empty()) {
        throw std::runtime_error(fmt::format("{}: {}", path.string(), problem));
    }
}

Json ReportOn(const fs::path& dir, const ReportOptions& options, bool quiet) {
    if (!fs::is_directory(dir)) {
        throw std::runtime_error(fmt::format("{}: no such directory", dir.string()));
    }
    const std::vector<DataFile> files = FindData(dir);
    if (files.empty()) {
        throw std::runtime_error(fmt::format("{}: no profile: no files in data", dir.string()));
    }
    ReportInput input;
    input.directory = dir.string();
    input.top = options.top;
    input.manifest = ReadManifest(dir, &input.problems);
    ReportBuilder builder({AskedIntervals(input.manifest), options.pageSize});
    ReadFiles(files, &builder, &input);
    const Report& report = builder.report();
    Write(dir / "report.html", ReportPage(report, input));
    Write(dir / "trace.json", ReportTrace(report, input));
    if (!quiet) {
        Say("{}\nPage: {}\nTrace: {}\n", ReportText(report, input), (dir / "report.html").string(),
            (dir / "trace.json").string());
    }
    return ReportJson(report, input);
}

int RunReport(const CommonOptions& common, const ReportOptions& options) {
    Json list = Json::array();
    for (const std::string& directory : options.directories) {
        list.push_back(ReportOn(directory, options, common.json));
    }
    if (common.json) {
        Say("{}\n", list.dump(2, ' ', false, Json::error_handler_t::replace));
    }
    return kExitOk;
}

}  // namespace

Command AddReportCommand(CLI::App& app, const CommonOptions& common) {
    auto* command = app.add_subcommand("report", "Make summary, page and trace of a profile");
    auto options = std::make_shared<ReportOptions>();
    command->add_option("DIR", options->directories, "PROF_... directories")->required();
    command->add_option("--top", options->top, "Processes in lists and charts")
        ->check(CLI::Range(1, 50))
        ->capture_default_str();
    command
        ->add_option("--page-size", options->pageSize,
                     "Bytes of a memory page of the device (default: as the data tells, else 4096)")
        ->check(CLI::Range(1024, 1 << 20));
    return [&common, options] { return RunReport(common, *options); };
}

}  // namespace orla::host
