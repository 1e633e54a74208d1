// What this program knows about the chip that it runs on. The generation of the chip comes from
// the driver; frequencies, which metrics exist, which hardware events make up a metric, and the
// rest follow from it by table.
//
// One object, made at first use, which asks the driver then and never again; the guard of the
// singleton orders that before every reader. It has no lock: all operations but Init and Uninit
// only read, on any thread. Nobody may read while those two run.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "profiling/config/singleton.h"

namespace analysis::nedra::message {
struct ProfileParams;
}

namespace Analysis::Nedra::Common::Config {

// Generations of the chip. The driver may answer others: they are unknown to every table.
enum PlatformType : uint32_t {
    TYPE_0 = 0,  // also stands for a generation that can't be read
    TYPE_1 = 1,
    HELPER_DEVICE_TYPE = 2,  // also stands for a driver that doesn't know the question
    TYPE_4 = 4,
    TYPE_5 = 5,
    TYPE_7 = 7,
};

class ConfigManager : public analysis::nedra::common::singleton::Singleton<ConfigManager> {
public:
    // Asks the driver, unless that has been done. When the driver fails, the manager stays
    // uninited and answers as for type 0, with empty frequencies.
    void Init();
    // Makes the next Init ask again. Until then all answers stay.
    void Uninit();

    [[nodiscard]] uint32_t GetPlatformType() const;
    [[nodiscard]] std::string GetChipIdStr() const;  // the platform type in decimal
    // Frequencies in MHz, of the system counter and of the AI core; empty on an unknown type.
    [[nodiscard]] std::string GetFrequency() const;
    [[nodiscard]] std::string GetAicoreFrequency() const;

    // Appends the names of the metrics that this platform hasn't.
    void GetUnsupportedMetrics(std::vector<std::string>& out) const;
    // The events of a metric, comma-separated. 0; -1 with `events` unchanged when `metrics` is
    // empty, longer than 70 bytes, unknown or not of this platform.
    [[nodiscard]] int GetAicoreEvents(const std::string& metrics, std::string& events) const;
    // Replaces the name of a metric that this platform counts with other events.
    void MetricsAdjust(std::string& metrics) const;

    // The events of the L2 cache, comma-separated. 0; -1 with `events` unchanged when this
    // platform counts none.
    [[nodiscard]] int GetL2cacheEvents(std::string& events) const;
    // Replaces the host's L2 cache events by this platform's, and makes the switch "on" or, when
    // it wasn't "on" or this platform counts none, "off". Null is ignored.
    void ChangeL2CacheParams(
        const std::shared_ptr<analysis::nedra::message::ProfileParams>& params) const;

    // Whether the driver itself counts the last-level cache.
    [[nodiscard]] bool IsDriverSupportLlc() const;

    // Root of the work directories, with a slash at its end; and the one of a device below it.
    [[nodiscard]] std::string GetInotifyDir() const;
    [[nodiscard]] std::string GetPerfDataDir(uint32_t devId) const;

private:
    friend analysis::nedra::common::singleton::Singleton<ConfigManager>;
    ConfigManager() { Init(); }

    [[nodiscard]] std::string Value(const std::string& key, const std::string& missing) const;

    bool isInited_ = false;
    std::map<std::string, std::string> configMap_;  // "type", "frq", "aicFrq"; empty when unread
};

}  // namespace Analysis::Nedra::Common::Config
