// The samplers of the system and of each process.
//
// All processes are followed by one handler on the timer, ProcAllPidsFileHandler, which owns a pair
// of handlers for each and calls them in the order of their pids. What several of them need in the
// same tick (a process's name, the system's processor time) is read once and shared.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "profiling/collect/timer_handler.h"

namespace Analysis::Nedra::JobWrapper {

// The processor lines at the head of "/proc/stat", in lower case.
class ProcStatFileHandler : public ProcTimerHandler {
public:
    using ProcTimerHandler::ProcTimerHandler;

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;
};

// All of "/proc/meminfo".
class ProcMemFileHandler : public ProcTimerHandler {
public:
    using ProcTimerHandler::ProcTimerHandler;

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;
};

// What the handlers of all processes share. Used by one thread at a time.
class ProcTick {
public:
    explicit ProcTick(const std::string& procRoot);

    // A new tick begins: the system's line is read again when it is asked for.
    void Begin() { isCpuRead_ = false; }
    // The first line of "/proc/stat" that holds "cpu", in lower case and with its end. Empty when
    // there is none or, with a log line, the file cannot be read.
    [[nodiscard]] const std::string& CpuLine();
    // For "stat" of the process whose turn it is.
    [[nodiscard]] std::vector<char>* processStat() { return &processStat_; }

private:
    ProcFile stat_;
    std::vector<char> buffer_;
    std::vector<char> processStat_;
    std::string cpuLine_;
    bool isCpuRead_ = false;
};

// The name of a process, for its two handlers: the first line of its "comm".
//
// "stat" has the name too, in parentheses, but with some characters written otherwise. Where both
// agree "comm" need not be read again until "stat" shows another name.
class ProcName {
public:
    explicit ProcName(const std::string& pidDir);

    // A new tick begins, in which "stat" of the process is `stat`; empty when it cannot be read.
    // The text stays while the name is asked for.
    void Begin(std::string_view stat);
    // "self", with a log line, when "comm" cannot be read.
    [[nodiscard]] const std::string& Get();

private:
    void ReadComm();

    ProcFile comm_;
    std::string name_;
    std::string_view inStat_;  // this tick's
    bool agrees_ = false;      // name_ is what "stat" showed when it was read
    bool isCurrent_ = false;
};

// "statm" of a process and its name. `spec.fileName` gets the pid in front, as in the next one.
class ProcPidMemFileHandler : public ProcTimerHandler {
public:
    ProcPidMemFileHandler(SampleSpec spec, SampleRoad road, uint32_t pid,
                          std::shared_ptr<ProcName> name);

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;

private:
    const std::shared_ptr<ProcName> name_;
};

// "stat" of a process, its name and the system's processor time.
class ProcPidStatFileHandler : public ProcTimerHandler {
public:
    ProcPidStatFileHandler(SampleSpec spec, SampleRoad road, uint32_t pid,
                           std::shared_ptr<ProcName> name, std::shared_ptr<ProcTick> tick);

    // Reads the source for the sample that follows. The first step of the process's turn: the name
    // in both samples depends on it.
    void ReadAhead();

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;
    [[nodiscard]] ProcFile::Outcome ReadSource(std::string_view* text) override;

private:
    const std::shared_ptr<ProcName> name_;
    const std::shared_ptr<ProcTick> tick_;
    // What ReadAhead found.
    ProcFile::Outcome ahead_ = ProcFile::Outcome::kFailed;
    std::string_view text_;
};

struct ProcPidFileHandler {
    virtual ~ProcPidFileHandler() = default;

    std::shared_ptr<ProcPidMemFileHandler> memHandler;
    std::shared_ptr<ProcPidStatFileHandler> statHandler;
};

class ProcAllPidsFileHandler : public TimerHandler {
public:
    // `procRoot`: where the processes' directories are.
    ProcAllPidsFileHandler(uint32_t tag, uint32_t devId, uint64_t sampleIntervalNs, SampleRoad road,
                           const std::string& procRoot = "/proc");
    ~ProcAllPidsFileHandler() override;

    uint64_t Execute(uint64_t tick) override;
    [[nodiscard]] int Init() override;
    int Uninit() override;

private:
    using Pids = std::vector<uint32_t>;  // sorted

    void SampleAll(uint64_t now);
    // False when the processes cannot be listed; `pids` is then empty.
    [[nodiscard]] bool GetCurPids(Pids& pids);
    // What has come and gone between prevPids_ and currentPids_.
    void ComparePids();
    void HandleNewPids(const Pids& pids);
    void HandleExitPids(const Pids& pids);
    [[nodiscard]] bool MakeHandlers(uint32_t pid, ProcPidFileHandler* handlers) const;

    const uint32_t devId_;
    const uint64_t sampleIntervalNs_;
    SampleGrid grid_;
    SampleRoad road_;
    const std::string procRoot_;
    const std::shared_ptr<ProcTick> tick_;
    std::map<uint32_t, ProcPidFileHandler> pidsMap_;
    Pids prevPids_;
    // Lists of one sample. Each sample uses the memory of the sample before.
    Pids currentPids_;
    Pids newPids_;
    Pids exitPids_;
    std::vector<char> listing_;
};

}  // namespace Analysis::Nedra::JobWrapper
