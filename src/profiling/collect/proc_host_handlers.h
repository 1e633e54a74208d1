// Samplers of one process of the host, and of its network, for an agent that runs on the host
// side. They find their sources themselves, and send their text without a record around it.
#pragma once

#include "profiling/collect/timer_handler.h"

namespace Analysis::Nedra::JobWrapper {

// "stat" of all threads of the process `host_sys_pid` of the parameters.
class ProcHostCpuHandler : public ProcTimerHandler {
public:
    ProcHostCpuHandler(const SampleSpec& spec, SampleRoad road);

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;

private:
    const std::string taskDir_;
};

// The first line of "statm" of that process.
class ProcHostMemHandler : public ProcTimerHandler {
public:
    ProcHostMemHandler(const SampleSpec& spec, SampleRoad road);

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;

private:
    ProcFile statm_;
};

// All of "/proc/net/dev".
class ProcHostNetworkHandler : public ProcTimerHandler {
public:
    using ProcTimerHandler::ProcTimerHandler;

protected:
    void ParseProcFile(std::string_view text, std::string& data) override;
};

}  // namespace Analysis::Nedra::JobWrapper
