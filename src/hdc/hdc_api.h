// Clients, servers and sessions of the host-device channel, and messages of any length on
// them: the one session layer of the daemon (core, framework, profiling transport) and of the
// host tool. It wraps the driver's operations, cuts messages into segments and joins them.
//
// The layer has no state. Sessions and servers are shared objects, which keep what the driver asks
// of their handles (hdc_session.h, hdc_server.h); clients are handles of the caller's. On one
// session one thread may write, one read and any close at the same time; a second writer or
// reader is refused, since a message is more than one driver call.
//
// Every operation takes the side that it works for, which decides module, prefix and some
// words of its log lines and nothing else, but where a comment says so. Operations return 0 on
// success and -1 on failure unless stated, check every pointer first, log the reason of a
// failure, and never retry a failed send or receive.
#pragma once

#include <hdc_driver.h>

#include <cstdint>

#include "hdc/hdc_packet.h"
#include "hdc/hdc_server.h"
#include "hdc/hdc_session.h"
#include "hdc/log_side.h"

constexpr int kHdcServiceRequests = 4;    // request records: log levels and profiling
constexpr int kHdcServiceFramework = 12;  // framework messages: file transfer

// What a read answers.
constexpr int kHdcReadDone = 0;    // a message was handed out
constexpr int kHdcReadClosed = 1;  // the peer has gone, or this side has closed the session
constexpr int kHdcReadEmpty = 2;   // nothing there now (reads without waiting only)
constexpr int kHdcReadFailed = -1;

// ---- Clients and servers -----------------------------------------------------------------

// A client for up to 96 sessions of `serviceType`; null on failure.
[[nodiscard]] drvHdcClient_t HdcClientCreate(int serviceType,
                                             const orla::LogSide& side = orla::kCoreSide);
// A null client is a success.
int HdcClientDestroy(drvHdcClient_t client, const orla::LogSide& side = orla::kCoreSide);

// Starts to listen on a logical device; null when the device isn't ready or on failure. The
// caller retries.
[[nodiscard]] HdcServerPtr HdcServerCreate(int logicalDevice, int serviceType,
                                           const orla::LogSide& side = orla::kCoreSide);
// Stops listening; retries for 3 s at most while the driver says that it is busy, and answers
// -1 when it still is. Any other driver error is logged and answers 0: there is nothing left
// that the caller could do with the server. A null server is -1 on the core side and a silent
// 0 on the profiling side.
int HdcServerDestroy(const HdcServerPtr& server, const orla::LogSide& side = orla::kCoreSide);
// Blocks until a peer connects, and takes a reference on the session; null on failure.
[[nodiscard]] HdcSessionPtr HdcServerAccept(const HdcServerPtr& server,
                                            const orla::LogSide& side = orla::kCoreSide);

// ---- Sessions ----------------------------------------------------------------------------

// Connects to `peerDevice` (logical id, 0 or above) on `peerNode` (0 is the device side) and
// takes a reference. On failure `*session` is null and nothing stays open.
[[nodiscard]] int HdcSessionConnect(int peerNode, int peerDevice, drvHdcClient_t client,
                                    HdcSessionPtr* session,
                                    const orla::LogSide& side = orla::kCoreSide);
// The same in the name of the host's process `hostPid`, 0 or above.
[[nodiscard]] int HdcSessionConnectEx(int peerNode, int peerDevice, int hostPid,
                                      drvHdcClient_t client, HdcSessionPtr* session,
                                      const orla::LogSide& side = orla::kCoreSide);
// Ends the session. A read or write that is blocked on it returns with a failure, and so does
// each later one, whatever the result. A session that nobody shares any more ends by itself.
int HdcSessionClose(const HdcSessionPtr& session, const orla::LogSide& side = orla::kCoreSide);

// Reads one message of at most `limit` bytes: `*buffer` gets a heap block that the caller releases
// with free(), and `*length` its size, 1 or above; a zero byte stands behind it and isn't counted.
// Answers one of kHdcRead…; for all but kHdcReadDone `*buffer` is null and `*length` 0. A longer
// message fails the read as soon as it passes the limit, and its rest is still to come: the session
// is then of use for closing only. HdcRead blocks until a message is whole or the session ends.
[[nodiscard]] int HdcRead(const HdcSessionPtr& session, void** buffer, uint32_t* length,
                          uint32_t limit = orla::kMaxMessage,
                          const orla::LogSide& side = orla::kCoreSide);
// Answers kHdcReadEmpty when no message has begun. One that has begun is waited for, since to drop
// its head would make its tail look like a message of its own. The read fails after 10,011 ms of
// sleep without a segment, and after 5 minutes of sleep in all: a message that comes without
// pauses may take any time, and one that drips doesn't hold the thread for ever.
[[nodiscard]] int HdcReadNb(const HdcSessionPtr& session, void** buffer, uint32_t* length,
                            uint32_t limit = orla::kMaxMessage,
                            const orla::LogSide& side = orla::kCoreSide);

// Whether the peer or this side has closed the session. Asks without waiting and drops what has
// come: for sessions on which nothing is to be read.
[[nodiscard]] bool HdcIsPeerGone(const HdcSessionPtr& session,
                                 const orla::LogSide& side = orla::kCoreSide);

// HdcReadNb until it answers anything but kHdcReadEmpty, with a sleep of 1, 2, … times - 1 ms
// behind each empty answer; after the last it fails with a warning. 142 `times` make 10,011 ms.
[[nodiscard]] int HdcReadPolling(const HdcSessionPtr& session, void** buffer, uint32_t* length,
                                 int times, uint32_t limit = orla::kMaxMessage,
                                 const orla::LogSide& side = orla::kCoreSide);

// Writes one message of `length` bytes, 1 to 2,147,483,647. `buffer` stays the caller's. After
// a failure the message may be out in part, and the peer never sees its end: the session is
// then of use for closing only. HdcWrite blocks while the peer doesn't read; HdcWriteNb fails
// rather than block.
[[nodiscard]] int HdcWrite(const HdcSessionPtr& session, const void* buffer, int length,
                           const orla::LogSide& side = orla::kCoreSide);
[[nodiscard]] int HdcWriteNb(const HdcSessionPtr& session, const void* buffer, int length,
                             const orla::LogSide& side = orla::kCoreSide);
// HdcWrite without a copy, for a message that need not survive it: segments are made where it
// lies. The orla::kSegmentFront bytes in front of `buffer` and the orla::kSegmentTail bytes behind
// its end belong to the caller too; the ones in front and the message are overwritten.
[[nodiscard]] int HdcWriteInPlace(const HdcSessionPtr& session, char* buffer, int length,
                                  const orla::LogSide& side = orla::kCoreSide);

// The driver's maximum segment, 1024 to 524288 bytes. A null `maxSegment` fails.
[[nodiscard]] int HdcGetCapacity(uint32_t* maxSegment, const orla::LogSide& side = orla::kCoreSide);

// Facts about a session. On failure the out-value is unchanged.
[[nodiscard]] int IdeGetDevIdBySession(const HdcSessionPtr& session, int* devId,
                                       const orla::LogSide& side = orla::kCoreSide);
[[nodiscard]] int HdcGetSessionRunEnv(const HdcSessionPtr& session, int* runEnv,
                                      const orla::LogSide& side = orla::kCoreSide);
[[nodiscard]] int HdcGetSessionVfId(const HdcSessionPtr& session, int* vfId,
                                    const orla::LogSide& side = orla::kCoreSide);
[[nodiscard]] int HdcGetSessionPid(const HdcSessionPtr& session, int* pid,
                                   const orla::LogSide& side = orla::kCoreSide);

// ---- Request records ----------------------------------------------------------------------

// Makes an IdeRequest of `type` with `dev_id` 0 around a copy of `value`. `*packet` is the
// caller's, to be released with IdeFreePacket; `*packetLength` is valueLength + 12. A zero
// byte stands behind the value and isn't counted. On failure both are unchanged.
[[nodiscard]] int IdeCreatePacket(uint32_t type, const char* value, uint32_t valueLength,
                                  void** packet, uint32_t* packetLength);
void IdeFreePacket(void* packet);
