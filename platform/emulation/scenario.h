// The simulated device as data: what a scenario file says, with the defaults filled in. The
// file's form stands in docs/emulation.md. A Scenario is constant once it is made and is handed
// around as a shared pointer, so any thread may read it while another one replaces it; what
// changes at run time (device states, faults used up) lives in driver_state.h.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "control.h"

namespace orla::emulation {

using control::DeviceState;
using control::Fault;

constexpr uint32_t kMaxDevices = 1124;

// What halGetDeviceInfo answers about one thing: `value` when `result` is 0.
struct InfoAnswer {
    int64_t value = 0;
    int32_t result = 0;
};

struct SimulatedChannel {
    static constexpr uint64_t kUnlimited = UINT64_MAX;  // every read is filled
    static constexpr uint64_t kEndless = UINT64_MAX;

    uint32_t id = 0;   // 1..160
    std::string name;  // at most 32 bytes
    uint32_t type = 0;
    uint64_t bytesPerSecond = 0;  // 0: idle
    // In records of channel_record.h.
    uint64_t bufferRecords = 65536;  // at least 1
    uint64_t sideRecords = 0;        // at most bufferRecords; 0: no side buffer
    uint64_t maxRecords = kEndless;  // of one start; the channel then falls silent
    bool dropAtStop = false;         // what wasn't read at the stop is gone

    // So many at once are worth telling.
    [[nodiscard]] uint64_t BlockRecords() const { return std::max<uint64_t>(bufferRecords / 4, 1); }
    // The side buffer that a channel has unless its scenario says otherwise.
    [[nodiscard]] static uint64_t UsualSideRecords(uint32_t id) {
        return id == 44 || id == 45 ? 2048 : 0;  // TS_FW, HWTS_LOG
    }
};

// A device that goes and comes: it is up for `upMs`, then down for `downMs`, `count` times.
struct Flaps {
    uint32_t upMs = 0;
    uint32_t downMs = 0;
    uint32_t count = 0;
};

struct SimulatedDevice {
    using InfoKey = std::pair<int32_t, int32_t>;  // module, what is asked

    uint32_t logicalId = 0;
    uint32_t physicalId = 0;
    DeviceState state = DeviceState::kUp;
    Flaps flaps;
    // Every constant answer: chip type and version and both frequencies are here as well. What
    // is not here (and does not run, as a counter does) is not supported.
    std::map<InfoKey, InfoAnswer> info;
    std::vector<SimulatedChannel> channels;  // ids are unique

    [[nodiscard]] const InfoAnswer* FindInfo(int32_t module, int32_t what) const;
    [[nodiscard]] const SimulatedChannel* FindChannel(uint32_t id) const;
};

// What one receive hands out.
enum class ReceiveStyle {
    kPlain,      // one buffer, aligned
    kUnaligned,  // one that begins at an odd address
    kSeveral,    // all that have come, at most 4
    kEmpty,      // an empty one in front
};

// What a driver may do, and this one does only when its scenario says so.
struct Liberties {
    bool acceptMayBlock = false;  // CONN_IN at the connection, whatever becomes of it
    std::optional<int> idlePoll;  // the answer of a poll while no channel is started
    bool closeWaits = false;      // for the calls that are inside the session
    uint32_t socketBuffer = 1 << 20;
    bool destroyBusy = false;  // each server's first destroy answers DRV_ERROR_CLIENT_BUSY
    ReceiveStyle receive = ReceiveStyle::kPlain;
};

struct Scenario {
    uint32_t maxSegment = 524288;
    uint32_t platformInfo = 0;             // answer of drvGetPlatformInfo
    int32_t apiVersion = 465157;           // answer of halGetAPIVersion
    std::vector<SimulatedDevice> devices;  // logical and physical ids are unique
    std::vector<Fault> faults;             // each names an operation of the driver
    Liberties liberties;

    [[nodiscard]] const SimulatedDevice* FindDevice(uint32_t logicalId) const;
};

// From JSON text; on a failure null, with the reason in `error`.
[[nodiscard]] std::shared_ptr<const Scenario> ParseScenario(std::string_view text,
                                                            std::string* error);
// From the file that $ORLA_SCENARIO names; the built-in one when that is unset or empty.
[[nodiscard]] std::shared_ptr<const Scenario> LoadScenarioFromEnvironment(std::string* error);

}  // namespace orla::emulation
