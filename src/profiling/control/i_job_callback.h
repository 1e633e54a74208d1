// What a host's commands do to one profiling job: the message handlers call these operations on
// the task that TaskManager found, and answer the host from result and status.
#pragma once

#include <memory>

#include "profiling/config/job_records.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::device {

// Each operation is 0, or the failure that the host is told of: `status` then says 1 and may hold
// the reason in its info. The order of the virtual operations is a part of the interface.
class IJobCallback {
public:
    virtual ~IJobCallback() = default;
    // Opens a session of the job.
    [[nodiscard]] virtual int OnJobStart(std::shared_ptr<proto::JobStartReq> message,
                                         message::StatusInfo& status) = 0;
    // Ends it; the task is of no use afterwards and its owner deletes it.
    [[nodiscard]] virtual int OnJobEnd(message::StatusInfo& status) = 0;
    // Start and end of a replay, in which data is collected.
    [[nodiscard]] virtual int Start(std::shared_ptr<proto::ReplayStartReq> message,
                                    message::StatusInfo& status) = 0;
    [[nodiscard]] virtual int End(std::shared_ptr<proto::ReplayStopReq> message,
                                  message::StatusInfo& status) = 0;
    // The host has gone: ends what runs. The task is deleted right after.
    [[nodiscard]] virtual int OnConnectionReset() = 0;
    // The device as the driver counts.
    [[nodiscard]] virtual int GetDevId() = 0;
    // A step of OnJobStart: makes the engine.
    [[nodiscard]] virtual int InitEngine(message::StatusInfo& status) = 0;
};

}  // namespace analysis::nedra::device
