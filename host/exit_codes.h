// Exit codes of orlactl: what a script can tell apart.
#pragma once

namespace orla::host {

enum ExitCode : int {
    kExitOk = 0,
    kExitUsage = 2,       // the command line, a file that it names or our output is unusable
    kExitRefused = 3,     // the device answered, and refused
    kExitConnection = 4,  // the device can't be reached, or went away
    kExitIncomplete = 5,  // the device delivered less than was asked for
};

}  // namespace orla::host
