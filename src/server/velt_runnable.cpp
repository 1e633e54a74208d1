#include "server/velt_runnable.h"

#include <exception>

#include "hdc/log_side.h"

namespace Velt {

namespace {

constexpr uint32_t kThreadStackSize = 131072;

}  // namespace

Runnable::~Runnable() {
    quit_.store(true);
    Join();
}

int Runnable::Start() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (running_ || refuseStart_) {
        return -1;
    }
    quit_.store(false);
    const mmUserBlock_t routine{ThreadBody, this};
    mmThreadAttr attributes{};
    attributes.stackFlag = 1;
    attributes.stackSize = kThreadStackSize;
    if (mmCreateTaskWithThreadAttr(&thread_, &routine, &attributes) != EN_OK) {
        thread_ = 0;
        return -1;
    }
    running_ = true;
    return 0;
}

int Runnable::Stop() {
    quit_.store(true);
    Wake();
    Join();
    const std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    return 0;
}

void Runnable::SetName(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    name_ = name;
}

void Runnable::Join() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (joining_) {
        ended_.wait(lock, [this] { return !joining_; });
        return;
    }
    if (thread_ == 0) {
        return;
    }
    joining_ = true;
    mmThread thread = thread_;
    lock.unlock();
    mmJoinTask(&thread);
    lock.lock();
    thread_ = 0;
    joining_ = false;
    ended_.notify_all();
}

void Runnable::RefuseStart() {
    const std::lock_guard<std::mutex> lock(mutex_);
    refuseStart_ = true;
}

void* Runnable::ThreadBody(void* object) {
    if (object == nullptr) {
        return nullptr;
    }
    auto* self = static_cast<Runnable*>(object);
    {
        const std::lock_guard<std::mutex> lock(self->mutex_);
        mmSetCurrentThreadName(self->name_.c_str());
    }
    try {
        self->Run();
    } catch (const std::exception& e) {
        IDE_LOGE("a thread of the framework ends: %s", e.what());
    }
    return nullptr;
}

}  // namespace Velt
