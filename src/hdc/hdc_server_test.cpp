#include "hdc/hdc_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>

#include "hdc/hdc_api.h"
#include "hdc/test_support.h"

namespace {

using orla::control::CallCount;
using orla::test::InjectFault;
using orla::test::WaitFor;

class HdcServerTest : public testing::Test {
protected:
    void SetUp() override {
        orla::control::Reset();
        server_ = HdcServerCreate(0, kHdcServiceRequests);
        ASSERT_NE(nullptr, server_);
    }
    void TearDown() override {
        orla::control::ClearFaults();
        server_.reset();
        EXPECT_EQ(0u, orla::control::CountLiveHandles().Total());
    }

    HdcServerPtr server_;
};

TEST_F(HdcServerTest, DestroyWakesAnAcceptAndNoneBeginsAfterIt) {
    auto accepting = std::async([this] {
        HdcSessionPtr session;
        return server_->Accept(&session);
    });
    ASSERT_TRUE(WaitFor([] { return CallCount("drvHdcSessionAccept") == 1; }));
    auto destroying = std::async([this] { return server_->Destroy(nullptr); });
    EXPECT_EQ(0, server_->Destroy(nullptr));
    EXPECT_EQ(0, destroying.get());
    EXPECT_NE(0, accepting.get());
    HdcSessionPtr session;
    errno = 0;
    EXPECT_EQ(DRV_ERROR_SOCKET_CLOSE, server_->Accept(&session));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(DRV_ERROR_SOCKET_CLOSE, server_->EpollCtl(nullptr, HDC_EPOLL_CTL_ADD, {}));
    EXPECT_EQ(1u, CallCount("drvHdcServerDestroy"));
    EXPECT_EQ(1u, CallCount("drvHdcSessionAccept"));
}

// A driver that stays busy keeps the server, which then serves on.
TEST_F(HdcServerTest, ABusyServerAcceptsAgain) {
    InjectFault("drvHdcServerDestroy", DRV_ERROR_CLIENT_BUSY, 0, 30);
    int reports = 0;
    EXPECT_EQ(DRV_ERROR_CLIENT_BUSY, server_->Destroy([&](drvError_t error, int times) {
        EXPECT_EQ(DRV_ERROR_CLIENT_BUSY, error);
        EXPECT_EQ(++reports, times);
    }));
    EXPECT_EQ(30, reports);
    const drvHdcClient_t client = HdcClientCreate(kHdcServiceRequests);
    {
        HdcSessionPtr host;
        HdcSessionPtr device;
        EXPECT_EQ(0, HdcSessionConnect(0, 0, client, &host));
        EXPECT_EQ(0, server_->Accept(&device));
        EXPECT_NE(nullptr, device);
    }
    EXPECT_EQ(0, HdcClientDestroy(client));
}

}  // namespace
