// The log side's own thin layer over the driver's host-device channel: session attributes for
// the log level service, and a small client for a tool that opens sessions itself.
//
// No state but the platform type, which is asked for once; any thread may call, two threads on
// one session only if one sends and the other receives. Operations give 0, or -1 with a line in
// the self log. Messages travel in the segments of hdc_packet.h, with two habits of this layer:
// all segments but the last carry 0xFE as their mark, and are one byte short of the room.
#pragma once

#include <hdc_driver.h>

#include <cstdint>

#include "hdc/hdc_session.h"

// `value` is unchanged on failure. A null session or value is a failure without a line.
[[nodiscard]] int DrvSessionGetAttr(const HdcSessionPtr& session, int attribute, int* value);

// A client for at most 64 sessions. `*client` is null on failure.
[[nodiscard]] int DrvClientCreate(drvHdcClient_t* client, int serviceType);
// Always 0: tries for 3 s at most while the driver says that the client is busy.
int DrvClientRelease(drvHdcClient_t client);

// Connects to a device, id 0 to 1023, and binds the session to this process. `*session` is null
// on failure, and nothing stays open.
[[nodiscard]] int DrvSessionInit(drvHdcClient_t client, HdcSessionPtr* session, int deviceId);
// The session is closed, whatever the result.
int DrvSessionRelease(const HdcSessionPtr& session);

// Platform type: 0, 1, or 10000 while the driver does not know it yet; 0 and 1 are kept.
[[nodiscard]] int DrvPlatformGet(uint32_t* platform);

// Sends one message of `length` bytes, above 0; blocks while the peer does not read. After a
// failure the message may be out in part.
[[nodiscard]] int DrvBufWrite(const HdcSessionPtr& session, const char* buffer, uint32_t length);

// Receives one message, with at most `timeout` milliseconds of waiting for each of its segments.
// `*buffer` and `*length` start as empty (null and 0), or as a heap block that the message is
// put behind. On success `*buffer` is a heap block for the caller to free(), with a zero
// byte behind its `*length` bytes. On failure what was there is freed, `*buffer` is null and
// `*length` 0. `deviceId`, 0 to 1023, is for log lines only.
[[nodiscard]] int DrvBufRead(const HdcSessionPtr& session, int deviceId, char** buffer,
                             uint32_t* length, uint32_t timeout);
