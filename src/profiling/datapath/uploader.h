// The way out for all that one job sends to its host: a thread that alone uses the job's data
// session, and a bounded queue of encoded messages in front of it.
//
//             Init          Start            Stop, BoundStall's limit        joined
//     created ----> inited ------> running ----------------------------> ending ---> stopped
//
// Any number of threads upload at the same time. A full queue holds them up for as long as the
// host does not read: that is the back-pressure of the data road. From BoundStall(true) on the
// patience has a limit. Messages go out in the order of their upload, each once; a message whose
// send fails is lost with a log line, and the next one is tried.
//
// Whoever lets the last reference go waits in the destructor for the message that is being sent,
// but for no longer than a stall may take. Never under a lock that a producer may want.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "profiling/datapath/bound_queue.h"
#include "profiling/datapath/message_buffer.h"
#include "profiling/datapath/stall_watch.h"
#include "profiling/datapath/thread.h"
#include "profiling/datapath/transport.h"

namespace analysis::nedra::transport {

// Messages that the queue of a data session holds.
constexpr uint64_t kUploaderCapacity = 512;
// How long a host may leave one message unread once its job is being stopped.
constexpr std::chrono::milliseconds kStallLimit{30000};

class Uploader : public common::thread::Thread {
public:
    explicit Uploader(std::shared_ptr<ITransport> transport,
                      std::chrono::milliseconds stallLimit = kStallLimit);
    ~Uploader() override;

    // Makes the queue, for `queueCapacity` messages. 0 or -1. Before Start, on the owner's thread.
    [[nodiscard]] int Init(uint64_t queueCapacity);

    // Queues one encoded message of `len` bytes, waiting while the queue is full. 0, or -1 with a
    // log line when the message is lost: not inited, no data, no memory, stopped or given up.
    // The bytes are copied.
    [[nodiscard]] int UploadData(const void* data, int len);
    // The same without a copy, for a buffer that holds kFrontRoom bytes and the message behind
    // them. It is the uploader's from the call on, whatever the result: the caller keeps no
    // reference that it uses.
    [[nodiscard]] int UploadData(MessageBuffer message);

    // Returns when the last message has been taken from the queue, which may still be on its way,
    // or when nothing will take any more: given up, or ended.
    void Flush();

    // From `on` the host may hold up one message for the stall limit. After that the uploader
    // gives up: producers come back with -1, what was queued is dropped and counted in an error
    // line, the session is closed, the thread ends. With `off` a host may take its time again;
    // what was given up stays so. Any thread; the same call twice is one.
    void BoundStall(bool on);

    using Thread::Stop;
    // Ends the thread: with `forceQuit` after the message at hand, else when all that is queued
    // is out. Stalls are bounded from here on. Works once. Always 0.
    int Stop(bool forceQuit);
    // Stops with force and lets the transport go. Always 0. Not while others upload.
    int Uninit();

    // Null after Uninit.
    [[nodiscard]] std::shared_ptr<ITransport> GetTransport() const;
    // Messages in the queue.
    [[nodiscard]] uint64_t GetQueueSize() const;

protected:
    void Run(const common::thread::TraceletErrorContext& context) override;

private:
    using Queue = common::queue::BoundQueue<MessageBuffer>;

    // Whether there is a queue, and `data` for it; a log line when not.
    bool Accepts(const void* data) const;
    void SendQueued();
    void Send(ITransport* transport, std::string& message);
    // On the thread of the watch, when the send of `bytes` hangs.
    void GiveUp(size_t bytes);
    // Nothing will be taken from the queue any more.
    void End();

    const std::chrono::milliseconds stallLimit_;
    std::shared_ptr<Queue> queue_;  // set by Init, unchanged from then on
    std::atomic<bool> inited_{false};
    std::atomic<bool> forceQuit_{false};
    std::atomic<bool> stopped_{false};
    std::atomic<bool> gaveUp_{false};

    mutable std::mutex mutex_;
    std::condition_variable drained_;  // for Flush: empty, given up or ended
    // Guarded by mutex_.
    std::shared_ptr<ITransport> transport_;
    bool ended_ = false;

    StallWatch watch_;
};

}  // namespace analysis::nedra::transport
