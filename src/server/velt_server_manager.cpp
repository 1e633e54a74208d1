#include "server/velt_server_manager.h"

#include <portability.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>

#include "hdc/log_side.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {

namespace {

constexpr int kWaitMs = 500;
constexpr uint32_t kStopPauseMs = 500;
// An accept of a peer that is there takes less. Others wait for a greeting that may never come.
constexpr auto kAcceptPatience = std::chrono::milliseconds(100);

}  // namespace

// ---- Configuration ---------------------------------------------------------------------------

bool VeltServerManager::RegisterEpoll(std::unique_ptr<VeltEpoll> epoll) {
    if (epoll == nullptr) {
        IDE_LOGE("register epoll input error");
        return false;
    }
    // Of two starts at once, one gets no further than this.
    const std::lock_guard<std::mutex> lock(holdMutex_);
    if (epoll_ != nullptr) {
        return false;
    }
    epoll_ = std::move(epoll);
    return true;
}

bool VeltServerManager::RegisterCommOpt(std::shared_ptr<VeltCommOpt> option,
                                        const std::string& serviceType) {
    if (option == nullptr) {
        IDE_LOGE("register commopt input error");
        return false;
    }
    serviceType_ = serviceType;
    commOptType_ = option->CommOptType();
    sessions_->SetCommOptType(commOptType_);
    return VeltCommOptManager::instance().CommOptsRegister(std::move(option));
}

bool VeltServerManager::AddComponent(std::unique_ptr<VeltComponent> component) {
    return sessions_->AddComponent(std::move(component));
}

bool VeltServerManager::ComponentInit() {
    if (epoll_ == nullptr) {
        return false;
    }
    sessions_->InitComponents();
    IDE_LOGI("server manager components init successfully");
    return true;
}

void VeltServerManager::Hold() {
    const std::lock_guard<std::mutex> lock(holdMutex_);
    ++holders_;
}

void VeltServerManager::Release() {
    const std::lock_guard<std::mutex> lock(holdMutex_);
    --holders_;
    released_.notify_all();
}

void VeltServerManager::WaitUntilReleased() {
    std::unique_lock<std::mutex> lock(holdMutex_);
    released_.wait(lock, [this] { return holders_ == 0; });
}

// ---- The loop, on the manager's thread -------------------------------------------------------

void VeltServerManager::Run() {
    if (epoll_ == nullptr) {
        IDE_LOGE("epoll_ check failed, nullptr");
        return;
    }
    std::vector<VeltEvent> events(static_cast<size_t>(epoll_->Size()));
    IDE_EVENT("Run Server(%d) Process", std::atoi(serviceType_.c_str()));
    waitOver_.store(false);
    while (!IsQuit()) {
        try {
            Round(events);
        } catch (const std::exception& e) {
            IDE_LOGE("a round of the server ends: %s", e.what());
            epoll_->ProcessOther();
        }
    }
    waitOver_.store(true);
    IDE_EVENT("server manager stop");
}

void VeltServerManager::Round(std::vector<VeltEvent>& events) {
    RefreshDevices();
    const int size = static_cast<int>(events.size());
    const int count = epoll_->Wait(events.data(), size, kWaitMs);
    for (int i = 0; i < count && i < size && !IsQuit(); ++i) {
        HandleEvent(events[static_cast<size_t>(i)]);
    }
    if (gate_.EndRound() || count < 0) {
        epoll_->ProcessOther();
    }
}

void VeltServerManager::HandleEvent(const VeltEvent& event) {
    IDE_LOGI("sock EpollWait accept event %d", static_cast<int>(event.mask));
    if ((event.mask & kEventConnect) != 0) {
        IDE_LOGI("sock connect EpollWait event %d", static_cast<int>(event.mask));
        Accept(event);
    } else if ((event.mask & kEventData) != 0) {
        IDE_LOGI("data in");
        gate_.OtherEvent();
    } else if ((event.mask & kEventHangUp) != 0) {
        IDE_LOGW("hang up state");
        gate_.OtherEvent();
    } else {
        IDE_LOGW("other epoll state");
        epoll_->ProcessOther();
    }
}

void VeltServerManager::Accept(const VeltEvent& event) {
    const CommHandle server{commOptType_, static_cast<int64_t>(event.data)};
    if (!gate_.MayAccept() || !BeginAccept(server.value)) {
        return;
    }
    const CommHandle session = VeltCommOptManager::instance().Accept(server);
    EndAccept();
    if (session.value == kNoHandle) {
        if (!IsQuit() && gate_.AcceptFailed(server.value)) {
            ReopenServer(server.value);
        }
    } else if (sessions_->Take(session)) {
        gate_.Taken(server.value);
    } else {
        gate_.Refused();
    }
}

bool VeltServerManager::BeginAccept(int64_t server) {
    const std::lock_guard<std::mutex> lock(acceptMutex_);
    if (IsQuit()) {  // Wake may have looked already
        return false;
    }
    accepting_ = server;
    return true;
}

void VeltServerManager::EndAccept() {
    const std::lock_guard<std::mutex> lock(acceptMutex_);
    accepting_ = kNoHandle;
    acceptEnded_.notify_all();
}

// ---- Teardown --------------------------------------------------------------------------------

void VeltServerManager::Wake() {
    std::unique_lock<std::mutex> lock(acceptMutex_);
    if (acceptEnded_.wait_for(lock, kAcceptPatience, [this] { return accepting_ == kNoHandle; })) {
        return;
    }
    CommHandle server{commOptType_, accepting_};
    woken_ = accepting_;
    lock.unlock();
    IDE_LOGW("an accept is blocked, its server is closed");
    if (VeltCommOptManager::instance().CloseServer(server) != 0) {
        IDE_LOGE("close server failed");
        woken_ = kNoHandle;
    }
}

VeltServerManager::~VeltServerManager() {
    IDE_EVENT("start to deconstruct velt server manager");
    RefuseStart();
    Stop();
    WaitUntilReleased();
    IDE_LOGI("waitOver is %d", waitOver_.load() ? 1 : 0);
    while (!waitOver_.load()) {
        mmSleep(kStopPauseMs);
    }
    while (!servers_.empty() &&
           (servers_.begin()->second == woken_ || CloseServer(servers_.begin()->second))) {
        servers_.erase(servers_.begin());
    }
    sessions_->End();
    if (epoll_ != nullptr && epoll_->Destroy() == 0) {
        epoll_.reset();
    }
}

}  // namespace Velt
