// The configuration records that peripheral channels are started with, as the driver reads them:
// words of 32 bits, little-endian, zero where nothing is said.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Analysis::Nedra::JobWrapper {

// DDR and HBM: `eventNum` words with the codes of the events follow.
struct TagDdrProfileConfig {
    uint32_t period;
    uint32_t masterId;
    uint32_t eventNum;
};
using TagTsHbmProfileConfig = TagDdrProfileConfig;
static_assert(sizeof(TagDdrProfileConfig) == 12 && offsetof(TagDdrProfileConfig, eventNum) == 8);

enum MemoryEvent : uint32_t { kReadEvent = 0, kWriteEvent = 1 };

struct TagLlcProfileConfig {
    uint32_t period;
    uint32_t mode;  // 0, or 1 + MemoryEvent
};
static_assert(sizeof(TagLlcProfileConfig) == 8);

struct TagMemProfileConfig {
    uint32_t period;
    uint32_t reserved;
    uint32_t isDevice;  // 1: memory of the device, 0: of the application
    uint32_t reserved2;
};
static_assert(sizeof(TagMemProfileConfig) == 16 && offsetof(TagMemProfileConfig, isDevice) == 8);

struct LpmConvProfileConfig {
    uint32_t period;
    uint32_t reserved;
};
static_assert(sizeof(LpmConvProfileConfig) == 8);

struct StarsSocBlock {
    uint32_t enable;
    uint32_t period;
};
struct StarsSocProfileConfig {
    StarsSocBlock accPmu;
    StarsSocBlock onChip;
    StarsSocBlock reserved;
    StarsSocBlock interChip;
    uint32_t reserved2[4];
};
static_assert(sizeof(StarsSocProfileConfig) == 48 &&
              offsetof(StarsSocProfileConfig, interChip) == 24);

}  // namespace Analysis::Nedra::JobWrapper
