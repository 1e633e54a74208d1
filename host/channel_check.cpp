#include "host/channel_check.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace orla::host {

using emulation::ChannelRecord;

void ChannelCheck::Take(std::string_view bytes) {
    rest_.append(bytes);
    size_t at = 0;
    while (rest_.size() - at >= sizeof(ChannelRecord)) {
        ChannelRecord record;
        std::memcpy(&record, rest_.data() + at, sizeof(record));
        if (IsIntact(record)) {
            EndDamage();
            Count(record);
            at += sizeof(record);
        } else {  // bytes may be missing, so a record may begin anywhere
            ++damagedBytes_;
            ++at;
        }
    }
    rest_.erase(0, at);
}

void ChannelCheck::Finish() {
    damagedBytes_ += rest_.size();
    rest_.clear();
    EndDamage();
}

bool ChannelCheck::clean() const {
    return damaged_ == 0 && !streams_.empty() &&
           std::all_of(streams_.begin(), streams_.end(),
                       [](const auto& stream) { return stream.second.clean(); });
}

void ChannelCheck::EndDamage() {
    damaged_ += (damagedBytes_ + sizeof(ChannelRecord) - 1) / sizeof(ChannelRecord);
    damagedBytes_ = 0;
}

// A number below the next one is late when it was missing, and doubled when it was not.
void ChannelCheck::Count(const ChannelRecord& record) {
    const Stream stream{record.device, record.channel, record.start};
    ChannelCounts& counts = streams_[stream];
    Order& order = orders_[stream];
    const uint64_t number = record.sequence;
    ++counts.records;
    if (number >= order.next) {
        if (number > order.next) {
            order.missing[order.next] = number;
            counts.lost += number - order.next;
        }
        counts.clockBack += record.time < order.time ? 1 : 0;
        order.time = record.time;
        order.next = number + 1;
        return;
    }
    auto gap = order.missing.upper_bound(number);
    if (gap == order.missing.begin() || std::prev(gap)->second <= number) {
        ++counts.doubled;
        return;
    }
    --gap;
    const auto [first, end] = *gap;
    order.missing.erase(gap);
    if (first < number) {
        order.missing[first] = number;
    }
    if (number + 1 < end) {
        order.missing[number + 1] = end;
    }
    ++counts.reordered;
    --counts.lost;
}

}  // namespace orla::host
