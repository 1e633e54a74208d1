#include "profiling/datapath/uploader.h"

#include <climits>
#include <exception>
#include <utility>

#include "hdc/log_side.h"

namespace analysis::nedra::transport {

using Analysis::Nedra::TraceletErrMgr::TraceletErrorManager;
using common::thread::Thread;
using common::thread::TraceletErrorContext;

namespace {

constexpr char kQueueName[] = "UploaderQueue";
constexpr std::chrono::milliseconds kFlushPause{100};
constexpr size_t kMaxMessage = INT_MAX - kFrontRoom - kTailRoom;

// Of a message with both rooms around it.
size_t MessageLength(const std::string& message) {
    return message.size() - kFrontRoom - kTailRoom;
}

}  // namespace

Uploader::Uploader(std::shared_ptr<ITransport> transport, std::chrono::milliseconds stallLimit)
    : stallLimit_(stallLimit),
      transport_(std::move(transport)),
      watch_(stallLimit, [this](size_t bytes) { GiveUp(bytes); }) {}

Uploader::~Uploader() {
    Uploader::Uninit();
    // For one that was started and never inited.
    static_cast<void>(Thread::Stop());
}

int Uploader::Init(uint64_t queueCapacity) {
    try {
        queue_ = std::make_shared<Queue>(queueCapacity);
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return -1;
    }
    queue_->SetQueueName(kQueueName);
    inited_ = true;
    return 0;
}

// ---- Producers ---------------------------------------------------------------------------------

bool Uploader::Accepts(const void* data) const {
    if (!inited_) {
        PROF_LOGE("Uploader was not inited.");
        return false;
    }
    if (data == nullptr) {
        PROF_LOGE("[Uploader::UploadData]data is nullptr.");
        return false;
    }
    return true;
}

int Uploader::UploadData(const void* data, int len) {
    if (!Accepts(data)) {
        return -1;
    }
    const MessageBuffer message = len < 0 ? nullptr : TakeMessageBuffer(static_cast<size_t>(len));
    if (message == nullptr) {
        return -1;
    }
    message->append(static_cast<const char*>(data), static_cast<size_t>(len));
    return UploadData(message);
}

int Uploader::UploadData(MessageBuffer message) {
    if (!Accepts(message.get())) {
        return -1;
    }
    if (message->size() < kFrontRoom || message->size() - kFrontRoom > kMaxMessage) {
        PROF_LOGE("[Uploader::UploadData]data of %zu bytes is no message.", message->size());
        return -1;
    }
    try {
        message->append(kTailRoom, '\0');
        if (queue_->Push(std::move(message))) {
            return 0;
        }
        PROF_LOGE("[Uploader::UploadData]Push data failed.");
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
    }
    return -1;
}

void Uploader::Flush() {
    if (queue_ == nullptr) {
        return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    // The thread tells when it finds nothing more to send. The last message counts as flushed
    // when it is taken from the queue, hence the look in between.
    while (queue_->Size() != 0 && !ended_) {
        drained_.wait_for(lock, kFlushPause);
    }
}

std::shared_ptr<ITransport> Uploader::GetTransport() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return transport_;
}

uint64_t Uploader::GetQueueSize() const {
    return queue_ == nullptr ? 0 : queue_->Size();
}

// ---- The thread --------------------------------------------------------------------------------

void Uploader::Run(const TraceletErrorContext& context) {
    TraceletErrorManager::instance().SetErrorContext(context);
    if (!inited_) {
        PROF_LOGE("Uploader was not inited.");
        return;
    }
    try {
        SendQueued();
    } catch (const std::exception& e) {
        // Nobody sends what is queued from here on: producers must not wait for room, nor a flush
        // for an empty queue.
        PROF_LOGE("The uploader ends by an exception, message: %s", e.what());
        queue_->Quit();
    }
    PROF_LOGI("queue size remaining: %d, force_quit:%d", static_cast<int>(queue_->Size()),
              static_cast<int>(forceQuit_));
    End();
}

void Uploader::SendQueued() {
    const std::shared_ptr<ITransport> transport = GetTransport();
    while (!forceQuit_ && !gaveUp_) {
        // Asked before the queue is looked at: the queue has quit before the thread is asked to,
        // so what is queued later than this answer cannot be missed.
        const bool isLastLook = IsQuit();
        MessageBuffer message;
        if (!queue_->TryPop(message)) {
            if (isLastLook) {
                return;
            }
            drained_.notify_all();
            queue_->Pop(message);
        }
        if (message != nullptr) {
            Send(transport.get(), *message);
        }
    }
}

void Uploader::Send(ITransport* transport, std::string& message) {
    const auto length = static_cast<int>(MessageLength(message));
    watch_.Begin(static_cast<size_t>(length));
    const int sent =
        transport == nullptr ? -1 : transport->SendInPlace(message.data() + kFrontRoom, length);
    watch_.End();
    if (sent != length) {
        PROF_LOGE("Failed to upload data, data_len=%d, sent len=%d", length, sent);
    }
}

// ---- The end -----------------------------------------------------------------------------------

void Uploader::BoundStall(bool on) {
    watch_.Bound(on);
}

void Uploader::GiveUp(size_t bytes) {
    gaveUp_ = true;
    queue_->Quit();
    unsigned long long lostMessages = 1;
    unsigned long long lostBytes = bytes;
    for (MessageBuffer message; queue_->TryPop(message); message.reset()) {
        ++lostMessages;
        lostBytes += MessageLength(*message);
    }
    PROF_LOGE("Host took no message for %lld ms, uploader gives up, messages lost:%llu, bytes:%llu",
              static_cast<long long>(stallLimit_.count()), lostMessages, lostBytes);
    if (const auto transport = GetTransport(); transport != nullptr) {
        transport->CloseSession();
    }
    End();
}

void Uploader::End() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    drained_.notify_all();
}

int Uploader::Stop(bool forceQuit) {
    if (!inited_ || stopped_.exchange(true)) {
        return 0;
    }
    forceQuit_ = forceQuit;
    PROF_LOGI("Stopping uploader, force_quit:%d.", static_cast<int>(forceQuit));
    BoundStall(true);
    queue_->Quit();
    if (Thread::Stop() != 0) {
        PROF_LOGE("Failed to stop uploader");
    }
    End();
    return 0;
}

int Uploader::Uninit() {
    if (!inited_) {
        return 0;
    }
    Stop(true);
    BoundStall(false);
    std::shared_ptr<ITransport> released;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        released.swap(transport_);
    }
    inited_ = false;
    return 0;
}

}  // namespace analysis::nedra::transport
