#include "prof_channel.h"

#include <algorithm>
#include <cstring>

namespace orla::emulation {

namespace {

constexpr uint64_t kTick = 10'000'000;
constexpr uint64_t kRecordSize = sizeof(ChannelRecord);
// Nanoseconds that one record takes at a rate of one byte per second.
constexpr uint64_t kRecordTime = kRecordSize * 1'000'000'000;

}  // namespace

// Word by word: a record that is put together in memory first and then copied takes three times
// as long.
void RecordRun::Fill() const {
    const uint64_t head = HeadOf(first);
    const uint64_t fixedSum = head * kHeadFactor + first.start * kStartFactor;
    uint64_t sequence = first.sequence;
    uint64_t sequenceSum = sequence * kSequenceFactor;
    uint64_t passed = 0;
    char* out = at;
    const auto write = [&out](uint64_t word) {
        std::memcpy(out, &word, sizeof(word));
        out += sizeof(word);
    };
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t now = time + (passed >> kStepShift);
        const uint64_t check = FoldSum(fixedSum + sequenceSum + now * kTimeFactor);
        write(head);
        write(sequence);
        write(now);
        write(first.start | check << 32);
        ++sequence;
        sequenceSum += kSequenceFactor;
        passed += step;
    }
}

void ProfChannel::Start(uint32_t device, const SimulatedChannel& config, uint64_t now) {
    const uint32_t starts = pattern_.start;
    *this = ProfChannel();
    config_ = config;
    pattern_.magic = kChannelRecordMagic;
    pattern_.channel = static_cast<uint16_t>(config.id);
    pattern_.device = static_cast<uint16_t>(device);
    pattern_.start = starts + 1;
    startTime_ = now;
    started_ = true;
}

void ProfChannel::Stop(bool keep, uint64_t now) {
    Settle(now);
    produced_ = IsUnlimited() ? next_ : Produced(now);
    visible_ = config_.sideRecords != 0 && !IsUnlimited() ? moved_ : produced_;
    started_ = false;
    Settle(now);
    if (!keep || config_.dropAtStop) {
        visible_ = next_;
        partialUsed_ = 0;
    }
}

// Records whose production is complete, the side buffer's included.
uint64_t ProfChannel::Produced(uint64_t now) const {
    if (!started_) {
        return produced_;
    }
    if (IsUnlimited()) {
        return config_.maxRecords;
    }
    const uint64_t elapsed = now > startTime_ ? now - startTime_ : 0;
    const auto bytes = static_cast<unsigned __int128>(elapsed) * config_.bytesPerSecond;
    return static_cast<uint64_t>(
        std::min<unsigned __int128>(bytes / kRecordTime, config_.maxRecords));
}

// Records that a read can have, had or has missed.
uint64_t ProfChannel::Visible(uint64_t now) const {
    if (!started_) {
        return visible_;
    }
    const uint64_t produced = Produced(now);
    if (IsUnlimited()) {
        return produced;
    }
    if (const uint64_t side = config_.sideRecords; side != 0) {
        return moved_ + (produced - moved_) / side * side;
    }
    const uint64_t block = config_.BlockRecords();
    return std::max(Produced(now / kTick * kTick), produced / block * block);
}

// The first moment at which Produced counts this record.
uint64_t ProfChannel::CompletedAt(uint64_t sequence) const {
    if (sequence >= config_.maxRecords || config_.bytesPerSecond == 0) {
        return kNever;
    }
    const auto work = (static_cast<unsigned __int128>(sequence) + 1) * kRecordTime;
    const auto elapsed = (work + config_.bytesPerSecond - 1) / config_.bytesPerSecond;
    return elapsed > kNever / 2 ? kNever : startTime_ + static_cast<uint64_t>(elapsed);
}

// When the next record becomes visible, given that none is now.
uint64_t ProfChannel::NextVisible() const {
    if (!started_ || IsUnlimited()) {
        return kNever;
    }
    if (config_.sideRecords != 0) {
        return CompletedAt(moved_ + config_.sideRecords - 1);
    }
    const uint64_t complete = CompletedAt(next_);
    if (complete == kNever) {
        return kNever;
    }
    const uint64_t block = config_.BlockRecords();
    const uint64_t edge = (complete + kTick - 1) / kTick * kTick;
    return std::min(edge, CompletedAt((next_ / block + 1) * block - 1));
}

// Brings what depends on the time up to date: the moves of the side buffer, the overwriting.
void ProfChannel::Settle(uint64_t now) {
    const uint64_t visible = Visible(now);
    if (IsUnlimited()) {
        return;
    }
    moved_ = visible;
    if (visible - next_ > config_.bufferRecords) {
        lost_ += visible - next_ - config_.bufferRecords;
        next_ = visible - config_.bufferRecords;
    }
}

bool ProfChannel::HasData(uint64_t now) {
    return partialUsed_ != 0 || Visible(now) > next_;
}

bool ProfChannel::IsDue(uint64_t now) {
    return HasData(now) && (readSinceTold_ || now / kTick > toldTick_);
}

void ProfChannel::MarkTold(uint64_t now) {
    readSinceTold_ = false;
    toldTick_ = now / kTick;
}

uint64_t ProfChannel::NextDue(uint64_t now) {
    return HasData(now) ? (toldTick_ + 1) * kTick : NextVisible();
}

RecordRun ProfChannel::Run(uint64_t count, uint64_t now, char* at) const {
    RecordRun run;
    run.at = at;
    run.count = count;
    run.first = pattern_;
    run.first.sequence = next_;
    if (IsUnlimited()) {
        run.time = now;
    } else if (count != 0) {
        run.time = CompletedAt(next_);
        run.step = static_cast<uint64_t>(
            (static_cast<unsigned __int128>(kRecordTime) << RecordRun::kStepShift) /
            config_.bytesPerSecond);
    }
    return run;
}

uint64_t ProfChannel::TakePartial(char* buffer, uint64_t size) {
    const uint64_t bytes = partialUsed_ == 0 ? 0 : std::min(size, kRecordSize - partialUsed_);
    std::memcpy(buffer, reinterpret_cast<const char*>(&partial_) + partialUsed_, bytes);
    partialUsed_ = (partialUsed_ + bytes) % kRecordSize;
    return bytes;
}

uint64_t ProfChannel::Take(char* buffer, uint64_t size, uint64_t now, RecordRun* run) {
    Settle(now);
    readSinceTold_ = true;
    uint64_t taken = TakePartial(buffer, size);
    const uint64_t waiting = Visible(now) - next_;
    *run = Run(std::min(waiting, (size - taken) / kRecordSize), now, buffer + taken);
    next_ += run->count;
    taken += run->count * kRecordSize;
    if (taken < size && run->count < waiting) {  // the rest of the buffer cuts a record
        Run(1, now, reinterpret_cast<char*>(&partial_)).Fill();
        ++next_;
        partialUsed_ = size - taken;
        std::memcpy(buffer + taken, &partial_, partialUsed_);
        taken = size;
    }
    return taken;
}

uint32_t ProfChannel::Flush(uint64_t now) {
    if (config_.sideRecords == 0 || IsUnlimited()) {
        return 0;
    }
    Settle(now);
    const uint64_t records = Produced(now) - moved_;
    moved_ += records;
    Settle(now);
    return static_cast<uint32_t>(records * kRecordSize);
}

control::ChannelCounts ProfChannel::Counts(uint64_t now) {
    Settle(now);
    control::ChannelCounts counts;
    counts.started = started_;
    counts.starts = pattern_.start;
    counts.produced = IsUnlimited() ? next_ : Produced(now);
    counts.delivered = next_ - lost_;
    counts.lost = lost_;
    return counts;
}

}  // namespace orla::emulation
