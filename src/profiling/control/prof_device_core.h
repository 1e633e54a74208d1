// The profiling component of the daemon, slot 10: its start, its end, and the first request of a
// session of its own.
#pragma once

#include "hdc/hdc_packet.h"
#include "hdc/hdc_session.h"

// On the main thread, before any request. 0 or -1, and the daemon serves on without profiling.
[[nodiscard]] int IdeDeviceProfileInit();
// Serves the first request of a session, on the session's thread, and keeps a share of the session
// for as long as its host has something to ask. The session is closed when the request is refused;
// `request` stays the caller's and is not kept. 0 or -1.
[[nodiscard]] int IdeDeviceProfileProcess(const HdcSessionPtr& session, const IdeRequest* request);
// On the main thread: ends all jobs with their data. What TaskManager::Uninit answers.
[[nodiscard]] int IdeDeviceProfileCleanup();
