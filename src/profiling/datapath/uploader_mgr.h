// Finds the uploader of a job: producers know their job's id and nothing else. Keeps also which
// job runs on a device in which mode, which jobs are ending, and the memory of all queues.
//
// Any thread may call anything. The mutex is held for map operations only: uploads wait, and
// uploaders end, outside it; that of an uploader comes below it. A producer that has got an
// uploader may still send through it after its removal; it lives until the last reference goes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "profiling/config/job_records.h"
#include "profiling/config/singleton.h"
#include "profiling/datapath/file_chunk.h"
#include "profiling/datapath/uploader.h"

namespace analysis::nedra::transport {

// The name of a thread that sends for a job begins with this; the job's id follows.
constexpr char kUploaderThread[] = "TLET_Upld_";

// The text by which a device and a mode are found, and told in the log: an empty mode is
// "def_mode".
[[nodiscard]] std::string DevModeKey(int64_t devId, const std::string& mode);

class UploaderMgr : public common::singleton::Singleton<UploaderMgr> {
public:
    // The agent uses instance(); tests make managers of their own, with a small `queueMemory`,
    // which is what the queues of all uploaders may hold together, in bytes.
    explicit UploaderMgr(size_t queueMemory = QueueBudget::LimitOfProcess());
    ~UploaderMgr() override;

    // ---- The uploaders ---------------------------------------------------------------------

    // Takes the uploader in. One of the same id is given up and released: its host has come with
    // another data session. While the job of the id ends the new one is bounded as the old one
    // was. An empty id or pointer changes nothing.
    void AddUploader(const std::string& id, const std::shared_ptr<Uploader>& uploader);
    // `out` stays as it is for an id that is not known.
    void GetUploader(const std::string& id, std::shared_ptr<Uploader>& out);
    // Removes the entry, if there is one. What is queued is dropped if nobody else holds the
    // uploader: Flush comes before.
    void DelUploader(const std::string& id);
    int DelAllUploader();
    // Removes those whose hosts have closed their sessions, unless `isInUse` says that a job may
    // still end in order. Nothing else tells that a data session will never have a job. A call
    // during another one's sweep does nothing.
    void DelForsaken(const std::function<bool(const std::string& id)>& isInUse);
    // Forgets everything; at the agent's end. Always 0, as is DelAllUploader.
    int Uninit();
    // Makes, names, starts and adds an uploader on `transport`, with a queue of `queueCapacity`
    // messages. 0, or what failed.
    [[nodiscard]] int CreateUploader(const std::string& id, std::shared_ptr<ITransport> transport,
                                     uint64_t queueCapacity);
    // What all queues share.
    [[nodiscard]] const std::shared_ptr<QueueBudget>& budget() const { return budget_; }

    // ---- The end of jobs -----------------------------------------------------------------------

    // For as long as it lives, the job of the id ends: its host is given up when it takes nothing
    // for the stall limit while something waits for it. It holds for whichever uploader has the
    // id. Several for one id count as one that lives as long as all of them.
    class Ending {
    public:
        Ending(UploaderMgr& manager, const std::string& id);
        ~Ending();
        Ending(const Ending&) = delete;
        Ending& operator=(const Ending&) = delete;

    private:
        UploaderMgr& manager_;
        const std::string id_;
    };
    // The agent ends: all hosts are given up at `latest`, those that come meanwhile too, and
    // before when they take nothing for the stall limit. Until Uninit.
    void EndAllUntil(Uploader::Clock::time_point latest);

    // ---- Sending: 0, or -1 with a log line. All but TryUpload block while the queue is full ----

    // One encoded message of `len` bytes, copied.
    [[nodiscard]] int UploadData(const std::string& id, const void* data, uint32_t len);
    // The same in a buffer that is handed over, see Uploader::UploadData.
    [[nodiscard]] int UploadData(const std::string& id, MessageBuffer message);
    // The same without waiting, see Uploader::TryUpload.
    [[nodiscard]] Uploader::Taken TryUpload(const std::string& id, MessageBuffer& message);
    // One FileChunkReq with the bytes `data`, at least one.
    [[nodiscard]] int UploadData(const std::string& id, const std::string& data,
                                 const FileChunkInfo& info,
                                 const std::shared_ptr<message::JobContext>& jobCtx);
    // The same for bulk data: `len` bytes are copied once, straight behind the head of their
    // message in a recycled buffer. `jobCtxText` is the text of the job's context.
    [[nodiscard]] int UploadData(const std::string& id, const void* data, uint32_t len,
                                 const FileChunkInfo& info, const std::string& jobCtxText);

    // ---- Which job runs on a device in a mode --------------------------------------------------

    void UpdateDevModeJobMap(uint32_t devId, const std::string& mode, const std::string& jobId);
    // Empty when there is none.
    [[nodiscard]] std::string GetJobId(uint32_t devId, const std::string& mode);

private:
    using UploaderMap = std::map<std::string, std::shared_ptr<Uploader>>;

    // Null, with a log line, when there is none for a message of `len` bytes.
    std::shared_ptr<Uploader> UploaderFor(const std::string& id, size_t len);
    // Empties the map and releases the uploaders.
    void ReleaseAll();
    // Needs mutex_: null when there is none.
    [[nodiscard]] std::shared_ptr<Uploader> Find(const std::string& id) const;
    // Needs mutex_: tells the uploader which of the ends above concern it.
    void Bound(const std::string& id, Uploader& uploader) const;

    const std::shared_ptr<QueueBudget> budget_;
    std::mutex sweepMutex_;  // one sweep at a time: two would receive on one session

    std::mutex mutex_;
    // Guarded by mutex_.
    UploaderMap uploaderMap_;
    std::map<std::string, int> endings_;  // by job id, how many Ending live
    Uploader::Clock::time_point latest_ = Uploader::Clock::time_point::max();
    std::map<std::string, std::string> devModeJobMap_;
};

}  // namespace analysis::nedra::transport
