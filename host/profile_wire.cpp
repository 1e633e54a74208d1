#include "host/profile_wire.h"

#include <cstring>
#include <nlohmann/json.hpp>

#include "hdc/hdc_packet.h"
#include "proto/codec.h"

namespace orla::host {

namespace {

using analysis::nedra::proto::DataChannelFinish;
using analysis::nedra::proto::FileChunkReq;
using analysis::nedra::proto::Response;

constexpr std::string_view kContainerMark = "MESSAGE_CONTAINER_NO_SUPPORT";

// The device puts its reason into a JSON text; what is no such text is shown as it came.
std::string ReasonIn(const std::string& text) {
    const auto status = nlohmann::json::parse(text, nullptr, false);
    if (!status.is_object()) {
        return text;
    }
    const auto info = status.find("info");
    return info != status.end() && info->is_string() ? info->get<std::string>() : "";
}

}  // namespace

std::string JobContextText(const std::string& jobId, uint32_t device) {
    return nlohmann::json({{"job_id", jobId}, {"dev_id", std::to_string(device)}}).dump();
}

std::string Envelope(const google::protobuf::Message& message) {
    std::string bytes;
    return analysis::nedra::message::AppendEnvelope(message, &bytes) ? bytes : "";
}

Incoming ReadIncoming(std::string_view message) {
    Incoming incoming;
    IdeRequest record;
    if (message.size() < sizeof(record)) {
        return incoming;
    }
    std::memcpy(&record, message.data(), sizeof(record));
    const std::string_view value = message.substr(sizeof(record));
    if (record.type != kRequestProfiling || record.len != value.size()) {
        return incoming;
    }
    if (value == kContainerMark) {
        incoming.kind = IncomingKind::kContainer;
        return incoming;
    }
    const auto decoded = analysis::nedra::message::DecodeMessage(value);
    if (decoded == nullptr) {
        return incoming;
    }
    if (auto chunk = std::dynamic_pointer_cast<FileChunkReq>(decoded)) {
        incoming.kind = IncomingKind::kChunk;
        incoming.chunk = std::move(chunk);
    } else if (const auto* response = dynamic_cast<const Response*>(decoded.get())) {
        incoming.kind = IncomingKind::kResponse;
        incoming.accepted = response->status() == analysis::nedra::proto::SUCCESS;
        incoming.info = ReasonIn(response->message());
    } else if (dynamic_cast<const DataChannelFinish*>(decoded.get()) != nullptr) {
        incoming.kind = IncomingKind::kFinish;
    } else {
        incoming.kind = IncomingKind::kOther;
        incoming.info = decoded->GetTypeName();
    }
    return incoming;
}

}  // namespace orla::host
