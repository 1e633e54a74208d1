// The subcommands of orlactl. Each file cmd_*.cpp adds one to the command line; what it runs
// when it was chosen returns the exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/device_session.h"

namespace orla::host {

// Options that every subcommand has.
struct CommonOptions {
    std::vector<std::string> devices;  // ids and ranges, checked by DevicesProblem; empty: all that
                                       // the driver knows
    bool json = false;
};

using Command = std::function<int()>;

// Adds a subcommand, whose options are stored in what the returned command holds.
Command AddDevicesCommand(CLI::App& app, const CommonOptions& options);
Command AddLogCommand(CLI::App& app, const CommonOptions& options);
Command AddPullCommand(CLI::App& app, const CommonOptions& options);
Command AddProfileCommand(CLI::App& app, const CommonOptions& options);
Command AddCheckCommand(CLI::App& app, const CommonOptions& options);
Command AddReportCommand(CLI::App& app, const CommonOptions& options);

// Returns what is wrong with an id ("3") or a range ("0-3") of devices; empty when nothing is.
[[nodiscard]] std::string DevicesProblem(const std::string& text);

// The devices that were asked for, in the driver's order. None, after a line that says why, when
// the driver knows none. Throws std::invalid_argument when it does not know every one that was
// named.
[[nodiscard]] std::vector<Device> SelectDevices(const CommonOptions& options);

}  // namespace orla::host
