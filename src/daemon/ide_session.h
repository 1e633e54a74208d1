// One session of service type 4: read one request, find its component, let it be served, close.
#pragma once

#include <cstdint>

#include "hdc/hdc_packet.h"
#include "hdc/hdc_session.h"

// Where a request is read from.
struct IdeTransport {
    int kind;  // kTransportHdc
    HdcSessionPtr session;
};

constexpr int kTransportHdc = 1;

// What a session thread is started with; it owns and frees the record.
struct IdeSession {
    uint32_t phyDevId;
    uint32_t logDevId;
    HdcSessionPtr session;
};

// What a request may have, its record included: no component takes a longer value.
constexpr uint32_t kMaxRequest = 3 * 1024 * 1024 + sizeof(IdeRequest);

// Reads one message of at most kMaxRequest bytes into a heap block that the caller frees. waitFlag
// 0 blocks. Otherwise the read polls, for 10,011 ms of sleep at most until a message begins, and
// then fails. Answers as HdcRead; -1 for a null argument.
[[nodiscard]] int IdeRead(const IdeTransport* transport, void** buffer, uint32_t* length,
                          int waitFlag);

// Reads and checks one request. `*request` gets a record that the caller releases with
// IdeFreeRequest; a zero byte stands behind its value. On failure `*request` is null and the
// result is not 0.
[[nodiscard]] int IdeHdcReadRequest(const IdeTransport* transport, IdeRequest** request);
void IdeFreeRequest(IdeRequest* request);

// Entry of the session thread "ide_hdc_process". `argument` is a heap-allocated IdeSession.
// The session ends with the thread, unless the handler has kept a share of it.
void* IdeDaemonHdcProcessEvent(void* argument);
