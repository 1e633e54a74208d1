#include "profiling/datapath/uploader_mgr.h"

#include <portability.h>

#include <climits>
#include <exception>
#include <utility>
#include <vector>

#include "hdc/log_side.h"

namespace analysis::nedra::transport {

namespace {

constexpr char kDefaultMode[] = "def_mode";
constexpr uint32_t kLastSendsMs = 20;

size_t LengthOf(const MessageBuffer& message) {
    return message == nullptr ? 0 : message->size();
}

}  // namespace

std::string DevModeKey(int64_t devId, const std::string& mode) {
    return std::to_string(devId) + "_" + (mode.empty() ? kDefaultMode : mode);
}

UploaderMgr::UploaderMgr(size_t queueMemory)
    : budget_(std::make_shared<QueueBudget>(queueMemory)) {}

UploaderMgr::~UploaderMgr() {
    PROF_LOGI("Begin to destroy UploaderMgr.");
    bool isEmpty = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isEmpty = uploaderMap_.empty();
    }
    if (!isEmpty) {
        mmSleep(kLastSendsMs);
    }
    ReleaseAll();
    PROF_LOGI("End to destroy UploaderMgr.");
}

// ---- The uploaders -----------------------------------------------------------------------------

void UploaderMgr::AddUploader(const std::string& id, const std::shared_ptr<Uploader>& uploader) {
    PROF_LOGI("id: %s Entering AddUploader...", id.c_str());
    if (uploader == nullptr || id.empty()) {
        return;
    }
    std::shared_ptr<Uploader> replaced = uploader;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        uploaderMap_[id].swap(replaced);
        Bound(id, *uploader);
    }
    if (replaced != nullptr && replaced != uploader) {
        if (replaced->GiveUp("Another data session has come for the job")) {
            uploader->NoteLoss();
        }
    }
}

std::shared_ptr<Uploader> UploaderMgr::Find(const std::string& id) const {
    const auto found = uploaderMap_.find(id);
    return found == uploaderMap_.end() ? nullptr : found->second;
}

void UploaderMgr::GetUploader(const std::string& id, std::shared_ptr<Uploader>& out) {
    PROF_LOGD("Get id %s uploader...", id.c_str());
    const std::lock_guard<std::mutex> lock(mutex_);
    if (auto found = Find(id); found != nullptr) {
        out = std::move(found);
    }
}

void UploaderMgr::DelUploader(const std::string& id) {
    PROF_LOGI("Del id %s uploader...", id.c_str());
    UploaderMap::node_type released;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        released = uploaderMap_.extract(id);
    }
    released = {};
    TrimMessageBuffers();  // a job that goes on takes fresh ones, a few times
}

void UploaderMgr::DelForsaken(const std::function<bool(const std::string& id)>& isInUse) {
    const std::unique_lock<std::mutex> sweep(sweepMutex_, std::try_to_lock);
    if (!sweep.owns_lock()) {
        return;
    }
    std::vector<std::string> ids;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [id, uploader] : uploaderMap_) {
            ids.push_back(id);
        }
    }
    for (const std::string& id : ids) {
        std::shared_ptr<Uploader> uploader;
        GetUploader(id, uploader);
        const auto transport = uploader == nullptr ? nullptr : uploader->GetTransport();
        if (transport == nullptr || isInUse(id) || !transport->IsPeerGone()) {
            continue;
        }
        PROF_LOGI("Del id %s uploader...", id.c_str());
        const std::lock_guard<std::mutex> lock(mutex_);
        if (Find(id) == uploader) {  // and no later one
            uploaderMap_.erase(id);
        }
    }
}

int UploaderMgr::DelAllUploader() {
    PROF_LOGI("DelAllUploader");
    ReleaseAll();
    return 0;
}

int UploaderMgr::Uninit() {
    ReleaseAll();
    const std::lock_guard<std::mutex> lock(mutex_);
    devModeJobMap_.clear();
    latest_ = Uploader::Clock::time_point::max();
    return 0;
}

void UploaderMgr::ReleaseAll() {
    UploaderMap released;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        released.swap(uploaderMap_);
    }
    // All limits run at the same time, however many hosts have stopped to read.
    for (const auto& [id, uploader] : released) {
        uploader->BoundStall(true);
    }
    released.clear();
    TrimMessageBuffers();
}

int UploaderMgr::CreateUploader(const std::string& id, std::shared_ptr<ITransport> transport,
                                uint64_t queueCapacity) {
    if (transport == nullptr) {
        PROF_LOGE("Transport is invalid!");
        return -1;
    }
    std::shared_ptr<Uploader> uploader;
    try {
        uploader = std::make_shared<Uploader>(std::move(transport));
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return -1;
    }
    if (const int ret = uploader->Init(queueCapacity, budget_); ret != 0) {
        PROF_LOGE("Failed to init uploader");
        return ret;
    }
    uploader->SetThreadName(kUploaderThread + id);
    if (const int ret = uploader->Start(); ret != 0) {
        PROF_LOGE("Failed to start uploader thread");
        return ret;
    }
    AddUploader(id, uploader);
    return 0;
}

// ---- The end of jobs ---------------------------------------------------------------------------

void UploaderMgr::Bound(const std::string& id, Uploader& uploader) const {
    uploader.BoundStall(endings_.count(id) != 0);
    if (latest_ != Uploader::Clock::time_point::max()) {
        uploader.BoundUntil(latest_);
    }
}

UploaderMgr::Ending::Ending(UploaderMgr& manager, const std::string& id)
    : manager_(manager), id_(id) {
    const std::lock_guard<std::mutex> lock(manager_.mutex_);
    ++manager_.endings_[id_];
    if (const auto uploader = manager_.Find(id_); uploader != nullptr) {
        manager_.Bound(id_, *uploader);
    }
}

UploaderMgr::Ending::~Ending() {
    const std::lock_guard<std::mutex> lock(manager_.mutex_);
    const auto mine = manager_.endings_.find(id_);
    if (--mine->second > 0) {
        return;
    }
    manager_.endings_.erase(mine);
    if (const auto uploader = manager_.Find(id_); uploader != nullptr) {
        manager_.Bound(id_, *uploader);
    }
}

void UploaderMgr::EndAllUntil(Uploader::Clock::time_point latest) {
    const std::lock_guard<std::mutex> lock(mutex_);
    latest_ = latest;
    for (const auto& [id, uploader] : uploaderMap_) {
        Bound(id, *uploader);
    }
}

// ---- Sending -----------------------------------------------------------------------------------

std::shared_ptr<Uploader> UploaderMgr::UploaderFor(const std::string& id, size_t len) {
    std::shared_ptr<Uploader> uploader;
    GetUploader(id, uploader);
    if (uploader == nullptr) {
        PROF_LOGE("Get id[%s] uploader failed, dataLen:%d", id.c_str(), static_cast<int>(len));
    }
    return uploader;
}

int UploaderMgr::UploadData(const std::string& id, const void* data, uint32_t len) {
    const auto uploader = UploaderFor(id, len);
    return uploader == nullptr ? -1 : uploader->UploadData(data, static_cast<int>(len));
}

int UploaderMgr::UploadData(const std::string& id, MessageBuffer message) {
    const auto uploader = UploaderFor(id, LengthOf(message));
    return uploader == nullptr ? -1 : uploader->UploadData(std::move(message));
}

Uploader::Taken UploaderMgr::TryUpload(const std::string& id, MessageBuffer& message) {
    const auto uploader = UploaderFor(id, LengthOf(message));
    return uploader == nullptr ? Uploader::Taken::kLost : uploader->TryUpload(message);
}

int UploaderMgr::UploadData(const std::string& id, const std::string& data,
                            const FileChunkInfo& info,
                            const std::shared_ptr<message::JobContext>& jobCtx) {
    if (data.empty()) {
        PROF_LOGE("data is empty");
        return -1;
    }
    if (jobCtx == nullptr) {
        PROF_LOGE("jobCtx is null");
        return -1;
    }
    return UploadData(id, data.data(), static_cast<uint32_t>(data.size()), info,
                      jobCtx->ToString());
}

int UploaderMgr::UploadData(const std::string& id, const void* data, uint32_t len,
                            const FileChunkInfo& info, const std::string& jobCtxText) {
    if (data == nullptr || len == 0) {
        PROF_LOGE("data is empty");
        return -1;
    }
    MessageBuffer message =
        EncodeFileChunk({static_cast<const char*>(data), len}, info, jobCtxText);
    return message == nullptr ? -1 : UploadData(id, std::move(message));
}

// ---- Devices, modes and jobs -------------------------------------------------------------------

void UploaderMgr::UpdateDevModeJobMap(uint32_t devId, const std::string& mode,
                                      const std::string& jobId) {
    const std::string key = DevModeKey(devId, mode);
    PROF_LOGI("devModeKey:%s, jobId:%s Entering UpdateDevModeJobMap...", key.c_str(),
              jobId.c_str());
    const std::lock_guard<std::mutex> lock(mutex_);
    if (devModeJobMap_.insert_or_assign(key, jobId).second) {
        PROF_LOGI("Add to devModeJobMap_");
    } else {
        PROF_LOGI("Upadate devModeJobMap_");
    }
}

std::string UploaderMgr::GetJobId(uint32_t devId, const std::string& mode) {
    const std::string key = DevModeKey(devId, mode);
    PROF_LOGI("devModeKey:%s, Entering GetJobId...", key.c_str());
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = devModeJobMap_.find(key);
    return found == devModeJobMap_.end() ? std::string() : found->second;
}

}  // namespace analysis::nedra::transport
