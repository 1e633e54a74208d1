// The profiling component of the daemon, slot 10: its start, its end, and the first request of a
// session of its own.
#pragma once

#include <hdc_driver.h>

#include "hdc/hdc_packet.h"

// On the main thread, before any request. 0 or -1, and the daemon serves on without profiling.
[[nodiscard]] int IdeDeviceProfileInit();
// Serves the first request of a session, on the session's thread. The session is this component's
// from the call on, whatever the result; `request` stays the caller's and is not kept. 0 or -1.
[[nodiscard]] int IdeDeviceProfileProcess(drvHdcSession_t session, const IdeRequest* request);
// On the main thread: ends all jobs with their data. What TaskManager::Uninit answers.
[[nodiscard]] int IdeDeviceProfileCleanup();
