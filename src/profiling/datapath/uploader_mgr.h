// Finds the uploader of a job: producers know their job's id and nothing else. Keeps also which
// job runs on a device in which mode.
//
// Any thread may call anything. The mutex is held for the map operation only: uploads wait, and
// uploaders end, outside it. A producer that has got an uploader may still send through it after
// its removal; it lives until the last reference goes.
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
    UploaderMgr() = default;  // one's own for tests; the agent uses instance()
    ~UploaderMgr() override;

    // ---- The uploaders ---------------------------------------------------------------------

    // Takes the uploader in; one of the same id is replaced and released. An empty id or pointer
    // changes nothing.
    void AddUploader(const std::string& id, const std::shared_ptr<Uploader>& uploader);
    // `out` stays as it is for an id that is not known.
    void GetUploader(const std::string& id, std::shared_ptr<Uploader>& out);
    // Removes the entry, if there is one. What is queued is dropped if nobody else holds the
    // uploader: Flush comes before.
    void DelUploader(const std::string& id);
    int DelAllUploader();
    // Removes those whose hosts have closed their sessions, unless `isInUse` says that a job may
    // still end in order. Nothing else tells that a data session will never have a job.
    void DelForsaken(const std::function<bool(const std::string& id)>& isInUse);
    // Forgets everything; at the agent's end. Always 0, as is DelAllUploader.
    int Uninit();
    // Makes, names, starts and adds an uploader on `transport`, with a queue of `queueCapacity`
    // messages. 0, or what failed.
    [[nodiscard]] int CreateUploader(const std::string& id, std::shared_ptr<ITransport> transport,
                                     uint64_t queueCapacity);
    // Uploader::BoundStall of that job's uploader, if there is one.
    void BoundStall(const std::string& id, bool on);
    // From now on no host may hold anything up for longer than the limit: the agent ends.
    void BoundAllStalls();

    // ---- Sending: 0, or -1 with a log line. Blocks while the queue is full --------------------

    // One encoded message of `len` bytes, copied.
    [[nodiscard]] int UploadData(const std::string& id, const void* data, uint32_t len);
    // The same in a buffer that is handed over, see Uploader::UploadData.
    [[nodiscard]] int UploadData(const std::string& id, MessageBuffer message);
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

    std::mutex sweepMutex_;  // one thread at a time asks whether peers have gone

    std::mutex mutex_;
    // Guarded by mutex_.
    UploaderMap uploaderMap_;
    std::map<std::string, std::string> devModeJobMap_;
};

}  // namespace analysis::nedra::transport
