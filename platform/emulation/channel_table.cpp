#include "channel_table.h"

#include <utility>

namespace orla::emulation {

namespace {

struct Range {
    uint32_t first;
    uint32_t last;
    const char* name;
};

constexpr Range kChannels[] = {
    {1, 1, "HBM"},
    {3, 3, "PCIE"},
    {4, 4, "NIC"},
    {6, 6, "DVPP"},
    {7, 7, "DDR"},
    {8, 8, "LLC"},
    {9, 9, "FABRICLINK"},
    {10, 10, "TS_CPU"},
    {11, 42, "INSTR_PERF"},
    {43, 43, "AI_CORE"},
    {44, 44, "TS_FW"},
    {45, 45, "HWTS_LOG"},
    {46, 46, "FMK"},
    {47, 47, "L2_CACHE_TASK"},
    {48, 48, "AIV_HWTS_LOG"},
    {49, 49, "TS_FW1"},
    {50, 50, "STARS_SOC_LOG"},
    {51, 51, "STARS_BLOCK_LOG"},
    {52, 52, "STARS_SOC_PROFILE"},
    {53, 53, "FFTS_PROFILIE_TASK"},
    {54, 54, "FFTS_PROFILIE_SAMPLE"},
    {55, 84, "INSTR_PERF"},
    {85, 85, "AI_VECTOR"},
    {86, 98, "INSTR_PERF"},
    {129, 129, "ROCE"},
    {130, 130, "NPU_APP_MEM"},
    {131, 131, "NPU_DEV_MEM"},
    {132, 132, "LP_FREQ_CONV"},
    {135, 135, "DVPP_VENC"},
    {136, 136, "DVPP_JPEGE"},
    {137, 137, "DVPP_VDEC"},
    {138, 138, "DVPP_JPEGD"},
    {139, 139, "DVPP_VPC"},
    {140, 140, "DVPP_PNG"},
    {141, 141, "DVPP_SCD"},
};

}  // namespace

std::vector<SimulatedChannel> AllChannels(uint64_t bytesPerSecond) {
    std::vector<SimulatedChannel> channels;
    for (const Range& range : kChannels) {
        for (uint32_t id = range.first; id <= range.last; ++id) {
            SimulatedChannel channel;
            channel.id = id;
            channel.name = range.name;
            channel.bytesPerSecond = bytesPerSecond;
            channel.sideRecords = SimulatedChannel::UsualSideRecords(id);
            channels.push_back(std::move(channel));
        }
    }
    return channels;
}

}  // namespace orla::emulation
