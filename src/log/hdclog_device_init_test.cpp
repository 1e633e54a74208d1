#include "log/hdclog_device_init.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <mutex>

#include "hdc/session_test_support.h"
#include "hdc/test_support.h"
#include "log/log_test_support.h"
#include "log/slogd_test_support.h"

namespace {

using namespace std::chrono_literals;
using namespace orla::test;
using testing::AllOf;
using testing::HasSubstr;

constexpr uint32_t kDevice = 1000;
constexpr char kEnd[] = "###[HDC_MSG]hdc_end_msg_used_by_framework###";
constexpr char kUnknown[] = "unknown error, please check log file";
constexpr char kSendFailed[] = "send message to slogd failed, maybe slogd has been stoped";
constexpr char kReceiveFailed[] = "receive message from slogd failed, maybe slogd has been stoped";

// What the service answered to its caller, as text, and behind it what the host got.
using Answer = std::vector<std::string>;

Answer Full(int32_t code, const std::string& text) {
    return {std::to_string(code), text, kEnd};
}

// `length`: what the record says, the truth or not.
int32_t Process(const HdcSessionPtr& device, const std::string& value, size_t length) {
    std::vector<char> record(sizeof(IdeRequest) + value.size() + 1);
    auto* const request = reinterpret_cast<IdeRequest*>(record.data());
    *request = {orla::kRequestLog, kDevice, static_cast<uint32_t>(length)};
    value.copy(request->value, value.size());
    return IdeDeviceLogProcess(device, request);
}

class LogServiceTest : public testing::Test {
protected:
    void SetUp() override {
        orla::control::Reset();
        orla::control::SetLogLevel(orla::control::LogLevel::kError);
        ASSERT_LT(msgget(kSlogdKey, 0), 0) << "a log daemon runs here: use the sandbox";
        ASSERT_EQ(IdeDeviceLogInit(), kLogServiceDone);
        orla::SetLogFiles(log_.files());
    }
    void TearDown() override {
        EXPECT_EQ(IdeDeviceLogDestroy(), 0);
        orla::control::Reset();
    }

    Answer Ask(const std::string& value) { return Ask(value, value.size()); }
    Answer Ask(const std::string& value, size_t length) {
        Session session(listener_);
        return Converse(&session, [&](auto device) { return Process(device, value, length); });
    }

    // Serves the device's end of a session as the request loop does, and reads as a host does.
    template <typename Serve>
    static Answer Converse(Session* session, Serve serve) {
        Answer answer(1);
        std::thread device([&] {
            answer[0] = std::to_string(serve(session->device));
            Session::Close(&session->device);
        });
        Answer messages;
        while (auto message = ReadMessage(session->host)) {
            messages.push_back(*message);
        }
        device.join();
        answer.insert(answer.end(), messages.begin(), messages.end());
        return answer;
    }

    SelfLogHere log_;
    Listener listener_;
};

TEST_F(LogServiceTest, RelaysToTheLogDaemonAndBack) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"set CORE debug", "++OK++", "set device level succeed."},
        {"set event off", "++OK++", "set device level succeed."},
        {"get", "[global] info [event] off [CORE] debug", "get device level succeed."},
        {"set NOBODY debug", "no such module: NOBODY",
         "set device level failed, result_info=no such module: NOBODY."},
        {"x", "no such command, help lists them: x", "set device level failed"},
    };
    SlogdProgram slogd;
    for (const auto& [command, reply, line] : cases) {
        EXPECT_EQ(Ask(command), Full(0, reply)) << command;
        EXPECT_THAT(log_.Take(),
                    AllOf(HasSubstr("request_value=" + command + ", request_length=" +
                                    std::to_string(command.size()) + ", request_devId=1000."),
                          HasSubstr(line), HasSubstr("operate device level finished, result=0.")));
    }
    EXPECT_EQ(slogd.Stop(), 0);
    EXPECT_EQ(Ask("get"), Full(kLogServiceNoQueue, kSendFailed));
    EXPECT_THAT(log_.Take(), HasSubstr("get message queue failed, strerr=No such file"));
}

TEST_F(LogServiceTest, PassesOnTheFirst1020BytesOfARequest) {
    std::mutex mutex;  // the queue orders the threads as well, but no checker can see that
    std::string seen;
    ScriptedSlogd slogd([&](int queue, const SlogdMessage& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        seen = std::to_string(request.deviceId) + " " + request.text;
        SendReply(queue, SlogdMessage("++OK++"));
    });
    for (const size_t length : {1, 1019, 1020, 1021, 1023}) {
        const std::string value(length, 'v');
        EXPECT_EQ(Ask(value), Full(0, "++OK++"));
        const std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(seen, "1000 " + value.substr(0, 1020));
    }
}

TEST_F(LogServiceTest, AnIllegalLengthTouchesNoQueue) {
    const SlogdQueue queue;
    for (const size_t length : {0ul, 1024ul, 0x80000000ul, 0xFFFFFFFFul}) {
        EXPECT_EQ(Ask(std::string(1024, 'v'), length),
                  Full(kLogServiceIllegalLength, "level infomtion is illegal"));
    }
    EXPECT_THAT(log_.Take(), HasSubstr("request length is illegal, request_length=1024."));
    EXPECT_EQ(queue.Status().msg_lspid, 0) << "something was sent";
}

TEST_F(LogServiceTest, CopesWithEveryKindOfDaemon) {
    const std::string usual = "[global] info [event] on";
    std::string garbage;
    for (int i = 0; i < 1020; ++i) {
        garbage += static_cast<char>(1 + i % 255);
    }
    const std::tuple<std::vector<std::string>, Answer, const char*> cases[] = {
        {{"--answer", "empty"}, Full(0, kUnknown), "set device level failed, result_info=unknown"},
        {{"--answer", "garbage"}, Full(0, garbage), "set device level failed, result_info=\x01"},
        {{"--answer", "oversize"},
         Full(kLogServiceNoAnswer, kUnknown),
         "strerr=Argument list too long, retry_time="},
        {{"--answer", "none"},
         Full(kLogServiceNoAnswer, kReceiveFailed),
         "receive level setting result failed from slogd, result=-1, "
         "strerr=No message of desired type, retry_time=10."},
        {{"--vanish-after", "1"},
         Full(kLogServiceNoAnswer, kReceiveFailed),
         "receive level setting result failed from slogd, result=-1, strerr=I"},
        {{"--vanish-after", "1", "--leave-queue"},
         Full(kLogServiceNoAnswer, kReceiveFailed),
         "retry_time=10."},
        // Takes the place of the one that has just left its queue behind.
        {{}, Full(0, usual), "get device level succeed."},
    };
    for (const auto& [options, answer, line] : cases) {
        const SlogdProgram slogd(options);
        EXPECT_EQ(Ask("get"), answer) << testing::PrintToString(options);
        EXPECT_THAT(log_.Take(), HasSubstr(line));
    }
}

// Answers of another request must never be taken for the answer of this one.
TEST_F(LogServiceTest, StaleRepliesAreThrownAway) {
    std::atomic<int> requests{0};
    ScriptedSlogd slogd([&](int queue, const SlogdMessage& request) {
        if (requests++ == 0) {
            std::this_thread::sleep_for(1200ms);
        }
        SendReply(queue, SlogdMessage("[event] " + std::string(request.text)));
    });
    EXPECT_EQ(Ask("first"), Full(kLogServiceNoAnswer, kReceiveFailed));
    ASSERT_TRUE(WaitFor([&] { return slogd.queue.Status().msg_qnum > 0; }));  // the late answer
    SendReply(slogd.queue.id(), SlogdMessage("++OK++"));
    SendReply(slogd.queue.id(), SlogdMessage(std::string(4000, 'x')), 4000);
    EXPECT_EQ(Ask("second"), Full(0, "[event] second"));
    EXPECT_EQ(slogd.queue.Status().msg_qnum, 0u);
}

// A log daemon that takes no request, none but the first, or all, and answers nothing: no request
// stays behind, and only one request waits for a late reply.
TEST_F(LogServiceTest, ASilentDaemonHoldsNobodyUpTwice) {
    for (const int taken : {0, 1, 9}) {
        SCOPED_TRACE(taken);
        const SlogdQueue queue;
        std::vector<std::chrono::steady_clock::duration> times;
        for (int i = 0; i < 3; ++i) {
            const auto start = std::chrono::steady_clock::now();
            auto answer = std::async(std::launch::async, [this] { return Ask("get"); });
            if (i < taken) {
                SlogdMessage request;
                ASSERT_GE(msgrcv(queue.id(), &request, sizeof(request) - sizeof(long), 1, 0), 0);
            }
            EXPECT_EQ(answer.get(), Full(kLogServiceNoAnswer, kReceiveFailed));
            EXPECT_EQ(queue.Status().msg_qnum, 0u);
            times.push_back(std::chrono::steady_clock::now() - start);
        }
        EXPECT_LT(times[2], times[0] * 3 / 2);
        EXPECT_EQ(times[1] < times[0] * 3 / 2, taken == 0);
    }
}

// It comes long after the last request that waits for it, while another one waits for its own.
TEST_F(LogServiceTest, AVeryLateReplyIsNobodyElses) {
    std::promise<void> released;
    ScriptedSlogd slogd([&, first = true](int queue, const SlogdMessage& request) mutable {
        if (first) {
            released.get_future().wait();
            first = false;
        }
        SendReply(queue, SlogdMessage("[event] " + std::string(request.text)));
    });
    EXPECT_EQ(Ask("first"), Full(kLogServiceNoAnswer, kReceiveFailed));
    EXPECT_EQ(Ask("second"), Full(kLogServiceNoAnswer, kReceiveFailed));
    auto third = std::async(std::launch::async, [this] { return Ask("third"); });
    ASSERT_TRUE(WaitFor([&] { return slogd.queue.Status().msg_qnum > 0; }));
    std::this_thread::sleep_for(250ms);  // two looks of the service
    released.set_value();
    EXPECT_EQ(third.get(), Full(0, "[event] third"));
}

TEST_F(LogServiceTest, TellsWhyTheQueueIsOfNoUse) {
    {
        const SlogdQueue full;
        msqid_ds status = full.Status();
        status.msg_qbytes = 100;
        ASSERT_EQ(msgctl(full.id(), IPC_SET, &status), 0);
        EXPECT_EQ(Ask("get"), Full(kLogServiceNotSent, kUnknown));
        EXPECT_THAT(log_.Take(), HasSubstr("send level info to slogd failed, strerr=Resource"));
    }
    const SlogdQueue foreign(0200);
    if (msgrcv(foreign.id(), nullptr, 0, 2, IPC_NOWAIT) < 0 && errno != EACCES) {
        GTEST_SKIP() << "this user may do everything";
    }
    EXPECT_EQ(Ask("get"), Full(kLogServiceNoAnswer, kUnknown));
    EXPECT_THAT(log_.Take(), HasSubstr("strerr=Permission denied, retry_time=0."));
}

TEST_F(LogServiceTest, RefusesSessionsAndRequests) {
    const std::string lines[] = {"get run env type by session failed",
                                 "ide get vfid by session failed, ret="};
    for (const uint64_t passing : {0, 1}) {
        InjectFault("halHdcGetSessionAttr", 99, passing);
        EXPECT_EQ(Ask("get"), (Answer{"27", kUnknown}));
        EXPECT_THAT(log_.Take(), HasSubstr(lines[passing]));
    }
    EXPECT_EQ(Process(nullptr, "get", 3), kLogServiceNoAttribute);
    Session session(listener_);
    EXPECT_EQ(Converse(&session, [](auto device) { return IdeDeviceLogProcess(device, nullptr); }),
              Full(kLogServiceNoRequest, kUnknown));
}

TEST_F(LogServiceTest, NoticesAHostThatHasGone) {
    const SlogdProgram slogd;
    Session session(listener_);
    Session::Close(&session.host);
    EXPECT_EQ(Process(session.device, "get", 3), kLogServiceWriteFailed);
    EXPECT_THAT(log_.Take(),
                AllOf(HasSubstr("write level setting result to host failed, result=-1."),
                      HasSubstr("response end message to host failed, ret=8.")));
}

TEST_F(LogServiceTest, RequestsOutliveTheComponent) {
    std::promise<void> received;
    std::promise<void> destroyed;
    ScriptedSlogd slogd([&, first = true](int queue, const SlogdMessage&) mutable {
        if (first) {
            received.set_value();
            destroyed.get_future().wait();
            first = false;
        }
        SendReply(queue, SlogdMessage("++OK++"));
    });
    auto answer = std::async(std::launch::async, [this] { return Ask("get"); });
    received.get_future().wait();
    EXPECT_EQ(IdeDeviceLogDestroy(), 0);
    destroyed.set_value();
    EXPECT_EQ(answer.get(), Full(0, "++OK++"));

    EXPECT_EQ(IdeDeviceLogDestroy(), 0);
    orla::SetLogFiles(log_.files());
    EXPECT_EQ(Ask("get"), Full(0, "++OK++"));
    EXPECT_THAT(log_.Take(), HasSubstr("can not lock, strerr=Invalid argument"));
}

}  // namespace
