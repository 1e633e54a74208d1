// Values over time on a grid of equal steps, which bounds what a long profile takes in memory and
// in a page. Each value holds for a span of time and counts for as much as it covers of a step.
// No I/O; no thread of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace orla::host {

// Times are nanoseconds of the device's clock.
struct Grid {
    static constexpr size_t kMaxSteps = 1000;

    uint64_t begin = 0;
    uint64_t end = 0;
    uint64_t step = 1;
    size_t steps = 0;

    // Covers [begin, end] with steps of `shortest` or longer.
    [[nodiscard]] static Grid Over(uint64_t begin, uint64_t end, uint64_t shortest);
    [[nodiscard]] double SecondsAt(size_t index) const;
};

class Series {
public:
    explicit Series(const Grid& grid) : grid_(&grid) {}  // which outlives the series

    // The value from `from` to `to`; what lies outside the grid is left out.
    void Add(uint64_t from, uint64_t to, double value);
    // The mean over a step; nothing when no value covers any of it.
    [[nodiscard]] std::optional<double> At(size_t index) const;

private:
    struct Step {
        float sum = 0;
        float weight = 0;
    };
    const Grid* grid_;
    std::vector<Step> steps_;  // from the first one that has a value
    size_t first_ = 0;
};

}  // namespace orla::host
