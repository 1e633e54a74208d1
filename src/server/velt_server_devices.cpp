// The listening servers of a server manager, on its own thread: one for each device that is up.
#include <algorithm>
#include <string>

#include "hdc/log_side.h"
#include "server/velt_comm_opt_manager.h"
#include "server/velt_server_manager.h"

namespace Velt {

namespace {

constexpr int kEpollSize = 128;

VeltEvent ListenEvent(int64_t handle) {
    return {kEventConnect, static_cast<uint64_t>(handle)};
}

}  // namespace

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
        DropServer(server);
    }
}

// In the next round, if the device is there.
void VeltServerManager::ReopenServer(int64_t handle) {
    const auto server = std::find_if(servers_.begin(), servers_.end(), [handle](const auto& entry) {
        return entry.second == handle;
    });
    if (server != servers_.end()) {
        IDE_LOGW("device %s accepts no session, its server is opened anew", server->first.c_str());
        DropServer(server);
    }
}

void VeltServerManager::DropServer(ServerMap::iterator server) {
    if (CloseServer(server->second)) {
        servers_.erase(server);
    } else {
        // Still there, so it must go on listening: the device may be up in the next round.
        static_cast<void>(Listen(server->second));
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
    gate_.Forget(handle);
    return true;
}

}  // namespace Velt
