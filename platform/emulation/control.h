// How a test in the same process steers the emulated platform, and what it reads back: the
// scenario, faults, devices that come and go, counts of calls, handles that are still alive,
// what profiling channels were started with and produced, log lines. Nothing in the daemon or the
// host tool includes this header.
//
// Every operation may be called from any thread at any time; calls into the driver that are
// under way see the change or not, as on hardware. State is one per process and outlives a
// test: Reset() brings back what a fresh process has.
#pragma once

#include <prof_driver.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orla::control {

// ---- Scenario and devices ----------------------------------------------------------------------

// Whether a device is there. A device that is down isn't counted and fails its servers' accepts;
// one that isn't ready is counted, and its channel answers DRV_ERROR_DEVICE_NOT_READY. Leaving
// kUp ends the device's sessions.
enum class DeviceState { kUp, kNotReady, kDown };

// Reads the scenario and the log's environment variables again, clears injected faults and
// call counts, ends a log capture, stops all profiling channels and forgets what they did. Open
// handles stay what they are.
void Reset();
// Replaces the scenario by this JSON text, as docs/emulation.md describes it, its faults and
// device states included; a profiling channel takes notice at its next start. Empty, or what is
// wrong with the text; the old scenario then stays.
[[nodiscard]] std::string LoadScenario(std::string_view json);
// False when the scenario has no such device.
bool SetDeviceState(uint32_t logicalDevice, DeviceState state);

// ---- Faults and counts -------------------------------------------------------------------------

// What happens to calls of one driver operation. The first `after` calls that match pass; the
// next `count` fire; the rest pass again. A fault that fires waits for `delayMs`, then gives
// `result` in place of the call, or lets it go on when there is none. Of several faults that
// match one call, each counts it and the first that fires decides.
struct Fault {
    static constexpr int64_t kForever = -1;

    std::string call;                 // name of the operation, such as "halHdcSend"
    std::optional<uint32_t> device;   // logical; absent: any, and calls that name no device
    std::optional<uint32_t> channel;  // of a profiling call; absent: any
    std::optional<int> result;
    uint64_t after = 0;
    int64_t count = 1;  // kForever: all from then on
    uint32_t delayMs = 0;
};

// False when the driver has no such operation.
bool InjectFault(const Fault& fault);
// Drops all faults, those of the scenario included.
void ClearFaults();
// Calls of that operation since the start or the last Reset, refused ones included; 0 for an
// unknown name.
[[nodiscard]] uint64_t CallCount(std::string_view call);

// Handles that were given out and not given back.
struct LiveHandles {
    size_t clients = 0;
    size_t servers = 0;
    size_t sessions = 0;
    size_t messages = 0;
    size_t epolls = 0;
    size_t monitors = 0;  // clients of the application monitor

    [[nodiscard]] size_t Total() const {
        return clients + servers + sessions + messages + epolls + monitors;
    }
};
[[nodiscard]] LiveHandles CountLiveHandles();

// ---- Profiling channels ------------------------------------------------------------------------

// One call of prof_drv_start, also one that failed.
struct ProfStart {
    uint32_t device;
    uint32_t channel;
    ProfStartPara para;  // as given, but for userData, which is null here
    std::string config;  // the bytes that userData pointed to
    int result;
};
// All since the start or the last Reset, in the order of their ends; of more than 65536 the newest.
[[nodiscard]] std::vector<ProfStart> ProfStarts();

// What became of the records of a channel since it was last started. What is neither delivered
// nor lost waits in the driver, or stayed behind there at the stop.
struct ChannelCounts {
    bool started = false;
    uint32_t starts = 0;     // 0: never, and all else is 0
    uint64_t produced = 0;   // the next sequence number to come
    uint64_t delivered = 0;  // read, a record that the end of a buffer cut included
    uint64_t lost = 0;       // overwritten in a full buffer
};
[[nodiscard]] ChannelCounts CountsOf(uint32_t logicalDevice, uint32_t channel);

// From now to the next Reset prof_drv_get_channels answers with this list for that device,
// whatever it holds. What can be started stays what the scenario says.
void SetChannelList(uint32_t logicalDevice, const ProfChannelList& channels);

// ---- Device log --------------------------------------------------------------------------------

enum class LogLevel { kDebug, kInfo, kWarning, kError, kEvent };

struct LogLine {
    int module;
    LogLevel level;
    std::string text;  // as formatted, without the line feed at its end
};

// Lines below `level` are no longer written; kEvent is taken for kError.
void SetLogLevel(LogLevel level);
// From now on lines are kept here instead of being written; clears what was kept.
void StartLogCapture();
void StopLogCapture();
// What was captured so far.
[[nodiscard]] std::vector<LogLine> CapturedLines();
// Waits until a captured line satisfies `condition`; false when none did in that time.
[[nodiscard]] bool WaitForLine(const std::function<bool(const LogLine&)>& condition,
                               std::chrono::milliseconds timeout);

// Captures for as long as it lives.
class LogCapture {
public:
    LogCapture() { StartLogCapture(); }
    ~LogCapture() { StopLogCapture(); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
};

}  // namespace orla::control
