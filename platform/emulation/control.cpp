#include "control.h"

#include "device_life.h"
#include "driver_state.h"
#include "hdc_handles.h"
#include "log_book.h"
#include "prof_channels.h"

namespace orla::control {

using emulation::DriverState;
using emulation::Handles;
using emulation::LogBook;
using emulation::ProfChannels;

void Reset() {
    DriverState::Get().ReadEnvironment();
    DriverState::Get().faults().ClearCounts();
    LogBook::Get().ReadEnvironment();
    ProfChannels::Get().Reset();
}

std::string LoadScenario(std::string_view json) {
    std::string error;
    if (const auto scenario = emulation::ParseScenario(json, &error)) {
        DriverState::Get().Use(scenario);
    }
    return error;
}

bool SetDeviceState(uint32_t logicalDevice, DeviceState state) {
    return emulation::ChangeDeviceState(logicalDevice, state);
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
