// Readers and poll against the simulated channels, whose records prove at the host that every byte
// came once and in order.

#include "profiling/datapath/prof_channel.h"

#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>

#include "platform/emulation/channel_record.h"
#include "profiling/config/device_test_support.h"
#include "profiling/config/json_parser.h"
#include "profiling/datapath/ai_drv_prof_api.h"
#include "profiling/datapath/prof_channel_manager.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"

namespace {
std::atomic<int64_t> secondsAhead{0};  // of the clock that the data path measures with
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    if (clock == CLOCK_MONOTONIC_RAW && result == 0) {
        time->tv_sec += secondsAhead;
    }
    return result;
}

namespace analysis::nedra::transport {
namespace {

using Analysis::Nedra::JobWrapper::ProfChannelManager;
using orla::control::CallCount;
using orla::control::CountsOf;
using orla::emulation::ChannelRecord;
using orla::test::WaitFor;
using testing::Contains;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

// What came of one channel.
struct Stream {
    void Append(const std::string& bytes) {
        cut += bytes;
        size_t at = 0;
        for (ChannelRecord record; at + sizeof(record) <= cut.size(); at += sizeof(record)) {
            std::memcpy(&record, cut.data() + at, sizeof(record));
            const uint64_t next = record.start > last.start ? 0 : last.sequence + 1;
            ASSERT_TRUE(IsIntact(record) && record.start >= last.start && record.sequence >= next);
            missing += record.sequence - next;
            ++records;
            last = record;
        }
        cut.erase(0, at);
    }

    uint64_t records = 0;
    uint64_t missing = 0;  // numbers left out in front of one that came
    std::string cut;       // the beginning of a record
    ChannelRecord last{};
};

// A job with a host.
struct Channels : orla::device_test::DeviceTest {
    // Read once in a process, as the daemon does.
    static void SetUpTestSuite() {
        Tracelets::Parser::JsonParser::instance().Load(
            R"({"device": {"channels": [{"channel": "HBM", "channel_buffer_size": 1048576},
                {"channel": "NIC", "reporter_switch": "off"}]}})",
            "tuning");
    }
    ~Channels() override { UploaderMgr::instance().DelAllUploader(); }

    static void Use(const std::string& channels, int devices = 1) {
        std::string text;
        for (int i = 0; i < devices; ++i) {
            text += (i == 0 ? "" : ",") + (R"({"logical": )" + std::to_string(i)) +
                    R"(, "channels": [)" + channels + "]}";
        }
        orla::device_test::UseScenario(R"({"devices": [)" + text + "]}");
    }
    void Connect(uint64_t capacity = kUploaderCapacity) {
        host = std::make_shared<orla::test::PacedHost>();
        ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", host, capacity), 0);
    }
    // All that is uploaded so far, by the name of the file.
    std::map<std::string, Stream> Received() {
        std::shared_ptr<Uploader> uploader;
        UploaderMgr::instance().GetUploader("job", uploader);
        EXPECT_EQ(uploader->Stop(false), 0);
        std::map<std::string, Stream> streams;
        for (const auto& chunk : orla::test::ChunksOf(*host)) {
            streams[chunk->filename()].Append(chunk->chunk());
        }
        return streams;
    }
    static std::shared_ptr<ChannelReader> MakeReader(int device, int channel,
                                                     const char* job = "job") {
        const auto jobCtx = std::make_shared<message::JobContext>();
        jobCtx->job_id = job;
        auto reader =
            std::make_shared<ChannelReader>(device, channel, File(device, channel), jobCtx);
        EXPECT_EQ(reader->Init(), 0);
        return reader;
    }
    static std::string File(uint32_t device, uint32_t channel) {
        return "data/" + std::to_string(device) + "." + std::to_string(channel);
    }
    static void Start(int device, int channel) {
        ASSERT_EQ(driver::DrvFmkDataStart(device, channel), 0);
    }
    static void Open(ChannelPoll& poll, int device, int channel) {
        poll.AddReader(device, channel, MakeReader(device, channel));
        Start(device, channel);
    }
    static void Close(ChannelPoll& poll, int device, int channel) {
        EXPECT_EQ(driver::DrvStop(device, channel), 0);
        poll.GetReader(device, channel)->Drain();
        poll.RemoveReader(device, channel);
    }
    static void Answer(const std::string& call, int result, uint64_t after = 0, int64_t count = 1) {
        ASSERT_TRUE(orla::control::InjectFault({call, {}, {}, result, after, count, 0}));
    }

    std::shared_ptr<orla::test::PacedHost> host;
};

TEST_F(Channels, WhatTheDriverHandsOutReachesAHostThatPauses) {
    orla::control::SetLogLevel(orla::control::LogLevel::kWarning);
    std::mt19937 random(413);
    ProfChannelList all{};
    ASSERT_EQ(prof_drv_get_channels(0, &all), 0);
    std::string channels = R"({"id": 1, "rate": 8000000, "buffer": 65536})";
    for (uint32_t i = 1; i < all.channelNum; ++i) {
        channels += R"(, {"id": )" + std::to_string(all.channels[i].channelId) + R"(, "rate": )" +
                    std::to_string(random() % 100000) + "}";
    }
    Use(channels, 2);
    Connect(1);
    ChannelPoll poll;
    ASSERT_EQ(poll.Start(), 0);
    const auto forAll = [&](const auto& act) {
        for (uint32_t i = 0; i < 2 * all.channelNum; ++i) {
            act(static_cast<int>(i % 2), static_cast<int>(all.channels[i / 2].channelId));
        }
    };
    forAll([&](int device, int channel) { Open(poll, device, channel); });
    host->Read(false);
    EXPECT_TRUE(WaitFor([] { return CountsOf(0, 1).lost > 0 && CountsOf(1, 1).lost > 0; }));
    const uint64_t before = CountsOf(0, 1).delivered;
    host->Read(true);
    EXPECT_TRUE(WaitFor([&] { return CountsOf(0, 1).delivered > before + 30000; }));
    forAll([&](int device, int channel) { Close(poll, device, channel); });
    auto streams = Received();
    forAll([&](int device, int channel) {
        SCOPED_TRACE(File(device, channel));
        const Stream& stream = streams[File(device, channel)];
        const auto counts = CountsOf(device, channel);
        EXPECT_EQ(stream.records, counts.delivered);
        if (channel == 4) {
            EXPECT_EQ(counts.delivered, 0U);  // the tuning file: not to be reported
            return;
        }
        EXPECT_EQ(stream.missing, counts.lost);
        EXPECT_EQ(stream.cut, "");
        const bool hasSideBuffer = channel == 44 || channel == 45;
        EXPECT_TRUE(hasSideBuffer || counts.delivered + counts.lost == counts.produced);
    });
    EXPECT_THAT(log.Take("W"), Contains(testing::HasSubstr("prof_stop: device 0, channel 1: ")));
}

TEST_F(Channels, OfAHostThatStallsHoldUpNoOtherOnTheirWorker) {
    orla::control::SetLogLevel(orla::control::LogLevel::kWarning);
    Use(R"({"id": 2, "rate": "unlimited"}, {"id": 6, "rate": 100000})");
    Connect(1);
    host->Read(false);
    const auto other = std::make_shared<orla::test::PacedHost>();
    ASSERT_EQ(UploaderMgr::instance().CreateUploader("other", other, 1), 0);
    ChannelPoll poll;
    ASSERT_EQ(poll.Start(), 0);
    Open(poll, 0, 2);
    EXPECT_TRUE(WaitFor([] { return CountsOf(0, 2).delivered >= 3 * 65536; }));  // as much as fits
    poll.AddReader(0, 6, MakeReader(0, 6, "other"));  // of four workers the same one
    Start(0, 6);
    EXPECT_TRUE(WaitFor([] { return CountsOf(0, 6).delivered > 10000; }));
    EXPECT_EQ(CountsOf(0, 2).delivered, 3U * 65536);
    host->Read(true);
    EXPECT_TRUE(WaitFor([] { return CountsOf(0, 2).delivered > 6 * 65536; }));
    Close(poll, 0, 2);
    Close(poll, 0, 6);
    const Stream stream = Received()[File(0, 2)];
    EXPECT_EQ(stream.records, CountsOf(0, 2).delivered);
    EXPECT_EQ(stream.missing, CountsOf(0, 2).lost);
}

TEST_F(Channels, ThatGoQuietWhileTheirHostStallsAreGoneOnWithSoon) {
    Use(R"({"id": 2, "rate": "unlimited", "records": 196608})");
    Connect(1);
    host->Read(false);
    ChannelPoll poll;
    ASSERT_EQ(poll.Start(), 0);
    Open(poll, 0, 2);  // a message is being sent, one is queued, and the last one is refused
    ASSERT_TRUE(orla::control::WaitForLine(
        [](const auto& line) { return line.text.find("QueueFull") != std::string::npos; },
        std::chrono::minutes(1)));
    const auto begin = std::chrono::steady_clock::now();
    host->Read(true);
    EXPECT_TRUE(WaitFor([this] { return host->Begun() == 3; }));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));  // no flush
    Close(poll, 0, 2);
    EXPECT_EQ(Received()[File(0, 2)].records, 196608U);
}

TEST_F(Channels, MayComeAndGoWhileOthersRun) {
    orla::control::SetLogLevel(orla::control::LogLevel::kWarning);
    constexpr int kJobs = 4;
    constexpr int kEach = 16;
    constexpr int kFirst = 11;
    std::string channels = R"({"id": 2})";
    for (int i = 0; i < kJobs * kEach; ++i) {
        channels += R"(, {"id": )" + std::to_string(kFirst + i) + R"(, "rate": )" +
                    (i % 9 == 0 ? R"("unlimited", "records": 20000)" : "900000") + "}";
    }
    Use(channels);
    Connect(8);
    std::map<int, uint64_t> delivered[kJobs];
    const auto job = [&](int index) {
        std::mt19937 random(index);
        auto& mgr = ProfChannelManager::instance();
        ASSERT_EQ(mgr.Init(), 0);
        const auto poll = mgr.GetChannelPoller();
        const auto change = [&](int channel, bool canOpen) {
            if (poll->GetReader(0, channel) != nullptr) {
                Close(*poll, 0, channel);
                delivered[index][channel] += CountsOf(0, channel).delivered;
            } else if (canOpen) {
                Open(*poll, 0, channel);
            }
        };
        for (int round = 0; round < 4 * kEach; ++round) {
            change(kFirst + index * kEach + static_cast<int>(random() % kEach), true);
            if (round % 4 == 0) {
                poll->FlushAllChannel();
                mgr.FlushChannel();
            }
        }
        for (int i = 0; i < kEach; ++i) {
            change(kFirst + index * kEach + i, false);
        }
        mgr.UnInit(false);
    };
    std::vector<std::thread> jobs;
    for (int i = 0; i < kJobs; ++i) {
        jobs.emplace_back(job, i);
    }
    for (std::thread& one : jobs) {
        one.join();
    }
    EXPECT_EQ(ProfChannelManager::instance().GetChannelPoller(), nullptr);
    auto streams = Received();
    for (int channel = kFirst; channel < kFirst + kJobs * kEach; ++channel) {
        EXPECT_EQ(streams[File(0, channel)].records,
                  delivered[(channel - kFirst) / kEach][channel]);
    }
}

// ---- One reader -------------------------------------------------------------------------------

TEST_F(Channels, ReaderUploadsWhatPassesTheThreshold) {
    const struct {
        int channel, records;
        bool passes;
    } cases[] = {{2, 52428, false}, {2, 52429, true}, {1, 26214, false}, {1, 26215, true}};
    for (const auto& one : cases) {
        SCOPED_TRACE(one.records);
        Use(R"({"id": )" + std::to_string(one.channel) + R"(, "rate": "unlimited", "records": )" +
            std::to_string(one.records) + "}");
        Connect();
        Start(0, one.channel);
        const auto reader = MakeReader(0, one.channel);
        EXPECT_EQ(reader->Execute(), 0);
        EXPECT_TRUE(WaitFor([&] { return !one.passes || host->Begun() == 1; }));
        reader->Uninit();
        EXPECT_EQ(Received()[File(0, one.channel)].records, one.records);
        EXPECT_EQ(host->Begun(), 1);
        EXPECT_EQ(driver::DrvStop(0, one.channel), 0);
    }
    EXPECT_THAT(log.Take("E"), ElementsAre());
}

TEST_F(Channels, ReaderGivesWayAndSurvivesItsDriverAndItsHost) {
    Use(R"({"id": 2, "rate": "unlimited"})");
    Start(0, 2);
    const auto reader = MakeReader(0, 2);
    Answer("prof_channel_read", -4);
    Answer("prof_channel_read", -1, 1);
    reader->Execute();
    EXPECT_THAT(log.Take("E"), ElementsAre());
    reader->Execute();
    EXPECT_THAT(log.Take("E"), Contains("E read device 0, channel:2, ret=-1"));
    EXPECT_EQ(CountsOf(0, 2).delivered, 0U);
    reader->Execute();  // for nobody
    EXPECT_THAT(log.Take("E"),
                testing::IsSupersetOf({"E Upload data failed, jobId: job",
                                       "E device id 0, channel: 2, bytes lost:2097152"}));
    const uint64_t once = CountsOf(0, 2).delivered;
    EXPECT_EQ(once * sizeof(ChannelRecord), 32U << 20);
    Connect();
    reader->Execute();
    reader->Uninit();
    EXPECT_THAT(log.Take("E"), ElementsAre());
    EXPECT_EQ(Received()[File(0, 2)].records, once + 65536);  // with the rest of the first turn
}

TEST_F(Channels, FlushOfTheDriverEndsWithWhateverComesFirst) {
    using Reader = std::shared_ptr<ChannelReader>;
    const std::pair<const char*, std::function<void(const Reader&)>> cases[] = {
        {"data", [](const Reader& reader) { reader->Execute(); }},
        {"quit", [](const Reader& reader) { reader->SetQuit(); }},
        {"end", [](const Reader& reader) { reader->Uninit(); }},
        {"error",
         [](const Reader& reader) {
             Answer("prof_channel_read", -1);
             reader->Execute();
         }},
        {"time", [](const Reader&) {}},
    };
    Use(R"({"id": 44, "rate": 32000000, "records": 100})");
    for (const auto& [what, end] : cases) {
        SCOPED_TRACE(what);
        Connect();
        Start(0, 44);
        ASSERT_TRUE(WaitFor([] { return CountsOf(0, 44).produced == 100; }));
        const auto reader = MakeReader(0, 44);
        const uint64_t flushes = CallCount("halProfDataFlush");
        const auto start = std::chrono::steady_clock::now();
        auto flush = std::async(std::launch::async, [&] { reader->FlushDrvBuff(); });
        ASSERT_TRUE(WaitFor([&] { return CallCount("halProfDataFlush") > flushes; }));
        end(reader);
        flush.get();
        const auto passed = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(passed >= std::chrono::milliseconds(1900), what == std::string("time"));
        EXPECT_EQ(Received()[File(0, 44)].records, what == std::string("data") ? 100U : 0U);
        EXPECT_EQ(driver::DrvStop(0, 44), 0);
    }
    log.Take();
    MakeReader(0, 44)->FlushDrvBuff();  // the channel is closed
    EXPECT_THAT(log.Take("E"), Contains("E DrvProfFlush failed, deviceId:0, channelId:44, ret:-1"));
    const uint64_t flushes = CallCount("halProfDataFlush");
    MakeReader(0, 43)->FlushDrvBuff();
    EXPECT_EQ(CallCount("halProfDataFlush"), flushes);
}

// ---- The poll ---------------------------------------------------------------------------------

TEST_F(Channels, PollDispatchesWhoIsNotBusy) {
    Use(R"({"id": 2, "rate": 100000}, {"id": 4, "rate": 100000}, {"id": 7, "rate": 100000})");
    Connect();
    ChannelPoll poll;
    ASSERT_EQ(poll.Start(), 0);
    const auto reader = MakeReader(0, 2);
    reader->SetSchedulingStatus(false);  // there is none to take back
    for (const bool isBusy : {false, false, true}) {
        reader->SetSchedulingStatus(true);
        EXPECT_EQ(reader->GetSchedulingStatus(), isBusy);
    }
    poll.AddReader(0, 2, reader);
    poll.AddReader(0, 7, nullptr);
    poll.AddReader(0, 4, MakeReader(0, 4));  // the tuning file: not to be reported
    for (const int channel : {2, 4, 7}) {
        Start(0, channel);
    }
    EXPECT_TRUE(WaitFor([] { return CallCount("prof_channel_poll") > 10; }));
    EXPECT_EQ(CallCount("prof_channel_read"), 0U);
    EXPECT_THAT(log.Take("W"),
                testing::AllOf(testing::Not(testing::IsEmpty()),
                               testing::Each("W Failed to find devId:0, channel:7")));
    reader->SetSchedulingStatus(false);
    EXPECT_TRUE(WaitFor([] { return CountsOf(0, 2).delivered > 0; }));
    EXPECT_EQ(host->Begun(), 0);
    secondsAhead += 10;  // time for what is far from the threshold
    EXPECT_TRUE(WaitFor([this] { return host->Begun() > 0; }));
    poll.RemoveReader(5, 2);
    poll.RemoveReader(0, 2);
    poll.RemoveReader(0, 2);
    EXPECT_EQ(poll.GetReader(0, 2), nullptr);
    Close(poll, 0, 4);  // nor is what it holds at its end
    EXPECT_EQ(CountsOf(0, 4).delivered, 0U);
    // Nobody is left, and a driver that answers at once is not asked again and again.
    Answer("prof_channel_poll", PROF_STOPPED_ALREADY, 0, orla::control::Fault::kForever);
    EXPECT_TRUE(WaitFor([] {
        const uint64_t before = CallCount("prof_channel_poll");
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        return CallCount("prof_channel_poll") == before;
    }));
}

TEST_F(Channels, PollEndsWithAnErrorAndNotBefore) {
    for (const int result : {-1, -5, 7}) {
        SCOPED_TRACE(result);
        orla::control::ClearFaults();
        const uint64_t from = CallCount("prof_channel_poll");
        Answer("prof_channel_poll", PROF_STOPPED_ALREADY, 0, 3);
        Answer("prof_channel_poll", result, 3, orla::control::Fault::kForever);
        ChannelPoll poll;
        ASSERT_EQ(poll.Start(), 0);
        poll.AddReader(0, 2, MakeReader(0, 2));
        ASSERT_TRUE(orla::control::WaitForLine(
            [](const auto& line) {
                return line.text.find("Failed to poll channel") != std::string::npos;
            },
            std::chrono::minutes(1)));
        EXPECT_EQ(poll.Stop(), 0);
        EXPECT_EQ(CallCount("prof_channel_poll"), from + 4);
        EXPECT_THAT(log.Take("V"),
                    ElementsAre("V ChannelPoll count: 4, ChannelPoll sleep count: 3, "
                                "FlushAllChannel count: 0, Dispatch count: 0, "
                                "DispatchChannel count: 0"));
    }
}

size_t CountWorkers() {
    size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        count += name.find("TLET_ChanPool_") == 0 ? 1 : 0;
    }
    return count;
}

TEST_F(Channels, OnePollServesAllThatWantIt) {
    auto& mgr = ProfChannelManager::instance();
    mgr.UnInit(false);
    for (const bool force : {false, true}) {
        EXPECT_EQ(mgr.Init() + mgr.Init(), 0);
        const auto poll = mgr.GetChannelPoller();
        mgr.UnInit(force);
        EXPECT_EQ(mgr.GetChannelPoller(), force ? nullptr : poll);
        mgr.UnInit(false);
        EXPECT_EQ(mgr.GetChannelPoller(), nullptr);
        mgr.UnInit(false);
    }
    for (const auto& [devices, workers] : {std::pair{2, 4U}, {9, 9U}, {64, 64U}, {65, 4U}}) {
        SCOPED_TRACE(devices);
        Use("", devices);
        EXPECT_EQ(mgr.Init(), 0);
        EXPECT_TRUE(WaitFor([count = workers] { return CountWorkers() == count; }));
        mgr.UnInit(false);
    }
}

}  // namespace
}  // namespace analysis::nedra::transport
