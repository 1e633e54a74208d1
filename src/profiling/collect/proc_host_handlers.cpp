#include "profiling/collect/proc_host_handlers.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::utils::Utils;

namespace {

constexpr char kUptime[] = "/proc/uptime";
constexpr char kNetwork[] = "/proc/net/dev";

SampleSpec WithoutSource(SampleSpec spec) {
    spec.srcFileName.clear();
    return spec;
}

std::string PidDir(const SampleRoad& road) {
    return "/proc/" + std::to_string(road.params == nullptr ? -1 : road.params->host_sys_pid);
}

std::string TimeText() {
    return std::to_string(SampleClockNs());
}

}  // namespace

ProcHostCpuHandler::ProcHostCpuHandler(const SampleSpec& spec, SampleRoad road)
    : ProcTimerHandler(WithoutSource(spec), road), taskDir_(PidDir(road) + "/task") {}

void ProcHostCpuHandler::ParseProcFile(std::string_view, std::string& data) {
    std::vector<std::string> threads;
    Utils::GetChildDirs(taskDir_, false, threads);
    std::sort(threads.begin(), threads.end());
    std::vector<char> buffer;
    std::string_view text;
    std::string lines;
    for (const std::string& thread : threads) {
        ProcFile stat(thread + "/stat", kMaxProcFile);
        if (stat.Read(&buffer, &text) == ProcFile::Outcome::kRead) {
            AppendLines(text, &lines);
        } else {
            PROF_LOGW("Open file %s failed.", Utils::BaseName(stat.path()).c_str());
        }
    }
    if (lines.empty()) {
        return;
    }
    std::string_view uptime;
    if (ProcFile file(kUptime, kMaxProcFile);
        file.Read(&buffer, &text) == ProcFile::Outcome::kRead) {
        static_cast<void>(TakeLine(&text, &uptime));
    }
    data.append("time ").append(TimeText()).append("\n").append(uptime).append("\n").append(lines);
}

ProcHostMemHandler::ProcHostMemHandler(const SampleSpec& spec, SampleRoad road)
    : ProcTimerHandler(WithoutSource(spec), road), statm_(PidDir(road) + "/statm", kMaxProcFile) {}

void ProcHostMemHandler::ParseProcFile(std::string_view, std::string& data) {
    std::vector<char> buffer;
    std::string_view text;
    std::string_view line;
    if (statm_.Read(&buffer, &text) == ProcFile::Outcome::kRead && TakeLine(&text, &line)) {
        data.append(TimeText()).append(" ").append(line).append("\n");
    }
}

void ProcHostNetworkHandler::ParseProcFile(std::string_view, std::string& data) {
    data.append("time ").append(TimeText()).append("\n");
    // Handed out by the kernel in pieces, so one read would not do.
    std::ifstream file(kNetwork);
    if (!file.is_open()) {
        PROF_LOGW("Open file %s failed", Utils::BaseName(kNetwork).c_str());
        return;
    }
    AppendLines(std::string(std::istreambuf_iterator<char>(file), {}), &data);
}

}  // namespace Analysis::Nedra::JobWrapper
