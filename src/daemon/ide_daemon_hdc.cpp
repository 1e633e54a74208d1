#include "daemon/ide_daemon_hdc.h"

#include <hdc_driver.h>
#include <portability.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <vector>

#include "daemon/ide_device_servers.h"
#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "hdc/velt_dsmi.h"

namespace {

constexpr int kMaxClientSessions = 96;
constexpr int kDiscoveryRounds = 600;
constexpr uint32_t kDiscoveryPauseMs = 1000;
constexpr uint32_t kDiscoverySliceMs = 50;

// The control record of the process. The main thread's, but for what a signal handler touches.
struct GlobalCtrlInfo {
    bool ready = false;
    drvHdcClient_t client = nullptr;
    std::set<uint32_t> devices;  // physical ids of those that were found
    DeviceServers servers;

    // A signal handler's too. Lock-free for its sake.
    std::atomic<bool> stopRequested{false};
    std::atomic<bool> semReady{false};  // from init to destroy
    mmSem_t deviceNotify{};  // posted when devices were found, and to end the creation loop
};

static_assert(std::atomic<bool>::is_always_lock_free);

// Made before main, since a signal may ask for it at any time, and never destroyed.
GlobalCtrlInfo* const globalCtrlInfo = new GlobalCtrlInfo;

GlobalCtrlInfo& Ctrl() {
    return *globalCtrlInfo;
}

void InitCtrl() {
    GlobalCtrlInfo& ctrl = Ctrl();
    if (ctrl.ready) {
        return;
    }
    IDE_LOGI("Init GlobalCtrlInfo");
    ctrl.client = nullptr;
    if (!ctrl.semReady.load()) {
        if (mmSemInit(&ctrl.deviceNotify, 0) == EN_OK) {
            ctrl.semReady.store(true);
        } else {
            IDE_LOGE("device notify sem init error");
        }
    }
    ctrl.servers.Allow();
    ctrl.ready = true;
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
    Ctrl().devices.insert(ids, ids + count);
    mmSemPost(&Ctrl().deviceNotify);
    IDE_LOGI("notify %u device up", count);
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

// Returns false when the creation loop can't go on.
bool StartNewServers() {
    for (const uint32_t device : Ctrl().devices) {
        if (!Ctrl().servers.Start(device)) {
            return false;
        }
    }
    return true;
}

bool DestroySem() {
    GlobalCtrlInfo& ctrl = Ctrl();
    if (!ctrl.semReady.exchange(false)) {
        return true;
    }
    IDE_LOGI("Destroy GlobalCtrlInfo");
    if (mmSemDestroy(&ctrl.deviceNotify) != EN_OK) {
        IDE_LOGE("device notify sem destroy error");
        return false;
    }
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
    while (Ctrl().semReady.load() && !Ctrl().stopRequested.load()) {
        if (!WaitForDevices()) {
            return;
        }
        if (Ctrl().stopRequested.load()) {
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
    if (ctrl.semReady.load()) {
        mmSemPost(&ctrl.deviceNotify);
    }
}

int32_t IdeDaemonHdcDestroy() {
    GlobalCtrlInfo& ctrl = Ctrl();
    if (!ctrl.ready) {
        return 0;
    }
    IDE_LOGI("Destroy GlobalCtrlInfo");
    ctrl.servers.Stop();
    ctrl.devices.clear();
    if (ctrl.client != nullptr) {
        const drvError_t ret = drvHdcClientDestroy(ctrl.client);
        ctrl.client = nullptr;
        if (ret != DRV_ERROR_NONE) {
            IDE_LOGE("Hdc Client Destroy Err Code: %d", ret);
        }
    }
    if (!DestroySem()) {
        return 0;
    }
    ctrl.ready = false;
    IDE_LOGI("Hdc Destroy Exit");
    return 0;
}
