#include "server/velt_server_manager.h"

#include <portability.h>

#include <cstdlib>
#include <exception>
#include <utility>

#include "hdc/log_side.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {

namespace {

constexpr int kEpollSize = 128;
constexpr int kWaitMs = 500;
constexpr uint32_t kStopPauseMs = 500;
// Rounds in a row whose events led to no session, before the loop pauses. One is a peer that
// vanished; more are a server whose accept fails again and again, at once.
constexpr uint32_t kMaxEmptyRounds = 2;

VeltEvent ListenEvent(int64_t handle) {
    return {kEventConnect, static_cast<uint64_t>(handle)};
}

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
    const bool hasRoom = sessions_->StartMissingThreads();
    const int size = static_cast<int>(events.size());
    const int count = epoll_->Wait(events.data(), size, kWaitMs);
    if (count < 0 || (count > 0 && !hasRoom)) {
        epoll_->ProcessOther();
        return;
    }
    accepted_ = false;
    for (int i = 0; i < count && i < size && !IsQuit(); ++i) {
        HandleEvent(events[static_cast<size_t>(i)]);
    }
    emptyRounds_ = count == 0 || accepted_ ? 0 : emptyRounds_ + 1;
    if (emptyRounds_ >= kMaxEmptyRounds) {
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
    } else if ((event.mask & kEventHangUp) != 0) {
        IDE_LOGW("hang up state");
    } else {
        IDE_LOGW("other epoll state");
        epoll_->ProcessOther();
    }
}

void VeltServerManager::Accept(const VeltEvent& event) {
    const CommHandle server{commOptType_, static_cast<int64_t>(event.data)};
    const CommHandle session = VeltCommOptManager::instance().Accept(server);
    if (session.value == kNoHandle) {
        return;
    }
    accepted_ = true;
    sessions_->Take(session);
}

void VeltServerManager::RefreshDevices() {
    const auto devices = VeltCommOptManager::instance().GetDevice(commOptType_);
    if (devices == nullptr) {
        return;
    }
    DeviceList list;
    devices->GetAllEnableDevices(mode_, deviceId_, list);
    OpenNewServers(list);
    CloseSuspendedServers(*devices);
    VeltCommOptManager::instance().Timer(commOptType_);
}

void VeltServerManager::OpenNewServers(const DeviceList& devices) {
    const std::string only = std::to_string(deviceId_);
    CommOptions options{{kOptionServiceType, serviceType_}};
    for (const std::string& device : devices) {
        if (servers_.count(device) != 0 || (deviceId_ != -1 && device != only)) {
            continue;
        }
        if (IsQuit()) {
            return;
        }
        options[kOptionDeviceId] = device;
        IDE_LOGI("device up %s", device.c_str());
        static_cast<void>(OpenServer(options));
    }
}

void VeltServerManager::CloseSuspendedServers(VeltDevice& devices) {
    DeviceList list;
    devices.GetDisableDevices(list);
    for (const std::string& device : list) {
        const auto server = servers_.find(device);
        if (server == servers_.end()) {
            continue;
        }
        if (IsQuit()) {
            return;
        }
        IDE_LOGI("device suspend %s", device.c_str());
        if (CloseServer(server->second)) {
            servers_.erase(server);
        } else {
            // Still there, so it must go on listening: the device may be up in the next round.
            static_cast<void>(Listen(server->second));
        }
    }
}

bool VeltServerManager::Listen(int64_t handle) {
    return epoll_->Add(handle, ListenEvent(handle)) == 0;
}

bool VeltServerManager::OpenServer(const CommOptions& options) {
    if (epoll_ == nullptr || commOptType_ == kCommOptNone || options.empty()) {
        IDE_LOGE("server init failed for epoll not register");
        return false;
    }
    auto& manager = VeltCommOptManager::instance();
    CommHandle server = manager.OpenServer(commOptType_, options);
    if (server.value == kNoHandle) {
        return false;
    }
    if (epoll_->Create(kEpollSize) != 0) {
        IDE_LOGE("create epoll failed");
        manager.CloseServer(server);
        return false;
    }
    if (!Listen(server.value)) {
        IDE_LOGE("epoll add listen event falied");
        manager.CloseServer(server);
        return false;
    }
    servers_[options.at(kOptionDeviceId)] = server.value;
    IDE_LOGI("create server info");
    return true;
}

// True when the server is gone. An event that could not be deleted is no reason to keep the
// entry then: a closed handle leaves the set by itself, and must not be closed twice.
bool VeltServerManager::CloseServer(int64_t handle) {
    if (epoll_ == nullptr || handle == kNoHandle) {
        IDE_LOGE("server uninit failed for epoll not register");
        return false;
    }
    if (epoll_->Del(handle, ListenEvent(handle)) != 0) {
        IDE_LOGE("epoll del listen event falied");
    }
    CommHandle server{commOptType_, handle};
    if (VeltCommOptManager::instance().CloseServer(server) != 0) {
        IDE_LOGE("close server failed");
        return false;
    }
    return true;
}

// ---- Teardown --------------------------------------------------------------------------------

VeltServerManager::~VeltServerManager() {
    IDE_EVENT("start to deconstruct velt server manager");
    RefuseStart();
    sessions_->Quit();
    Stop();
    WaitUntilReleased();
    IDE_LOGI("waitOver is %d", waitOver_.load() ? 1 : 0);
    while (!waitOver_.load()) {
        mmSleep(kStopPauseMs);
    }
    while (!servers_.empty() && CloseServer(servers_.begin()->second)) {
        servers_.erase(servers_.begin());
    }
    sessions_->End();
    if (epoll_ != nullptr && epoll_->Destroy() == 0) {
        epoll_.reset();
    }
}

}  // namespace Velt
