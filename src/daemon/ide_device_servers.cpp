#include "daemon/ide_device_servers.h"

#include <hdc_driver.h>

#include <cerrno>
#include <exception>
#include <new>

#include "daemon/ide_session.h"
#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "hdc/velt_dsmi.h"

namespace {

constexpr int kServerPauseMs = 5000;
constexpr auto kAcceptPause = std::chrono::milliseconds(1000);
constexpr auto kThreadsEnd = std::chrono::seconds(1);
constexpr uint32_t kThreadStackSize = 131072;

int StartDetached(void* (*entry)(void*), void* argument) {
    const mmUserBlock_t routine{entry, argument};
    mmThreadAttr attributes{};
    attributes.detachFlag = 1;
    attributes.stackFlag = 1;
    attributes.stackSize = kThreadStackSize;
    mmThread handle = 0;
    return mmCreateTaskWithThreadAttr(&handle, &routine, &attributes);
}

// One attempt; null with a log line when it failed.
HdcServerPtr TryCreateServer(uint32_t phyDevId, uint32_t* logDevId) {
    if (IdeGetLogIdByPhyId(phyDevId, logDevId) != 0) {
        IDE_LOGW("logDevId %u phyDevId %u not ready, sleep %d milliseconds and retry", *logDevId,
                 phyDevId, kServerPauseMs);
        return nullptr;
    }
    drvHdcServer_t server = nullptr;
    const drvError_t ret =
        drvHdcServerCreate(static_cast<int>(*logDevId), kHdcServiceRequests, &server);
    if (ret == DRV_ERROR_DEVICE_NOT_READY) {
        IDE_LOGW("logDevId %u phyDevId %u hdc not ready, sleep %d milliseconds and retry",
                 *logDevId, phyDevId, kServerPauseMs);
        return nullptr;
    }
    if (ret != DRV_ERROR_NONE || server == nullptr) {
        IDE_LOGW(
            "logDevId %u phyDevId %u create HDC failed, error: %d, sleep %d milliseconds and "
            "retry",
            *logDevId, phyDevId, ret, kServerPauseMs);
        return nullptr;
    }
    IDE_LOGI("logDevId %u phyDevId:%u create HDC server successfully", *logDevId, phyDevId);
    return HdcServer::Adopt(server);
}

// Without a thread nobody shares the session any more, which closes it.
bool StartSession(uint32_t phyDevId, uint32_t logDevId, HdcSessionPtr session) {
    auto argument = std::unique_ptr<IdeSession>(
        new (std::nothrow) IdeSession{phyDevId, logDevId, std::move(session)});
    if (argument == nullptr) {
        IDE_LOGE("Ide Xmalloc failed");
        return false;
    }
    const int ret = StartDetached(IdeDaemonHdcProcessEvent, argument.get());
    if (ret != EN_OK) {
        IDE_LOGE("Thread Create Error: %d", ret);
        return false;
    }
    static_cast<void>(argument.release());
    return true;
}

// One session from its accept to its thread. False when only a new server will do.
bool AcceptSession(HdcServer& server, uint32_t phyDevId, uint32_t logDevId) {
    HdcSessionPtr session;
    errno = 0;  // an old EINTR must not pass for this call's
    const drvError_t ret = server.Accept(&session);
    if (ret == DRV_ERROR_NONE && session != nullptr) {
        static_cast<void>(session->SetReference());
        return StartSession(phyDevId, logDevId, std::move(session));
    }
    if (mmGetErrorCode() == EINTR) {
        IDE_LOGW("Hdc Session Accept Break By EINTR");
        return true;
    }
    IDE_LOGE("Hdc Session Accept Error: %d", ret);
    return false;
}

}  // namespace

// ---- Start and stop --------------------------------------------------------------------------

void DeviceServers::Allow() {
    const std::lock_guard<std::mutex> lock(mutex_);
    running_ = true;
}

bool DeviceServers::Start(uint32_t phyDevId) {
    if (devices_.count(phyDevId) != 0) {
        return true;
    }
    IDE_LOGI("Create HdcServer");
    const auto device = std::make_shared<Device>(Device{phyDevId});
    auto argument = std::make_unique<ThreadArgument>(ThreadArgument{this, device});
    devices_.emplace(phyDevId, device);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++threads_;
    }
    if (StartDetached(IdeDaemonHdcHandleEvent, argument.get()) != EN_OK) {
        IDE_LOGE("Thread Create error: %s", orla::SystemErrorText().c_str());
        devices_.erase(phyDevId);
        LeaveThread();
        return false;
    }
    static_cast<void>(argument.release());
    return true;
}

void DeviceServers::Stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        running_ = false;
        changed_.notify_all();
    }
    for (const auto& [id, device] : devices_) {
        const HdcServerPtr server = ServerOf(*device);
        if (server != nullptr) {
            server->Destroy([phyDevId = id](drvError_t error, int) {
                IDE_LOGI("Hdc Server Destroy Err Code: %d, dev Id: %u", error, phyDevId);
            });
        }
    }
    devices_.clear();
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kThreadsEnd, [this] { return threads_ == 0; })) {
        IDE_LOGW("%d server threads are still in the driver", threads_);
    }
}

bool DeviceServers::IsRunning() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return running_;
}

HdcServerPtr DeviceServers::ServerOf(const Device& device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return device.server;
}

bool DeviceServers::Keep(Device& device, const HdcServerPtr& server) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (running_) {
        device.server = server;
    }
    return running_;
}

// ---- The thread of one device ----------------------------------------------------------------

void* DeviceServers::IdeDaemonHdcHandleEvent(void* argument) {
    IDE_EVENT("<START thread> IdeDaemonHdcHandleEvent start");
    const std::unique_ptr<ThreadArgument> owned(static_cast<ThreadArgument*>(argument));
    mmSetCurrentThreadName("ide_hdc_server");
    owned->servers->ServeDevice(*owned->device);
    IDE_EVENT("<EXIT thread> IdeDaemonHdcHandleEvent");
    owned->servers->LeaveThread();
    return nullptr;
}

void DeviceServers::LeaveThread() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --threads_;
    changed_.notify_all();
}

void DeviceServers::Pause(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, pause, [this] { return !running_; });
}

void DeviceServers::ServeDevice(Device& device) {
    bool failedBefore = false;
    while (IsRunning()) {
        bool served = false;
        try {
            served = RunServer(device);
        } catch (const std::exception& e) {
            IDE_LOGE("the server of device %u ends: %s", device.phyDevId, e.what());
        }
        DestroyServer(device);
        if (failedBefore && !served) {
            Pause(kAcceptPause);
        }
        failedBefore = true;
    }
}

// Serves with one server until it fails or all are stopped. Whether it has started a session.
bool DeviceServers::RunServer(Device& device) {
    const HdcServerPtr server = CreateServer(device);
    bool served = false;
    while (server != nullptr && IsRunning() &&
           AcceptSession(*server, device.phyDevId, device.logDevId)) {
        served = true;
    }
    return served;
}

// With as many attempts as it takes; null once the servers are stopped.
HdcServerPtr DeviceServers::CreateServer(Device& device) {
    HdcServerPtr server = ServerOf(device);
    while (server == nullptr && IsRunning()) {
        server = TryCreateServer(device.phyDevId, &device.logDevId);
        if (server == nullptr) {
            Pause(std::chrono::milliseconds(kServerPauseMs));
        }
    }
    return server != nullptr && Keep(device, server) ? server : nullptr;
}

// A server that the driver calls busy for too long is there still, and is used again.
void DeviceServers::DestroyServer(Device& device) {
    const HdcServerPtr server = ServerOf(device);
    if (server == nullptr) {
        return;
    }
    const drvError_t ret = server->Destroy(
        [](drvError_t error, int) { IDE_LOGE("Hdc Server Destroy Error : %d", error); });
    if (ret != DRV_ERROR_CLIENT_BUSY) {
        static_cast<void>(Keep(device, nullptr));
    }
}
