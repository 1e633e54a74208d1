// The four commands of a control session: each finds its task, has it do the command and replies.
// The reply goes to the receiver that is registered for the job id of the message's context, so a
// context with another job id than the handshake's gets none.
//
// On the thread of the session's receiver.
#pragma once

#include <memory>

#include "profiling/config/job_records.h"
#include "profiling/control/dispatcher.h"
#include "profiling/datapath/transport.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::device {

// The reply that tells `status`; null, with a log line, when memory is out.
[[nodiscard]] std::shared_ptr<proto::Response> CreateResponse(const message::StatusInfo& status);

class JobStartHandler : public message::IMsgHandler {
public:
    // New tasks belong to the control session `transport`.
    explicit JobStartHandler(std::shared_ptr<transport::ITransport> transport)
        : transport_(std::move(transport)) {}
    void OnNewMessage(message::MessagePtr message) override;

private:
    const std::shared_ptr<transport::ITransport> transport_;
};

class JobStopHandler : public message::IMsgHandler {
public:
    void OnNewMessage(message::MessagePtr message) override;
};

class ReplayStartHandler : public message::IMsgHandler {
public:
    void OnNewMessage(message::MessagePtr message) override;
};

class ReplayStopHandler : public message::IMsgHandler {
public:
    void OnNewMessage(message::MessagePtr message) override;
};

}  // namespace analysis::nedra::device
