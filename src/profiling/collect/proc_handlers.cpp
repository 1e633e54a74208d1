#include "profiling/collect/proc_handlers.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "hdc/descriptor.h"
#include "hdc/log_side.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::MakeShared;
using analysis::nedra::common::utils::Utils;

namespace {

constexpr int64_t kMaxCommFile = 0x200000;
constexpr uint64_t kPidBufSize = 4096;
constexpr size_t kUsualPids = 128;
constexpr size_t kListing = 32 * 1024;  // bytes of a directory that are read at once
constexpr char kUnreadName[] = "self";

void AppendLower(std::string_view line, std::string* out) {
    for (const char c : line) {
        out->push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    }
}

// Appends the line in lower case, with an end, if it holds "cpu".
bool AppendCpuLine(std::string_view line, std::string* out) {
    const size_t before = out->size();
    AppendLower(line, out);
    if (out->find("cpu", before) == std::string::npos) {
        out->resize(before);
        return false;
    }
    out->push_back('\n');
    return true;
}

SampleSpec WithPid(SampleSpec spec, uint32_t pid) {
    spec.fileName = std::to_string(pid) + "-" + spec.fileName;
    return spec;
}

void AppendName(const std::string& name, std::string* out) {
    out->append("ProcessName:").append(name).append("\n");
}

}  // namespace

// ---- The system ---------------------------------------------------------------------------------

void ProcStatFileHandler::ParseProcFile(std::string_view text, std::string& data) {
    std::string_view line;
    while (TakeLine(&text, &line) && AppendCpuLine(line, &data)) {
    }
}

void ProcMemFileHandler::ParseProcFile(std::string_view text, std::string& data) {
    AppendLines(text, &data);
}

// ---- One process --------------------------------------------------------------------------------

ProcTick::ProcTick(const std::string& procRoot) : stat_(procRoot + "/stat", kMaxProcFile) {}

const std::string& ProcTick::CpuLine() {
    if (isCpuRead_) {
        return cpuLine_;
    }
    isCpuRead_ = true;
    cpuLine_.clear();
    std::string_view text;
    if (stat_.Read(&buffer_, &text) != ProcFile::Outcome::kRead) {
        if (stat_.failsAnew()) {
            PROF_LOGW("Open file %s failed", Utils::BaseName(stat_.path()).c_str());
        }
        return cpuLine_;
    }
    std::string_view line;
    while (TakeLine(&text, &line) && !AppendCpuLine(line, &cpuLine_)) {
    }
    return cpuLine_;
}

ProcName::ProcName(const std::string& pidDir)
    : comm_(pidDir + "/comm", kMaxCommFile, ProcFile::Keep::kNever) {}

void ProcName::Begin(std::string_view stat) {
    // A name may hold parentheses, what follows it does not.
    const size_t begin = stat.find('(');
    const size_t end = stat.rfind(')');
    const bool isThere = begin != std::string_view::npos && end > begin;
    inStat_ = isThere ? stat.substr(begin + 1, end - begin - 1) : std::string_view();
    isCurrent_ = isThere && agrees_ && inStat_ == name_;
}

const std::string& ProcName::Get() {
    if (!isCurrent_) {
        ReadComm();
        isCurrent_ = true;
    }
    return name_;
}

void ProcName::ReadComm() {
    thread_local std::vector<char> buffer;  // the sources' texts are still in use
    std::string_view text;
    std::string_view line;
    name_ = kUnreadName;
    agrees_ = false;
    const ProcFile::Outcome outcome = comm_.Read(&buffer, &text);
    if (outcome == ProcFile::Outcome::kRead) {
        if (TakeLine(&text, &line)) {
            name_ = line;
            agrees_ = text.empty() && line == inStat_;
        }
    } else if (comm_.failsAnew() && outcome == ProcFile::Outcome::kBadSize) {
        PROF_LOGW("proc comm file size is invalid");
    } else if (comm_.failsAnew()) {
        PROF_LOGW("Open file %s failed", Utils::BaseName(comm_.path()).c_str());
    }
}

ProcPidMemFileHandler::ProcPidMemFileHandler(SampleSpec spec, SampleRoad road, uint32_t pid,
                                             std::shared_ptr<ProcName> name)
    : ProcTimerHandler(WithPid(std::move(spec), pid), std::move(road)), name_(std::move(name)) {}

void ProcPidMemFileHandler::ParseProcFile(std::string_view text, std::string& data) {
    AppendLines(text, &data);
    if (!data.empty()) {
        AppendName(name_->Get(), &data);
    }
}

ProcPidStatFileHandler::ProcPidStatFileHandler(SampleSpec spec, SampleRoad road, uint32_t pid,
                                               std::shared_ptr<ProcName> name,
                                               std::shared_ptr<ProcTick> tick)
    : ProcTimerHandler(WithPid(std::move(spec), pid), std::move(road)),
      name_(std::move(name)),
      tick_(std::move(tick)) {}

void ProcPidStatFileHandler::ReadAhead() {
    ahead_ = source().Read(tick_->processStat(), &text_);
    name_->Begin(ahead_ == ProcFile::Outcome::kRead ? text_ : std::string_view());
}

ProcFile::Outcome ProcPidStatFileHandler::ReadSource(std::string_view* text) {
    *text = text_;
    return ahead_;
}

void ProcPidStatFileHandler::ParseProcFile(std::string_view text, std::string& data) {
    AppendLines(text, &data);
    if (data.empty()) {
        return;
    }
    AppendName(name_->Get(), &data);
    data.append(tick_->CpuLine());
}

// ---- All processes ------------------------------------------------------------------------------

ProcAllPidsFileHandler::ProcAllPidsFileHandler(uint32_t tag, uint32_t devId,
                                               uint64_t sampleIntervalNs, SampleRoad road,
                                               const std::string& procRoot)
    : TimerHandler(tag),
      devId_(devId),
      sampleIntervalNs_(sampleIntervalNs),
      grid_(sampleIntervalNs),
      road_(std::move(road)),
      procRoot_(procRoot),
      tick_(std::make_shared<ProcTick>(procRoot)) {}

ProcAllPidsFileHandler::~ProcAllPidsFileHandler() {
    ProcAllPidsFileHandler::Uninit();
}

int ProcAllPidsFileHandler::Init() {
    PROF_LOGI("ProcAllPidsFileHandler Init");
    static_cast<void>(GetCurPids(prevPids_));
    HandleNewPids(prevPids_);
    return 0;
}

bool ProcAllPidsFileHandler::GetCurPids(Pids& pids) {
    pids.clear();
    pids.reserve(kUsualPids);
    listing_.resize(kListing);
    // A directory stream would take its memory anew each time.
    const orla::Descriptor directory(
        open(procRoot_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
    ssize_t size = directory ? getdents64(directory.get(), listing_.data(), kListing) : -1;
    for (; size > 0; size = getdents64(directory.get(), listing_.data(), kListing)) {
        for (ssize_t at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(listing_.data() + at);
            at += entry->d_reclen;
            const bool mayBe = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
            const uint32_t pid =
                mayBe ? static_cast<uint32_t>(std::strtoul(entry->d_name, nullptr, 0)) : 0;
            if (pid != 0) {
                pids.push_back(pid);
            }
        }
    }
    if (!std::is_sorted(pids.begin(), pids.end())) {
        std::sort(pids.begin(), pids.end());
    }
    return size == 0;
}

bool ProcAllPidsFileHandler::MakeHandlers(uint32_t pid, ProcPidFileHandler* handlers) const {
    const std::string pidDir = procRoot_ + "/" + std::to_string(pid);
    const auto name = MakeShared<ProcName>(pidDir);
    SampleSpec spec{GetTag(),          devId_,       kPidBufSize, sampleIntervalNs_,
                    pidDir + "/statm", "Memory.data"};
    handlers->memHandler = MakeShared<ProcPidMemFileHandler>(spec, road_, pid, name);
    spec.srcFileName = pidDir + "/stat";
    spec.fileName = "CpuUsage.data";
    handlers->statHandler = MakeShared<ProcPidStatFileHandler>(spec, road_, pid, name, tick_);
    return name != nullptr && handlers->memHandler != nullptr && handlers->statHandler != nullptr &&
           handlers->memHandler->Init() == 0 && handlers->statHandler->Init() == 0;
}

void ProcAllPidsFileHandler::HandleNewPids(const Pids& pids) {
    // Kept all together: had an exception left some of them, the next tick would make them again.
    std::map<uint32_t, ProcPidFileHandler> made;
    for (const uint32_t pid : pids) {
        ProcPidFileHandler handlers;
        if (MakeHandlers(pid, &handlers)) {
            made.emplace(pid, std::move(handlers));
        }
    }
    pidsMap_.merge(made);
}

void ProcAllPidsFileHandler::HandleExitPids(const Pids& pids) {
    for (const uint32_t pid : pids) {
        const auto found = pidsMap_.find(pid);
        if (found != pidsMap_.end()) {
            found->second.memHandler->End();
            found->second.statHandler->End();
            pidsMap_.erase(found);
        }
    }
}

void ProcAllPidsFileHandler::ComparePids() {
    newPids_.clear();
    exitPids_.clear();
    auto before = prevPids_.begin();
    auto now = currentPids_.begin();
    while (before != prevPids_.end() && now != currentPids_.end()) {
        if (*before < *now) {
            PROF_LOGI("exit Pid %d", static_cast<int>(*before));
            exitPids_.push_back(*before++);
        } else if (*now < *before) {
            PROF_LOGI("New Pid %d", static_cast<int>(*now));
            newPids_.push_back(*now++);
        } else {
            ++before;
            ++now;
        }
    }
    exitPids_.insert(exitPids_.end(), before, prevPids_.end());
    newPids_.insert(newPids_.end(), now, currentPids_.end());
}

uint64_t ProcAllPidsFileHandler::Execute(uint64_t tick) {
    if (const uint64_t delay = road_.SendKept(); delay != 0) {
        return tick + delay;
    }
    SampleAll(SampleClockNs());
    return grid_.After(tick);
}

void ProcAllPidsFileHandler::SampleAll(uint64_t now) {
    // Nobody has gone because there was no descriptor to look: the handlers would begin anew.
    if (!GetCurPids(currentPids_)) {
        return;
    }
    ComparePids();
    HandleExitPids(exitPids_);
    HandleNewPids(newPids_);
    prevPids_.swap(currentPids_);
    tick_->Begin();
    for (const auto& [pid, handlers] : pidsMap_) {
        handlers.statHandler->ReadAhead();
        handlers.memHandler->Sample(now);
        handlers.statHandler->Sample(now);
    }
}

int ProcAllPidsFileHandler::Uninit() {
    for (const auto& [pid, handlers] : pidsMap_) {
        handlers.memHandler->End();
        handlers.statHandler->End();
    }
    road_.Finish();
    pidsMap_.clear();
    prevPids_.clear();
    return 0;
}

}  // namespace Analysis::Nedra::JobWrapper
