// orlactl devices: which devices there are, and on which of them the daemon listens.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "hdc/hdc_api.h"
#include "host/commands.h"
#include "host/device_session.h"
#include "host/exit_codes.h"
#include "host/terminal_text.h"

namespace orla::host {

namespace {

struct DeviceState {
    Device device;
    bool requests;   // the listener of log levels and profiling
    bool framework;  // the listener of file transfer
};

// A listener is one that a session can be opened with; there is no other way to ask.
bool Listens(int serviceType, uint32_t device) {
    const auto client = Client::Create(serviceType);
    return client != nullptr && client->Connect(device) != nullptr;
}

void PrintTable(const std::vector<DeviceState>& states) {
    Say("{:>6}  {:>8}  {:<12}  {}\n", "DEVICE", "PHYSICAL", "LOG+PROFILE", "FILES");
    for (const DeviceState& state : states) {
        Say("{:>6}  {:>8}  {:<12}  {}\n", state.device.logicalId, state.device.physicalId,
            state.requests ? "ready" : "no daemon", state.framework ? "ready" : "-");
    }
}

void PrintJson(const std::vector<DeviceState>& states) {
    auto list = nlohmann::ordered_json::array();
    for (const DeviceState& state : states) {
        list.push_back({{"device", state.device.logicalId},
                        {"physical", state.device.physicalId},
                        {"requests", state.requests},
                        {"files", state.framework}});
    }
    Say("{}\n", list.dump(2));
}

int RunDevices(const CommonOptions& options) {
    const std::vector<Device> devices = SelectDevices(options);
    if (devices.empty()) {
        return kExitConnection;
    }
    std::vector<DeviceState> states;
    for (const Device& device : devices) {
        states.push_back({device, Listens(kHdcServiceRequests, device.logicalId),
                          Listens(kHdcServiceFramework, device.logicalId)});
    }
    options.json ? PrintJson(states) : PrintTable(states);
    const bool someoneListens =
        std::any_of(states.begin(), states.end(), [](const auto& state) { return state.requests; });
    return someoneListens ? kExitOk : kExitConnection;
}

}  // namespace

std::vector<Device> SelectDevices(const CommonOptions& options) {
    const auto known = FindDevices();
    if (!known || known->empty()) {
        Complain(known ? "the driver has no devices" : "the driver does not tell its devices");
        return {};
    }
    const auto isKnown = [&known](uint32_t id) {
        return std::any_of(known->begin(), known->end(),
                           [id](const Device& device) { return device.logicalId == id; });
    };
    const auto& wanted = options.devices;
    const auto unknown = std::find_if_not(wanted.begin(), wanted.end(), isKnown);
    if (unknown != wanted.end()) {
        Complain("no such device: {}; orlactl devices lists them", *unknown);
        return {};
    }
    std::vector<Device> devices;
    std::copy_if(
        known->begin(), known->end(), std::back_inserter(devices), [&wanted](const Device& device) {
            return wanted.empty() ||
                   std::find(wanted.begin(), wanted.end(), device.logicalId) != wanted.end();
        });
    return devices;
}

Command AddDevicesCommand(CLI::App& app, const CommonOptions& options) {
    app.add_subcommand("devices", "List the devices and what listens on them");
    return [&options] { return RunDevices(options); };
}

}  // namespace orla::host
