// The end of a job's data session, which the engine calls when a collection stops: the host's
// last message, which goes through the same queue as the data and so comes after all of it.
#pragma once

#include <string>

namespace analysis::nedra::device {

// Queues the finish message of job `jobId`, waits until the driver has taken all that is queued
// and removes the uploader, which ends the data session. `devIdOnHost` is the host's number of the
// device. Returns 0 when every message of the session went to the driver, and when the job has no
// uploader; anything else when data was lost. The uploader is gone in each case.
//
// A host that takes nothing for the stall limit of the uploader is given up. Any thread, without a
// lock that another host's request may want.
[[nodiscard]] int FinishCollection(int devIdOnHost, const std::string& jobId);

}  // namespace analysis::nedra::device
