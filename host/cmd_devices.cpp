// orlactl devices: which devices there are, and on which of them the daemon listens.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

#include "hdc/hdc_api.h"
#include "host/commands.h"
#include "host/device_session.h"
#include "host/exit_codes.h"
#include "host/limits.h"
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
    const auto client = Client::Create(serviceType, limits::kLogMessage);
    return client != nullptr && client->Connect(device) != nullptr;
}

using Range = std::pair<uint32_t, uint32_t>;

// An id, or the first and the last of a range.
std::optional<Range> ReadRange(const std::string& text) {
    constexpr uint32_t kMostDevices = 1024;  // far more than a machine has
    Range range;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, range.first);
    range.second = range.first;
    const char* last = stop;
    if (error == std::errc() && stop != end && *stop == '-') {
        const auto second = std::from_chars(stop + 1, end, range.second);
        last = second.ec == std::errc() ? second.ptr : stop;
    }
    const bool isOne = error == std::errc() && last == end && range.first <= range.second &&
                       range.second - range.first < kMostDevices;
    return isOne ? std::optional(range) : std::nullopt;
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
    const auto listens = [](const DeviceState& state) { return state.requests; };
    // Every device that was named must listen; without names a single one is enough.
    const bool isWell = options.devices.empty()
                            ? std::any_of(states.begin(), states.end(), listens)
                            : std::all_of(states.begin(), states.end(), listens);
    return isWell ? kExitOk : kExitConnection;
}

}  // namespace

std::string DevicesProblem(const std::string& text) {
    return ReadRange(text).has_value() ? "" : text + ": neither an id of a device nor a range";
}

std::vector<Device> SelectDevices(const CommonOptions& options) {
    const auto known = FindDevices();
    if (!known || known->empty()) {
        Complain(known ? "the driver has no devices" : "the driver does not tell its devices");
        return {};
    }
    if (options.devices.empty()) {
        return *known;
    }
    std::set<uint32_t> wanted;
    for (const std::string& text : options.devices) {
        const Range range = ReadRange(text).value();
        for (uint32_t id = range.first; id <= range.second; ++id) {
            wanted.insert(id);
        }
    }
    std::vector<Device> devices;
    for (const Device& device : *known) {
        if (wanted.erase(device.logicalId) > 0) {
            devices.push_back(device);
        }
    }
    if (!wanted.empty()) {
        throw std::invalid_argument(
            fmt::format("no such device: {}; orlactl devices lists them", *wanted.begin()));
    }
    return devices;
}

Command AddDevicesCommand(CLI::App& app, const CommonOptions& options) {
    app.add_subcommand("devices", "List the devices and what listens on them");
    return [&options] { return RunDevices(options); };
}

}  // namespace orla::host
