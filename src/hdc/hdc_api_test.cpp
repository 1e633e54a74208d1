#include "hdc/hdc_api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hdc/session_test_support.h"
#include "hdc/test_support.h"

namespace {

using orla::kCoreSide;
using orla::kProfilingSide;
using orla::test::InjectFault;
using orla::test::Listener;
using orla::test::Segment;
using orla::test::SendRaw;
using orla::test::Session;
using orla::test::Text;

// Both ends of one session in this process, and a promise that nothing of them stays behind.
class HdcTest : public testing::Test {
protected:
    void SetUp() override {
        orla::control::Reset();
        listener_.emplace();
        session_.emplace(*listener_);
        ASSERT_TRUE(session_->host != nullptr && session_->device != nullptr);
        orla::control::StartLogCapture();
    }

    void TearDown() override {
        orla::control::ClearFaults();
        session_.reset();
        listener_.reset();
        orla::control::StopLogCapture();
        EXPECT_EQ(0u, orla::control::CountLiveHandles().Total());
    }

    static bool Logged(const std::string& words) {
        const auto lines = orla::control::CapturedLines();
        return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
            return line.text.find(words) != std::string::npos;
        });
    }

    // Reads one message at the device's end; what it answered, with the text for kHdcReadDone.
    struct ReadAnswer {
        int result;
        std::string text;
    };
    ReadAnswer Read(decltype(HdcRead)* read = HdcRead,
                    const orla::LogSide& side = kCoreSide) const {
        void* buffer = &read;
        uint32_t length = 77;
        const int result = read(session_->device, &buffer, &length, orla::kMaxMessage, side);
        if (result != kHdcReadDone) {
            EXPECT_EQ(nullptr, buffer);
            EXPECT_EQ(0u, length);
            return {result, ""};
        }
        const orla::HeapBlock owned(static_cast<char*>(buffer));
        return {result, std::string(owned.get(), length)};
    }

    std::optional<Listener> listener_;
    std::optional<Session> session_;
};

TEST_F(HdcTest, MessagesOfEveryLengthArriveWhole) {
    uint32_t maxSegment = 0;
    ASSERT_EQ(0, HdcGetCapacity(&maxSegment));
    const size_t limit = maxSegment - orla::kSegmentOverhead;
    for (const size_t length : {size_t{1}, limit - 1, limit, limit + 1, 3 * limit, 5 * limit + 7}) {
        SCOPED_TRACE(length);
        const std::string message = Text(length);
        const uint64_t sends = orla::control::CallCount("halHdcSend");
        auto writing = std::async(std::launch::async, [&] {
            return HdcWrite(session_->host, message.data(), static_cast<int>(message.size()));
        });
        const ReadAnswer answer = Read();
        EXPECT_EQ(0, writing.get());
        EXPECT_EQ(kHdcReadDone, answer.result);
        EXPECT_TRUE(message == answer.text);
        EXPECT_EQ((length + limit - 1) / limit, orla::control::CallCount("halHdcSend") - sends);
    }
}

TEST_F(HdcTest, ReadsWithoutWaitingTellEmptyFromClosed) {
    EXPECT_EQ(kHdcReadEmpty, Read(HdcReadNb).result);
    SendRaw(session_->host, Segment("head", 0));
    std::thread late([this] {
        while (orla::control::CallCount("halHdcRecv") < 4) {
            std::this_thread::yield();  // until the read waits for the rest
        }
        SendRaw(session_->host, Segment(" and tail", 1));
    });
    const ReadAnswer whole = Read(HdcReadNb);
    late.join();
    EXPECT_EQ("head and tail", whole.text);
    SendRaw(session_->host, Segment("the rest never comes", 0));
    Session::Close(&session_->host);
    EXPECT_EQ(kHdcReadClosed, Read().result);
    EXPECT_EQ(kHdcReadClosed, Read(HdcReadNb).result);
    EXPECT_EQ(kHdcReadClosed, Read(HdcRead, kProfilingSide).result);
    EXPECT_TRUE(Logged("[HdcSessionRead]Session is closed."));
}

TEST_F(HdcTest, OneReceiveMayBringSeveralMessages) {
    session_.reset();
    listener_.reset();
    ASSERT_EQ("", orla::control::LoadScenario(R"({"liberties": {"receive": "several"}})"));
    listener_.emplace();
    session_.emplace(*listener_);
    for (const auto& segment :
         {Segment("on", 0), Segment("e", 1), Segment("two", 1), Segment("thr", 0), Segment("e", 0),
          Segment("e", 1), Segment("lost", 0)}) {
        SendRaw(session_->host, segment);
    }
    const uint64_t receives = orla::control::CallCount("halHdcRecv");
    EXPECT_EQ("one", Read().text);
    EXPECT_EQ("two", Read(HdcReadNb).text);
    EXPECT_EQ("three", Read().text);
    EXPECT_EQ(2u, orla::control::CallCount("halHdcRecv") - receives);
    session_->host->Close();
    EXPECT_EQ(kHdcReadClosed, Read().result);
}

TEST_F(HdcTest, AMessageAboveTheLimitFailsTheRead) {
    for (const uint32_t length : {99u, 100u}) {
        const std::string message = Text(length);
        ASSERT_EQ(0, HdcWrite(session_->host, message.data(), static_cast<int>(length)));
        void* buffer = nullptr;
        uint32_t received = 0;
        EXPECT_EQ(length == 99 ? kHdcReadDone : kHdcReadFailed,
                  HdcReadPolling(session_->device, &buffer, &received, 100, 99));
        EXPECT_EQ(length == 99 ? 99u : 0u, received);
        const orla::HeapBlock owned(static_cast<char*>(buffer));
    }
}

// The reader of a message that never pauses is faster than its peer now and then: more often here
// than it would wait in one silence.
TEST_F(HdcTest, PausesAreCountedAnewWithEachSegment) {
    constexpr size_t kSegments = 200;
    const std::string segment = Segment("x", 0);
    std::atomic<bool> isRead{false};
    SendRaw(session_->host, segment);
    std::thread peer([&] {
        for (size_t i = 1; i < kSegments; ++i) {
            const uint64_t calls = orla::control::CallCount("halHdcRecv");
            while (!isRead && orla::control::CallCount("halHdcRecv") < calls + 2) {
                std::this_thread::yield();  // until the reader has found nothing
            }
            SendRaw(session_->host, segment);
        }
        SendRaw(session_->host, Segment("end", 1));
    });
    const ReadAnswer answer = Read(HdcReadNb);
    isRead = true;
    peer.join();
    EXPECT_EQ(std::string(kSegments, 'x') + "end", answer.text);
}

TEST_F(HdcTest, ForeignBytesFailTheReadOnBothSides) {
    SendRaw(session_->host, Segment("a", 1, 1, 175));
    EXPECT_EQ(kHdcReadFailed, Read().result);
    EXPECT_TRUE(Logged("Hdc store package, error"));
    EXPECT_TRUE(Logged("]>>> Hdc receive package error"));
    SendRaw(session_->host, "short");
    EXPECT_EQ(kHdcReadFailed, Read(HdcReadNb, kProfilingSide).result);
    EXPECT_TRUE(Logged(") [HdcSessionRead]Hdc receive package, error"));
}

TEST_F(HdcTest, EveryDriverFailureFailsTheCallAndLeaksNothing) {
    const struct {
        const char* call;
        bool write;
        uint64_t after;
        const char* words;
    } cases[] = {{"drvHdcGetCapacity", true, 0, "Hdc Capacity Failed, err: -1"},
                 {"drvHdcAllocMsg", true, 0, "Hdc Alloc Msg, error: 7"},
                 {"drvHdcAddMsgBuffer", true, 1, "Hdc Add Msg Buffer, error: 7"},
                 {"halHdcSend", true, 1, "Hdc Send, error: 7"},
                 {"drvHdcReuseMsg", true, 0, "Hdc Reuse Msg, error: 7"},
                 {"drvHdcAllocMsg", false, 0, "Hdc Alloc Msg, error 7"},
                 {"halHdcRecv", false, 0, "Hdc Receive, error 7"},
                 {"drvHdcGetMsgBuffer", false, 1, "Hdc Get Msg Buffer, error 7"},
                 {"drvHdcReuseMsg", false, 0, "Hdc Reuse Msg, error: 7"}};
    const std::string two = Text(600000);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.call) + (c.write ? " write" : " read"));
        const size_t messages = orla::control::CountLiveHandles().messages;
        if (c.write) {
            InjectFault(c.call, 7, c.after);
            EXPECT_EQ(-1, HdcWrite(session_->host, two.data(), static_cast<int>(two.size())));
        } else {
            SendRaw(session_->host, Segment("one", 0));
            SendRaw(session_->host, Segment("two", 1));
            InjectFault(c.call, 7, c.after);
            EXPECT_EQ(kHdcReadFailed, Read().result);
        }
        EXPECT_TRUE(Logged(c.words));
        EXPECT_EQ(messages, orla::control::CountLiveHandles().messages);
        orla::control::ClearFaults();
        // What the failed call left in the session would be taken for the next case's.
        session_.emplace(*listener_);
    }
}

TEST_F(HdcTest, CapacityOutsideItsRangeFailsEveryWrite) {
    for (const auto& [segment, result] :
         {std::pair{1023u, -1}, {1024u, 0}, {524288u, 0}, {524289u, -1}}) {
        ASSERT_EQ("", orla::control::LoadScenario("{\"max_segment\": " + std::to_string(segment) +
                                                  ", \"devices\": [{\"logical\": 0}]}"));
        EXPECT_EQ(result, HdcWrite(session_->host, "a", 1)) << segment;
    }
}

TEST_F(HdcTest, ArgumentsAreChecked) {
    void* buffer = nullptr;
    uint32_t length = 0;
    int value = 5;
    HdcSessionPtr session;
    const struct {
        const char* words;
        int result;
    } cases[] = {
        {"session is nullptr", HdcRead(nullptr, &buffer, &length)},
        {"recv_buf is nullptr", HdcRead(session_->device, nullptr, &length)},
        {"recv_len is nullptr", HdcReadNb(session_->device, &buffer, nullptr)},
        {"buf is nullptr", HdcWrite(session_->host, nullptr, 1)},
        {"len is invalid", HdcWriteNb(session_->host, "a", 0)},
        {"len is invalid", HdcWrite(session_->host, "a", -1)},
        {"peer_node is invalid", HdcSessionConnect(-1, 0, listener_->client(), &session)},
        {"peer_devid is invalid", HdcSessionConnect(0, -1, listener_->client(), &session)},
        {"client is nullptr", HdcSessionConnect(0, 0, nullptr, &session)},
        {"host_pid is invalid", HdcSessionConnectEx(0, 0, -1, listener_->client(), &session)},
        {"session is nullptr", HdcSessionClose(nullptr)},
        {"server is nullptr", HdcServerDestroy(nullptr)},
        {"devId is nullptr", IdeGetDevIdBySession(session_->device, nullptr)},
        {"runEnv is nullptr", HdcGetSessionRunEnv(session_->device, nullptr)},
        {"pid is nullptr", HdcGetSessionPid(session_->device, nullptr)},
        {"", HdcGetCapacity(nullptr)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(-1, c.result) << c.words;
        EXPECT_TRUE(Logged(c.words)) << c.words;
    }
    EXPECT_EQ(0, HdcServerDestroy(nullptr, kProfilingSide));
    EXPECT_EQ(0, HdcClientDestroy(nullptr));
    InjectFault("halHdcGetSessionAttr", 9);
    EXPECT_EQ(-1, HdcGetSessionVfId(session_->device, &value, kProfilingSide));
    EXPECT_EQ(5, value);
    EXPECT_TRUE(Logged("Hdc get session vfid failed, err: 9"));
    EXPECT_EQ(0, HdcGetSessionVfId(session_->device, &value));
    EXPECT_EQ(0, value);
}

TEST_F(HdcTest, AServerIsDestroyedWithPatienceForABusyDriverOnly) {
    const HdcServerPtr other = HdcServerCreate(0, 12);
    ASSERT_NE(nullptr, other);
    InjectFault("drvHdcServerDestroy", DRV_ERROR_CLIENT_BUSY, 0, 2);
    EXPECT_EQ(0, HdcServerDestroy(other));
    EXPECT_TRUE(Logged("hdc server destroy error : 23, times 2"));
    const uint64_t before = orla::control::CallCount("drvHdcServerDestroy");
    EXPECT_EQ(0, HdcServerDestroy(other));  // it is gone, and the driver isn't asked again
    EXPECT_EQ(before, orla::control::CallCount("drvHdcServerDestroy"));
    drvHdcServer_t third = nullptr;
    ASSERT_EQ(0, drvHdcServerCreate(0, 12, &third));
    InjectFault("drvHdcServerDestroy", 7);
    EXPECT_EQ(0, HdcServerDestroy(HdcServer::Adopt(third)));
    EXPECT_EQ(before + 1, orla::control::CallCount("drvHdcServerDestroy"));
    EXPECT_EQ(0, drvHdcServerDestroy(third));  // the fault has kept it from the driver
}

TEST_F(HdcTest, ASessionThatCannotBeReferencedIsClosed) {
    const size_t sessions = orla::control::CountLiveHandles().sessions;
    InjectFault("drvHdcSetSessionReference", 7);
    HdcSessionPtr session;
    EXPECT_EQ(-1, HdcSessionConnect(0, 0, listener_->client(), &session));
    EXPECT_EQ(nullptr, session);
    EXPECT_EQ(sessions, orla::control::CountLiveHandles().sessions);
}

TEST(IdeCreatePacket, MakesARequestRecord) {
    void* packet = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(0, IdeCreatePacket(5, "abc", 3, &packet, &length));
    EXPECT_EQ(15u, length);
    EXPECT_EQ(0, std::memcmp(packet, "\5\0\0\0\0\0\0\0\3\0\0\0abc\0", 16));
    IdeFreePacket(packet);
    EXPECT_EQ(-1, IdeCreatePacket(5, nullptr, 3, &packet, &length));
    EXPECT_EQ(-1, IdeCreatePacket(5, "abc", UINT32_MAX - 12, &packet, &length));
}

}  // namespace
