// The queue in front of an uploader: bounded in messages and in the memory that they hold.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "profiling/datapath/bound_queue.h"
#include "profiling/datapath/message_buffer.h"
#include "profiling/datapath/queue_budget.h"

namespace analysis::nedra::transport {

class UploadQueue : public common::queue::BoundQueue<MessageBuffer> {
public:
    // `capacity` in messages. The queue has a share of `budget`.
    UploadQueue(uint64_t capacity, std::shared_ptr<QueueBudget> budget)
        : BoundQueue(capacity), share_(std::move(budget)) {}

private:
    // What a message costs is its block.
    [[nodiscard]] bool Admit(const MessageBuffer& message) override {
        return share_.TryTake(message->bytes.capacity());
    }
    void Leave(const MessageBuffer& message) override { share_.Give(message->bytes.capacity()); }

    QueueBudget::Share share_;  // guarded by the lock of the queue
};

}  // namespace analysis::nedra::transport
