// The messages of a profiling conversation as the host sends and reads them. No I/O: bytes of a
// session in, messages out, and the other way round. Any thread; no state.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "proto/profiler.pb.h"

namespace orla::host {

// Names the job in a message's header, in the form that the device expects.
[[nodiscard]] std::string JobContextText(const std::string& jobId, uint32_t device);

// The envelope of a message, which is the value of a request; empty on failure.
[[nodiscard]] std::string Envelope(const google::protobuf::Message& message);

enum class IncomingKind {
    kResponse,   // `accepted` and `info` are set
    kChunk,      // `chunk` is set
    kFinish,     // the last message of a data session
    kContainer,  // the device does not serve containers
    kOther,      // a whole message that no device sends here; `info` has its type
    kGarbage,    // no message
};

struct Incoming {
    IncomingKind kind = IncomingKind::kGarbage;
    bool accepted = false;
    std::string info;  // the device's own words; may be empty
    std::shared_ptr<const analysis::nedra::proto::FileChunkReq> chunk;
};

// What a device sent, as one message of a session. Every byte is foreign.
[[nodiscard]] Incoming ReadIncoming(std::string_view message);

}  // namespace orla::host
