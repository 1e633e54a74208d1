#include "daemon/ide_daemon.h"

#include <device_log.h>
#include <portability.h>

#include <csignal>
#include <cstdint>
#include <cstdio>

#include "daemon/ide_common_util.h"
#include "daemon/ide_daemon_hdc.h"
#include "daemon/ide_daemon_monitor.h"
#include "daemon/ide_platform_util.h"
#include "file_service/velt_get_file_server.h"
#include "hdc/log_side.h"
#include "log/hdclog_device_init.h"
#include "profiling/control/prof_device_core.h"

namespace {

constexpr mode_t kCreationMask = 022;
constexpr uint32_t kSystemProcess = 1;

void RequestStop(int signalNumber) {
    static volatile std::sig_atomic_t requested = 0;
    if (requested != 0) {
        // The stop in order is stuck, or somebody is in a hurry.
        std::signal(signalNumber, SIG_DFL);
        std::raise(signalNumber);
        return;
    }
    requested = 1;
    IdeDaemonHdcRequestStop();
}

void CatchStopSignals() {
    struct sigaction action = {};
    action.sa_handler = RequestStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

void AttachLog() {
    dlog_init();
    DlogAttr attributes = {};
    attributes.processKind = kSystemProcess;
    if (DlogSetAttr(attributes) != 0) {
        IDE_LOGW("Set log attr failed.");
    }
}

void RegisterComponents() {
    IdeRegisterComponent(kSlotHdc, {IdeDaemonHdcInit, IdeDaemonHdcDestroy, nullptr, nullptr});
    IdeRegisterComponent(kSlotLog,
                         {IdeDeviceLogInit, IdeDeviceLogDestroy, nullptr, IdeDeviceLogProcess});
    IdeRegisterComponent(kSlotProfiling, {IdeDeviceProfileInit, IdeDeviceProfileCleanup, nullptr,
                                          IdeDeviceProfileProcess});
    IdeRegisterComponent(kSlotFileServer, {VeltGetFileServerStart, nullptr, nullptr, nullptr});
    IdeRegisterComponent(kSlotMonitor, {IdeMonitorStart, IdeMonitorStop, nullptr, nullptr});
}

// A peer that vanishes while it is written to is an error of that write, not the end of all. So is
// a file that reaches the longest size that the process may write.
int ide_Daemon_sub_init() {
    const bool ignored =
        std::signal(SIGPIPE, SIG_IGN) != SIG_ERR && std::signal(SIGXFSZ, SIG_IGN) != SIG_ERR;
    return ignored ? 0 : -1;
}

int Start() {
    RegisterComponents();
    int err = ide_Daemon_sub_init();
    if (err != 0) {
        IDE_LOGE("ide_Daemon_sub_init failed, err: %d", err);
    } else {
        err = IdeComponentsInit();
    }
    if (err != 0) {
        IDE_LOGE("orla init failed, exit");
        std::puts("orla init failed, exit");
        return -1;
    }
    IDE_LOGI("Daemon Init done");
    return 0;
}

void Stop(SingleInstanceLock& lock) {
    IdeComponentsDestroy();
    VeltGetFileServerStop();
    IDE_LOGI("Components Destroy success.");
    mmSACleanup();
    IDE_LOGI("SACleanup success.");
    lock.Release();
    IDE_LOGI("orla start up exit");
}

}  // namespace

int IdeDaemonRun() {
    mmUmask(kCreationMask);
    SingleInstanceLock lock;
    if (lock.Acquire() != 0) {
        IDE_LOGE("single process start error");
        return -1;
    }
    AttachLog();
    CatchStopSignals();
    const int result = Start();
    if (result == 0) {
        IdeDaemonHdcCreateServers();
    }
    Stop(lock);
    return result;
}
