// The log level service: a relay between a host tool, which sends one request of type 4 on its
// own session, and the local log daemon slogd, which holds the levels.
//
//     host --(request)--> IdeDeviceLogProcess --(SysV queue, type 1)--> slogd
//     host <--(text, end marker)--            <--(SysV queue, type 2)--
//
// The three entry points belong into the component table, slot 7. Init and destroy run on the
// main thread, the handler on the thread of each session. The queue's replies carry no request
// identity, so one mutex covers a request from the removal of stale replies to its own reply.
//
// The service never looks into a command; all that it knows of an answer is "++OK++" (a level
// was set) and "[event]" (stands in the answer to a query). Log lines go to the self log.
#pragma once

#include <cstdint>

#include "hdc/hdc_packet.h"
#include "hdc/hdc_session.h"

// What the entry points answer.
constexpr int32_t kLogServiceDone = 0;         // the answer, good or bad, is with the host
constexpr int32_t kLogServiceWriteFailed = 8;  // a write to the host, or a copy, failed
constexpr int32_t kLogServiceIllegalLength = 10;
constexpr int32_t kLogServiceNoRequest = 12;
constexpr int32_t kLogServiceNoAnswer = 20;
constexpr int32_t kLogServiceNotSent = 21;
constexpr int32_t kLogServiceNoQueue = 22;
constexpr int32_t kLogServiceVirtual = 23;  // refused: virtual environment
constexpr int32_t kLogServiceNoMutex = 24;
constexpr int32_t kLogServicePowerGroup = 26;  // refused: compute power group
constexpr int32_t kLogServiceNoAttribute = 27;

// Sets the self log up and makes the mutex: 0 or kLogServiceNoMutex.
int32_t IdeDeviceLogInit();

// Undoes it, always 0. Requests in flight finish, on the default self log.
int32_t IdeDeviceLogDestroy();

// Serves one request; both arguments stay the caller's. Takes
// up to 0.9 s when slogd is slow, up to another second when slogd may still answer the request
// before, and the time of the requests before it.
int32_t IdeDeviceLogProcess(const HdcSessionPtr& session, const IdeRequest* request);
