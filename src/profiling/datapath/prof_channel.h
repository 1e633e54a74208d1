// The way of a channel's bytes out of the driver: one thread polls all open channels of all
// devices and hands each that has data to a worker, which reads it into a buffer and uploads the
// buffer when it is filling up.
//
//     ChannelPoll ("TLET_ChanPoll") --Dispatch--> worker ("TLET_ChanPool_" n): ChannelReader
//          | every 10 s: AskFlush of all              DrvChannelRead -> buffer -> UploaderMgr
//
// The poll thread sleeps while there is no reader: a driver may answer a poll at once while no
// channel is started. A reader always runs on the same worker. The only back-pressure is the
// uploader's full queue: the reader then leaves the channel unread and comes back with a later
// poll, whether the channel has data by then or not, and the driver buffers meanwhile. Neither the
// poll thread nor a worker waits for a host, so a host that doesn't read costs no other one a byte.
// Only the thread that ends a channel waits, for what is left of it. readersMtx_ is held for a
// look-up only; of the others, a reader's mtx_ comes before its flushMtx_.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "profiling/config/job_records.h"
#include "profiling/datapath/perf_count.h"
#include "profiling/datapath/reader_buffer.h"
#include "profiling/datapath/task.h"
#include "profiling/datapath/thread.h"
#include "profiling/datapath/thread_pool.h"

namespace analysis::nedra::transport {

// One open channel. A job makes it, calls Init and gives it to the poll; RemoveReader ends it.
class ChannelReader : public common::thread::Task {
public:
    // `relativeFileName` is the file that the host shall put the bytes into.
    ChannelReader(int deviceId, int channelId, const std::string& relativeFileName,
                  std::shared_ptr<message::JobContext> jobCtx);
    ~ChannelReader() override;

    // Takes the buffer. 0, or -1 with a log line when memory is out. Before AddReader.
    [[nodiscard]] int Init();
    // Ends reading and uploads what the buffer holds. Any thread; waits for a running Execute.
    void Uninit();
    // Ends a running Execute after the read at hand, and a waiting FlushDrvBuff.
    void SetQuit();

    // Reads until the channel is empty, 32 MiB have come or the uploader's queue is full. Always 0.
    // On a worker; doesn't wait for the host.
    int Execute() override;
    uint64_t HashId() override;

    // Reads what a stopped channel still holds, to its end, waiting for the host, unless the tuning
    // file keeps the channel from the host. A channel that goes on all the same is left after 1
    // GiB, with a log line. On the thread that has stopped it.
    void Drain();
    // Uploads what the buffer holds, waiting for the host. What cannot be uploaded is lost, with a
    // log line that says how much.
    void Flush();
    // Asks the next Execute to flush at its end. False for a channel that is kept from the host: it
    // must not be executed.
    [[nodiscard]] bool AskFlush();
    // Empties the driver's side buffer of the channels that have one, through the workers that
    // read the channel, and uploads it. Waits for that at most 2 s; ended by SetQuit, Uninit and a
    // failed read as well.
    void FlushDrvBuff();

    // Whether more than 2 dispatches are not finished yet, or the host's queue was full just now.
    [[nodiscard]] bool GetSchedulingStatus() const;
    // Whether a message waits for room in the host's queue, and may be tried again.
    [[nodiscard]] bool IsRetryDue() const;
    // One dispatch more, or one less if there is any.
    void SetSchedulingStatus(bool isDispatched);

private:
    // What the tuning file says; the poll leaves the others unread.
    [[nodiscard]] bool IsReported() const;

    // These need mtx_.
    int ReadOnce(bool isStopped);
    bool MakeRoom(bool mayWait);
    bool UploadData(bool mayWait);
    // What the buffer holds does not reach the host.
    void ReportLoss() const;

    // Needs flushMtx_.
    void AccountFlush(int ret);
    void EndFlush();

    const int deviceId_;
    const int channelId_;
    const std::string relativeFileName_;
    const std::shared_ptr<message::JobContext> jobCtx_;
    const int64_t hashId_;
    std::atomic<bool> quit_{false};
    std::atomic<bool> inited_{false};
    std::atomic<bool> flushAsked_{false};
    std::atomic<uint32_t> schedulingCount_{0};
    // ns; the queue is not tried again before. 0: it was not full.
    std::atomic<uint64_t> heldUpUntil_{0};

    std::mutex mtx_;
    // Guarded by mtx_.
    std::unique_ptr<ReaderBuffer> buffer_;
    MessageBuffer pending_;  // of all that is buffered, for a queue that was full; else null
    uint32_t bufSize_;
    uint32_t dataSize_ = 0;   // bytes in the buffer, or in pending_
    uint32_t spaceSize_;      // bytes free at the last read
    uint64_t totalSize_ = 0;  // bytes read, ever
    std::unique_ptr<Analysis::Nedra::Common::Statistics::PerfCount> perfCount_;
    std::unique_ptr<Analysis::Nedra::Common::Statistics::PerfCount> perfCountAll_;
    uint64_t lastEndTime_ = 0;  // of a read, ns; 0: none yet
    uint64_t drvChannelReadCont_ = 0;

    std::mutex flushMtx_;
    std::condition_variable flushCv_;
    // Guarded by flushMtx_.
    bool flushPending_ = false;
    uint32_t flushBufSize_ = 0;  // bytes that the driver has flushed
    uint32_t readSize_ = 0;      // of them read
};

class ChannelPoll : public common::thread::Thread {
public:
    ~ChannelPoll() override;

    // Any thread. An empty reader is ignored; one of the same channel is replaced.
    void AddReader(uint32_t devId, uint32_t channel, const std::shared_ptr<ChannelReader>& reader);
    // Ends the reader and uploads its rest. Unknown ones are only logged.
    void RemoveReader(uint32_t devId, uint32_t channel);
    // Null when there is none.
    [[nodiscard]] std::shared_ptr<ChannelReader> GetReader(uint32_t devId, uint32_t channel);

    // Starts the workers and the thread: 0, or -1 when memory is out.
    [[nodiscard]] int Start() override;
    // Ends both. Always 0.
    [[nodiscard]] int Stop() override;

    // Has the workers flush all readers. On the poll's thread, or while the poll runs.
    void FlushAllChannel();
    void FlushDrvBuff();

protected:
    void Run(const common::thread::TraceletErrorContext& context) override;

private:
    using Readers = std::map<uint32_t, std::shared_ptr<ChannelReader>>;  // by channel

    template <typename Condition>
    std::vector<std::shared_ptr<ChannelReader>> Select(const Condition& condition);
    std::vector<std::shared_ptr<ChannelReader>> Snapshot();
    // Returns when there is a reader, or the poll stops.
    void AwaitReader();
    bool PollOnce(uint64_t* lastFlushTime);
    // Has the workers go on with those that were held up.
    void DispatchHeldUp();
    // Both tell whether a worker has got it.
    bool DispatchChannel(uint32_t devId, uint32_t channel);
    bool Dispatch(const std::shared_ptr<ChannelReader>& reader);

    std::shared_ptr<common::thread::ThreadPool> threadPool_;  // of Start and Stop, and the thread
    std::atomic<bool> isStarted_{false};

    std::mutex readersMtx_;
    std::condition_variable readersCv_;    // there is a reader, or the poll stops
    std::map<uint32_t, Readers> readers_;  // by device; guarded by readersMtx_

    // The thread's; Stop reads them when it has ended.
    uint32_t pollCount_ = 0;
    uint32_t sleepCount_ = 0;
    uint32_t flushAllCount_ = 0;
    uint32_t dispatchCount_ = 0;
    uint32_t dispatchChannelCount_ = 0;
};

}  // namespace analysis::nedra::transport
