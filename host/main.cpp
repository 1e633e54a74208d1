// orlactl: the host tool. Parses the command line and runs one subcommand.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>

#include "host/commands.h"
#include "host/exit_codes.h"
#include "host/terminal_text.h"

using namespace orla::host;

namespace {

// Without it the first session or file that is opened would take the place of a closed stream,
// and get what is printed.
void FillStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) {
            static_cast<void>(open("/dev/null", O_RDONLY));  // a write shall fail, as it would have
        }
    }
}

// A word that stands where a command should is what is wrong, not the lack of one.
int ParseFailed(const CLI::App& app, const CLI::ParseError& error) {
    if (app.get_subcommands().empty() && !app.remaining().empty() && error.get_exit_code() != 0) {
        Complain("{}: no such command or option; --help lists them", app.remaining().front());
        return kExitUsage;
    }
    return app.exit(error) == 0 ? kExitOk : kExitUsage;
}

int RunCommand(const Command& command) {
    try {
        return command();
    } catch (const std::exception& e) {
        Complain("{}", e.what());
        return kExitUsage;
    }
}

// A script must not take output that did not go out for a success.
int FlushOutput(int code) {
    errno = 0;
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return code;
    }
    Complain("not all of the output could be written: {}",
             errno != 0 ? std::strerror(errno) : "an earlier write failed");
    return code == kExitOk ? kExitUsage : code;
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardStreams();
    // A device or a reader of our output that goes away is an error of that call.
    std::signal(SIGPIPE, SIG_IGN);

    // The session layer's own lines are for whoever asks for them; a command says what went wrong.
    setenv("ORLA_LOG_LEVEL", "error", 0);

    CLI::App app("Log levels, files and profiles of accelerator cards.", "orlactl");
    app.set_version_flag("--version", ORLA_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    CommonOptions options;
    app.add_option("-d,--device", options.devices,
                   "Logical device ids, for example 0,2 or 0-3 (repeatable; default: all)")
        ->delimiter(',')
        ->check(DevicesProblem)
        ->allow_extra_args(false);  // the next word is the command's
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
        return FlushOutput(ParseFailed(app, e));
    }
    return FlushOutput(RunCommand(commands.at(app.get_subcommands().front()->get_name())));
}
