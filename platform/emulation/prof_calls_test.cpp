#include <gtest/gtest.h>
#include <prof_driver.h>

#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "channel_record.h"
#include "control.h"
#include "hdc_test_support.h"

namespace orla::emulation {
namespace {

using control::CountsOf;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr ProfStartPara kPlain = {PROF_START_TS, 0, 1, 0, nullptr, 0, 0};

// What a receiver proves of the stream of one channel, however it was cut.
class Stream {
public:
    // Reads once; the driver's result.
    int Read(uint32_t device, uint32_t channel, uint32_t size) {
        std::vector<char> buffer(size);
        const int result = prof_channel_read(device, channel, buffer.data(), size);
        if (result > 0) {
            bytes_.append(buffer.data(), static_cast<size_t>(result));
            Digest(device, channel);
        }
        return result;
    }

    uint64_t records = 0;
    uint64_t missing = 0;

private:
    void Digest(uint32_t device, uint32_t channel) {
        size_t at = 0;
        for (ChannelRecord record; at + sizeof(record) <= bytes_.size(); at += sizeof(record)) {
            std::memcpy(&record, bytes_.data() + at, sizeof(record));
            ASSERT_TRUE(IsIntact(record) && record.channel == channel && record.device == device);
            ASSERT_GE(record.sequence, next_);
            ASSERT_GE(record.time, time_);
            missing += record.sequence - next_;
            next_ = record.sequence + 1;
            time_ = record.time;
            ++records;
        }
        bytes_.erase(0, at);
    }

    std::string bytes_;
    uint64_t next_ = 0;
    uint64_t time_ = 0;
};

class ProfChannelsTest : public testing::Test {
protected:
    void SetUp() override { control::Reset(); }
    void TearDown() override { control::Reset(); }

    // Devices 0 and 1 with these channels.
    static void Use(const std::string& channels) {
        ASSERT_EQ(control::LoadScenario(R"({"devices": [{"logical": 0, "type": 3, "channels": [)" +
                                        channels + R"(]}, {"logical": 1, "channels": [)" +
                                        channels + "]}]}"),
                  "");
    }
};

TEST_F(ProfChannelsTest, EveryRecordComesOnceWhateverTheRateAndTheCuts) {
    const std::tuple<const char*, uint64_t, uint32_t> cases[] = {
        // the last: size of the reads
        {R"("rate": 300000)", 2000, 4096},
        {R"("rate": 200000000, "buffer": 33554432)", 500000, 1 << 20},
        {R"("rate": 1000000, "side_buffer": 3200)", 5000, 100},
        {R"("rate": "unlimited")", 5000, 77},
        {R"("rate": "unlimited")", 2000000, 2 << 20},
    };
    for (const auto& [channel, records, size] : cases) {
        SCOPED_TRACE(channel);
        Use(R"({"id": 7, "records": )" + std::to_string(records) + ", " + channel + "}");
        for (uint32_t start = 1; start <= 2; ++start) {  // a new stream each time
            ASSERT_EQ(prof_drv_start(1, 7, &kPlain), PROF_OK);
            Stream stream;
            ProfPollInfo event = {};
            while (stream.records < records) {
                ASSERT_EQ(prof_channel_poll(&event, 1, 400), 1);
                while (stream.Read(1, 7, size) > 0) {
                }
            }
            EXPECT_EQ(event.device, 1U);
            EXPECT_EQ(event.channel, 7U);
            EXPECT_EQ(prof_channel_poll(&event, 1, 0), 0);
            const control::ChannelCounts counts = CountsOf(1, 7);
            EXPECT_EQ(counts.produced, records);
            EXPECT_EQ(counts.delivered, records);
            EXPECT_EQ(counts.starts, start);
            EXPECT_EQ(stream.missing + counts.lost, 0U);
            EXPECT_EQ(prof_stop(1, 7), PROF_OK);
            EXPECT_EQ(stream.Read(1, 7, 64), PROF_STOPPED_ALREADY);
            EXPECT_EQ(prof_stop(1, 7), PROF_STOPPED_ALREADY);
        }
        control::Reset();
    }
}

TEST_F(ProfChannelsTest, WhatAFullBufferLosesIsCountedAndTold) {
    for (const bool drop : {false, true}) {
        Use(std::string(R"({"id": 3, "rate": 4000000, "buffer": 3200, "drop_at_stop": )") +
            (drop ? "true}" : "false}"));
        const control::LogCapture capture;
        ASSERT_EQ(prof_drv_start(0, 3, &kPlain), PROF_OK);
        Stream stream;
        ASSERT_TRUE(Eventually([] { return CountsOf(0, 3).lost > 100; }));
        EXPECT_EQ(stream.Read(0, 3, 50), 50);  // cuts a record: it must not be overwritten
        const uint64_t lost = CountsOf(0, 3).lost;
        ASSERT_TRUE(Eventually([=] { return CountsOf(0, 3).lost > lost + 100; }));
        EXPECT_EQ(prof_stop(0, 3), PROF_OK);
        while (stream.Read(0, 3, 1000) > 0) {
        }
        const control::ChannelCounts counts = CountsOf(0, 3);
        EXPECT_EQ(stream.missing == counts.lost, !drop);
        EXPECT_EQ(counts.produced == counts.delivered + counts.lost, !drop);
        EXPECT_TRUE(control::WaitForLine(
            [&](const control::LogLine& line) {
                return line.level == control::LogLevel::kWarning &&
                       line.text.find("lost " + std::to_string(counts.lost)) != std::string::npos;
            },
            milliseconds(0)));
    }
}

TEST_F(ProfChannelsTest, SideBufferIsMovedByFlushOrWhenFull) {
    Use(R"({"id": 44, "rate": 320000, "side_buffer": 320000}, {"id": 45, "rate": 0},
           {"id": 46, "rate": 3200000, "side_buffer": 320})");
    ProfPollInfo events[4];
    uint32_t size = 99;
    EXPECT_EQ(halProfDataFlush(0, 44, &size), PROF_STOPPED_ALREADY);
    EXPECT_EQ(size, 99U);
    ASSERT_EQ(prof_drv_start(0, 44, &kPlain), PROF_OK);
    ASSERT_TRUE(Eventually([] { return CountsOf(0, 44).produced > 100; }));
    EXPECT_EQ(prof_channel_poll(events, 4, 0), 0);
    ASSERT_EQ(halProfDataFlush(0, 44, &size), PROF_OK);
    EXPECT_GT(size, 3200U);
    EXPECT_EQ(prof_channel_poll(events, 4, 0), 1);
    Stream stream;
    EXPECT_EQ(stream.Read(0, 44, 1 << 20), static_cast<int>(size));
    EXPECT_EQ(stream.Read(0, 44, 1 << 20), 0);
    ASSERT_TRUE(Eventually([&] { return CountsOf(0, 44).produced > stream.records; }));
    EXPECT_EQ(prof_stop(0, 44), PROF_OK);
    EXPECT_EQ(stream.Read(0, 44, 1 << 20), PROF_STOPPED_ALREADY);  // the side buffer is gone

    ASSERT_EQ(prof_drv_start(0, 45, &kPlain), PROF_OK);
    EXPECT_EQ(halProfDataFlush(0, 45, &size), PROF_OK);
    EXPECT_EQ(size, 0U);
    ASSERT_EQ(prof_drv_start(0, 46, &kPlain), PROF_OK);
    ASSERT_EQ(prof_channel_poll(events, 4, 100), 1);
    EXPECT_EQ(events[0].channel, 46U);
    Stream full;
    EXPECT_EQ(full.Read(0, 46, 1 << 20) % 320, 0);
}

TEST_F(ProfChannelsTest, AnIdlePollMayAnswerAtOnce) {
    for (const int answer : {0, int{PROF_STOPPED_ALREADY}}) {
        ASSERT_EQ(control::LoadScenario(R"({"liberties": {"idle_poll": )" + std::to_string(answer) +
                                        "}}"),
                  "");
        ProfPollInfo event = {};
        EXPECT_EQ(prof_channel_poll(&event, 1, 1 << 20), answer);  // far too long to be waited for
    }
}

TEST_F(ProfChannelsTest, PollTellsEveryChannelInTurnAndEndsWithAStop) {
    std::string channels;
    for (int id = 1; id <= 20; ++id) {
        channels += R"({"id": )" + std::to_string(id) + R"(, "rate": "unlimited"}, )";
    }
    Use(channels + R"({"id": 30, "rate": 0})");
    ProfPollInfo events[6];
    const auto begin = steady_clock::now();
    EXPECT_EQ(prof_channel_poll(events, 6, 1), 0);  // nothing is started
    EXPECT_GE(steady_clock::now() - begin, milliseconds(50));
    for (uint32_t id = 1; id <= 20; ++id) {
        ASSERT_EQ(prof_drv_start(id % 2, id, &kPlain), PROF_OK);
    }
    std::map<uint32_t, int> told;
    for (int i = 0; i < 10; ++i) {
        const int count = prof_channel_poll(events, 6, 1);
        ASSERT_GT(count, 0);
        for (int n = 0; n < count; ++n) {
            EXPECT_EQ(events[n].device, events[n].channel % 2);
            ++told[events[n].channel];
        }
    }
    EXPECT_EQ(told.size(), 20U);
    control::SetDeviceState(0, control::DeviceState::kDown);  // takes its channels along
    control::SetDeviceState(1, control::DeviceState::kNotReady);
    EXPECT_EQ(prof_stop(1, 1), PROF_STOPPED_ALREADY);
    EXPECT_NE(prof_drv_start(1, 1, &kPlain), PROF_OK);
    control::SetDeviceState(0, control::DeviceState::kUp);
    control::SetDeviceState(1, control::DeviceState::kUp);

    // A poll that waits ends with a stop, of the first of two channels and of the last.
    ASSERT_EQ(prof_drv_start(0, 30, &kPlain), PROF_OK);
    ASSERT_EQ(prof_drv_start(1, 30, &kPlain), PROF_OK);
    for (const uint32_t device : {0, 1}) {
        const uint64_t polls = control::CallCount("prof_channel_poll");
        std::thread stopper([=] {
            EXPECT_TRUE(
                Eventually([=] { return control::CallCount("prof_channel_poll") > polls; }));
            std::this_thread::sleep_for(milliseconds(20));
            EXPECT_EQ(prof_stop(device, 30), PROF_OK);
        });
        const auto waiting = steady_clock::now();
        EXPECT_EQ(prof_channel_poll(events, 6, 400), device == 0 ? 0 : PROF_STOPPED_ALREADY);
        EXPECT_LT(steady_clock::now() - waiting, std::chrono::seconds(10));
        stopper.join();
    }
}

}  // namespace
}  // namespace orla::emulation
