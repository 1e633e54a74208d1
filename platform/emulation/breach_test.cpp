#include <prof_driver.h>

#include <functional>
#include <vector>

#include "hdc_test_support.h"

namespace orla::emulation {
namespace {

class BreachTest : public HdcTest {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");  // threads of other tests may be there
        HdcTest::SetUp();
        Listen();
    }

    [[nodiscard]] static drvHdcMsg_t Carrying(drvHdcSession_t session, std::string* bytes) {
        drvHdcMsg_t message = nullptr;
        EXPECT_EQ(drvHdcAllocMsg(session, &message, 1), 0);
        EXPECT_EQ(drvHdcAddMsgBuffer(message, bytes->data(), static_cast<int>(bytes->size())), 0);
        return message;
    }
    // Another thread's, until the process has ended.
    static void Elsewhere(const char* call, const std::function<void()>& body) {
        const uint64_t before = control::CallCount(call);
        std::thread(body).detach();
        EXPECT_TRUE(Eventually([&] { return control::CallCount(call) > before; }));
    }
};

// Every case ends the process, with both calls on stderr.
TEST_F(BreachTest, WhateverARealDriverWouldNotSurviveAborts) {
    std::string bytes(100, 'x');
    struct Case {
        const char* words;
        std::function<void(std::pair<drvHdcSession_t, drvHdcSession_t>)> misuse;
    };
    const Case cases[] = {
        {"use after the close has begun, handle 0x3.*: drvHdcAllocMsg on thread .*, after "
         "drvHdcSessionClose on thread [0-9]+ \\(closer\\)",
         [](auto session) {
             std::thread([=] {
                 pthread_setname_np(pthread_self(), "closer");
                 drvHdcSessionClose(session.first);
             }).join();
             drvHdcMsg_t message = nullptr;
             drvHdcAllocMsg(session.first, &message, 1);
         }},
        {"use after the close has begun.*: halHdcGetSessionAttr on .*, after drvHdcSessionClose",
         [](auto session) {  // of a close that has not ended
             control::InjectFault({"drvHdcSessionClose", {}, {}, {}, 0, 1, 60000});
             Elsewhere("drvHdcSessionClose", [=] { drvHdcSessionClose(session.first); });
             int value = 0;
             halHdcGetSessionAttr(session.first, HDC_SESSION_ATTR_VFID, &value);
         }},
        {"use after the close has begun.*: drvHdcSessionClose on .*, after drvHdcSessionClose on",
         [](auto session) {
             drvHdcSessionClose(session.first);
             drvHdcSessionClose(session.first);
         }},
        {"use after the close has begun.*: drvHdcSessionAccept on .*, after drvHdcServerDestroy on",
         [this](auto session) {
             drvHdcServerDestroy(server_);
             drvHdcSessionAccept(server_, &session.first);
         }},
        {"use after the close has begun.*: drvHdcEpollCtl on .*, after drvHdcServerDestroy on",
         [this](auto) {
             drvHdcEpoll_t epoll = nullptr;
             drvHdcEpollCreate(1, &epoll);
             drvHdcServerDestroy(server_);
             drvHdcEpollCtl(epoll, HDC_EPOLL_CTL_DEL, server_, nullptr);
         }},
        {"use of what is no handle, .* handle 0x123456789abc: halHdcRecv on thread",
         [](auto) {
             int count = 0;
             // NOLINTNEXTLINE(performance-no-int-to-ptr): what hostile callers do
             halHdcRecv(reinterpret_cast<void*>(0x123456789ABC), nullptr, 0, 0, &count, 0);
         }},
        {"use of what is no handle.*: drvHdcSessionClose on thread",
         [this](auto) { drvHdcSessionClose(server_); }},
        {"two at once on a session.*: halHdcRecv on thread .*, after halHdcRecv on thread",
         [](auto session) {
             Elsewhere("halHdcRecv", [=] { static_cast<void>(Receive(session.first)); });
             static_cast<void>(Receive(session.first, HDC_FLAG_NOWAIT));
         }},
        {"two at once on a session.*: halHdcSend on thread .*, after halHdcSend on thread",
         [&](auto session) {
             control::InjectFault({"halHdcSend", {}, {}, {}, 0, 1, 60000});  // it is held
             Elsewhere("halHdcSend", [&] { static_cast<void>(Send(session.first, bytes)); });
             static_cast<void>(Send(session.first, bytes));
         }},
        {"a send after one that failed.*: halHdcSend on thread .*, after halHdcSend on thread",
         [&](auto session) {
             control::InjectFault({"halHdcSend", {}, {}, 25});
             static_cast<void>(Send(session.first, bytes));
             static_cast<void>(Send(session.first, bytes));
         }},
        {"gone or changed.*: halHdcSend on thread .*, after drvHdcAddMsgBuffer on thread",
         [&](auto session) {
             drvHdcMsg_t message = Carrying(session.first, &bytes);
             bytes.back() = 'y';
             halHdcSend(session.first, message, HDC_FLAG_WAIT, 0);
         }},
        {"gone or changed.*: drvHdcReuseMsg on thread .*, after drvHdcAddMsgBuffer on thread",
         [&](auto session) {
             drvHdcMsg_t message = Carrying(session.first, &bytes);
             halHdcSend(session.first, message, HDC_FLAG_WAIT, 0);
             bytes.front() = 'y';
             drvHdcReuseMsg(message);
         }},
        {"gone or changed.*: drvHdcFreeMsg on|AddressSanitizer: heap-use-after-free",
         [](auto session) {
             auto large = std::make_unique<std::string>(kMaxSegment, 'x');
             drvHdcMsg_t message = Carrying(session.first, large.get());
             large.reset();
             drvHdcFreeMsg(message);
         }},
        {"use after the close has begun.*: drvHdcFreeMsg on thread .*, after drvHdcFreeMsg on",
         [&](auto session) {
             drvHdcMsg_t message = Carrying(session.first, &bytes);
             drvHdcFreeMsg(message);
             drvHdcFreeMsg(message);
         }},
        {"use after the close has begun.*: halHdcSend on thread .*, after drvHdcFreeMsg on thread",
         [&](auto session) {
             drvHdcMsg_t message = Carrying(session.first, &bytes);
             drvHdcFreeMsg(message);
             halHdcSend(session.first, message, HDC_FLAG_WAIT, 0);
         }},
    };
    const auto session = MakeSession();
    for (const Case& c : cases) {
        EXPECT_DEATH(c.misuse(session), c.words);
    }
    Close(session);
}

TEST_F(BreachTest, AReceivedBufferIsSpoiltByItsReuse) {
    const auto session = MakeSession();
    ASSERT_EQ(Send(session.first, std::string(64, 'x')), 0);
    drvHdcMsg_t message = nullptr;
    ASSERT_EQ(drvHdcAllocMsg(session.second, &message, 1), 0);
    int count = 0;
    char* buffer = nullptr;
    int length = 0;
    ASSERT_EQ(halHdcRecv(session.second, message, 0, HDC_FLAG_WAIT, &count, 0), 0);
    ASSERT_EQ(drvHdcGetMsgBuffer(message, 0, &buffer, &length), 0);
    ASSERT_EQ(buffer[0], 'x');
    EXPECT_EQ(drvHdcReuseMsg(message), 0);
#ifdef __SANITIZE_ADDRESS__
    EXPECT_DEATH(std::fputc(buffer[0], stderr), "use-after-poison");
#else
    EXPECT_TRUE(buffer[0] != 'x' && buffer[63] != 'x');
#endif
    EXPECT_EQ(drvHdcFreeMsg(message), 0);
    Close(session);
}

TEST_F(BreachTest, AStartRecordThatNoDriverWouldTakeAborts) {
    char config[4096] = {};
    struct Case {
        const char* words;
        uint32_t channel;
        uint32_t size;
        std::function<void(ProfStartPara*)> spoil = [](ProfStartPara*) {};
    };
    const Case cases[] = {
        {"wrong words, device 0, channel 3: prof_drv_start on thread", 3, 0,
         [](ProfStartPara* para) { para->realTime = 0; }},
        {"wrong words", 3, 0, [](ProfStartPara* para) { para->padding1 = 1; }},
        {"wrong words", 3, 0, [](ProfStartPara* para) { para->channelType = 2; }},
        {"without the configuration", 3, 0, [](ProfStartPara* para) { para->userDataSize = 4; }},
        {"wrong size", 43, 52},
        {"wrong size", 8, 0},
        {"wrong size", 47, 8},  // tells of no event
        {"wrong size", 7, 8},   // shorter than its head
        {"wrong size", 132, 12},
    };
    for (const Case& c : cases) {
        ProfStartPara para = {PROF_START_TS, 0, 1, 0, c.size == 0 ? nullptr : config, c.size, 0};
        c.spoil(&para);
        EXPECT_DEATH(prof_drv_start(0, c.channel, &para), c.words) << c.channel;
    }
}

}  // namespace
}  // namespace orla::emulation
