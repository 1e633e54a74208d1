// On which side of the bus the profiling agent runs, and how the clocks of both sides run. Jobs
// that use /proc or scripts refuse to start off the device side.
//
// One object. The start of the profiling component calls Init, on the main thread, before any
// job asks. The side is atomic, so that an Init that comes again disturbs no reader; the host's
// frequency has no lock: UpdatePlatformInfo must be done before another thread asks for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "profiling/config/singleton.h"

namespace Analysis::Nedra::Common::Platform {

class Platform : public analysis::nedra::common::singleton::Singleton<Platform> {
public:
    // Asks the driver for the side. 0; -1 when it failed, and the side stays as it was. A driver
    // that can't tell is no failure, and this isn't the device side then.
    [[nodiscard]] int Init();

    [[nodiscard]] bool PlatformIsDevice() const;
    // Whether the driver doesn't know how to count devices.
    [[nodiscard]] bool PlatformIsHelper() const;

    // Asks for the host's frequency, when the driver is new enough to know it.
    void UpdatePlatformInfo();
    // In MHz, as text; empty unless IsHostFreqValid.
    [[nodiscard]] std::string GetHostFreq() const;
    [[nodiscard]] bool IsHostFreqValid() const;
    // In MHz, as text; `defaultFreq` when the driver is too old or gives none.
    [[nodiscard]] std::string GetDeviceFreq(uint32_t devId, const std::string& defaultFreq) const;

private:
    friend analysis::nedra::common::singleton::Singleton<Platform>;
    Platform() = default;

    static constexpr uint32_t kUnread = 2;  // no side

    // Touched by Init alone.
    uint32_t platformInfo_ = kUnread;
    std::atomic<uint32_t> runSide_{kUnread};
    // Written by UpdatePlatformInfo, read afterwards.
    bool hostFreqValid_ = false;
    std::string hostFreq_;
};

}  // namespace Analysis::Nedra::Common::Platform
