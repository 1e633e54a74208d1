#include "host/report_order.h"

#include <algorithm>
#include <numeric>

namespace orla::host {

namespace {

bool Follows(uint64_t before, uint64_t value, Rise rise) {
    return before < value || (rise == Rise::kOrEqual && before == value);
}

// For each value, the length of the longest run that ends with it, less one.
std::vector<size_t> Ranks(const std::vector<uint64_t>& values, Rise rise, size_t* length) {
    std::vector<size_t> ranks;
    std::vector<uint64_t> lowest;  // value that ends a run, by the run's length
    for (const uint64_t value : values) {
        const auto place = std::partition_point(
            lowest.begin(), lowest.end(),
            [value, rise](uint64_t each) { return Follows(each, value, rise); });
        ranks.push_back(static_cast<size_t>(place - lowest.begin()));
        if (place == lowest.end()) {
            lowest.push_back(value);
        } else {
            *place = value;
        }
    }
    *length = lowest.size();
    return ranks;
}

}  // namespace

std::vector<size_t> LongestRise(const std::vector<uint64_t>& values, Rise rise) {
    size_t length = 0;
    const std::vector<size_t> ranks = Ranks(values, rise, &length);
    std::vector<size_t> byRank(values.size());
    std::iota(byRank.begin(), byRank.end(), size_t{0});
    std::stable_sort(byRank.begin(), byRank.end(),
                     [&ranks](size_t a, size_t b) { return ranks[a] < ranks[b]; });
    // From the end to the front. Values of one rank fall with their position, so the last of a rank
    // ends the lowest run, and the first that still fits lies closest to the one after it.
    std::vector<size_t> run(length);
    auto end = byRank.end();
    for (size_t rank = length; rank-- > 0;) {
        const auto begin = std::partition_point(
            byRank.begin(), end, [&ranks, rank](size_t each) { return ranks[each] < rank; });
        const auto fits = [&](size_t each) {
            return each < run[rank + 1] && Follows(values[each], values[run[rank + 1]], rise);
        };
        run[rank] = rank + 1 == length ? *(end - 1) : *std::find_if(begin, end, fits);
        end = begin;
    }
    return run;
}

}  // namespace orla::host
