// orlactl report: reads the directory of a profile and makes its summary, its page, its trace.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <utility>

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
constexpr size_t kPiece = 1 << 20;
constexpr double kShortestIntervalMs = 100;  // of a device's samplers
constexpr double kIntervalWhenAbsentMs = 10;

struct ReportOptions {
    std::vector<std::string> directories;
    std::string output;  // empty: page and trace go into the profile's own directory
    bool noFiles = false;
    size_t top = 10;
    uint64_t pageSize = 0;
};

struct DataFile {
    std::string name;  // as the device gave it
    fs::path path;
};

// The files below data/, in byte order of their names. What stops the search is a problem of the
// report: it is then one on a part of the data.
std::vector<DataFile> FindData(const fs::path& dir, std::vector<std::string>* problems) {
    std::vector<DataFile> files;
    std::error_code error;
    fs::recursive_directory_iterator entry(dir / "data", error);
    for (const fs::recursive_directory_iterator end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;  // of one entry, which costs itself
        if (entry->is_regular_file(gone) && !entry->is_symlink(gone)) {
            files.push_back({entry->path().lexically_relative(dir).string(), entry->path()});
        }
    }
    if (error) {
        problems->push_back(fmt::format("data: {}", error.message()));
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

// What the files of a manifest say was lost on the way.
void FindLosses(const Json& files, ReportInput* input) {
    for (const Json& file : files.is_array() ? files : Json::array()) {
        const Json name = Member(file, "name");
        const Json problem = Member(file, "problem");
        const Json dropped = Member(file, "dropped");
        if (name.is_string() && dropped.is_number_unsigned() && dropped.get<uint64_t>() > 0) {
            input->dropped += dropped.get<uint64_t>();
            input->losses.push_back(fmt::format(
                "{}: {} chunks were not stored: {}", name.get<std::string>(),
                dropped.get<uint64_t>(), problem.is_string() ? problem.get<std::string>() : ""));
        }
    }
}

void ReadManifest(const fs::path& dir, ReportInput* input) {
    std::string text;
    const std::string problem = ReadWhole(dir / kManifestName, kMaxManifest, &text);
    input->manifest = problem.empty() ? Json::parse(text, IsShallow, false) : Json::object();
    if (!problem.empty() || !input->manifest.is_object()) {
        input->problems.push_back(
            fmt::format("{}: {}", kManifestName, problem.empty() ? "no JSON object" : problem));
        input->manifest = Json::object();
    }
    FindLosses(Member(input->manifest, "files"), input);
    input->manifest.erase("files");  // the files themselves are read
}

// Reads a file in pieces: it may be large, and little of it is kept.
std::string Describe(const DataFile& data, OtherFile* file) {
    std::ifstream in(data.path, std::ios::binary);
    std::string piece(kPiece, '\0');
    bool isText = true;
    while (in.read(piece.data(), kPiece) || in.gcount() > 0) {
        const std::string_view bytes(piece.data(), static_cast<size_t>(in.gcount()));
        isText = isText && std::none_of(bytes.begin(), bytes.end(), [](unsigned char c) {
                     return c < ' ' && c != '\n' && c != '\t' && c != '\r';
                 });
        file->bytes += bytes.size();
        file->lines += static_cast<uint64_t>(std::count(bytes.begin(), bytes.end(), '\n'));
        file->head += bytes.substr(0, kMaxHead - std::min(kMaxHead, file->head.size()));
    }
    file->name = data.name;
    file->lines = isText ? file->lines : 0;
    file->head.resize(!isText                           ? 0
                      : file->bytes > file->head.size() ? file->head.rfind('\n') + 1
                                                        : file->head.size());
    return in.bad() || !in.is_open() ? std::strerror(errno) : "";
}

// Hands the sample files to the builder, one after another in one pass.
void PassSamples(const std::vector<DataFile>& files, ReportInput* input,
                 const std::function<void(const SampleSource&, std::string_view)>& take) {
    for (const DataFile& file : files) {
        const auto source = SourceOf(file.name);
        if (!source.has_value()) {
            continue;
        }
        std::string bytes;
        const std::string problem = ReadWhole(file.path, kMaxFile, &bytes);
        if (problem.empty()) {
            take(*source, bytes);
        } else if (input != nullptr) {
            input->problems.push_back(fmt::format("{}: {}", file.name, problem));
        }
    }
}

// Reads every sample file twice: what the report keeps of a file is little, the file may be large.
void ReadFiles(const std::vector<DataFile>& files, ReportBuilder* builder, ReportInput* input) {
    PassSamples(files, input, [builder](const SampleSource& source, std::string_view bytes) {
        builder->Scan(source, bytes);
    });
    builder->BeginReport();
    PassSamples(files, nullptr, [builder](const SampleSource& source, std::string_view bytes) {
        builder->Take(source, bytes);
    });
    for (const DataFile& file : files) {
        if (!SourceOf(file.name).has_value()) {
            OtherFile other;
            const std::string problem = Describe(file, &other);
            if (problem.empty()) {
                input->others.push_back(std::move(other));
            } else {
                input->problems.push_back(fmt::format("{}: {}", file.name, problem));
            }
        }
    }
}

// Returns an empty text on success, else the problem.
std::string Write(const fs::path& path, const std::string& content) {
    const std::string problem = WriteWhole(path, content);
    return problem.empty() ? "" : fmt::format("{}: {}", path.string(), problem);
}

// Page and trace. They come after the summary, which needs no place on a disk.
bool WriteFiles(const Report& report, const ReportInput& input, const fs::path& dir,
                const ReportOptions& options, bool quiet) {
    fs::path place = dir;
    std::error_code error;
    if (!options.output.empty()) {
        // A directory that is named with a slash at its end has an empty last part.
        place = fs::path(options.output) / (dir / "").lexically_normal().parent_path().filename();
        fs::create_directories(place, error);
    }
    const std::pair<const char*, std::string> files[] = {
        {"report.html", ReportPage(report, input)}, {"trace.json", ReportTrace(report, input)}};
    bool isWritten = true;
    for (const auto& [name, content] : files) {
        const std::string problem = error ? fmt::format("{}: {}", place.string(), error.message())
                                          : Write(place / name, content);
        if (!problem.empty()) {
            Complain("{}", problem);
            isWritten = false;
        } else if (!quiet) {
            Say("{}: {}\n", name, (place / name).string());
        }
    }
    return isWritten;
}

// Returns false when the report is not whole; standard error then has the reason.
bool ReportOn(const fs::path& dir, const ReportOptions& options, bool json, Json* list) {
    ReportInput input;
    input.directory = dir.string();
    input.top = options.top;
    std::error_code error;
    if (!fs::is_directory(dir, error)) {
        Complain("{}: {}", dir.string(),
                 error && error != std::errc::no_such_file_or_directory ? error.message()
                                                                        : "no such directory");
        return false;
    }
    const std::vector<DataFile> files = FindData(dir, &input.problems);
    if (files.empty()) {
        Complain("{}: no profile: no files in data{}", dir.string(),
                 input.problems.empty() ? "" : " (" + input.problems.front() + ")");
        return false;
    }
    ReadManifest(dir, &input);
    ReportBuilder builder({AskedIntervals(input.manifest), options.pageSize});
    ReadFiles(files, &builder, &input);
    const Report& report = builder.report();
    if (json) {
        list->push_back(ReportJson(report, input));
    } else {
        Say("{}\n", ReportText(report, input));
    }
    return options.noFiles || WriteFiles(report, input, dir, options, json);
}

int RunReport(const CommonOptions& common, const ReportOptions& options) {
    Json list = Json::array();
    int code = kExitOk;
    for (const std::string& directory : options.directories) {
        try {
            code = ReportOn(directory, options, common.json, &list) ? code : kExitUsage;
        } catch (const std::exception& e) {  // a directory costs itself
            Complain("{}: {}", directory, e.what());
            code = kExitUsage;
        }
    }
    if (common.json) {
        Say("{}\n", list.dump(2, ' ', false, Json::error_handler_t::replace));
    }
    return code;
}

}  // namespace

Command AddReportCommand(CLI::App& app, const CommonOptions& common) {
    auto* command = app.add_subcommand("report", "Make summary, page and trace of a profile");
    auto options = std::make_shared<ReportOptions>();
    command->add_option("DIR", options->directories, "PROF_... directories")->required();
    command->add_option("-o,--output", options->output,
                        "Directory for page and trace, in OUTPUT/PROF_... (default: each DIR)");
    command->add_flag("--no-files", options->noFiles, "Print the summary, write nothing");
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
