#include "start_records.h"

#include <cstring>
#include <string_view>

namespace orla::emulation {

namespace {

constexpr uint32_t kMaxConfigSize = 64 << 10;
constexpr uint32_t kWord = sizeof(uint32_t);

// The configuration of the channels of one name: `fixed` bytes, and after them a word for each
// event when the last of them is their number.
struct Kind {
    std::string_view name;
    uint32_t fixed;
    bool endsInEvents = false;
};

constexpr Kind kKinds[] = {
    {"AI_CORE", sizeof(ProfAicoreConfig)},
    {"AI_VECTOR", sizeof(ProfAicoreConfig)},
    {"L2_CACHE_TASK", sizeof(ProfL2CacheConfig), true},
    {"TS_CPU", sizeof(ProfTsCpuConfig), true},
    {"TS_FW", sizeof(ProfTsFwConfig)},
    {"TS_FW1", sizeof(ProfTsFwConfig)},
    {"STARS_SOC_LOG", sizeof(ProfStarsSocLogConfig)},
    {"FFTS_PROFILIE_TASK", sizeof(ProfFftsConfig)},
    {"FFTS_PROFILIE_SAMPLE", sizeof(ProfFftsConfig)},
    {"INSTR_PERF", sizeof(ProfWordConfig)},
    {"HWTS_LOG", sizeof(ProfWordConfig)},
    {"AIV_HWTS_LOG", sizeof(ProfWordConfig)},
    {"FMK", sizeof(ProfWordConfig)},
    {"DDR", sizeof(ProfMemoryBusConfig), true},
    {"HBM", sizeof(ProfMemoryBusConfig), true},
    {"LLC", sizeof(ProfLlcConfig)},
    {"NPU_APP_MEM", sizeof(ProfMemoryUseConfig)},
    {"NPU_DEV_MEM", sizeof(ProfMemoryUseConfig)},
    {"LP_FREQ_CONV", sizeof(ProfFrequencyConfig)},
    {"STARS_SOC_PROFILE", sizeof(ProfStarsSocProfileConfig)},
};

// Bytes that the configuration must have; 0 when it is too short to tell.
uint32_t WantedSize(const Kind& kind, const ProfStartPara& para) {
    if (!kind.endsInEvents) {
        return kind.fixed;
    }
    if (para.userDataSize < kind.fixed) {
        return 0;
    }
    uint32_t events = 0;
    std::memcpy(&events, static_cast<const char*>(para.userData) + kind.fixed - kWord, kWord);
    return events <= kMaxConfigSize / kWord ? kind.fixed + events * kWord : 0;
}

}  // namespace

const char* StartRecordProblem(const std::string& channel, const ProfStartPara& para) {
    if (para.realTime != 1 || para.padding0 != 0 || para.padding1 != 0 ||
        para.channelType > PROF_START_PERIPHERAL) {
        return "a start record with wrong words";
    }
    if ((para.userData == nullptr) != (para.userDataSize == 0) ||
        para.userDataSize > kMaxConfigSize) {
        return "a start record without the configuration that it tells of";
    }
    for (const Kind& kind : kKinds) {
        if (kind.name == channel && para.userDataSize != WantedSize(kind, para)) {
            return "a start record with a configuration of the wrong size";
        }
    }
    return nullptr;
}

}  // namespace orla::emulation
