#include "profiling/config/platform.h"

#include "hdc/log_side.h"
#include "profiling/config/ai_drv_dev_api.h"

namespace Analysis::Nedra::Common::Platform {
namespace {

namespace driver = analysis::nedra::driver;

constexpr char kPlatformVersion[] = "1.0";
constexpr int kFrequencyApiVersion = 0x71905;  // older drivers have no frequency to give

bool DriverKnowsFrequencies() {
    return driver::DrvGetApiVersion() >= kFrequencyApiVersion;
}

}  // namespace

int Platform::Init() {
    if (driver::DrvGetPlatformInfo(platformInfo_) != 0) {
        PROF_LOGE("get platform info failed.");
        return -1;
    }
    runSide_ = platformInfo_;
    return 0;
}

bool Platform::PlatformIsDevice() const {
    return runSide_ == DRV_PLATFORM_DEVICE;
}

bool Platform::PlatformIsHelper() const {
    return driver::DrvIsHelper();
}

void Platform::UpdatePlatformInfo() {
    PROF_EVENT("Profiling platform version: %s.", kPlatformVersion);
    if (DriverKnowsFrequencies()) {
        hostFreqValid_ = driver::DrvGetHostFreq(hostFreq_);
    }
}

std::string Platform::GetHostFreq() const {
    return hostFreq_;
}

bool Platform::IsHostFreqValid() const {
    return hostFreqValid_;
}

std::string Platform::GetDeviceFreq(uint32_t devId, const std::string& defaultFreq) const {
    std::string freq;
    if (DriverKnowsFrequencies() && driver::DrvGetDeviceFreq(devId, freq)) {
        return freq;
    }
    return defaultFreq;
}

}  // namespace Analysis::Nedra::Common::Platform
