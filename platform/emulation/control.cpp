#include "control.h"

#include <cerrno>

#include "driver_state.h"
#include "hdc_handles.h"
#include "log_book.h"
#include "prof_channels.h"

namespace orla::control {

using emulation::DriverState;
using emulation::Handles;
using emulation::LogBook;
using emulation::ProfChannels;

namespace {

void EndWhatRunsOn(uint32_t device) {
    for (const auto& server : Handles::Get().servers.All()) {
        if (server->device() == device) {
            server->Stop(ENODEV);
        }
    }
    for (const auto& session : Handles::Get().sessions.All()) {
        if (session->peer().device == device) {
            session->End();
        }
    }
    ProfChannels::Get().EndDevice(device);
}

}  // namespace

void Reset() {
    DriverState::Get().ReadEnvironment();
    DriverState::Get().faults().ClearCounts();
    LogBook::Get().ReadEnvironment();
    ProfChannels::Get().Reset();
}

std::string LoadScenario(std::string_view json) {
    std::string error;
    auto scenario = emulation::ParseScenario(json, &error);
    if (scenario != nullptr) {
        DriverState::Get().Use(std::move(scenario));
    }
    return error;
}

bool SetDeviceState(uint32_t logicalDevice, DeviceState state) {
    if (!DriverState::Get().SetState(logicalDevice, state)) {
        return false;
    }
    if (state != DeviceState::kUp) {
        EndWhatRunsOn(logicalDevice);
    }
    return true;
}

bool InjectFault(const Fault& fault) {
    if (!emulation::FindCall(fault.call)) {
        return false;
    }
    DriverState::Get().faults().Add(fault);
    return true;
}

void ClearFaults() {
    DriverState::Get().faults().Set({});
}

uint64_t CallCount(std::string_view call) {
    const auto found = emulation::FindCall(call);
    return found ? DriverState::Get().faults().CountOf(*found) : 0;
}

LiveHandles CountLiveHandles() {
    const Handles& handles = Handles::Get();
    return {handles.clients.size(),  handles.servers.size(), handles.sessions.size(),
            handles.messages.size(), handles.epolls.size(),  handles.monitors.size()};
}

std::vector<ProfStart> ProfStarts() {
    return ProfChannels::Get().Starts();
}

ChannelCounts CountsOf(uint32_t logicalDevice, uint32_t channel) {
    return ProfChannels::Get().CountsOf({logicalDevice, channel});
}

void SetChannelList(uint32_t logicalDevice, const ProfChannelList& channels) {
    ProfChannels::Get().SetList(logicalDevice, channels);
}

void SetLogLevel(LogLevel level) {
    LogBook::Get().SetLevel(level);
}
void StartLogCapture() {
    LogBook::Get().Capture(true);
}
void StopLogCapture() {
    LogBook::Get().Capture(false);
}
std::vector<LogLine> CapturedLines() {
    return LogBook::Get().Captured();
}

bool WaitForLine(const std::function<bool(const LogLine&)>& condition,
                 std::chrono::milliseconds timeout) {
    return LogBook::Get().WaitFor(condition, timeout);
}

}  // namespace orla::control
