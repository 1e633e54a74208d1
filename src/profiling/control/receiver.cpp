#include "profiling/control/receiver.h"

#include <exception>
#include <string_view>
#include <utility>

#include "hdc/log_side.h"
#include "profiling/config/make_shared.h"
#include "profiling/control/prof_msg_handler.h"
#include "profiling/control/task_manager.h"
#include "proto/codec.h"

namespace analysis::nedra::device {

using Analysis::Nedra::TraceletErrMgr::TraceletErrorManager;
using common::MakeShared;
using transport::ITransport;

namespace {

// One that fails must not take the thread: the next command comes, and the thread's end has to be
// told, or no other host gets in.
template <typename Step>
void Guarded(const char* what, const Step& step) {
    try {
        step();
    } catch (const std::exception& e) {
        PROF_LOGE("%s ends by an exception, message: %s", what, e.what());
    }
}

}  // namespace

Receiver::Receiver(std::shared_ptr<ITransport> transport) : transport_(std::move(transport)) {}

Receiver::~Receiver() {
    Receiver::Uninit();
    // For one that was started after its end.
    static_cast<void>(Thread::Stop());
}

int Receiver::Init(int devId) {
    dispatcher_ = MakeShared<message::MsgDispatcher>();
    if (dispatcher_ == nullptr) {
        return -1;
    }
    const ControlSession session{GetTransport(), devIdOnHost_, devId};
    const auto jobStart = MakeShared<JobStartHandler>(session);
    const auto jobStop = MakeShared<JobStopHandler>(session);
    const auto replayStart = MakeShared<ReplayStartHandler>(session);
    const auto replayStop = MakeShared<ReplayStopHandler>(session);
    if (jobStart == nullptr || jobStop == nullptr || replayStart == nullptr ||
        replayStop == nullptr) {
        return -1;
    }
    dispatcher_->RegisterHandler<proto::JobStartReq>(jobStart);
    dispatcher_->RegisterHandler<proto::JobStopReq>(jobStop);
    dispatcher_->RegisterHandler<proto::ReplayStartReq>(replayStart);
    dispatcher_->RegisterHandler<proto::ReplayStopReq>(replayStop);
    devId_ = devId;
    isInited_ = true;
    return 0;
}

void Receiver::CloseSession() {
    isClosed_ = true;
    if (const auto transport = GetTransport(); transport != nullptr) {
        transport->CloseSession();
    }
}

int Receiver::Uninit() {
    PROF_LOGI("Receiver Unint");
    if (GetTransport() != nullptr) {
        CloseSession();
        if (Stop() != 0) {
            PROF_LOGW("Faied to stop thread: %s", GetThreadName().c_str());
        }
        std::shared_ptr<ITransport> released;  // after the lock
        const std::lock_guard<std::mutex> lock(mutex_);
        released.swap(transport_);
    }
    devId_ = -1;
    isInited_ = false;
    return 0;
}

std::shared_ptr<ITransport> Receiver::GetTransport() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return transport_;
}

int Receiver::SendMessage(const message::MessagePtr& message) {
    const auto transport = GetTransport();
    if (message == nullptr || transport == nullptr) {
        return -1;
    }
    const std::string encoded = message::EncodeMessage(message);
    const std::lock_guard<std::mutex> lock(sendMutex_);
    const int ret = transport->SendBuffer(encoded.data(), static_cast<int>(encoded.size()));
    PROF_LOGI("DeviceOnHost(%d) Send message size %u ret %d", devIdOnHost_.load(),
              static_cast<uint32_t>(encoded.size()), ret);
    return ret;
}

void Receiver::Run(const common::thread::TraceletErrorContext& context) {
    TraceletErrorManager::instance().SetErrorContext(context);
    PROF_LOGI("Receiver begin, devId:%d, devIdOnHost:%d", devId_.load(), devIdOnHost_.load());
    const auto transport = GetTransport();
    if (!isInited_ || transport == nullptr) {
        PROF_LOGE("Receiver is not inited.");
        return;
    }
    bool isAlive = true;
    // One whose session was closed under a command is asked to quit as well, but has tasks to
    // reset: it reads on, which fails.
    while ((isAlive = ServeOne(*transport)) && (!IsQuit() || isClosed_)) {
    }
    if (!isAlive) {
        PROF_LOGW("devIdOnHost(%d) Failed to recv packet from host", devIdOnHost_.load());
        Guarded("The reset of a connection",
                [&] { TaskManager::instance().ConnectionReset(transport); });
        SetQuit();
    }
    // The host's next session may come as soon as this one has ended, so the end is told first.
    transport->CloseSession();
    PROF_LOGI("Receiver end, devId:%d, devIdOnHost:%d", devId_.load(), devIdOnHost_.load());
}

bool Receiver::ServeOne(ITransport& transport) {
    IdeRequest* packet = nullptr;
    const int length = transport.RecvPacket(&packet);
    if (length < 0 || packet == nullptr) {
        transport.DestroyPacket(packet);  // the refusal of a container is handed out as well
        return false;
    }
    PROF_LOGI("DeviceOnHost(%d) Receiver message size %d", devIdOnHost_.load(), length);
    message::MessagePtr message;
    // What the packet says of itself must be true before it is believed.
    if (packet->len == static_cast<uint32_t>(length) - sizeof(IdeRequest)) {
        message = message::DecodeOneOf(
            {proto::JobStartReq::descriptor(), proto::JobStopReq::descriptor(),
             proto::ReplayStartReq::descriptor(), proto::ReplayStopReq::descriptor()},
            message::kMaxCommand, {packet->value, packet->len});
    }
    transport.DestroyPacket(packet);
    Guarded("A command", [&] { dispatcher_->OnNewMessage(message); });
    return true;
}

}  // namespace analysis::nedra::device
