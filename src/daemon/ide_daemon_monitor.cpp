#include "daemon/ide_daemon_monitor.h"

#include <app_monitor.h>
#include <portability.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "hdc/log_side.h"

namespace {

constexpr char kThreadName[] = "ide_monitor";
constexpr char kExitText[] = "ide daemon monitor exit.";
constexpr char kScript[] = "/var/ide_daemon_monitor.sh";
constexpr char kSocketPath[] = "/var/driver/appmon.socket";
constexpr uint32_t kWatchTimeoutMs = 9000;
constexpr uint32_t kStackSize = 131072;
constexpr std::chrono::milliseconds kRegisterPause{1000};
constexpr std::chrono::milliseconds kHeartbeatPause{3000};

enum class State : uint32_t { kStarting, kConnected, kRegistered, kStopped };

struct Monitor {
    mmThread thread = 0;  // of the main thread alone; 0 while there is none
    // Used by the monitor thread. The stop operation deregisters and exits it meanwhile, so that a
    // monitor that doesn't answer can't hold it up.
    appmon_client_t client = {};
    std::atomic<State> state{State::kStarting};
    std::mutex pauseMutex;
    std::condition_variable stopped;  // state became kStopped
};

Monitor& TheMonitor() {
    static Monitor monitor;
    return monitor;
}

// False when the stop came first.
bool Advance(State from, State to) {
    return TheMonitor().state.compare_exchange_strong(from, to);
}

bool IsStopped() {
    return TheMonitor().state == State::kStopped;
}

// Ends early at a stop.
void Pause(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(TheMonitor().pauseMutex);
    TheMonitor().stopped.wait_for(lock, time, IsStopped);
}

bool Connect() {
    appmon_client_t* client = &TheMonitor().client;
    const int result = appmon_client_init(client, kSocketPath);
    if (result != 0) {
        IDE_LOGE("app mon client init failed with %d", result);
        return false;
    }
    IDE_LOGI("app mon client init sucess.");
    if (!Advance(State::kStarting, State::kConnected)) {
        appmon_client_exit(client);  // the stop saw nothing to close
    }
    return true;
}

void Register() {
    if (appmon_client_register(&TheMonitor().client, kWatchTimeoutMs, kScript) != 0) {
        Pause(kRegisterPause);
        return;
    }
    IDE_LOGI("app mon client register sucess.");
    static_cast<void>(Advance(State::kConnected, State::kRegistered));
}

void Watch() {
    for (;;) {
        switch (TheMonitor().state.load()) {
            case State::kConnected:
                Register();
                break;
            case State::kRegistered:
                appmon_client_heartbeat(&TheMonitor().client);
                Pause(kHeartbeatPause);
                break;
            default:
                return;
        }
    }
}

void* Run(void*) {
    IDE_LOGI("ide monitor thread start.");
    if (Connect()) {
        Watch();
        IDE_LOGI("ide monitor thread exit.");
    }
    return nullptr;
}

void CloseClient(State state) {
    appmon_client_t* client = &TheMonitor().client;
    if (state == State::kRegistered) {
        appmon_client_deregister(client, kExitText);
    }
    if (state == State::kConnected || state == State::kRegistered) {
        appmon_client_exit(client);
    }
}

// The state before.
State SetStopped() {
    const std::lock_guard<std::mutex> lock(TheMonitor().pauseMutex);
    const State before = TheMonitor().state.exchange(State::kStopped);
    TheMonitor().stopped.notify_all();
    return before;
}

}  // namespace

int32_t IdeMonitorStart() {
    IDE_LOGI("ide daemon monitor thread starting...");
    Monitor& monitor = TheMonitor();
    monitor.client = {};
    monitor.state = State::kStarting;
    mmUserBlock_t routine = {Run, nullptr};
    mmThreadAttr attributes = {};
    attributes.stackFlag = 1;
    attributes.stackSize = kStackSize;
    const int32_t result = mmCreateTaskWithThreadAttr(&monitor.thread, &routine, &attributes);
    if (result != EN_OK) {
        monitor.thread = 0;
        IDE_LOGE("ide daemon monitor thread create failed(%d).", result);
        return -1;
    }
    mmSetThreadName(&monitor.thread, kThreadName);
    IDE_LOGI("ide daemon monitor thread started success.");
    return 0;
}

// The state is taken before the client is closed: what the thread does from then on, it does not
// on a state that the closing overlooked.
int32_t IdeMonitorStop() {
    IDE_LOGI("ide daemon monitor thread stopping...");
    Monitor& monitor = TheMonitor();
    int32_t result = 0;
    const State before = SetStopped();
    if (monitor.thread != 0) {
        CloseClient(before);
        result = mmJoinTask(&monitor.thread);
        monitor.thread = 0;
    }
    IDE_LOGI("ide daemon monitor thread stopped.");
    return result;
}
