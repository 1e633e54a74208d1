#include "profiling/datapath/hdc_transport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "hdc/hdc_api.h"
#include "hdc/test_support.h"
#include "profiling/datapath/thread_test_support.h"

namespace analysis::nedra::transport {

namespace {

using orla::test::LogCapture;
using orla::test::WaitFor;
using testing::Contains;

// A session whose device end a transport has, and both handles of the host's end.
class HdcTransportTest : public testing::Test {
protected:
    void SetUp() override {
        orla::control::Reset();
        server_ = HdcServerCreate(0, kHdcServiceRequests);
        client_ = HdcClientCreate(kHdcServiceRequests);
        ASSERT_EQ(0, HdcSessionConnect(0, 0, client_, &host_));
        session_ = HdcServerAccept(server_);
        transport_ = HDCTransportFactory().CreateHdcTransport(session_);
        ASSERT_NE(nullptr, transport_);
    }

    void TearDown() override {
        orla::control::ClearFaults();
        transport_.reset();
        CloseHost();
        EXPECT_EQ(0, HdcClientDestroy(client_));
        EXPECT_EQ(0, HdcServerDestroy(server_));
        EXPECT_EQ(0u, orla::control::CountLiveHandles().Total());
    }

    void CloseHost() {
        if (host_ != nullptr) {
            HdcSessionClose(std::exchange(host_, nullptr));
        }
    }

    std::string HostReads() const {
        void* buffer = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(kHdcReadDone, HdcRead(host_, &buffer, &length));
        const orla::HeapBlock block(static_cast<char*>(buffer));
        return {block.get(), length};
    }

    static std::string Packet(const std::string& value, uint32_t len) {
        const IdeRequest head = {orla::kRequestProfiling, 0, len};
        return std::string(reinterpret_cast<const char*>(&head), sizeof(head)) + value;
    }

    HdcServerPtr server_;
    drvHdcClient_t client_ = nullptr;
    HdcSessionPtr host_;
    HdcSessionPtr session_;
    std::shared_ptr<ITransport> transport_;
};

TEST_F(HdcTransportTest, SendsOnePacketPerMessageCopiedOrInPlace) {
    uint32_t maxSegment = 0;
    ASSERT_EQ(0, HdcGetCapacity(&maxSegment));
    const size_t oneSegment = maxSegment - orla::kSegmentOverhead - sizeof(IdeRequest);
    for (const size_t size : {size_t{0}, size_t{1}, oneSegment, oneSegment + 1, size_t{3000001}}) {
        SCOPED_TRACE(size);
        std::string value(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            value[i] = static_cast<char>(i * 31 + i / 251);
        }
        const std::string packet = Packet(value, static_cast<uint32_t>(size));
        const auto length = static_cast<int>(size);
        auto host = std::async([this] { return HostReads() + HostReads(); });
        EXPECT_EQ(length, transport_->SendBuffer(value.data(), length));
        std::string room = std::string(kFrontRoom, 'f') + value + std::string(kTailRoom, 't');
        EXPECT_EQ(length, transport_->SendInPlace(room.data() + kFrontRoom, length));
        EXPECT_TRUE(host.get() == packet + packet);
    }
    EXPECT_EQ(-1, transport_->SendBuffer(nullptr, 1));
    EXPECT_EQ(-1, transport_->SendBuffer("a", -1));
    EXPECT_EQ(-1, transport_->SendInPlace(nullptr, 1));
}

TEST_F(HdcTransportTest, TellsPacketsFromRefusalsAndFragments) {
    const std::string marker = kContainerNoSupport;
    std::string almost = marker;
    almost.back() = 't';
    const struct {
        std::string bytes;
        int result;
    } cases[] = {
        {std::string(11, 'x'), -1},
        {Packet("", 0), 12},
        {Packet(marker, 28), -2},
        {Packet(almost, 28), 40},
        {Packet(marker.substr(0, 27), 28), 39},  // states more than it holds
        {Packet(marker + "x", 29), 41},
    };
    for (const auto& c : cases) {
        LogCapture log;
        ASSERT_EQ(0, HdcWrite(host_, c.bytes.data(), static_cast<int>(c.bytes.size())));
        IdeRequest* packet = nullptr;
        EXPECT_EQ(c.result, transport_->RecvPacket(&packet));
        EXPECT_EQ(c.result == -1, packet == nullptr);
        if (packet == nullptr) {
            EXPECT_THAT(log.Take("W"), Contains("W hdc read failed: ret=0; bufLen=11"));
        }
        transport_->DestroyPacket(packet);
    }
    EXPECT_EQ(-1, transport_->RecvPacket(nullptr));
}

TEST_F(HdcTransportTest, CloseEndsABlockedReadAndABlockedSend) {
    LogCapture log;
    IdeRequest* packet = nullptr;
    auto read = std::async([&] { return transport_->RecvPacket(&packet); });
    const std::string bulk(64 << 20, 'b');
    auto send = std::async(
        [&] { return transport_->SendBuffer(bulk.data(), static_cast<int>(bulk.size())); });
    EXPECT_TRUE(WaitFor([] {
        return orla::control::CallCount("halHdcRecv") == 1 &&
               orla::control::CallCount("halHdcSend") > 0;
    }));
    EXPECT_EQ(0, transport_->CloseSession());
    EXPECT_EQ(-1, read.get());
    EXPECT_EQ(-1, send.get());
    EXPECT_EQ(0, transport_->CloseSession());
    EXPECT_EQ(-1, transport_->SendBuffer("a", 1));
    EXPECT_EQ(-1, transport_->RecvPacket(&packet));
    EXPECT_EQ(nullptr, packet);
    const auto lines = log.Take("I");
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "I close HDC session"));
}

TEST_F(HdcTransportTest, FactoryLeavesARefusedSessionOpen) {
    LogCapture log;
    orla::control::Fault fault;
    fault.call = "halHdcGetSessionAttr";
    fault.result = 9;
    ASSERT_TRUE(orla::control::InjectFault(fault));
    EXPECT_EQ(nullptr, HDCTransportFactory().CreateHdcTransport(session_));
    EXPECT_EQ(nullptr, HDCTransportFactory().CreateHdcTransport(nullptr));
    EXPECT_THAT(log.Take("E"), testing::IsSupersetOf({"E IdeGetDevIdBySession failed, err: -1",
                                                      "E HDC session is invalid"}));
    EXPECT_EQ(3, transport_->SendBuffer("abc", 3));
    EXPECT_EQ(Packet("abc", 3), HostReads());
}

TEST_F(HdcTransportTest, ClientAndServerFormsTalkToEachOther) {
    HDCTransportFactory factory;
    drvHdcClient_t owned = HdcClientCreate(kHdcServiceRequests);
    for (const bool own : {false, true}) {
        const auto out = own ? factory.CreateHdcClientTransport(4711, 0, owned)
                             : factory.CreateHdcClientTransport(client_, 0);
        const auto in = factory.CreateHdcServerTransport(0, server_);
        ASSERT_TRUE(out != nullptr && in != nullptr);
        EXPECT_EQ(3, out->SendBuffer("abc", 3));
        IdeRequest* packet = nullptr;
        EXPECT_EQ(15, in->RecvPacket(&packet));
        in->DestroyPacket(packet);
    }
    LogCapture log;
    EXPECT_EQ(nullptr, factory.CreateHdcClientTransport(nullptr, 0));
    EXPECT_EQ(nullptr, factory.CreateHdcClientTransport(client_, 63));
    EXPECT_THAT(log.Take("EW"), testing::IsSupersetOf({"E HDC client is invalid",
                                                       "W CreateHdcTransport failed, ret is -1"}));
}

}  // namespace

}  // namespace analysis::nedra::transport
