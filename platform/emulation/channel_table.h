// The profiling channels that a device has unless its scenario lists others.
#pragma once

#include <vector>

#include "scenario.h"

namespace orla::emulation {

// All channels, in rising order of their ids, each producing `bytesPerSecond`.
[[nodiscard]] std::vector<SimulatedChannel> AllChannels(uint64_t bytesPerSecond);

}  // namespace orla::emulation
