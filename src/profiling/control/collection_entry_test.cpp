#include "profiling/control/collection_entry.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <future>

#include "hdc/thread_limit_test_support.h"
#include "profiling/collect/collect_test_support.h"
#include "profiling/config/device_test_support.h"
#include "profiling/control/prof_msg_handler.h"
#include "profiling/control/task_manager.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"
#include "proto/codec.h"

namespace analysis::nedra::device {
namespace {

using orla::test::PacedHost;
using orla::test::WaitFor;
using orla::test::WorkDirs;
using testing::ElementsAre;

// A host on a control session. While it doesn't read, a reply to it hangs, even when the device
// has closed the session.
class ControlHost : public PacedHost {
public:
    int RecvPacket(IdeRequest** packet) override {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return isClosed_ || !said_.empty(); });
        if (isClosed_) {
            return transport::kRecvFailed;
        }
        *packet = static_cast<IdeRequest*>(std::calloc(1, sizeof(IdeRequest) + said_.size()));
        (*packet)->len = static_cast<uint32_t>(said_.size());
        std::memcpy((*packet)->value, said_.data(), said_.size());
        said_.clear();
        return static_cast<int>(sizeof(IdeRequest) + (*packet)->len);
    }
    void DestroyPacket(IdeRequest* packet) override { std::free(packet); }
    int CloseSession() override {
        const std::lock_guard<std::mutex> lock(mutex_);
        isClosed_ = true;
        changed_.notify_all();
        return 0;
    }
    void Say(const std::string& envelope) {
        const std::lock_guard<std::mutex> lock(mutex_);
        said_ = envelope;
        changed_.notify_all();
    }
    bool IsClosed() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return isClosed_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string said_;  // and not received yet
    bool isClosed_ = false;
};

template <typename Message>
std::string Envelope(const Message& message) {
    return message::EncodeMessage(std::make_shared<Message>(message));
}

std::string JobStart(const std::string& jobId) {
    proto::JobStartReq request;
    request.mutable_hdr()->set_job_ctx(R"({"dev_id": "0", "job_id": ")" + jobId + R"("})");
    request.set_sampleconfig(R"({"job_id": ")" + jobId + R"("})");
    return Envelope(request);
}

std::string Reply(int status) {
    message::StatusInfo info;
    info.status = status;
    return Envelope(*CreateResponse(info));
}

struct Handshakes : orla::device_test::DeviceTest {
    Handshakes() {
        std::filesystem::create_directories(orla::test::kWorkRoot);
        EXPECT_EQ(entry.Init(), 0);
        EXPECT_EQ(TaskManager::instance().Init(), 0);
    }
    ~Handshakes() override {
        entry.Uninit();
        TaskManager::instance().Uninit();
    }
    template <typename Handshake = proto::CtrlChannelHandshake>
    int Shake(const std::shared_ptr<PacedHost>& host, const std::string& jobId,
              const std::string& mode = "") {
        Handshake handshake;
        handshake.set_jobid(jobId);
        handshake.set_mode(mode);
        return entry.Handle(host, Envelope(handshake), 0);
    }

    CollectionEntry& entry = CollectionEntry::instance();
    std::shared_ptr<ControlHost> first = std::make_shared<ControlHost>();
    std::shared_ptr<ControlHost> second = std::make_shared<ControlHost>();
    std::shared_ptr<PacedHost> data = std::make_shared<PacedHost>();
};

TEST_F(Handshakes, OfTwoForADeviceAndModeTheLaterIsRefused) {
    first->Read(false);  // holds its handshake between the look at the last job and the registry
    auto held = std::async(std::launch::async, [&] { return Shake(first, "a", "def_mode"); });
    ASSERT_TRUE(WaitFor([&] { return first->Begun() == 1; }));
    EXPECT_EQ(Shake(second, "b"), -1);  // no mode is that mode
    EXPECT_THAT(second->Got(), ElementsAre(Reply(1)));
    EXPECT_TRUE(second->IsClosed());
    first->Read(true);
    EXPECT_EQ(held.get(), 0);
    EXPECT_THAT(first->Got(), ElementsAre(Reply(0)));
    EXPECT_EQ(entry.GetModeJobIdRelation(0, ""), "a");
}

TEST_F(Handshakes, AThreadThatDoesNotStartLeavesNothing) {
    std::shared_ptr<transport::Uploader> found;
    orla::test::onRefused = [&] { transport::UploaderMgr::instance().GetUploader("job", found); };
    orla::test::threadsLeft = 0;
    EXPECT_NE(Shake(first, "job"), 0);
    EXPECT_NE(Shake<proto::DataChannelHandshake>(data, "job"), 0);
    orla::test::threadsLeft = -1;
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->UploadData("x", 1), -1) << "nobody would ever send it";
    EXPECT_FALSE(found->Flush());
    found.reset();
    EXPECT_THAT(first->Got(), ElementsAre(Reply(0), Reply(1)));
    EXPECT_THAT(data->Got(), ElementsAre(Reply(1)));
    EXPECT_TRUE(first->IsClosed());
    EXPECT_EQ(entry.GetReceiver("job", 0), nullptr);
    EXPECT_EQ(entry.GetModeJobIdRelation(0, ""), "");
    EXPECT_EQ(transport::UploaderMgr::instance().UploadData("job", "x", 1), -1);
}

TEST_F(Handshakes, TheEndComesWithTheDataOfAllJobs) {
    ASSERT_EQ(Shake(first, "a"), 0);
    ASSERT_EQ(Shake(second, "b", "system-wide"), 0);
    const auto otherData = std::make_shared<PacedHost>();
    ASSERT_EQ(Shake<proto::DataChannelHandshake>(data, "a"), 0);
    ASSERT_EQ(Shake<proto::DataChannelHandshake>(otherData, "b", "system-wide"), 0);
    first->Say(JobStart("a"));
    ASSERT_TRUE(WaitFor([&] { return first->Got().size() == 2; }));  // and waits for the next
    second->Read(false);
    second->Say(JobStart("b"));
    ASSERT_TRUE(WaitFor([&] { return second->Begun() == 2; }));  // in the middle of the command

    const auto busy = entry.GetReceiver("b", 0);
    auto end = std::async(std::launch::async, [&] { return entry.Uninit(); });
    ASSERT_TRUE(WaitFor([&] { return busy->IsQuit(); }));
    second->Read(true);
    EXPECT_EQ(end.get(), 0);
    EXPECT_THAT(WorkDirs(), testing::IsEmpty());
    for (const auto& host : {data, otherData}) {
        const auto got = host->Got();
        ASSERT_EQ(got.size(), 2U);
        EXPECT_THAT(got.back(), testing::HasSubstr("DataChannelFinish"));
    }
    const auto late = std::make_shared<ControlHost>();
    EXPECT_EQ(Shake(late, "c"), -1);
    EXPECT_THAT(late->Got(), testing::IsEmpty());
}

}  // namespace
}  // namespace analysis::nedra::device
