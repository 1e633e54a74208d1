// The way of one handler's messages to its uploader, which never waits: the handlers of all hosts
// share one thread, and a host that doesn't read must not hold up the samples of another.
//
// A message that finds the queue full is kept. While something is kept the handler takes no new
// sample, so what is kept are the messages of one sample at most; the host's back-pressure shows
// as samples that are taken later.
//
// A sender is used by one thread at a time: the timer's, and at the end the one that removes the
// handler.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include "profiling/datapath/uploader.h"

namespace Analysis::Nedra::JobWrapper {

class SampleSender {
public:
    // `uploader` must not be null.
    explicit SampleSender(std::shared_ptr<analysis::nedra::transport::Uploader> uploader)
        : uploader_(std::move(uploader)) {}

    // Queues `message`, or keeps it. False when it is lost.
    bool Send(analysis::nedra::transport::MessageBuffer message);
    // Queues what is kept. Returns 0 when nothing is kept any more, else after how many nanoseconds
    // another try is worth while: soon at first, and less and less often.
    [[nodiscard]] uint64_t SendKept();
    // Queues what is kept, waiting for the host.
    void Finish();

private:
    using Taken = analysis::nedra::transport::Uploader::Taken;

    // Returns false when memory is out; the loss is then reported to the uploader.
    bool Keep(analysis::nedra::transport::MessageBuffer message);

    const std::shared_ptr<analysis::nedra::transport::Uploader> uploader_;
    std::deque<analysis::nedra::transport::MessageBuffer> kept_;  // in the order of their sending
    uint64_t delay_ = 0;                                          // ns, of the last try; 0: none
};

}  // namespace Analysis::Nedra::JobWrapper
