// Which records of a damaged file can be believed: those that follow one another. Damage changes
// single values, so the longest run of values that rise leaves out what was damaged. No I/O, no
// state; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orla::host {

enum class Rise { kStrict, kOrEqual };

// Returns the positions, in rising order, of a longest run of values each of which is above the one
// before it, or not below it. Of two runs of one length the one with its values closest together is
// taken: damage at an end then doesn't stretch the run. Takes n * log(n) time for n values.
[[nodiscard]] std::vector<size_t> LongestRise(const std::vector<uint64_t>& values, Rise rise);

}  // namespace orla::host
