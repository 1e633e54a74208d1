#include "profiling/control/collection_entry.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "hdc/log_side.h"
#include "profiling/collect/collection_finish.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/platform.h"
#include "profiling/config/utils.h"
#include "profiling/control/prof_msg_handler.h"
#include "profiling/control/task_relationship_mgr.h"
#include "profiling/datapath/uploader_mgr.h"
#include "proto/codec.h"

namespace analysis::nedra::device {

using Analysis::Nedra::Common::Platform::Platform;
using Analysis::Nedra::TaskHandle::TaskRelationshipMgr;
using common::MakeShared;
using common::utils::Utils;
using common::validation::ParamValidation;
using message::StatusInfo;
using transport::DevModeKey;
using transport::ITransport;
using transport::kUploaderThread;
using transport::Uploader;
using transport::UploaderMgr;

namespace {

constexpr char kAgentDirectory[] = "/usr/local/profiler/";
constexpr char kReceiverThread[] = "TLET_CtrlRecv";
// From the request to end until the last host is given up, whatever it does. What else the end
// takes (files, scripts) has time left until the service manager's limit.
constexpr std::chrono::seconds kEndLimit{45};

std::string EncodeResponse(const StatusInfo& status) {
    return message::EncodeMessage(CreateResponse(status));
}

int SendReply(ITransport& transport, const std::string& reply) {
    return transport.SendBuffer(reply.data(), static_cast<int>(reply.size()));
}

}  // namespace

// ---- Start and end ------------------------------------------------------------------------------

int CollectionEntry::Init() {
    PROF_EVENT("Begin to init Collection Entry");
    Utils::RemoveDir(kAgentDirectory, false);
    if (Platform::instance().Init() != 0) {
        return -1;
    }
    isInited_ = true;
    return 0;
}

int CollectionEntry::Uninit() {
    PROF_LOGI("uinit Collection Entry.");
    if (!isInited_.exchange(false)) {
        return 0;
    }
    Receivers ended;
    {
        const std::lock_guard<std::mutex> lock(receiverMutex_);
        ended = receiverMap_;
    }
    // The limit of all hosts runs out at the same time, and all sessions end before the first
    // thread is waited for. The receivers stay registered meanwhile: their jobs end with their
    // data, for which they look around here.
    UploaderMgr::instance().EndAllUntil(Uploader::Clock::now() + kEndLimit);
    for (const auto& [jobId, receivers] : ended) {
        for (const auto& [devIndexId, receiver] : receivers) {
            receiver->CloseSession();
        }
    }
    for (const auto& [jobId, receivers] : ended) {
        for (const auto& [devIndexId, receiver] : receivers) {
            receiver->Uninit();
        }
    }
    {
        const std::lock_guard<std::mutex> lock(receiverMutex_);
        receiverMap_.clear();  // `ended` still holds them
        const std::lock_guard<std::mutex> modeLock(modeJobMutex_);
        modeJobMap_.clear();
    }
    UploaderMgr::instance().Uninit();
    return 0;
}

int CollectionEntry::FinishCollection(int devIdOnHost, const std::string& jobId) {
    return device::FinishCollection(devIdOnHost, jobId);
}

// ---- Handshakes ---------------------------------------------------------------------------------

int CollectionEntry::Handle(const std::shared_ptr<ITransport>& transport,
                            const std::string& message, int devIndexId) {
    if (!isInited_ || transport == nullptr) {
        PROF_LOGE("Collection Entry was not inited.");
        return -1;
    }
    StatusInfo status;
    status.status = 1;
    int ret = -1;
    // The receiver is released after the reply, since its release closes the session.
    std::shared_ptr<Receiver> receiver;
    // What nobody asks for is not built: it may take 70 times the memory of its bytes.
    const auto* type = message::TypeOf(message);
    const bool isHandshake = type == proto::CtrlChannelHandshake::descriptor() ||
                             type == proto::DataChannelHandshake::descriptor();
    const auto decoded = isHandshake || type == nullptr ? message::DecodeMessage(message) : nullptr;
    if (!isHandshake && type != nullptr) {
        status.info = "unknown message";
    } else if (decoded == nullptr) {
        PROF_LOGW("Failed to decode message");
        status.info = "Failed to decode message";
    } else if (const auto* ctrl = dynamic_cast<proto::CtrlChannelHandshake*>(decoded.get())) {
        receiver = MakeShared<Receiver>(transport);
        if (receiver != nullptr) {
            ret = HandleCtrlSession(receiver, *ctrl, status, devIndexId);
        }
    } else if (const auto* data = dynamic_cast<proto::DataChannelHandshake*>(decoded.get())) {
        const auto uploader = MakeShared<Uploader>(transport);
        ret = HandleDataSession(uploader, *data, devIndexId);
    }
    if (ret != 0) {
        const std::string reply = EncodeResponse(status);
        const int sent = SendReply(*transport, reply);
        PROF_LOGW(
            "Reply handle failed, dev_id=%d, statusInfo=%s, response sent size:%d, resp size:%d",
            devIndexId, status.ToString().c_str(), sent, static_cast<int>(reply.size()));
    }
    return ret;
}

// Holds a device and mode from the look at its last job until the new one is registered.
class CollectionEntry::Reservation {
public:
    Reservation(CollectionEntry& entry, int devIndexId, const std::string& mode)
        : entry_(entry), key_(DevModeKey(devIndexId, mode)) {
        const std::lock_guard<std::mutex> lock(entry_.modeJobMutex_);
        isOurs_ = entry_.handshakes_.insert(key_).second;
    }
    ~Reservation() {
        if (isOurs_) {
            const std::lock_guard<std::mutex> lock(entry_.modeJobMutex_);
            entry_.handshakes_.erase(key_);
        }
    }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;

    bool IsOurs() const { return isOurs_; }

private:
    CollectionEntry& entry_;
    const std::string key_;
    bool isOurs_ = false;
};

bool CollectionEntry::IsRunning(const std::string& jobId, int devIndexId) {
    {
        const std::lock_guard<std::mutex> lock(receiverMutex_);
        const auto job = receiverMap_.find(jobId);
        if (job == receiverMap_.end()) {
            return false;
        }
        const auto receiver = job->second.find(devIndexId);
        if (receiver == job->second.end() || receiver->second->IsQuit()) {
            return false;
        }
    }
    PROF_LOGE("Last profiling job %s on device %u has not exited, please try again later",
              jobId.c_str(), static_cast<uint32_t>(devIndexId));
    return true;
}

void CollectionEntry::DelForsakenUploaders() {
    UploaderMgr::instance().DelForsaken(
        [this](const std::string& job) { return HasReceiver(job); });
}

int CollectionEntry::HandleCtrlSession(const std::shared_ptr<Receiver>& receiver,
                                       const proto::CtrlChannelHandshake& handshake,
                                       StatusInfo& status, int devIndexId) {
    const int devIdOnHost = handshake.devid();
    PROF_LOGI("Device %d Received ctrl handshake, devIdOnHost: %d", devIndexId, devIdOnHost);
    const Reservation reservation(*this, devIndexId, handshake.mode());
    if (!reservation.IsOurs()) {
        PROF_LOGE("Another handshake for mode %s on device %d is being answered",
                  handshake.mode().c_str(), devIndexId);
        return -1;
    }
    // A job id that another session of the device uses is refused in whatever mode: the replies
    // and the data of the two could not be told apart.
    if (IsRunning(GetModeJobIdRelation(devIndexId, handshake.mode()), devIndexId) ||
        IsRunning(handshake.jobid(), devIndexId)) {
        return -1;
    }
    if (!ParamValidation::instance().CheckDeviceIdIsValid(std::to_string(devIdOnHost))) {
        PROF_LOGE("[HandleCtrlSession]hostId: %d is not valid!", devIdOnHost);
        return -1;
    }
    DelForsakenUploaders();
    receiver->SetDevIdOnHost(devIdOnHost);
    TaskRelationshipMgr::instance().AddHostIdDevIdRelation(devIdOnHost, devIndexId);
    if (const int ret = receiver->Init(devIndexId); ret != 0) {
        PROF_LOGE("Failed to init receiver");
        status.info = "Failed to init receiver";
        return ret;
    }
    const int ret = StartReceiver(receiver, handshake, status, devIndexId);
    if (ret == 0) {
        PROF_LOGI("Ctrl session finished, devId:%d, devIdOnHost:%d", devIndexId, devIdOnHost);
    }
    return ret;
}

int CollectionEntry::StartReceiver(const std::shared_ptr<Receiver>& receiver,
                                   const proto::CtrlChannelHandshake& handshake, StatusInfo& status,
                                   int devIndexId) {
    status.status = 0;
    const std::string reply = EncodeResponse(status);
    const int sent = SendReply(*receiver->GetTransport(), reply);
    PROF_LOGI("Reply ctrl handshake, statusInfo=%s, response sent size:%d, resp size:%d",
              status.ToString().c_str(), sent, static_cast<int>(reply.size()));
    status.status = 1;
    if (!AddReceiver(handshake.mode(), handshake.jobid(), devIndexId, receiver)) {
        return -1;
    }
    receiver->SetThreadName(kReceiverThread);
    const int ret = receiver->Start();
    if (ret != 0) {
        PROF_LOGE("[HandleCtrlSession]Failed to start receiver thread, ret=%d", ret);
        receiver->SetQuit();
        DeleteModeJobIdRelation(devIndexId, handshake.mode());
        // The caller still holds it, for the reply.
        static_cast<void>(TakeReceiver(handshake.jobid(), devIndexId));
        return ret;
    }
    status.status = 0;
    return 0;
}

int CollectionEntry::HandleDataSession(const std::shared_ptr<Uploader>& uploader,
                                       const proto::DataChannelHandshake& handshake,
                                       int devIndexId) {
    PROF_LOGI("Device %d Received data handshake", devIndexId);
    if (!ParamValidation::instance().CheckJobIdIsValid(handshake.jobid())) {
        PROF_LOGE("[HandleDataSession]jobID is invalid!");
        return -1;
    }
    if (!ParamValidation::instance().CheckProfilingMode(handshake.mode())) {
        PROF_LOGE("[HandleDataSession]profilingMode is invalid!");
        return -1;
    }
    if (uploader == nullptr) {
        return -1;
    }
    auto& uploaders = UploaderMgr::instance();
    if (const int ret = uploader->Init(transport::kUploaderCapacity, uploaders.budget());
        ret != 0) {
        PROF_LOGE("[HandleDataSession]Failed to init uploader thread, initRet=%d", ret);
        return ret;
    }
    // The reply is in the queue before anybody can find the uploader, so no chunk comes before it.
    StatusInfo status;
    status.status = 0;
    const std::string reply = EncodeResponse(status);
    const int queued = uploader->UploadData(reply.data(), static_cast<int>(reply.size()));
    PROF_LOGI("Reply data handshake, statusInfo=%s, response sent size:%d, resp size:%d",
              status.ToString().c_str(), queued, static_cast<int>(reply.size()));
    DelForsakenUploaders();
    uploaders.UpdateDevModeJobMap(static_cast<uint32_t>(devIndexId), handshake.mode(),
                                  handshake.jobid());
    uploaders.AddUploader(handshake.jobid(), uploader);
    uploader->SetThreadName(kUploaderThread + handshake.jobid());
    if (const int ret = uploader->Start(); ret != 0) {
        PROF_LOGE("[HandleDataSession]Failed to start uploader thread, ret=%d", ret);
        uploaders.DelUploader(handshake.jobid());
        uploader->Stop(true);  // who has found it meanwhile must not wait for what will not run
        return ret;
    }
    return 0;
}

// ---- The registry -------------------------------------------------------------------------------

int CollectionEntry::SendMsgByDevId(const std::string& jobId, int devIndexId,
                                    const message::MessagePtr& message,
                                    const std::shared_ptr<ITransport>& own) {
    if (message == nullptr) {
        PROF_LOGE("[SendMsgByDevId] message is nullptr.");
        return -1;
    }
    PROF_LOGI("Send devIndexId %u Message...", static_cast<uint32_t>(devIndexId));
    const auto receiver = GetReceiver(jobId, devIndexId);
    const bool isMeant = receiver != nullptr && (own == nullptr || receiver->GetTransport() == own);
    return isMeant ? receiver->SendMessage(message) : -1;
}

bool CollectionEntry::AddReceiver(const std::string& mode, const std::string& jobId, int devIndexId,
                                  const std::shared_ptr<Receiver>& receiver) {
    PROF_LOGI("mode: %s, devIndexId: %u, jobId: %s Entering AddReceiver...", mode.c_str(),
              static_cast<uint32_t>(devIndexId), jobId.c_str());
    const std::string old = DeleteModeJobIdRelation(devIndexId, mode);
    DeleteReceiver(old, devIndexId);
    for (const auto& forsaken : TakeForsaken()) {
        forsaken->Uninit();
    }
    if (receiver == nullptr) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(receiverMutex_);
    if (!isInited_) {
        return false;
    }
    // Only one of two handshakes for the same job in two modes can have come as far as this.
    const bool isIn = receiverMap_[jobId].emplace(devIndexId, receiver).second;
    if (isIn) {
        AddModeJobIdRelation(devIndexId, mode, jobId);
    }
    return isIn;
}

std::shared_ptr<Receiver> CollectionEntry::GetReceiver(const std::string& jobId, int devIndexId) {
    PROF_LOGI("devIndexId: %u, jobId: %s Entering GetReceiver...",
              static_cast<uint32_t>(devIndexId), jobId.c_str());
    const std::lock_guard<std::mutex> lock(receiverMutex_);
    const auto job = receiverMap_.find(jobId);
    if (job == receiverMap_.end()) {
        PROF_LOGE("Can't find jobId: %s receiver", jobId.c_str());
        return nullptr;
    }
    const auto receiver = job->second.find(devIndexId);
    if (receiver == job->second.end()) {
        PROF_LOGE("Can't find jobId %s, devIndexId: %d receiver", jobId.c_str(), devIndexId);
        return nullptr;
    }
    return receiver->second;
}

std::vector<std::shared_ptr<Receiver>> CollectionEntry::TakeForsaken() {
    std::vector<std::shared_ptr<Receiver>> taken;
    const std::lock_guard<std::mutex> lock(receiverMutex_);
    const std::lock_guard<std::mutex> modeLock(modeJobMutex_);
    if (!isInited_) {  // the end needs them all
        return taken;
    }
    for (auto job = receiverMap_.begin(); job != receiverMap_.end();) {
        auto& receivers = job->second;
        for (auto it = receivers.begin(); it != receivers.end();) {
            if (it->second->IsQuit()) {
                taken.push_back(std::move(it->second));
                it = receivers.erase(it);
            } else {
                ++it;
            }
        }
        job = receivers.empty() ? receiverMap_.erase(job) : std::next(job);
    }
    for (auto it = modeJobMap_.begin(); it != modeJobMap_.end();) {
        it = receiverMap_.count(it->second) == 0 ? modeJobMap_.erase(it) : std::next(it);
    }
    return taken;
}

bool CollectionEntry::HasReceiver(const std::string& jobId) {
    const std::lock_guard<std::mutex> lock(receiverMutex_);
    const auto job = receiverMap_.find(jobId);
    return job != receiverMap_.end() &&
           std::any_of(job->second.begin(), job->second.end(),
                       [](const auto& receiver) { return !receiver.second->IsQuit(); });
}

void CollectionEntry::DeleteReceiver(const std::string& jobId, int devIndexId) {
    PROF_LOGI("Delete receiver jobId %s, devIndexId %d", jobId.c_str(), devIndexId);
    if (jobId.empty()) {
        return;
    }
    if (const auto deleted = TakeReceiver(jobId, devIndexId); deleted != nullptr) {
        deleted->Uninit();
    }
}

std::shared_ptr<Receiver> CollectionEntry::TakeReceiver(const std::string& jobId, int devIndexId) {
    const std::lock_guard<std::mutex> lock(receiverMutex_);
    const auto job = receiverMap_.find(jobId);
    if (job == receiverMap_.end()) {
        return nullptr;
    }
    const auto taken = job->second.extract(devIndexId);
    if (job->second.empty()) {
        receiverMap_.erase(job);
    }
    return taken.empty() ? nullptr : taken.mapped();
}

void CollectionEntry::AddModeJobIdRelation(int devIndexId, const std::string& mode,
                                           const std::string& jobId) {
    const std::string key = DevModeKey(devIndexId, mode);
    PROF_LOGI("devModeKey:%s, jobId:%s Entering AddModeJobIdRelation...", key.c_str(),
              jobId.c_str());
    const std::lock_guard<std::mutex> lock(modeJobMutex_);
    modeJobMap_[key] = jobId;
}

std::string CollectionEntry::GetModeJobIdRelation(int devIndexId, const std::string& mode) {
    const std::lock_guard<std::mutex> lock(modeJobMutex_);
    const auto relation = modeJobMap_.find(DevModeKey(devIndexId, mode));
    return relation == modeJobMap_.end() ? std::string() : relation->second;
}

std::string CollectionEntry::DeleteModeJobIdRelation(int devIndexId, const std::string& mode) {
    const std::string key = DevModeKey(devIndexId, mode);
    PROF_LOGI("devModeKey:%s, Entering DeleteModeJobIdRelation...", key.c_str());
    const std::lock_guard<std::mutex> lock(modeJobMutex_);
    const auto relation = modeJobMap_.extract(key);
    return relation.empty() ? std::string() : relation.mapped();
}

}  // namespace analysis::nedra::device
