// The four commands of a control session: each finds its task, has it do the command and replies.
// A command reaches the tasks of its own session only, and the reply goes out on that session: a
// context with another job id than the handshake's gets none.
//
// On the thread of the session's receiver.
#pragma once

#include <memory>
#include <utility>

#include "profiling/config/job_records.h"
#include "profiling/control/dispatcher.h"
#include "profiling/datapath/transport.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::device {

// The reply that tells `status`; null, with a log line, when memory is out.
[[nodiscard]] std::shared_ptr<proto::Response> CreateResponse(const message::StatusInfo& status);

// The control session whose host gives the commands.
struct ControlSession {
    std::shared_ptr<transport::ITransport> transport;
    int devIdOnHost = -1;  // the device of the session, as the host counts
    int devIndexId = -1;   // the same, as the driver counts
};

class SessionHandler : public message::IMsgHandler {
public:
    explicit SessionHandler(ControlSession session) : session_(std::move(session)) {}

protected:
    const ControlSession session_;
};

class JobStartHandler : public SessionHandler {
public:
    using SessionHandler::SessionHandler;
    void OnNewMessage(message::MessagePtr message) override;
};

class JobStopHandler : public SessionHandler {
public:
    using SessionHandler::SessionHandler;
    void OnNewMessage(message::MessagePtr message) override;
};

class ReplayStartHandler : public SessionHandler {
public:
    using SessionHandler::SessionHandler;
    void OnNewMessage(message::MessagePtr message) override;
};

class ReplayStopHandler : public SessionHandler {
public:
    using SessionHandler::SessionHandler;
    void OnNewMessage(message::MessagePtr message) override;
};

}  // namespace analysis::nedra::device
