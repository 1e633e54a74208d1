// The input is an envelope, of the size and the types that a daemon or a host tool acts on. What
// decodes must encode to an envelope that comes back the same. One message is held at a time, so
// that a limit of the memory means what one message may take.
#include <cstdint>
#include <cstdlib>

#include "proto/codec.h"
#include "proto/profiler.pb.h"

using namespace analysis::nedra;

static std::string Again(std::string_view envelope) {
    const auto message = message::DecodeOneOf(
        {proto::CtrlChannelHandshake::descriptor(), proto::DataChannelHandshake::descriptor(),
         proto::JobStartReq::descriptor(), proto::JobStopReq::descriptor(),
         proto::ReplayStartReq::descriptor(), proto::ReplayStopReq::descriptor(),
         proto::Response::descriptor(), proto::FileChunkReq::descriptor(),
         proto::DataChannelFinish::descriptor()},
        message::kMaxCommand, envelope);
    return message == nullptr ? std::string() : message::EncodeMessage(message);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string first = Again({reinterpret_cast<const char*>(data), size});
    if (!first.empty() && first.size() <= message::kMaxCommand && Again(first) != first) {
        std::abort();
    }
    return 0;
}
