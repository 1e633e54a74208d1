// Start of the file service: its component in a server of service type 12. Main thread.
#pragma once

#include <cstdint>

// The `init` of the file server's slot. 0, or a failure's result; the server's own thread does
// the rest, and what fails there is logged.
[[nodiscard]] int32_t VeltGetFileServerStart();

// Ends the server and its sessions; see VeltServerManager for how long that takes. Nothing when
// it was never started.
void VeltGetFileServerStop();
