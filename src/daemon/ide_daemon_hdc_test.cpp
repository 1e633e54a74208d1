#include "daemon/ide_daemon_hdc.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "daemon/ide_common_util.h"
#include "hdc/hdc_api.h"
#include "hdc/session_test_support.h"
#include "hdc/test_support.h"
#include "hdc/thread_limit_test_support.h"

namespace {

using namespace std::chrono_literals;
using orla::control::DeviceState;
using orla::test::InjectFault;
using orla::test::WaitFor;

bool WaitForWords(const std::string& words) {
    return orla::control::WaitForLine(
        [&](const auto& line) { return line.text.find(words) != std::string::npos; }, 20s);
}

// Answers with the device id that it saw and the value, as text.
int32_t Echo(const HdcSessionPtr& session, const IdeRequest* request) {
    if (std::string(request->value) == "throw") {
        throw std::runtime_error("nobody catches this");
    }
    const std::string answer = std::to_string(request->dev_id) + ":" + request->value;
    return HdcWrite(session, answer.data(), static_cast<int>(answer.size()));
}

HdcSessionPtr keptSession;

int32_t Keep(const HdcSessionPtr& session, const IdeRequest* request) {
    keptSession = session;
    return Echo(session, request) == 0 ? -1 : -2;  // what is shared stays open, a failure or not
}

// The listener with its creation loop on a thread of its own, as the main thread would run it.
class RequestLoop : public testing::Test {
protected:
    void SetUp() override {
        orla::control::Reset();
        ASSERT_EQ(
            "", orla::control::LoadScenario(R"({"devices": [{"logical": 0, "physical": 1000}]})"));
        orla::control::StartLogCapture();
        IdeRegisterComponent(kSlotLog, {nullptr, nullptr, nullptr, Echo});
        IdeRegisterComponent(kSlotProfiling, {nullptr, nullptr, nullptr, Keep});
    }

    void Start() {
        ASSERT_EQ(0, IdeDaemonHdcInit());
        loop_ = std::thread(IdeDaemonHdcCreateServers);
    }

    void TearDown() override {
        orla::control::ClearFaults();
        Stop();
        IdeComponentsDestroy();
        orla::control::StopLogCapture();
        orla::control::Reset();
        EXPECT_EQ(0u, orla::control::CountLiveHandles().servers);
    }

    void Stop() {
        if (loop_.joinable()) {
            IdeDaemonHdcRequestStop();
            loop_.join();
        }
        EXPECT_EQ(0, IdeDaemonHdcDestroy());
    }

    // What the host reads after one request: a text, or "closed". It takes no reference on its
    // session, so that a fault of that call meets the daemon.
    static std::string Ask(uint32_t type, const std::string& value) {
        void* packet = nullptr;
        uint32_t length = 0;
        EXPECT_EQ(0, IdeCreatePacket(type, value.data(), static_cast<uint32_t>(value.size()),
                                     &packet, &length));
        std::string answer = "not connected";
        const drvHdcClient_t client = HdcClientCreate(kHdcServiceRequests);
        drvHdcSession_t handle = nullptr;
        if (drvHdcSessionConnect(0, 0, client, &handle) == DRV_ERROR_NONE) {
            const HdcSessionPtr session = HdcSession::Adopt(handle);
            const bool sent = HdcWrite(session, packet, static_cast<int>(length)) == 0;
            answer = sent ? orla::test::ReadMessage(session).value_or("closed") : "closed";
        }
        HdcClientDestroy(client);
        IdeFreePacket(packet);
        return answer;
    }

    std::thread loop_;
};

TEST_F(RequestLoop, ServesByTypeAndOverwritesTheDevice) {
    Start();
    ASSERT_TRUE(WaitForWords("logDevId 0 phyDevId:1000 create HDC server successfully"));
    EXPECT_EQ("1000:text", Ask(4, "text"));
    EXPECT_EQ("1000:", Ask(4, ""));
    EXPECT_EQ("closed", Ask(4, "throw"));
    EXPECT_EQ("closed", Ask(15, "x"));
    EXPECT_EQ("closed", Ask(16, "x"));
    EXPECT_TRUE(WaitForWords("req->type: 16, call default process func failed, err: -1"));
    EXPECT_TRUE(WaitForWords("received hook_reg request, type 15, req->dev_id=0, phyDevId=1000."));
}

TEST_F(RequestLoop, ASessionSurvivesItsThreadOnlyWhenItIsKept) {
    Start();
    ASSERT_TRUE(WaitForWords("create HDC server successfully"));
    EXPECT_EQ("1000:job", Ask(5, "job"));
    ASSERT_TRUE(WaitForWords("Daemon Hdc Process Event Process Failed, err: -1"));
    int pid = 0;
    EXPECT_EQ(0, HdcGetSessionPid(keptSession, &pid)) << "the request loop has closed the session";
    keptSession.reset();
    EXPECT_EQ("1000:log", Ask(4, "log"));
    // The client's end is gone as well; only the device's may still be on its way out.
    EXPECT_TRUE(WaitFor([] { return orla::control::CountLiveHandles().sessions == 0; }));
}

TEST_F(RequestLoop, ADeviceThatIsNotReadyIsTriedAgainAndAStopDoesNotWait) {
    ASSERT_TRUE(orla::control::SetDeviceState(0, DeviceState::kNotReady));
    Start();
    ASSERT_TRUE(
        WaitForWords("logDevId 0 phyDevId 1000 hdc not ready, sleep 5000 milliseconds and retry"));
    const auto start = std::chrono::steady_clock::now();
    Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST_F(RequestLoop, AFailedAcceptMakesTheServerAnew) {
    Start();
    ASSERT_TRUE(WaitForWords("create HDC server successfully"));
    InjectFault("drvHdcServerDestroy", DRV_ERROR_CLIENT_BUSY, 0, 2);
    InjectFault("drvHdcSessionAccept", 7, 0, 3);
    // Whether the accept that blocks now was called before the fault or after it, sessions make
    // it return, and one is served as soon as the faults are used up.
    EXPECT_TRUE(WaitFor([] {
        return Ask(4, "b") == "1000:b" && orla::control::CallCount("drvHdcServerCreate") >= 4;
    }));
    EXPECT_TRUE(WaitForWords("Hdc Session Accept Error: 7"));
    EXPECT_TRUE(WaitForWords("Hdc Server Destroy Error : 23"));
}

void SignalServerThread() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        if (name == "ide_hdc_server") {
            syscall(SYS_tgkill, getpid(), std::stoi(task.path().filename()), SIGUSR1);
        }
    }
}

TEST_F(RequestLoop, ASignalCostsNoServer) {
    struct sigaction ignore {};
    ignore.sa_handler = [](int) {};  // without SA_RESTART: what blocks is broken off
    sigaction(SIGUSR1, &ignore, nullptr);
    Start();
    ASSERT_TRUE(WaitForWords("create HDC server successfully"));
    EXPECT_TRUE(WaitFor([] {
        SignalServerThread();
        const auto lines = orla::control::CapturedLines();
        return std::any_of(lines.begin(), lines.end(), [](const auto& line) {
            return line.text.find("Hdc Session Accept Break By EINTR") != std::string::npos;
        });
    }));
    EXPECT_EQ("1000:a", Ask(4, "a"));
    EXPECT_EQ(1u, orla::control::CallCount("drvHdcServerCreate"));
}

// It is no use to make another server while the driver keeps this one.
TEST_F(RequestLoop, AServerThatStaysBusyIsUsedAgain) {
    Start();
    ASSERT_TRUE(WaitForWords("create HDC server successfully"));
    InjectFault("drvHdcServerDestroy", DRV_ERROR_CLIENT_BUSY, 0, 30);
    InjectFault("drvHdcSessionAccept", 7);
    EXPECT_TRUE(WaitFor([] {
        return Ask(4, "b") == "1000:b" && orla::control::CallCount("drvHdcServerDestroy") == 30;
    }));
    EXPECT_EQ(1u, orla::control::CallCount("drvHdcServerCreate"));
}

TEST_F(RequestLoop, ASessionWithoutAThreadIsClosedAndTheNextIsServed) {
    Start();
    ASSERT_TRUE(WaitForWords("create HDC server successfully"));
    for (const int refusals : {1, 2}) {
        orla::test::threadsLeft = 0;
        EXPECT_TRUE(WaitFor([] { return Ask(4, "a") == "closed"; }));
        ASSERT_TRUE(WaitFor([&] {
            return orla::control::CallCount("drvHdcServerDestroy") >=
                   static_cast<uint64_t>(refusals);
        }));
    }
    orla::test::threadsLeft = -1;
    EXPECT_TRUE(WaitFor([] { return Ask(4, "b") == "1000:b"; }));
    EXPECT_TRUE(WaitForWords("Thread Create Error: "));
}

// An exception on the listener's thread has the outcome of a failed accept.
TEST_F(RequestLoop, AnExceptionCostsTheServerOnly) {
    Start();
    ASSERT_TRUE(WaitForWords("create HDC server successfully"));
    orla::test::onRefused = [] {
        orla::test::threadsLeft = -1;
        throw std::bad_alloc();
    };
    orla::test::threadsLeft = 0;
    EXPECT_TRUE(WaitFor([] { return Ask(4, "a") == "1000:a"; }));
    orla::test::onRefused = [] {};
    EXPECT_TRUE(WaitForWords("the server of device 1000 ends: std::bad_alloc"));
}

TEST_F(RequestLoop, NoReferenceIsNoReasonNotToServe) {
    Start();
    ASSERT_TRUE(WaitForWords("create HDC server successfully"));
    InjectFault("drvHdcSetSessionReference", 7);
    EXPECT_EQ("1000:a", Ask(4, "a"));
}

TEST_F(RequestLoop, StartFailsWithTheClientAndStopsInOrder) {
    EXPECT_EQ(0, IdeDaemonHdcDestroy()) << "a destroy without its init";
    InjectFault("drvHdcClientCreate", 7);
    EXPECT_EQ(-1, IdeDaemonHdcInit());
}

}  // namespace
