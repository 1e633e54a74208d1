#include "daemon/ide_daemon_hdc.h"

#include <hdc_driver.h>
#include <portability.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#include "daemon/ide_session.h"
#include "hdc/hdc_api.h"
#include "hdc/hdc_server.h"
#include "hdc/log_side.h"
#include "hdc/velt_dsmi.h"

namespace {

constexpr int kMaxClientSessions = 96;
constexpr int kDiscoveryRounds = 600;
constexpr uint32_t kDiscoveryPauseMs = 1000;
constexpr uint32_t kDiscoverySliceMs = 50;
constexpr int kServerPauseMs = 5000;
constexpr auto kAcceptPause = std::chrono::milliseconds(1000);
constexpr auto kServerThreadsEnd = std::chrono::seconds(1);
constexpr uint32_t kThreadStackSize = 131072;

// One device. The map of the creation loop and the device's server thread each hold a share,
// so that the record stays as long as the thread runs.
struct DevInfo {
    mmThread serverThread = 0;  // written by the thread creation
    uint32_t phyDevId = 0;
    uint32_t logDevId = 0;  // server thread alone
    bool created = false;   // creation loop and destroy, under the mutex
    int serviceType = kHdcServiceRequests;
    // Guarded by threadsMutex; null while there is none. Its thread destroys it after a failure,
    // and the main thread at stop, which is what makes a blocked accept return.
    HdcServerPtr server;
};

// The control record of the process.
struct GlobalCtrlInfo {
    drvHdcClient_t client = nullptr;  // main thread alone
    bool syncReady = false;           // main thread alone
    bool ctrlReady = false;           // main thread alone

    mmMutex_t mutex{};  // guards devices
    std::map<uint32_t, std::shared_ptr<DevInfo>> devices;

    mmSem_t deviceNotify{};  // posted when devices were added, and to end the creation loop
    // Lock-free, since a signal handler writes the first three.
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> createLoopRunning{false};
    std::atomic<bool> semReady{false};
    std::atomic<bool> acceptRunning{false};  // cleared under threadsMutex

    // Server threads wait here between their retries, and the main thread for their end.
    std::mutex threadsMutex;
    std::condition_variable threadsChanged;
    int serverThreads = 0;  // guarded by threadsMutex
};

static_assert(std::atomic<bool>::is_always_lock_free);

// Made before main, since a signal may ask for it at any time, and never destroyed.
GlobalCtrlInfo* const globalCtrlInfo = new GlobalCtrlInfo;

GlobalCtrlInfo& Ctrl() {
    return *globalCtrlInfo;
}

class DeviceMapLock {
public:
    DeviceMapLock() : held_(mmMutexLock(&Ctrl().mutex) == EN_OK) {
        if (!held_) {
            IDE_LOGE("mutex lock error");
        }
    }
    ~DeviceMapLock() { static_cast<void>(Unlock()); }
    DeviceMapLock(const DeviceMapLock&) = delete;
    DeviceMapLock& operator=(const DeviceMapLock&) = delete;

    bool held() const { return held_; }
    // False, with a log line, when the unlocking fails.
    bool Unlock() {
        if (!held_) {
            return true;
        }
        held_ = false;
        if (mmMutexUnLock(&Ctrl().mutex) == EN_OK) {
            return true;
        }
        IDE_LOGE("mutex unlock error");
        return false;
    }

private:
    bool held_;
};

// Sleeps, and wakes at once when the servers are stopped.
void PauseServer(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(Ctrl().threadsMutex);
    Ctrl().threadsChanged.wait_for(lock, pause, [] { return !Ctrl().acceptRunning.load(); });
}

int StartDetached(void* (*entry)(void*), void* argument, mmThread* handle) {
    const mmUserBlock_t routine{entry, argument};
    mmThreadAttr attributes{};
    attributes.detachFlag = 1;
    attributes.stackFlag = 1;
    attributes.stackSize = kThreadStackSize;
    return mmCreateTaskWithThreadAttr(handle, &routine, &attributes);
}

// ---- The thread of one device ----------------------------------------------------------------

HdcServerPtr ServerOf(const DevInfo& device) {
    const std::lock_guard<std::mutex> lock(Ctrl().threadsMutex);
    return device.server;
}

// False once the servers are stopped: whoever stops them doesn't know this one.
bool KeepServer(DevInfo& device, const HdcServerPtr& server) {
    const std::lock_guard<std::mutex> lock(Ctrl().threadsMutex);
    if (!Ctrl().acceptRunning.load()) {
        return false;
    }
    device.server = server;
    return true;
}

// A server that the driver keeps, busy for too long, is used again.
void DestroyServer(DevInfo& device) {
    const HdcServerPtr server = ServerOf(device);
    if (server == nullptr) {
        return;
    }
    const drvError_t ret = server->Destroy(
        [](drvError_t error, int) { IDE_LOGE("Hdc Server Destroy Error : %d", error); });
    if (ret != DRV_ERROR_CLIENT_BUSY) {
        static_cast<void>(KeepServer(device, nullptr));
    }
}

// One attempt; null with a log line when it failed.
HdcServerPtr TryCreateServer(DevInfo& device) {
    if (IdeGetLogIdByPhyId(device.phyDevId, &device.logDevId) != 0) {
        IDE_LOGW("logDevId %u phyDevId %u not ready, sleep %d milliseconds and retry",
                 device.logDevId, device.phyDevId, kServerPauseMs);
        return nullptr;
    }
    drvHdcServer_t server = nullptr;
    const drvError_t ret =
        drvHdcServerCreate(static_cast<int>(device.logDevId), device.serviceType, &server);
    if (ret == DRV_ERROR_DEVICE_NOT_READY) {
        IDE_LOGW("logDevId %u phyDevId %u hdc not ready, sleep %d milliseconds and retry",
                 device.logDevId, device.phyDevId, kServerPauseMs);
        return nullptr;
    }
    if (ret != DRV_ERROR_NONE || server == nullptr) {
        IDE_LOGW(
            "logDevId %u phyDevId %u create HDC failed, error: %d, sleep %d milliseconds and "
            "retry",
            device.logDevId, device.phyDevId, ret, kServerPauseMs);
        return nullptr;
    }
    IDE_LOGI("logDevId %u phyDevId:%u create HDC server successfully", device.logDevId,
             device.phyDevId);
    return HdcServer::Adopt(server);
}

// The device's server, made with as many attempts as it takes; null once the servers are stopped.
HdcServerPtr CreateServer(DevInfo& device) {
    HdcServerPtr server = ServerOf(device);
    while (server == nullptr && Ctrl().acceptRunning.load()) {
        server = TryCreateServer(device);
        if (server == nullptr) {
            PauseServer(std::chrono::milliseconds(kServerPauseMs));
        }
    }
    return server != nullptr && KeepServer(device, server) ? server : nullptr;
}

// When the thread can't be started nobody has a share of the session any more, which closes it.
bool StartSession(const DevInfo& device, const HdcSessionPtr& session) {
    auto argument = std::unique_ptr<IdeSession>(
        new (std::nothrow) IdeSession{device.phyDevId, device.logDevId, session});
    if (argument == nullptr) {
        IDE_LOGE("Ide Xmalloc failed");
        return false;
    }
    mmThread handle = 0;
    const int ret = StartDetached(IdeDaemonHdcProcessEvent, argument.get(), &handle);
    if (ret != EN_OK) {
        IDE_LOGE("Thread Create Error: %d", ret);
        return false;
    }
    static_cast<void>(argument.release());
    return true;
}

// One session from its accept to its thread. False when only a new server will do.
bool AcceptSession(const DevInfo& device, HdcServer& server) {
    HdcSessionPtr session;
    errno = 0;  // an old EINTR must not pass for this call's
    const drvError_t ret = server.Accept(&session);
    if (ret == DRV_ERROR_NONE && session != nullptr) {
        static_cast<void>(session->SetReference());
        return StartSession(device, session);
    }
    if (mmGetErrorCode() == EINTR) {
        IDE_LOGW("Hdc Session Accept Break By EINTR");
        return true;
    }
    IDE_LOGE("Hdc Session Accept Error: %d", ret);
    return false;
}

// Serves with one server until it fails or the servers are stopped. Whether it has started a
// session.
bool RunServer(DevInfo& device) {
    const HdcServerPtr server = CreateServer(device);
    bool served = false;
    while (server != nullptr && Ctrl().acceptRunning.load() && AcceptSession(device, *server)) {
        served = true;
    }
    return served;
}

// Whatever fails costs the device its server and not its listener: hosts that wait in the old
// one are sent away, and the next one serves.
void ServeDevice(DevInfo& device) {
    bool failedBefore = false;
    while (Ctrl().acceptRunning.load()) {
        bool served = false;
        try {
            served = RunServer(device);
        } catch (const std::exception& e) {
            IDE_LOGE("the server of device %u ends: %s", device.phyDevId, e.what());
        }
        DestroyServer(device);
        // A driver that creates servers but fails every accept must not keep the processor busy.
        if (failedBefore && !served) {
            PauseServer(kAcceptPause);
        }
        failedBefore = true;
    }
}

void* IdeDaemonHdcHandleEvent(void* argument) {
    IDE_EVENT("<START thread> IdeDaemonHdcHandleEvent start");
    if (SIDE_REFUSES(orla::kCoreSide, {argument == nullptr, "invalid parameter"})) {
        return nullptr;
    }
    const std::unique_ptr<std::shared_ptr<DevInfo>> share(
        static_cast<std::shared_ptr<DevInfo>*>(argument));
    mmSetCurrentThreadName("ide_hdc_server");
    ServeDevice(**share);
    IDE_EVENT("<EXIT thread> IdeDaemonHdcHandleEvent");
    const std::lock_guard<std::mutex> lock(Ctrl().threadsMutex);
    --Ctrl().serverThreads;
    Ctrl().threadsChanged.notify_all();
    return nullptr;
}

// ---- Start and stop, on the main thread ------------------------------------------------------

void InitCtrl() {
    GlobalCtrlInfo& ctrl = Ctrl();
    if (ctrl.ctrlReady) {
        return;
    }
    IDE_LOGI("Init GlobalCtrlInfo");
    ctrl.client = nullptr;
    if (!ctrl.syncReady) {
        if (mmMutexInit(&ctrl.mutex) != EN_OK) {
            IDE_LOGE("global info mutex init error");
        } else if (mmSemInit(&ctrl.deviceNotify, 0) != EN_OK) {
            IDE_LOGE("device notify sem init error");
        } else {
            ctrl.syncReady = true;
            ctrl.semReady.store(true);
        }
    }
    ctrl.createLoopRunning.store(true);
    ctrl.acceptRunning.store(true);
    ctrl.ctrlReady = true;
}

// Sleeps in slices: what ends the wait is a signal handler, which can't wake anybody.
void PauseDiscovery() {
    for (uint32_t slept = 0; slept < kDiscoveryPauseMs && !Ctrl().stopRequested.load();
         slept += kDiscoverySliceMs) {
        mmSleep(kDiscoverySliceMs);
    }
}

int FindDevices(std::vector<uint32_t>& ids, uint32_t* count) {
    int ret = 0;
    for (int round = 0; round < kDiscoveryRounds && !Ctrl().stopRequested.load(); ++round) {
        ret = IdeGetPhyDevList(count, ids.data(), kMaxDevices);
        IDE_LOGI("Device Counts: %d", static_cast<int>(*count));
        if (ret == 0 && *count != 0) {
            return 0;
        }
        PauseDiscovery();
    }
    return ret;
}

void NotifyDeviceUp(uint32_t count, const uint32_t* ids) {
    if (count == 0 || count > kMaxDevices) {
        IDE_LOGE("server register input error; num = %u", count);
        return;
    }
    {
        DeviceMapLock lock;
        if (!lock.held()) {
            return;
        }
        for (uint32_t i = 0; i < count; ++i) {
            auto& device = Ctrl().devices[ids[i]];
            if (device == nullptr) {
                device = std::make_shared<DevInfo>();
                device->phyDevId = ids[i];
            }
        }
        if (!lock.Unlock()) {
            return;
        }
    }
    mmSemPost(&Ctrl().deviceNotify);
    IDE_LOGI("notify %u device up", count);
}

bool StartServerThread(const std::shared_ptr<DevInfo>& device) {
    IDE_LOGI("Create HdcServer");
    auto share = std::make_unique<std::shared_ptr<DevInfo>>(device);
    {
        const std::lock_guard<std::mutex> lock(Ctrl().threadsMutex);
        ++Ctrl().serverThreads;
    }
    if (StartDetached(IdeDaemonHdcHandleEvent, share.get(), &device->serverThread) != EN_OK) {
        IDE_LOGE("Thread Create error: %s", orla::SystemErrorText().c_str());
        const std::lock_guard<std::mutex> lock(Ctrl().threadsMutex);
        --Ctrl().serverThreads;
        return false;
    }
    static_cast<void>(share.release());
    device->created = true;
    return true;
}

// One round of the creation loop; false when the loop can't go on.
bool StartNewServers() {
    DeviceMapLock lock;
    if (!lock.held()) {
        return false;
    }
    for (const auto& entry : Ctrl().devices) {
        if (!entry.second->created && !StartServerThread(entry.second)) {
            return false;
        }
    }
    return lock.Unlock();
}

bool WaitForDevices() {
    while (mmSemWait(&Ctrl().deviceNotify) != EN_OK) {
        if (mmGetErrorCode() != EINTR) {
            IDE_LOGE("dev sem wait error");
            return false;
        }
    }
    return true;
}

// The flags are cleared before: a server thread whose accept fails now creates no new server.
bool DestroyServers() {
    DeviceMapLock lock;
    if (!lock.held()) {
        return false;
    }
    auto& devices = Ctrl().devices;
    while (!devices.empty()) {
        const auto first = devices.begin();
        if (const HdcServerPtr server = ServerOf(*first->second)) {
            static_cast<void>(server->Destroy([&](drvError_t error, int) {
                IDE_LOGI("Hdc Server Destroy Err Code: %d, dev Id: %u", error, first->first);
            }));
        }
        devices.erase(first);
    }
    return lock.Unlock();
}

void WaitForServerThreads() {
    std::unique_lock<std::mutex> lock(Ctrl().threadsMutex);
    Ctrl().threadsChanged.notify_all();
    if (!Ctrl().threadsChanged.wait_for(lock, kServerThreadsEnd,
                                        [] { return Ctrl().serverThreads == 0; })) {
        IDE_LOGW("%d server threads are still in the driver", Ctrl().serverThreads);
    }
}

bool DestroySync() {
    GlobalCtrlInfo& ctrl = Ctrl();
    if (!ctrl.syncReady) {
        return true;
    }
    IDE_LOGI("Destroy GlobalCtrlInfo");
    ctrl.semReady.store(false);
    if (mmSemDestroy(&ctrl.deviceNotify) != EN_OK) {
        IDE_LOGE("device notify sem destroy error");
        return false;
    }
    if (mmMutexDestroy(&ctrl.mutex) != EN_OK) {
        IDE_LOGE("global info mutex dertroy error");
        return false;
    }
    ctrl.syncReady = false;
    ctrl.stopRequested.store(false);
    return true;
}

}  // namespace

int32_t IdeDaemonHdcInit() {
    InitCtrl();
    std::vector<uint32_t> ids(kMaxDevices, 0);
    uint32_t count = 0;
    const int ret = FindDevices(ids, &count);
    if (Ctrl().stopRequested.load()) {
        return 0;  // the start is over before it began; that is no failure of it
    }
    if (ret != 0) {
        return ret;
    }
    if (count > kMaxDevices) {
        IDE_LOGE("device num %u", count);
        return -1;
    }
    if (count > 0) {
        IDE_LOGI("device count: %u", count);
        NotifyDeviceUp(count, ids.data());
    }
    const drvError_t err =
        drvHdcClientCreate(&Ctrl().client, kMaxClientSessions, kHdcServiceRequests, 0);
    if (err != DRV_ERROR_NONE || Ctrl().client == nullptr) {
        IDE_LOGE("Hdc Client Create, Max Session Num: %d", kMaxClientSessions);
        return -1;
    }
    return 0;
}

void IdeDaemonHdcCreateServers() {
    IDE_LOGI("Hdc Create HdcServer Entry");
    GlobalCtrlInfo& ctrl = Ctrl();
    while (ctrl.createLoopRunning.load() && !ctrl.stopRequested.load()) {
        if (!WaitForDevices()) {
            return;
        }
        if (!ctrl.createLoopRunning.load() || ctrl.stopRequested.load()) {
            break;
        }
        if (!StartNewServers()) {
            return;
        }
    }
    IDE_LOGI("Hdc Create HdcServer Exit");
}

void IdeDaemonHdcRequestStop() {
    GlobalCtrlInfo& ctrl = Ctrl();
    ctrl.stopRequested.store(true);
    ctrl.createLoopRunning.store(false);
    if (ctrl.semReady.load()) {
        mmSemPost(&ctrl.deviceNotify);
    }
}

int32_t IdeDaemonHdcDestroy() {
    GlobalCtrlInfo& ctrl = Ctrl();
    if (!ctrl.ctrlReady) {
        return 0;
    }
    IDE_LOGI("Destroy GlobalCtrlInfo");
    ctrl.createLoopRunning.store(false);
    {
        const std::lock_guard<std::mutex> lock(ctrl.threadsMutex);
        ctrl.acceptRunning.store(false);
    }
    if (!DestroyServers()) {
        return 0;
    }
    WaitForServerThreads();
    if (ctrl.client != nullptr) {
        const drvError_t ret = drvHdcClientDestroy(ctrl.client);
        ctrl.client = nullptr;
        if (ret != DRV_ERROR_NONE) {
            IDE_LOGE("Hdc Client Destroy Err Code: %d", ret);
        }
    }
    if (mmSemPost(&ctrl.deviceNotify) != EN_OK) {
        IDE_LOGE("notify sem post error");
        return 0;
    }
    if (!DestroySync()) {
        return 0;
    }
    ctrl.ctrlReady = false;
    IDE_LOGI("Hdc Destroy Exit");
    return 0;
}
