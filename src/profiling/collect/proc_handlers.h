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

// What the handlers of all processes share. Used on the timer's thread.
class ProcTick {
public:
    explicit ProcTick(const std::string& procRoot);

    // A new tick begins: the system's line is read again when it is asked for.
    void Begin() { isCpuRead_ = false; }
    // The first line of "/proc/stat" that holds "cpu", in lower case and with its end. Empty when
    // there is none or, with a log line, the file cannot be read.
    [[nodiscard]] const std::string& CpuLine();

private:
    ProcFile stat_;
    std::vector<char> buffer_;
    std::string cpuLine_;
    bool isCpuRead_ = false;
};

// The name of a process, for its two handlers.
class ProcName {
public:
    explicit ProcName(const std::string& pidDir);

    // The first line of "comm"; "self", with a log line, when it cannot be read.
    [[nodiscard]] const std::string& Read();
    // The name of the last Read, once; Read for whoever comes then.
    [[nodiscard]] const std::string& Share();

private:
    ProcFile comm_;
    std::string name_;
    bool isFresh_ = false;
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

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;

private:
    const std::shared_ptr<ProcName> name_;
    const std::shared_ptr<ProcTick> tick_;
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

    int Execute() override;
    [[nodiscard]] int Init() override;
    int Uninit() override;

private:
    using Pids = std::vector<uint32_t>;  // sorted

    void GetCurPids(Pids& pids) const;
    void ComparePids(const Pids& current, Pids& newPids, Pids& exitPids) const;
    void HandleNewPids(const Pids& pids);
    void HandleExitPids(const Pids& pids);
    [[nodiscard]] bool MakeHandlers(uint32_t pid, ProcPidFileHandler* handlers) const;

    const uint32_t devId_;
    uint64_t prevTimeStamp_ = 0;  // ns
    const uint64_t sampleIntervalNs_;
    SampleRoad road_;
    const std::string procRoot_;
    const std::shared_ptr<ProcTick> tick_;
    std::map<uint32_t, ProcPidFileHandler> pidsMap_;
    Pids prevPids_;
};

}  // namespace Analysis::Nedra::JobWrapper
