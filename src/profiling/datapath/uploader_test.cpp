#include "profiling/datapath/uploader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "hdc/test_support.h"
#include "profiling/datapath/reader_buffer.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::transport {

namespace {

using orla::test::LogCapture;
using orla::test::PacedHost;
using orla::test::WaitFor;
using std::chrono::milliseconds;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

constexpr milliseconds kShort{60};

int Upload(Uploader& uploader, const std::string& text) {
    return uploader.UploadData(text.data(), static_cast<int>(text.size()));
}

struct Road {
    explicit Road(uint64_t capacity, milliseconds limit = kStallLimit, bool start = true)
        : uploader(std::make_shared<Uploader>(host, limit)) {
        EXPECT_EQ(0, uploader->Init(capacity));
        EXPECT_EQ(0, start ? uploader->Start() : 0);
    }
    // The thread hangs in the send of "0"; `count` more are queued.
    void Hang(int count) {
        host->Read(false);
        EXPECT_EQ(0, Upload(*uploader, "0"));
        EXPECT_TRUE(WaitFor([this] { return host->Begun() == 1; }));
        for (int i = 1; i <= count; ++i) {
            EXPECT_EQ(0, Upload(*uploader, std::to_string(i)));
        }
    }

    std::shared_ptr<PacedHost> host = std::make_shared<PacedHost>();
    std::shared_ptr<Uploader> uploader;
};

Texts Numbers(int count) {
    Texts texts;
    for (int i = 0; i < count; ++i) {
        texts.push_back(std::to_string(i));
    }
    return texts;
}

TEST(Uploader, ForcedStopDropsTheQueueAndFreesTheBlockedProducer) {
    LogCapture log;
    Road road(10);
    road.Hang(10);
    auto blocked = std::async([&road] { return Upload(*road.uploader, "late"); });
    auto stop = std::async([&road] { return road.uploader->Stop(true); });
    EXPECT_EQ(-1, blocked.get());
    road.host->Read(true);
    EXPECT_EQ(0, stop.get());
    EXPECT_FALSE(road.uploader->Flush());
    EXPECT_EQ(Numbers(1), road.host->Got());
    EXPECT_THAT(
        log.Take("EI"),
        testing::IsSupersetOf({"I Stopping uploader, force_quit:1.",
                               "E [Uploader::UploadData]Push data failed.",
                               "I queue size remaining: 10, force_quit:1",
                               "E A forced stop, uploader gives up, messages lost:10, bytes:11"}));
}

// In each case three messages wait for a host that takes nothing, and everybody who waits for it
// comes back.
TEST(Uploader, GivesAHostUpForEachReason) {
    const struct {
        const char* reason;
        std::function<void(Road&)> end;
    } cases[] = {
        {"Host took no segment for 60 ms", [](Road& road) { road.uploader->BoundStall(true); }},
        {"The agent ends", [](Road& road) { road.uploader->BoundUntil(Uploader::Clock::now()); }},
        {"gone", [](Road& road) { road.uploader->GiveUp("gone"); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        LogCapture log;
        Road road(2, kShort);
        road.Hang(2);
        std::vector<std::future<int>> blocked;
        for (int i = 0; i < 3; ++i) {
            blocked.push_back(std::async([&road] { return Upload(*road.uploader, "late"); }));
        }
        c.end(road);
        EXPECT_FALSE(road.uploader->Flush());
        for (auto& producer : blocked) {
            EXPECT_EQ(-1, producer.get());
        }
        EXPECT_TRUE(road.host->Closed());
        road.uploader->BoundStall(false);  // nothing comes back
        EXPECT_EQ(-1, Upload(*road.uploader, "too late"));
        road.uploader.reset();
        EXPECT_EQ(Texts(), road.host->Got());
        EXPECT_THAT(log.Take("E"),
                    testing::Contains(std::string("E ") + c.reason +
                                      ", uploader gives up, messages lost:3, bytes:3"));
    }
}

TEST(Uploader, LosesNothingAtAHostThatOnlyPausesOrIsSlow) {
    const struct {
        const char* what;
        bool bound, lift, segments;
        milliseconds limit, pause, pace;
    } cases[] = {
        {"before the stop", false, false, false, kShort, 3 * kShort, {}},
        {"the bound is lifted", true, true, false, 10 * kShort, 11 * kShort, {}},
        {"nobody waits", true, false, false, kShort, 3 * kShort, {}},
        {"slow, but within the limit", true, false, false, 10 * kShort, {}, kShort},
        {"a message longer than the limit", true, false, true, 4 * kShort, 10 * kShort, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        constexpr int kMessages = 15;
        Road road(kMessages, c.limit);
        road.Hang(kMessages - 1);
        if (c.bound) {
            road.uploader->BoundStall(true);
            road.uploader->BoundStall(!c.lift);
        }
        std::future<bool> flushed;
        if (c.segments) {
            flushed = std::async([&road] { return road.uploader->Flush(); });
        }
        for (milliseconds paused{}; paused < c.pause; paused += kShort) {
            std::this_thread::sleep_for(kShort);
            if (c.segments) {
                road.host->Segment();
            }
        }
        if (c.bound) {
            road.uploader->BoundStall(false);
            road.uploader->BoundStall(!c.lift);
        }
        road.host->Read(true, c.pace);
        EXPECT_TRUE(road.uploader->Flush());
        EXPECT_TRUE(!flushed.valid() || flushed.get());
        EXPECT_EQ(0, road.uploader->Stop(false));
        EXPECT_EQ(Numbers(kMessages), road.host->Got());
    }
}

TEST(Uploader, AFailedSendCostsThatMessageOrTheSession) {
    const struct {
        const char* failing;
        Texts got;
        const char* report;
    } cases[] = {
        {"short", {"a", "short", "b"}, ", uploader gives up, messages lost:1, bytes:5"},
        {"cut", {"a", "cut"}, "A send has failed, uploader gives up, messages lost:2, bytes:4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failing);
        LogCapture log;
        Road road(4, kStallLimit, false);
        for (const char* text : {"a", c.failing, "b"}) {
            EXPECT_EQ(0, Upload(*road.uploader, text));
        }
        EXPECT_EQ(0, road.uploader->Start());
        EXPECT_FALSE(road.uploader->Flush());
        road.uploader->Stop();
        EXPECT_EQ(c.got, road.host->Got());
        EXPECT_THAT(log.Take("E"),
                    ElementsAre(testing::HasSubstr("E Failed to upload data, data_len="),
                                testing::EndsWith(c.report)));
    }
}

TEST(Uploader, RefusesWhatItCannotSend) {
    Uploader raw(std::make_shared<PacedHost>());
    EXPECT_EQ(-1, Upload(raw, "a"));
    EXPECT_TRUE(raw.Flush());
    EXPECT_EQ(0, raw.Stop(true));
    ASSERT_EQ(0, raw.Init(1));
    EXPECT_EQ(-1, raw.UploadData(nullptr, 3));
    EXPECT_EQ(-1, raw.UploadData(nullptr));
    EXPECT_EQ(-1, raw.UploadData("a", -1));
    EXPECT_EQ(-1, raw.UploadData(MessageBuffer(new MessageBlock{"no front room"})));
    EXPECT_EQ(0u, raw.GetQueueSize());
    EXPECT_EQ(0, raw.UploadData("", 0));
    EXPECT_EQ(0, raw.Uninit());
    EXPECT_EQ(nullptr, raw.GetTransport());
    EXPECT_EQ(-1, Upload(raw, "a"));
    EXPECT_FALSE(raw.Flush()) << "never started: nothing will take the message";
}

// ---- The manager -------------------------------------------------------------------------------

TEST(UploaderMgr, AReplacedUploaderEndsAtOnceAndTheNextInheritsTheEndOfTheJob) {
    LogCapture log;
    UploaderMgr mgr;
    Road old(1);
    old.Hang(1);
    mgr.AddUploader("job", old.uploader);
    auto blocked = std::async([&old] { return Upload(*old.uploader, "late"); });
    const auto next = std::make_shared<Uploader>(old.host, kShort);
    {
        const UploaderMgr::Ending ending(mgr, "job");
        const UploaderMgr::Ending stillEnding(mgr, "job");
        ASSERT_EQ(0, next->Init(1));
        mgr.AddUploader("job", next);
        EXPECT_EQ(-1, blocked.get());
        EXPECT_TRUE(old.host->Closed());
        old.uploader->Stop();
    }
    EXPECT_THAT(log.Take("E"),
                testing::Contains("E Another data session has come for the job, uploader gives up, "
                                  "messages lost:2, bytes:2"));

    struct Case {
        std::function<std::shared_ptr<void>()> end;
        const char* reason;
    };
    const Case cases[] = {
        {[&] { return std::make_shared<UploaderMgr::Ending>(mgr, "stalled"); },
         "Host took no segment for 60 ms"},
        {[&] {
             mgr.EndAllUntil(Uploader::Clock::now());
             return nullptr;
         },
         "The agent ends"},
    };
    for (const bool isThere : {true, false}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.reason);
            Road road(1, kShort);
            road.Hang(1);
            if (isThere) {
                mgr.AddUploader("stalled", road.uploader);
            }
            const auto ending = c.end();
            if (!isThere) {
                mgr.AddUploader("stalled", road.uploader);
            }
            EXPECT_EQ(-1, mgr.UploadData("stalled", "x", 1));
            road.uploader->Stop();
            EXPECT_THAT(log.Take("E"), testing::Contains(testing::HasSubstr(c.reason)));
            EXPECT_EQ(0, mgr.Uninit());
        }
    }
}

TEST(UploaderMgr, AllQueuesShareTheirMemory) {
    constexpr size_t kMessage = 100'000;
    constexpr size_t kBudget = 16 * kMessage;
    UploaderMgr mgr(kBudget);
    std::vector<std::shared_ptr<PacedHost>> hosts;
    std::vector<std::future<int>> blocked;
    const std::string data(kMessage, 'x');
    const auto upload = [&](const std::string& id) {
        return mgr.UploadData(id, data.data(), static_cast<uint32_t>(data.size()));
    };
    for (const std::string id : {"a", "b", "c"}) {
        hosts.push_back(std::make_shared<PacedHost>());
        hosts.back()->Read(false);
        ASSERT_EQ(0, mgr.CreateUploader(id, hosts.back(), 512));
        EXPECT_EQ(0, upload(id));  // a job that stands behind two others moves as well
        EXPECT_TRUE(WaitFor([&] { return hosts.back()->Begun() == 1; }));
        blocked.push_back(std::async(std::launch::async, [&, id] {
            int count = 0;
            while (upload(id) == 0) {
                ++count;
            }
            return count;
        }));
        // One queue alone takes the half, the next one half of the rest, and so on.
        const size_t taken = kBudget - (kBudget >> hosts.size()) - hosts.size() * kMessage;
        EXPECT_TRUE(WaitFor([&] { return mgr.budget()->used() >= taken; }));
        EXPECT_LE(mgr.budget()->used(), kBudget - (kBudget >> hosts.size()));
    }
    std::shared_ptr<Uploader> first;
    mgr.GetUploader("a", first);
    hosts[0]->Read(true);  // the rest of "a" goes on
    EXPECT_TRUE(WaitFor([&] { return hosts[0]->Got().size() > 16; }));
    hosts[1]->Read(true);
    hosts[2]->Read(true);
    mgr.DelAllUploader();
    first.reset();
    for (auto& each : blocked) {
        EXPECT_GT(each.get(), 0);
    }
    EXPECT_EQ(0u, mgr.budget()->used());
}

TEST(UploaderMgr, KnowsItsIdsAndModes) {
    LogCapture log;
    UploaderMgr mgr;
    std::shared_ptr<Uploader> found;
    const Road road(4);
    mgr.AddUploader("", road.uploader);
    mgr.AddUploader("empty", nullptr);
    mgr.AddUploader("job", road.uploader);
    for (const char* id : {"", "empty"}) {
        mgr.GetUploader(id, found);
        EXPECT_EQ(nullptr, found) << id;
    }
    EXPECT_EQ(-1, mgr.UploadData("nobody", "abc", 3));
    EXPECT_EQ(-1, mgr.UploadData("nobody", TakeFilledBuffer(5)));
    EXPECT_EQ(-1, mgr.UploadData("job", "", {}, std::make_shared<message::JobContext>()));
    EXPECT_EQ(-1, mgr.UploadData("job", "x", {}, nullptr));
    EXPECT_EQ(-1, mgr.CreateUploader("job", nullptr, 1));
    EXPECT_THAT(log.Take("E"),
                ElementsAre("E Get id[nobody] uploader failed, dataLen:3",
                            "E Get id[nobody] uploader failed, dataLen:5", "E data is empty",
                            "E jobCtx is null", "E Transport is invalid!"));
    mgr.UpdateDevModeJobMap(0, "", "first");
    mgr.UpdateDevModeJobMap(0, "def_mode", "second");
    EXPECT_EQ("second", mgr.GetJobId(0, ""));
    EXPECT_EQ("", mgr.GetJobId(3, "system-wide"));
    mgr.DelUploader("job");
    EXPECT_EQ(-1, mgr.UploadData("job", "abc", 3));
    EXPECT_EQ(0, Upload(*road.uploader, "whoever holds it goes on"));
}

TEST(FileChunk, IsWhatTheCodecWouldMakeWhicheverWayItWasEncoded) {
    constexpr size_t kCapacity = 2 << 20;  // its length takes one byte more than that of most
    ReaderBuffer reader(kCapacity, {"data/x.data", false, 5}, message::JobContext().ToString());
    for (const size_t size : {size_t{1}, size_t{127}, size_t{128}, size_t{16384}, kCapacity / 2,
                              kCapacity - 1, kCapacity}) {
        SCOPED_TRACE(size);
        const Road road(1);
        UploaderMgr mgr;
        mgr.AddUploader("job", road.uploader);
        const auto jobCtx = std::make_shared<message::JobContext>();
        std::string data(size, '\xff');
        data.back() = '\0';
        EXPECT_EQ(0, mgr.UploadData("job", data, {"data/x.data", false, 5}, jobCtx));
        ASSERT_NE(nullptr, reader.Data());
        data.copy(reader.Data(), size);
        EXPECT_EQ(0, mgr.UploadData("job", reader.TakeMessage(size)));
        mgr.DelAllUploader();
        road.uploader->Stop(false);

        const auto expected = std::make_shared<proto::FileChunkReq>();
        expected->mutable_hdr()->set_job_ctx(jobCtx->ToString());
        expected->set_filename("data/x.data");
        expected->set_offset(-1);
        expected->set_chunk(data);
        expected->set_chunksizeinbytes(static_cast<int>(size));
        expected->set_datamodule(5);
        const std::string envelope = message::EncodeMessage(expected);
        EXPECT_TRUE(road.host->Got() == Texts({envelope, envelope}));
    }
}

TEST(MessageBuffer, ABlockServesAgainForWhatIsNotMuchSmaller) {
    const struct {
        size_t first, next;
        bool again;
    } rows[] = {{1 << 20, 1 << 20, true}, {1 << 20, 600000, true},   {1 << 20, 300000, false},
                {1 << 20, 100, false},    {1 << 20, 2 << 20, false}, {4200, 4100, true},
                {4200, 2000, false},      {100, 4200, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.first) + ", " + std::to_string(row.next));
        TrimMessageBuffers();
        MessageBuffer first = TakeMessageBuffer(row.first);
        const char* block = first->bytes.data();
        first->bytes.append(row.first, 'x');
        first->begin = kFrontRoom + 1;
        first.reset();
        const MessageBuffer next = TakeMessageBuffer(row.next);
        EXPECT_EQ(block == next->bytes.data(), row.again);
        EXPECT_EQ(0U, next->size());
        EXPECT_EQ(kFrontRoom, next->begin);
    }
    TrimMessageBuffers();
}

}  // namespace

}  // namespace analysis::nedra::transport
