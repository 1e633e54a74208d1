// The listener of service type 4: one HDC server and one accepting thread per device, one
// thread per session, one request per session. A request is read, checked and handed to the
// component that its type names.
//
// Threads: the main thread finds the devices (init), starts the server threads (creation loop)
// and stops everything (destroy). "ide_hdc_server" accepts for one device, see
// ide_device_servers.h; "ide_hdc_process" serves one session, see ide_session.h.
#pragma once

#include <cstdint>

// Finds the devices, for up to 600 rounds of a second, and registers them for the creation
// loop. 0 on success, also when the driver has no device at all; the driver layer's error when
// it never answered; -1 otherwise. A request to stop ends the waiting with 0.
[[nodiscard]] int32_t IdeDaemonHdcInit();

// Ends all server threads and releases what init made; waits for the threads for a second at
// most. Session threads are left to run. Always 0; nothing when init has not run.
int32_t IdeDaemonHdcDestroy();

// The creation loop: starts a server thread for every device that was registered. Returns when
// a stop was requested or when the loop can't go on.
void IdeDaemonHdcCreateServers();

// Asks the creation loop, and a device discovery that still waits, to end. Async-signal-safe;
// any thread, at any time, more than once.
void IdeDaemonHdcRequestStop();
