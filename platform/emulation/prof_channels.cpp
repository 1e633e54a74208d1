#include "prof_channels.h"

#include <algorithm>
#include <climits>
#include <string>

#include "log_book.h"

namespace orla::emulation {

namespace {

constexpr size_t kMaxStarts = 65536;
constexpr std::chrono::milliseconds kPollUnit{50};

void Report(const ProfChannels::Key& key, const control::ChannelCounts& counts) {
    const LogLevel level = counts.lost == 0 ? LogLevel::kDebug : LogLevel::kWarning;
    if (!LogBook::Get().Enabled(level)) {
        return;
    }
    LogBook::Get().Write(
        kDriverModule, level,
        "prof_stop: device " + std::to_string(key.first) + ", channel " +
            std::to_string(key.second) + ": start " + std::to_string(counts.starts) +
            ", produced " + std::to_string(counts.produced) + ", delivered " +
            std::to_string(counts.delivered) + ", lost " + std::to_string(counts.lost));
}

}  // namespace

ProfChannels& ProfChannels::Get() {
    static ProfChannels& channels = *new ProfChannels;
    return channels;
}

uint64_t ProfChannels::Now() {
    return static_cast<uint64_t>(std::chrono::nanoseconds(Clock::now().time_since_epoch()).count());
}

int ProfChannels::Start(uint32_t device, const SimulatedChannel& config) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ProfChannel& channel = channels_[{device, config.id}];
    if (channel.started()) {
        return PROF_ERROR;
    }
    channel.Start(device, config, Now());
    ++started_;
    changed_.notify_all();
    return PROF_OK;
}

int ProfChannels::Stop(const Key& key) {
    control::ChannelCounts counts;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = channels_.find(key);
        if (found == channels_.end() || !found->second.started()) {
            return PROF_STOPPED_ALREADY;
        }
        const uint64_t now = Now();
        found->second.Stop(true, now);
        --started_;
        ++stops_;
        changed_.notify_all();
        counts = found->second.Counts(now);
    }
    Report(key, counts);
    return PROF_OK;
}

int ProfChannels::Read(const Key& key, char* buffer, uint32_t size) {
    RecordRun run;
    uint64_t taken = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = channels_.find(key);
        if (found == channels_.end()) {
            return PROF_STOPPED_ALREADY;
        }
        ProfChannel& channel = found->second;
        const uint64_t now = Now();
        taken = channel.Take(buffer, std::min<uint64_t>(size, INT_MAX), now, &run);
        if (taken == 0 && !channel.started()) {
            return PROF_STOPPED_ALREADY;
        }
        if (polls_ != 0 && channel.started() && channel.IsDue(now)) {
            changed_.notify_all();
        }
    }
    run.Fill();
    return static_cast<int>(taken);
}

// In rising order, beginning behind the channel that was told last. With `all` also those that
// were told in this tick already.
int ProfChannels::CollectDue(ProfPollInfo* events, int num, bool all, uint64_t now) {
    int count = 0;
    auto at = channels_.upper_bound(lastTold_);
    for (size_t seen = 0; seen < channels_.size() && count < num; ++seen, ++at) {
        if (at == channels_.end()) {
            at = channels_.begin();
        }
        ProfChannel& channel = at->second;
        if (channel.started() && (all ? channel.HasData(now) : channel.IsDue(now))) {
            channel.MarkTold(now);
            lastTold_ = at->first;
            events[count++] = {at->first.first, at->first.second};
        }
    }
    return count;
}

uint64_t ProfChannels::NextDue(uint64_t now) {
    uint64_t next = kNever;
    for (auto& [key, channel] : channels_) {
        if (channel.started()) {
            next = std::min(next, channel.NextDue(now));
        }
    }
    return next;
}

int ProfChannels::Poll(ProfPollInfo* events, int num, int timeout, std::optional<int> idle) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (idle && started_ == 0) {
        return *idle;
    }
    const uint64_t stopsBefore = stops_;
    const uint64_t deadline =
        Now() + static_cast<uint64_t>(std::chrono::nanoseconds(kPollUnit).count()) *
                    static_cast<uint64_t>(timeout);
    for (;;) {
        const uint64_t now = Now();
        if (const int count = CollectDue(events, num, timeout == 0, now); count != 0) {
            return count;
        }
        if (stops_ != stopsBefore) {
            return started_ == 0 ? PROF_STOPPED_ALREADY : 0;
        }
        if (now >= deadline) {
            return 0;
        }
        const uint64_t wake = std::min(deadline, NextDue(now));
        ++polls_;
        changed_.wait_until(lock, Clock::time_point(std::chrono::nanoseconds(wake)));
        --polls_;
    }
}

int ProfChannels::Flush(const Key& key, uint32_t* size) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = channels_.find(key);
    if (found == channels_.end() || !found->second.started()) {
        return PROF_STOPPED_ALREADY;
    }
    *size = found->second.Flush(Now());
    changed_.notify_all();
    return PROF_OK;
}

// Of one device, or of all.
void ProfChannels::EndAll(const std::optional<uint32_t>& device, uint64_t now) {
    for (auto& [key, channel] : channels_) {
        if (channel.started() && (!device || key.first == *device)) {
            channel.Stop(false, now);
            --started_;
            ++stops_;
        }
    }
    changed_.notify_all();
}

void ProfChannels::EndDevice(uint32_t device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    EndAll(device, Now());
}

void ProfChannels::Reset() {
    const std::lock_guard<std::mutex> lock(mutex_);
    EndAll(std::nullopt, Now());
    channels_.clear();
    lastTold_ = {};
    starts_.clear();
    lists_.clear();
}

void ProfChannels::KeepStart(control::ProfStart start) {
    const std::lock_guard<std::mutex> lock(mutex_);
    starts_.push_back(std::move(start));
    if (starts_.size() > kMaxStarts) {
        starts_.pop_front();
    }
}

std::vector<control::ProfStart> ProfChannels::Starts() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return {starts_.begin(), starts_.end()};
}

control::ChannelCounts ProfChannels::CountsOf(const Key& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = channels_.find(key);
    return found == channels_.end() ? control::ChannelCounts() : found->second.Counts(Now());
}

void ProfChannels::SetList(uint32_t device, const ProfChannelList& channels) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lists_[device] = channels;
}

std::optional<ProfChannelList> ProfChannels::ListOf(uint32_t device) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = lists_.find(device);
    return found == lists_.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace orla::emulation
