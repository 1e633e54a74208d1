// The end of a job's data session, which the engine calls when a collection stops: the host's
// last message, which goes through the same queue as the data and so comes behind all of it.
#pragma once

#include <string>

namespace analysis::nedra::device {

// Queues the finish message of job `jobId`, waits until the uploader has taken all that is queued
// and lets the uploader go, which ends the data session. `devIdOnHost` is the host's number of
// the device. 0, also when the job has no uploader; else what the upload answered, and the
// uploader stays registered.
//
// The host may hold one message up for the stall limit of the uploader and no longer. Any thread,
// without a lock that the uploader's thread may want.
[[nodiscard]] int FinishCollection(int devIdOnHost, const std::string& jobId);

}  // namespace analysis::nedra::device
