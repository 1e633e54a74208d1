#include <atomic>
#include <vector>

#include "hdc_test_support.h"

namespace orla::emulation {
namespace {

class HdcSessionTest : public HdcTest {
protected:
    void SetUp() override {
        HdcTest::SetUp();
        Listen();
    }
};

TEST_F(HdcSessionTest, BuffersArriveWholeAndInOrderOnEverySessionBothWays) {
    // Around the read-ahead buffer and its header, and up to the maximum.
    const std::vector<size_t> sizes = {1,    2,    4088,  4089,  4091,        4092,        4093,
                                       4096, 4097, 65536, 70000, kMaxSegment, kMaxSegment, 1};
    std::vector<std::pair<drvHdcSession_t, drvHdcSession_t>> sessions;
    std::vector<std::thread> threads;
    for (size_t s = 0; s < 4; ++s) {
        const auto session = sessions.emplace_back(MakeSession());
        threads.emplace_back([&sizes, session, s] {
            for (size_t i = 0; i < 3 * sizes.size(); ++i) {
                EXPECT_EQ(Send(session.first, Pattern(sizes[i % sizes.size()], i + s)), 0);
            }
        });
        threads.emplace_back([&sizes, session] {  // echoes
            for (size_t i = 0; i < 3 * sizes.size(); ++i) {
                EXPECT_EQ(Send(session.second, Receive(session.second).bytes), 0);
            }
        });
        threads.emplace_back([&sizes, session, s] {
            for (size_t i = 0; i < 3 * sizes.size(); ++i) {
                const Received wanted = {0, Pattern(sizes[i % sizes.size()], i + s)};
                EXPECT_TRUE(Receive(session.first) == wanted) << i;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const auto& session : sessions) {
        Close(session);
    }
}

TEST_F(HdcSessionTest, CloseWakesWhoeverIsBlocked) {
    for (const bool byPeer : {false, true}) {
        for (const uint64_t flag : {HDC_FLAG_WAIT, HDC_FLAG_TIMEOUT}) {
            const auto session = MakeSession();
            std::thread receiver([&] {
                EXPECT_EQ(Receive(session.first, flag, 60000).result, DRV_ERROR_SOCKET_CLOSE);
            });
            std::atomic<int> sent{0};
            std::thread sender([&] {
                const std::string bytes = Pattern(kMaxSegment, 0);
                int result = 0;
                while ((result = Send(session.first, bytes)) == 0) {
                    ++sent;
                }
                EXPECT_EQ(result, DRV_ERROR_SOCKET_CLOSE);
            });
            // Blocked: neither has come further for a while.
            int seen = 0;
            EXPECT_TRUE(Eventually([&] {
                const int before = std::exchange(seen, sent.load());
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                return sent > 0 && sent == before;
            }));
            EXPECT_EQ(drvHdcSessionClose(byPeer ? session.second : session.first), 0);
            sender.join();
            receiver.join();
            EXPECT_EQ(drvHdcSessionClose(byPeer ? session.first : session.second), 0);
        }
    }
}

TEST_F(HdcSessionTest, NothingToReceiveIsToldByTheFlag) {
    const auto session = MakeSession();
    EXPECT_EQ(Receive(session.second, HDC_FLAG_NOWAIT).result, DRV_ERROR_NON_BLOCK);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Receive(session.second, HDC_FLAG_TIMEOUT, 50).result, DRV_ERROR_WAIT_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(Receive(session.second, HDC_FLAG_TIMEOUT, 0).result, DRV_ERROR_WAIT_TIMEOUT);
    EXPECT_EQ(Send(session.first, "abc"), 0);
    EXPECT_EQ(Receive(session.second, HDC_FLAG_TIMEOUT, 60000), (Received{0, "abc"}));
    // What was sent before the close comes first, and then the close, again and again.
    EXPECT_EQ(Send(session.first, "last"), 0);
    EXPECT_EQ(drvHdcSessionClose(session.first), 0);
    EXPECT_EQ(Receive(session.second, HDC_FLAG_NOWAIT), (Received{0, "last"}));
    for (const uint64_t flag : {HDC_FLAG_WAIT, HDC_FLAG_NOWAIT, HDC_FLAG_TIMEOUT}) {
        EXPECT_EQ(Receive(session.second, flag).result, DRV_ERROR_SOCKET_CLOSE);
    }
    EXPECT_EQ(Send(session.second, "into the void"), DRV_ERROR_SOCKET_CLOSE);
    EXPECT_EQ(drvHdcSessionClose(session.second), 0);
}

// Also while room comes and goes under the sender.
TEST_F(HdcSessionTest, SendingWithoutWaitingLeavesNoHalfFrame) {
    for (const size_t size : {size_t{1000}, size_t{100000}, size_t{kMaxSegment}}) {
        const auto session = MakeSession();
        size_t full = 0;
        int result = 0;
        while ((result = Send(session.first, Pattern(size, full), HDC_FLAG_NOWAIT)) == 0) {
            ++full;
        }
        EXPECT_EQ(result, DRV_ERROR_NON_BLOCK);
        EXPECT_GE(full, 1U);
        const size_t all = full + 100;
        std::thread sender([&] {
            for (size_t i = full; i < all; ++i) {
                while (Send(session.first, Pattern(size, i), HDC_FLAG_NOWAIT) != 0) {
                    std::this_thread::yield();
                }
            }
        });
        for (size_t i = 0; i < all; ++i) {
            EXPECT_TRUE(Receive(session.second) == (Received{0, Pattern(size, i)})) << i;
        }
        sender.join();
        Close(session);
    }
}

TEST_F(HdcSessionTest, PeerKilledAtAnyByte) {
    const std::string hello = RawPeer::HelloBytes();
    const std::string first = RawPeer::Frame("abc");
    const std::string stream = hello + first + RawPeer::Frame("de");
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        {
            RawPeer peer(Path());
            ASSERT_TRUE(peer.Write(stream.substr(0, cut)));
        }
        if (cut < hello.size()) {
            continue;  // never becomes a session; the next accept proves it
        }
        const drvHdcSession_t session = Accept();
        if (cut >= hello.size() + first.size()) {
            EXPECT_EQ(Receive(session), (Received{0, "abc"})) << cut;
        }
        if (cut == stream.size()) {
            EXPECT_EQ(Receive(session), (Received{0, "de"}));
        }
        EXPECT_EQ(Receive(session).result, DRV_ERROR_SOCKET_CLOSE) << cut;
        EXPECT_EQ(Receive(session, HDC_FLAG_NOWAIT).result, DRV_ERROR_SOCKET_CLOSE) << cut;
        EXPECT_EQ(drvHdcSessionClose(session), 0);
    }
}

TEST_F(HdcSessionTest, LyingFrameLengthEndsTheSession) {
    for (const uint32_t length : {0U, kMaxSegment + 1, 0xFFFFFFFFU}) {
        RawPeer peer(Path());
        ASSERT_TRUE(peer.Write(RawPeer::HelloBytes() + RawPeer::Frame("abc") +
                               RawPeer::Length(length) + "rest"));
        const drvHdcSession_t session = Accept();
        EXPECT_EQ(Receive(session), (Received{0, "abc"}));
        const int result = Receive(session).result;
        EXPECT_TRUE(result != 0 && result != DRV_ERROR_SOCKET_CLOSE &&
                    result != DRV_ERROR_NON_BLOCK && result != DRV_ERROR_WAIT_TIMEOUT)
            << result;
        EXPECT_EQ(Receive(session).result, DRV_ERROR_SOCKET_CLOSE);
        EXPECT_EQ(Send(session, "x"), DRV_ERROR_SOCKET_CLOSE);
        EXPECT_EQ(peer.ReadToEnd(), "");
        EXPECT_EQ(drvHdcSessionClose(session), 0);
    }
}

// What the contract leaves to the driver, and a scenario turns on.
TEST_F(HdcSessionTest, LibertiesOfAReceive) {
    const auto received = [](drvHdcSession_t session) {
        drvHdcMsg_t message = nullptr;
        EXPECT_EQ(drvHdcAllocMsg(session, &message, 1), 0);
        int count = 0;
        EXPECT_EQ(halHdcRecv(session, message, 0, HDC_FLAG_WAIT, &count, 0), 0);
        std::vector<std::string> all;
        for (int i = 0; i < count; ++i) {
            char* buffer = nullptr;
            int length = -1;
            EXPECT_EQ(drvHdcGetMsgBuffer(message, i, &buffer, &length), 0);
            const bool odd = reinterpret_cast<uintptr_t>(buffer) % 2 != 0;
            all.push_back((odd ? "odd " : "") + std::string(buffer, static_cast<size_t>(length)));
        }
        EXPECT_EQ(drvHdcFreeMsg(message), 0);
        return all;
    };
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"plain", {"a"}},
        {"unaligned", {"odd a"}},
        {"several", {"a", "b", "c", "d"}},
        {"empty", {"", "a"}},
    };
    ASSERT_EQ(drvHdcServerDestroy(std::exchange(server_, nullptr)), 0);
    for (const auto& [style, wanted] : cases) {
        ASSERT_EQ(
            control::LoadScenario(std::string(R"({"liberties": {"receive": ")") + style + R"("}})"),
            "");
        Listen();
        const auto session = MakeSession();
        for (const char* bytes : {"a", "b", "c", "d", "e"}) {
            ASSERT_EQ(Send(session.first, bytes), 0);
        }
        EXPECT_EQ(received(session.second), wanted) << style;
        Close(session);
        EXPECT_EQ(drvHdcServerDestroy(std::exchange(server_, nullptr)), 0);
    }
}

TEST_F(HdcSessionTest, ACloseMayWaitForTheCallsInside) {
    ASSERT_EQ(control::LoadScenario(R"({"liberties": {"close_waits": true}})"), "");
    const auto session = MakeSession();
    std::atomic<bool> left{false};
    // It leaves the driver only after the fault's time, whatever the close does.
    control::InjectFault({"halHdcGetSessionAttr", {}, {}, {}, 0, 1, 100});
    std::thread inside([&] {
        int value = 0;
        EXPECT_EQ(halHdcGetSessionAttr(session.first, HDC_SESSION_ATTR_VFID, &value), 0);
        left = true;
    });
    EXPECT_TRUE(Eventually([] { return control::CallCount("halHdcGetSessionAttr") == 1; }));
    Close(session);
    inside.join();
}

TEST_F(HdcSessionTest, ASmallSocketTakesNothingUntilThePeerReceives) {
    ASSERT_EQ(drvHdcServerDestroy(std::exchange(server_, nullptr)), 0);
    ASSERT_EQ(control::LoadScenario(R"({"liberties": {"socket_buffer": 4608}})"), "");
    Listen();
    const auto session = MakeSession();
    EXPECT_EQ(Send(session.first, std::string(20000, 'x'), HDC_FLAG_NOWAIT), DRV_ERROR_NON_BLOCK);
    std::thread sender([&] { EXPECT_EQ(Send(session.first, Pattern(kMaxSegment, 1)), 0); });
    EXPECT_TRUE(Receive(session.second) == (Received{0, Pattern(kMaxSegment, 1)}));
    sender.join();
    Close(session);
}

}  // namespace
}  // namespace orla::emulation
