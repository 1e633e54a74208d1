#include "profiling/datapath/uploader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    road.uploader->Flush();
    EXPECT_EQ(Numbers(1), road.host->Got());
    EXPECT_THAT(log.Take("EI"),
                testing::IsSupersetOf({"I Stopping uploader, force_quit:1.",
                                       "E [Uploader::UploadData]Push data failed.",
                                       "I queue size remaining: 10, force_quit:1"}));
}

TEST(Uploader, GivesUpAHostThatTakesNothingWhileTheJobStops) {
    LogCapture log;
    Road road(2, kShort);
    road.Hang(2);
    std::vector<std::future<int>> blocked;
    for (int i = 0; i < 3; ++i) {
        blocked.push_back(std::async([&road] { return Upload(*road.uploader, "late"); }));
    }
    road.uploader->BoundStall(true);
    road.uploader->Flush();
    for (auto& producer : blocked) {
        EXPECT_EQ(-1, producer.get());
    }
    road.uploader->BoundStall(false);  // nothing comes back
    EXPECT_EQ(-1, Upload(*road.uploader, "too late"));
    road.uploader.reset();
    EXPECT_EQ(Texts(), road.host->Got());
    EXPECT_THAT(log.Take("E"),
                testing::IsSupersetOf({"E Host took no message for 60 ms, uploader gives up, "
                                       "messages lost:3, bytes:3",
                                       "E Failed to upload data, data_len=1, sent len=-1"}));
}

TEST(Uploader, LosesNothingAtAHostThatOnlyPauses) {
    const struct {
        const char* what;
        bool bound, lift;
        milliseconds limit, pause, pace;
    } cases[] = {
        {"before the stop", false, false, kShort, 3 * kShort, {}},
        {"the bound is lifted", true, true, 10 * kShort, 11 * kShort, {}},
        {"slow, but within the limit", true, false, 10 * kShort, {}, kShort},
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
        std::this_thread::sleep_for(c.pause);
        road.host->Read(true, c.pace);
        road.uploader->Flush();
        EXPECT_EQ(0, road.uploader->Stop(false));
        EXPECT_EQ(Numbers(kMessages), road.host->Got());
    }
}

TEST(Uploader, FailedSendCostsThatMessageOnly) {
    LogCapture log;
    Road road(4);
    for (const char* text : {"a", "short", "b"}) {
        EXPECT_EQ(0, Upload(*road.uploader, text));
    }
    road.uploader->Stop(false);
    EXPECT_THAT(road.host->Got(), ElementsAre("a", "short", "b"));
    EXPECT_THAT(log.Take("E"), ElementsAre("E Failed to upload data, data_len=5, sent len=4"));
}

TEST(Uploader, RefusesWhatItCannotSend) {
    Uploader raw(std::make_shared<PacedHost>());
    EXPECT_EQ(-1, Upload(raw, "a"));
    raw.Flush();
    EXPECT_EQ(0, raw.Stop(true));
    ASSERT_EQ(0, raw.Init(1));
    EXPECT_EQ(-1, raw.UploadData(nullptr, 3));
    EXPECT_EQ(-1, raw.UploadData(nullptr));
    EXPECT_EQ(-1, raw.UploadData("a", -1));
    EXPECT_EQ(-1, raw.UploadData(std::make_shared<std::string>("no front room")));
    EXPECT_EQ(0u, raw.GetQueueSize());
    EXPECT_EQ(0, raw.UploadData("", 0));
    EXPECT_EQ(0, raw.Uninit());
    EXPECT_EQ(nullptr, raw.GetTransport());
    EXPECT_EQ(-1, Upload(raw, "a"));
    raw.Flush();  // never started: nothing will take the message
}

// ---- The manager -------------------------------------------------------------------------------

TEST(UploaderMgr, HoldsNobodyUpWhileAReplacedUploaderHangs) {
    UploaderMgr mgr;
    Road old(4, 10 * kShort);
    old.Hang(1);
    mgr.AddUploader("job", std::exchange(old.uploader, nullptr));
    auto replace =
        std::async([&mgr] { return mgr.CreateUploader("job", std::make_shared<PacedHost>(), 4); });
    std::shared_ptr<Uploader> found;
    ASSERT_TRUE(WaitFor([&] {
        mgr.GetUploader("job", found);
        const bool isNew = found->GetTransport() != old.host;
        return std::exchange(found, nullptr) != nullptr && isNew;
    }));
    EXPECT_EQ(0, mgr.UploadData("job", "a", 1));
    EXPECT_EQ(0, replace.get());
    mgr.AddUploader("stalled", Road(1, kShort).uploader);
    EXPECT_EQ(0, mgr.Uninit());
    mgr.GetUploader("job", found);
    EXPECT_EQ(nullptr, found);
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
    mgr.BoundStall("nobody", true);
    EXPECT_EQ(-1, mgr.UploadData("nobody", "abc", 3));
    EXPECT_EQ(-1, mgr.UploadData("nobody", std::make_shared<std::string>(kFrontRoom + 5, 'x')));
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

TEST(MessageBuffer, LargeOnesServeAgainUntilTrimmed) {
    constexpr size_t kLarge = 1 << 20;
    TrimMessageBuffers();
    MessageBuffer first = TakeMessageBuffer(kLarge);
    const std::string* block = first.get();
    first->append(kLarge, 'x');
    first.reset();
    EXPECT_NE(block, TakeMessageBuffer(2 * kLarge).get());  // too small for that
    const MessageBuffer again = TakeMessageBuffer(kLarge / 2);
    EXPECT_EQ(block, again.get());
    EXPECT_EQ(kFrontRoom, again->size());
    TrimMessageBuffers();
}

}  // namespace

}  // namespace analysis::nedra::transport
