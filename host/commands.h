// The subcommands of orlactl. Each file cmd_*.cpp adds one to the command line; what it runs
// when it was chosen returns the exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <vector>

#include "host/device_session.h"

namespace orla::host {

// Options that every subcommand has.
struct CommonOptions {
    std::vector<uint32_t> devices;  // empty: all that the driver knows
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

// The devices that were asked for, in the driver's order. None, after a line that says why, when
// the driver knows none or not every one that was named.
[[nodiscard]] std::vector<Device> SelectDevices(const CommonOptions& options);

}  // namespace orla::host
