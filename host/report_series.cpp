#include "host/report_series.h"

#include <algorithm>

namespace orla::host {

Grid Grid::Over(uint64_t begin, uint64_t end, uint64_t shortest) {
    Grid grid;
    grid.begin = begin;
    grid.end = end;
    grid.step = std::max({shortest, (end - begin) / kMaxSteps + 1, uint64_t{1}});
    grid.steps = static_cast<size_t>((end - begin) / grid.step) + 1;
    return grid;
}

double Grid::SecondsAt(size_t index) const {
    return static_cast<double>(index) * static_cast<double>(step) / 1e9;
}

void Series::Add(uint64_t from, uint64_t to, double value) {
    const Grid& grid = *grid_;
    const uint64_t end = grid.steps * grid.step;
    if (from < grid.begin || to <= from || from - grid.begin >= end) {
        return;
    }
    from -= grid.begin;
    to = std::min(to - grid.begin, end);
    const auto first = static_cast<size_t>(from / grid.step);
    const auto last = static_cast<size_t>((to - 1) / grid.step);
    if (steps_.empty()) {
        first_ = first;
    } else if (first < first_) {
        steps_.insert(steps_.begin(), first_ - first, Step());
        first_ = first;
    }
    if (steps_.size() < last - first_ + 1) {
        steps_.resize(last - first_ + 1);
    }
    for (size_t index = first; index <= last; ++index) {
        const uint64_t begin = std::max(from, index * grid.step);
        const uint64_t stop = std::min(to, (index + 1) * grid.step);
        const auto weight =
            static_cast<float>(static_cast<double>(stop - begin) / static_cast<double>(grid.step));
        steps_[index - first_].sum += static_cast<float>(value) * weight;
        steps_[index - first_].weight += weight;
    }
}

std::optional<double> Series::At(size_t index) const {
    if (index < first_ || index - first_ >= steps_.size() || steps_[index - first_].weight <= 0) {
        return std::nullopt;
    }
    return steps_[index - first_].sum / steps_[index - first_].weight;
}

}  // namespace orla::host
