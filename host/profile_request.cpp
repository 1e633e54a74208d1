#include "host/profile_request.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

#include "host/report_records.h"
#include "host/safe_file.h"

namespace orla::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr int kDefaultIntervalMs = 100;
constexpr size_t kMaxParameters = 1 << 20;
// What ties the sessions of a job together; a user's value would take it apart.
constexpr const char* kJobKeys[] = {"job_id", "profiling_mode", "devices"};

std::vector<std::string_view> Settable() {
    std::vector<std::string_view> keys;
    for (const char* const* key = kParameterKeys; *key != nullptr; ++key) {
        if (std::find(std::begin(kJobKeys), std::end(kJobKeys), std::string_view(*key)) ==
            std::end(kJobKeys)) {
            keys.emplace_back(*key);
        }
    }
    return keys;
}

bool IsOn(const Json& parameters, const char* key) {
    const auto found = parameters.find(key);
    return found != parameters.end() && *found == "on";
}

bool IsOfKind(std::string_view file, SampleKind kind) {
    const auto source = SourceOf(file);
    return source.has_value() && source->kind == kind;
}

// A source of data: when a request switches it on, and which files are its own.
struct SourceRule {
    const char* name;
    bool (*wanted)(const ProfileRequest& request);
    bool (*owns)(std::string_view file);
    bool isOfTheCard;
};

constexpr SourceRule kSources[] = {
    {"cpu", [](const ProfileRequest& r) { return IsOn(r.parameters, "sys_profiling"); },
     [](std::string_view file) { return IsOfKind(file, SampleKind::kCpu); }, true},
    {"mem",
     [](const ProfileRequest& r) {
         return IsOn(r.parameters, "sys_profiling") && !IsOn(r.parameters, "tracelet");
     },
     [](std::string_view file) { return IsOfKind(file, SampleKind::kMemory); }, true},
    {"pids", [](const ProfileRequest& r) { return IsOn(r.parameters, "pid_profiling"); },
     [](std::string_view file) {
         return IsOfKind(file, SampleKind::kProcessCpu) ||
                IsOfKind(file, SampleKind::kProcessMemory);
     },
     true},
    {"cpu-events", [](const ProfileRequest& r) { return !r.cpuEvents.empty(); },
     [](std::string_view file) { return file == "data/ai_ctrl_cpu.data"; }, true},
    {"llc-events", [](const ProfileRequest& r) { return !r.llcEvents.empty(); },
     [](std::string_view file) { return file == "data/llc.data"; }, false},
};

Json ReadParameters(const std::string& file) {
    std::string text;
    const std::string problem = ReadWhole(file, kMaxParameters, &text);
    if (!problem.empty()) {
        throw std::invalid_argument(fmt::format("{}: {}", file, problem));
    }
    Json parameters = Json::parse(text, nullptr, false);
    if (!parameters.is_object()) {
        throw std::invalid_argument(fmt::format("{}: no JSON object", file));
    }
    for (const auto& [key, value] : parameters.items()) {
        if (!value.is_string() && !value.is_number_integer()) {
            throw std::invalid_argument(
                fmt::format("{}: {}: neither a text nor a whole number", file, key));
        }
    }
    return parameters;
}

// A whole number is sent as one, everything else as a text; "\"5\"" is a text that looks like a
// number. The record has no other kinds.
Json ReadValue(const std::string& text) {
    int32_t number = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (!text.empty() && stop == text.data() + text.size()) {
        if (error != std::errc()) {
            throw std::invalid_argument("the number does not fit 32 bits; a text stands in \"\"");
        }
        return number;
    }
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
        return text.substr(1, text.size() - 2);
    }
    return text;
}

void Set(const std::string& setting, Json* parameters) {
    const size_t equals = setting.find('=');
    const std::string key = setting.substr(0, equals);
    const bool isKey = !key.empty() && std::all_of(key.begin(), key.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_';
    });
    if (equals == std::string::npos || !isKey) {
        throw std::invalid_argument(fmt::format("--set {}: not of the form key=value", setting));
    }
    if (std::find(std::begin(kJobKeys), std::end(kJobKeys), key) != std::end(kJobKeys)) {
        throw std::invalid_argument(fmt::format("--set {}: the tool sets {} itself", setting, key));
    }
    if (const auto keys = Settable(); std::find(keys.begin(), keys.end(), key) == keys.end()) {
        throw std::invalid_argument(
            fmt::format("--set {}: no such key: {}; profile --help lists them", setting, key));
    }
    try {
        (*parameters)[key] = ReadValue(setting.substr(equals + 1));
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(fmt::format("--set {}: {}", setting, e.what()));
    }
}

void SwitchOn(const ProfileOptions& options, Json* parameters) {
    const bool none = !options.cpu && !options.memory && !options.processes;
    const bool all = none && options.paramsFile.empty();
    if (all || options.cpu || options.memory) {
        (*parameters)["sys_profiling"] = "on";
    }
    if (options.cpu && !options.memory) {
        // One switch starts both samplers; this is the only other one that memory looks at.
        (*parameters)["tracelet"] = "on";
    }
    if (all || options.processes) {
        (*parameters)["pid_profiling"] = "on";
    }
    if (!options.llcEvents.empty()) {
        (*parameters)["tracelet_llc_profiling"] = "on";
    }
    const int interval = options.intervalMs > 0       ? options.intervalMs
                         : options.paramsFile.empty() ? kDefaultIntervalMs
                                                      : 0;
    if (interval > 0) {
        for (const char* key : {"cpu_sampling_interval", "sys_sampling_interval",
                                "pid_sampling_interval", "llc_interval"}) {
            (*parameters)[key] = interval;
        }
    }
}

}  // namespace

std::string SettableKeys() {
    return fmt::format("{}", fmt::join(Settable(), " "));
}

ProfileRequest MakeRequest(const ProfileOptions& options) {
    ProfileRequest request;
    request.parameters =
        options.paramsFile.empty() ? Json::object() : ReadParameters(options.paramsFile);
    request.cpuEvents = options.cpuEvents;
    request.llcEvents = options.llcEvents;
    request.mode = options.mode;
    SwitchOn(options, &request.parameters);
    for (const std::string& setting : options.settings) {
        Set(setting, &request.parameters);
    }
    for (const SourceRule& rule : kSources) {
        if (rule.wanted(request)) {
            request.sources.emplace_back(rule.name);
        }
    }
    return request;
}

std::string ParametersText(const ProfileRequest& request, const std::string& jobId,
                           uint32_t device) {
    Json parameters = request.parameters;
    parameters["job_id"] = jobId;
    parameters["profiling_mode"] = request.mode;
    parameters["devices"] = std::to_string(device);
    return parameters.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool IsOfTheCard(const std::string& source) {
    return std::any_of(std::begin(kSources), std::end(kSources), [&source](const SourceRule& rule) {
        return rule.isOfTheCard && source == rule.name;
    });
}

std::vector<std::string> SilentSources(const ProfileRequest& request,
                                       const std::map<std::string, ReceivedFile>& files) {
    std::vector<std::string> silent;
    for (const SourceRule& rule : kSources) {
        const bool gave = std::any_of(files.begin(), files.end(), [&rule](const auto& file) {
            return file.second.bytes > 0 && rule.owns(file.first);
        });
        if (rule.wanted(request) && !gave) {
            silent.emplace_back(rule.name);
        }
    }
    return silent;
}

}  // namespace orla::host
