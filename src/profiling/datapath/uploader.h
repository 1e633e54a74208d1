// The way out for all that one job sends to its host: a thread that alone uses the job's data
// session, and a bounded queue of encoded messages in front of it.
//
//             Init          Start            Stop                  joined
//     created ----> inited ------> running ----------> ending ---> stopped
//                                     `--- given up ----^
//
// Any number of threads upload at the same time. A full queue holds them up for as long as the
// host does not read, or tells those that serve other hosts as well and may not wait (TryUpload);
// that is the back-pressure of the data path. Messages go out in the order of
// their upload, each once.
//
// Patience with the host. While the job ends (BoundStall), its host is given up when not one
// segment has gone to the driver for the stall limit. Only those who wait for the host look at the
// limit: a producer at a full queue, whether it waits there or comes again, Flush, Stop. So nothing
// is given up while nobody waits, and no thread is needed to watch.
//
// Giving up happens once, for any of four reasons: the limit, a failed send after which the
// session is of no use, a data session that takes this one's place, the end of the agent. The
// session is closed, producers come back with -1, and the thread counts what is lost in an error
// line and ends.
//
// Whoever lets the last reference go waits in the destructor for the message that is being sent,
// but for no longer than the stall limit. Never under a lock that a producer may want.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "profiling/datapath/message_buffer.h"
#include "profiling/datapath/thread.h"
#include "profiling/datapath/transport.h"
#include "profiling/datapath/upload_queue.h"

namespace analysis::nedra::transport {

// Messages that the queue of a data session holds.
constexpr uint64_t kUploaderCapacity = 512;
// How long a host may take nothing while its job ends.
constexpr std::chrono::milliseconds kStallLimit{30000};

class Uploader : public common::thread::Thread {
public:
    using Clock = std::chrono::steady_clock;

    explicit Uploader(std::shared_ptr<ITransport> transport,
                      std::chrono::milliseconds stallLimit = kStallLimit);
    ~Uploader() override;

    // Makes the queue, for `queueCapacity` messages and a share of `budget`; with a null budget
    // the queue has one of its own of the size that all queues of this process may have. 0 or -1.
    // Before Start, on the owner's thread.
    [[nodiscard]] int Init(uint64_t queueCapacity, std::shared_ptr<QueueBudget> budget = nullptr);

    // Queues one encoded message of `len` bytes, waiting while the queue is full. 0, or -1 with a
    // log line when the message is lost: not inited, no data, no memory, stopped or given up.
    // The bytes are copied.
    [[nodiscard]] int UploadData(const void* data, int len);
    // The same without a copy. The buffer is the uploader's from the call on, whatever the result.
    [[nodiscard]] int UploadData(MessageBuffer message);

    enum class Taken { kQueued, kFull, kLost };
    // The same without waiting, for a producer that comes again when the queue is full or there is
    // no memory for its place. `message` is then as it was; after any other result it is the
    // uploader's.
    [[nodiscard]] Taken TryUpload(MessageBuffer& message);

    // Returns when the driver has taken all that was queued, or when nothing will take any more:
    // given up, or ended. True when every message ever queued went to the driver and no loss was
    // noted.
    [[nodiscard]] bool Flush();

    // Whether the job ends, see above. With `on` the stall limit runs from this call at the
    // earliest; with `off` a host may take its time again. What was given up stays so. Any thread.
    void BoundStall(bool on);
    // The agent ends: the host is given up at `latest` even if it reads, and stalls are bounded
    // from this call on for good.
    void BoundUntil(Clock::time_point latest);
    // Gives the host up at once; `reason` begins the log line. Any thread. Returns whether
    // something is lost by now that was queued.
    bool GiveUp(const std::string& reason);
    // The job has lost data that this uploader never had: Flush must not say otherwise.
    void NoteLoss();

    // Starts the thread, as Thread::Start.
    [[nodiscard]] int Start() override;
    // Stop(false).
    [[nodiscard]] int Stop() override { return Stop(false); }
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
    // Whether there is a queue, and `data` for it; a log line when not.
    bool Accepts(const void* data) const;
    bool Accepts(const MessageBuffer& message) const;
    // One message more that waits for its end.
    void Expect();
    // Counts a message that came when nothing is sent any more.
    void Refuse();
    void SendQueued();
    void Send(ITransport* transport, MessageBlock& message);
    // One message fewer that waits for its end.
    void Settle();
    // Counts a message of `length` bytes that was accepted and does not reach the driver.
    void Lose(uint64_t length);
    // Counts what nobody will send any more, and reports all that was lost.
    void DropQueued();
    // Nothing will be taken from the queue any more.
    void End();

    // For those who wait for the host: gives it up when its time is over.
    void CheckHost();
    // When that is; needs mutex_.
    [[nodiscard]] Clock::time_point Due() const;
    // Waits until `condition` holds, which is looked at under mutex_.
    template <typename Condition>
    void WaitForHost(const Condition& condition);

    const std::chrono::milliseconds stallLimit_;
    std::shared_ptr<UploadQueue> queue_;  // set by Init, unchanged from then on
    std::atomic<bool> inited_{false};
    std::atomic<bool> forceQuit_{false};
    std::atomic<bool> stopped_{false};
    std::atomic<bool> gaveUp_{false};  // written under mutex_

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::shared_ptr<ITransport> transport_;
    bool running_ = false;  // started, and not at its end
    uint64_t unsent_ = 0;   // messages between UploadData and their end, those that wait included
    bool isLossy_ = false;  // noted
    uint64_t lostMessages_ = 0;
    uint64_t lostBytes_ = 0;
    uint64_t refused_ = 0;        // messages that came after the queue had quit
    std::string reason_;          // why messages are lost
    Clock::time_point lastSent_;  // when a message last went to the driver
    bool bounded_ = false;        // the job ends
    Clock::time_point boundedSince_;
    Clock::time_point latest_ = Clock::time_point::max();  // of the agent's end
};

}  // namespace analysis::nedra::transport
