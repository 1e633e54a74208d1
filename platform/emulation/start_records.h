// What the driver wants a channel to be started with: the size and the fixed words of its records.
#pragma once

#include <prof_driver.h>

#include <string>

namespace orla::emulation {

// Returns what is wrong with the start record of the channel of this name; null for nothing. A
// channel with a name that is in no table takes any configuration.
[[nodiscard]] const char* StartRecordProblem(const std::string& channel, const ProfStartPara& para);

}  // namespace orla::emulation
