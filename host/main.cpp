// orlactl: the host tool. Parses the command line and runs one subcommand.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <map>
#include <string>

#include "host/commands.h"
#include "host/exit_codes.h"

using namespace orla::host;

int main(int argc, char** argv) {
    // A device or a reader of our output that goes away is an error of that call.
    std::signal(SIGPIPE, SIG_IGN);

    // The session layer's own lines are for whoever asks for them; a command says what went wrong.
    setenv("ORLA_LOG_LEVEL", "error", 0);

    CLI::App app("Log levels, files and profiles of accelerator cards.", "orlactl");
    app.set_version_flag("--version", ORLA_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    CommonOptions options;
    app.add_option("-d,--device", options.devices, "Logical device id (repeatable; default: all)");
    app.add_flag("--json", options.json, "Print JSON for machines");
    app.footer(
        "Exit codes: 0 success, 2 usage, 3 refused by the device, 4 connection, 5 incomplete.");

    std::map<std::string, Command> commands;
    commands["devices"] = AddDevicesCommand(app, options);
    commands["log"] = AddLogCommand(app, options);
    commands["pull"] = AddPullCommand(app, options);
    commands["profile"] = AddProfileCommand(app, options);
    commands["report"] = AddReportCommand(app, options);
    commands["check"] = AddCheckCommand(app, options);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }
    try {
        return commands.at(app.get_subcommands().front()->get_name())();
    } catch (const std::exception& e) {
        fmt::print(stderr, "orlactl: {}\n", e.what());
        return kExitUsage;
    }
}
