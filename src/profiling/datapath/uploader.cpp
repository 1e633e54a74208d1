#include "profiling/datapath/uploader.h"

#include <algorithm>
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
// How often those who wait look after the host.
constexpr std::chrono::milliseconds kCheckPeriod{100};
constexpr size_t kMaxMessage = INT_MAX - kTailRoom;  // with all in front of it

}  // namespace

Uploader::Uploader(std::shared_ptr<ITransport> transport, std::chrono::milliseconds stallLimit)
    : stallLimit_(stallLimit), transport_(std::move(transport)) {}

Uploader::~Uploader() {
    Uploader::Uninit();
    // For one that was started and never inited.
    static_cast<void>(Thread::Stop());
}

int Uploader::Init(uint64_t queueCapacity, std::shared_ptr<QueueBudget> budget) {
    try {
        if (budget == nullptr) {
            budget = std::make_shared<QueueBudget>(QueueBudget::LimitOfProcess());
        }
        queue_ = std::make_shared<UploadQueue>(queueCapacity, std::move(budget));
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return -1;
    }
    queue_->SetQueueName(kQueueName);
    inited_ = true;
    return 0;
}

int Uploader::Start() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        running_ = true;
    }
    const int ret = Thread::Start();
    if (ret != 0) {
        End();
    }
    return ret;
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
    if (len < 0) {
        PROF_LOGE("[Uploader::UploadData]data of %d bytes is no message.", len);
        return -1;
    }
    MessageBuffer message = TakeMessageBuffer(static_cast<size_t>(len));
    if (message == nullptr) {
        return -1;
    }
    message->bytes.append(static_cast<const char*>(data), static_cast<size_t>(len));
    return UploadData(std::move(message));
}

bool Uploader::Accepts(const MessageBuffer& message) const {
    if (!Accepts(static_cast<const void*>(message.get()))) {
        return false;
    }
    const size_t size = message->bytes.size();
    const bool isMessage = message->begin >= kFrontRoom && message->begin <= size;
    if (!isMessage || size > kMaxMessage) {
        PROF_LOGE("[Uploader::UploadData]data of %zu bytes is no message.", size);
        return false;
    }
    return true;
}

void Uploader::Expect() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++unsent_;
}

int Uploader::UploadData(MessageBuffer message) {
    if (!Accepts(message)) {
        return -1;
    }
    Expect();
    try {
        if (queue_->Push(std::move(message), kCheckPeriod, [this] { CheckHost(); })) {
            return 0;
        }
        Refuse();
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
    }
    Settle();  // the producer knows what it has lost
    return -1;
}

Uploader::Taken Uploader::TryUpload(MessageBuffer& message) {
    if (!Accepts(message)) {
        return Taken::kLost;
    }
    Expect();
    auto entry = UploadQueue::Entry::kFull;
    try {
        entry = queue_->TryPush(message);
    } catch (const std::exception& e) {  // there may be memory when the producer comes again
        PROF_LOGE("make shared failed, message: %s", e.what());
    }
    if (entry == UploadQueue::Entry::kIn) {
        return Taken::kQueued;
    }
    Settle();
    if (entry == UploadQueue::Entry::kFull) {
        CheckHost();
        return Taken::kFull;
    }
    Refuse();
    message.reset();
    return Taken::kLost;
}

// A host that has gone costs its job a message each time that something is sampled: one line tells
// that it begins, and one at the end how many.
void Uploader::Refuse() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (++refused_ == 1) {
        PROF_LOGE("[Uploader::UploadData]Push data failed.");
    }
}

bool Uploader::Flush() {
    if (queue_ != nullptr) {
        WaitForHost([this] { return unsent_ == 0 || !running_; });
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    return unsent_ == 0 && lostMessages_ == 0 && !gaveUp_ && !isLossy_;
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
        End();
        return;
    }
    try {
        SendQueued();
    } catch (const std::exception& e) {
        // Nobody sends what is queued from here on: producers must not wait for room, nor a flush
        // for an empty queue.
        PROF_LOGE("The uploader ends by an exception, message: %s", e.what());
        GiveUp("An exception ends the uploader");
    }
    PROF_LOGI("queue size remaining: %d, force_quit:%d", static_cast<int>(queue_->Size()),
              static_cast<int>(forceQuit_));
    DropQueued();
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
            queue_->Pop(message);
        }
        if (message != nullptr) {
            Send(transport.get(), *message);
        }
    }
}

void Uploader::Send(ITransport* transport, MessageBlock& message) {
    const auto length = static_cast<int>(message.size());
    message.bytes.append(kTailRoom, '\0');  // without a move: there is room for it
    const int sent = transport == nullptr ? -1 : transport->SendInPlace(message.data(), length);
    if (sent == length) {
        const std::lock_guard<std::mutex> lock(mutex_);
        lastSent_ = Clock::now();
    } else {
        PROF_LOGE("Failed to upload data, data_len=%d, sent len=%d", length, sent);
        Lose(static_cast<uint64_t>(length));
        if (transport == nullptr || !transport->IsUsable()) {
            GiveUp("A send has failed");
        }
    }
    Settle();
}

void Uploader::Settle() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (--unsent_ == 0) {
        changed_.notify_all();
    }
}

void Uploader::Lose(uint64_t length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++lostMessages_;
    lostBytes_ += length;
}

void Uploader::DropQueued() {
    if (gaveUp_ || forceQuit_) {
        for (MessageBuffer message; queue_->TryPop(message); message.reset()) {
            Lose(message->size());
            Settle();
        }
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (lostMessages_ != 0) {
        PROF_LOGE("%s, uploader gives up, messages lost:%llu, bytes:%llu", reason_.c_str(),
                  static_cast<unsigned long long>(lostMessages_),
                  static_cast<unsigned long long>(lostBytes_));
    }
}

void Uploader::End() {
    const std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    changed_.notify_all();
}

// ---- The end -----------------------------------------------------------------------------------

void Uploader::BoundStall(bool on) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (on && !bounded_) {
        boundedSince_ = Clock::now();
    }
    bounded_ = on || stopped_ || latest_ != Clock::time_point::max();
}

void Uploader::BoundUntil(Clock::time_point latest) {
    BoundStall(true);
    const std::lock_guard<std::mutex> lock(mutex_);
    latest_ = std::min(latest_, latest);
}

Uploader::Clock::time_point Uploader::Due() const {
    if (!bounded_ || !running_) {
        return latest_;
    }
    const Clock::time_point segment =
        transport_ == nullptr ? Clock::time_point() : transport_->LastSegment();
    return std::min(latest_, std::max({boundedSince_, lastSent_, segment}) + stallLimit_);
}

void Uploader::CheckHost() {
    std::string reason;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const Clock::time_point now = Clock::now();
        if (now < Due()) {
            return;
        }
        reason = now >= latest_
                     ? "The agent ends"
                     : "Host took no segment for " + std::to_string(stallLimit_.count()) + " ms";
    }
    GiveUp(reason);
}

bool Uploader::GiveUp(const std::string& reason) {
    bool isLossy = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isLossy = unsent_ != 0 || lostMessages_ != 0 || isLossy_;
        if (!inited_ || gaveUp_) {
            return isLossy;
        }
        gaveUp_ = true;
        reason_ = reason;
    }
    queue_->Quit();
    if (const auto transport = GetTransport(); transport != nullptr) {
        transport->CloseSession();  // the send at hand fails
    }
    return isLossy;
}

void Uploader::NoteLoss() {
    const std::lock_guard<std::mutex> lock(mutex_);
    isLossy_ = true;
}

template <typename Condition>
void Uploader::WaitForHost(const Condition& condition) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, kCheckPeriod, condition)) {
        lock.unlock();
        CheckHost();
        lock.lock();
    }
}

int Uploader::Stop(bool forceQuit) {
    if (!inited_ || stopped_.exchange(true)) {
        return 0;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        forceQuit_ = forceQuit;
        reason_ = reason_.empty() ? "A forced stop" : reason_;
    }
    PROF_LOGI("Stopping uploader, force_quit:%d.", static_cast<int>(forceQuit));
    BoundStall(true);
    queue_->Quit();
    SetQuit();
    WaitForHost([this] { return !running_; });
    if (Thread::Stop() != 0) {
        PROF_LOGE("Failed to stop uploader");
    }
    return 0;
}

int Uploader::Uninit() {
    if (!inited_) {
        return 0;
    }
    Stop(true);
    std::shared_ptr<ITransport> released;  // after the lock
    const std::lock_guard<std::mutex> lock(mutex_);
    released.swap(transport_);
    if (refused_ > 1) {
        PROF_LOGE("[Uploader::UploadData]Push data failed, messages lost:%llu",
                  static_cast<unsigned long long>(refused_));
    }
    inited_ = false;
    return 0;
}

}  // namespace analysis::nedra::transport
