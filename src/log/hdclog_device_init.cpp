#include "log/hdclog_device_init.h"

#include <secure_c.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "hdc/hdc_api.h"
#include "log/log_drv.h"
#include "log/log_mutex.h"
#include "log/log_path_mgr.h"
#include "log/log_platform.h"
#include "log/self_log.h"
#include "log/slogd_queue.h"

namespace {

constexpr uint32_t kMaxRequestLength = 1023;
constexpr int kMaxPolls = 10;
constexpr uint32_t kPollPauseMs = 100;
constexpr int kVirtualEnvironment = 4;

constexpr char kSetDone[] = "++OK++";
constexpr char kQueryMark[] = "[event]";
constexpr char kEndMarker[] = "###[HDC_MSG]hdc_end_msg_used_by_framework###";
constexpr char kUnknownError[] = "unknown error, please check log file";
constexpr char kSendFailed[] = "send message to slogd failed, maybe slogd has been stoped";
constexpr char kReceiveFailed[] = "receive message from slogd failed, maybe slogd has been stoped";

constexpr SlogdMessage kEmptyMessage = {0, 0xFFFFFFFF, {}};

// How long after its time a reply is waited for, so that it is nobody else's answer.
constexpr int64_t kLateReplyMs = 1000;

orla::LogMutex g_queueMutex;

// The reply that the last request did not get, and may get yet. Guarded by g_queueMutex.
struct {
    int queue;
    int64_t untilMs;  // 0: none is outstanding
} g_lateReply = {-1, 0};

int64_t NowMs() {
    const mmTimespec now = mmGetTickCount();
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

int32_t WriteToHost(const HdcSessionPtr& session, const char* text) {
    const int result = HdcWrite(session, text, static_cast<int>(std::strlen(text)));
    if (result == 0) {
        return kLogServiceDone;
    }
    SELF_LOG_ERROR("write level setting result to host failed, result=%d.", result);
    return kLogServiceWriteFailed;
}

// Tells the host why, whether it still hears it or not.
int32_t Refuse(const HdcSessionPtr& session, const char* text, int32_t code) {
    static_cast<void>(WriteToHost(session, text));
    return code;
}

// 0, or why sessions of this kind are not served; the host has been told then.
int32_t CheckSession(const HdcSessionPtr& session) {
    int environment = 0;
    if (DrvSessionGetAttr(session, HDC_SESSION_ATTR_RUN_ENV, &environment) != 0) {
        SELF_LOG_ERROR("get run env type by session failed");
        return Refuse(session, kUnknownError, kLogServiceNoAttribute);
    }
    if (environment == kVirtualEnvironment) {
        SELF_LOG_ERROR("not support in virtual env docker.");
        return Refuse(session, "not support in virtual env.", kLogServiceVirtual);
    }
    int vfId = 0;
    const int result = HdcGetSessionVfId(session, &vfId);
    if (result != 0) {
        SELF_LOG_ERROR("ide get vfid by session failed, ret=%d.", result);
        return Refuse(session, kUnknownError, kLogServiceNoAttribute);
    }
    if (vfId != 0) {
        SELF_LOG_WARN("compute power group, vfId=%d.", vfId);
        return Refuse(session, "multiple hosts use one device, prohibit operating log level",
                      kLogServicePowerGroup);
    }
    return kLogServiceDone;
}

int Receive(int queue, SlogdMessage* message, int flags) {
    *message = kEmptyMessage;
    return static_cast<int>(msgrcv(queue, message, kSlogdTransferSize, kSlogdReply, flags));
}

// A reply carries no word of its request. One that is only late would come while the next
// request waits for its own, so its time is granted before that request is sent. A log daemon
// that has started anew has another queue, and owes nothing.
void AwaitLateReply(int queue) {
    SlogdMessage late;
    while (g_lateReply.queue == queue && NowMs() < g_lateReply.untilMs) {
        if (Receive(queue, &late, IPC_NOWAIT | MSG_NOERROR) >= 0 ||
            (errno != ENOMSG && errno != EINTR)) {
            break;
        }
        static_cast<void>(ToolSleep(kPollPauseMs / 2));
    }
    g_lateReply.untilMs = 0;
}

// What else lies in the queue answers nobody. A message that is too large for a reply is cut
// rather than left, since nobody else ever takes it out.
void DrainReplies(int queue) {
    SlogdMessage stale;
    while (Receive(queue, &stale, IPC_NOWAIT | MSG_NOERROR) >= 0 || errno == EINTR) {
    }
}

// 0, or -1 with errno.
int Send(int queue, const SlogdMessage& message) {
    int result = 0;
    do {
        result = msgsnd(queue, &message, kSlogdTransferSize, IPC_NOWAIT);
    } while (result != 0 && errno == EINTR);
    return result;
}

bool IsQueueGone(int error) {
    return error == EIDRM || error == EINVAL;
}

// Waits for the reply. Null when it is there, else the text for the host.
const char* WaitForReply(int queue, SlogdMessage* reply) {
    for (int polls = 0;;) {
        const int result = Receive(queue, reply, IPC_NOWAIT);
        if (result >= 0) {
            return nullptr;
        }
        const int error = ToolGetErrorCode();
        if (error == EINTR) {
            continue;
        }
        if (error == ENOMSG && ++polls < kMaxPolls) {
            static_cast<void>(ToolSleep(kPollPauseMs));
            continue;
        }
        SELF_LOG_ERROR(
            "receive level setting result failed from slogd, result=%d, strerr=%s, retry_time=%d.",
            result, std::strerror(error), polls);
        return error == ENOMSG || IsQueueGone(error) ? kReceiveFailed : kUnknownError;
    }
}

int32_t ForwardReply(const HdcSessionPtr& session, const char* text) {
    if (std::strcmp(text, kSetDone) == 0) {
        SELF_LOG_INFO("set device level succeed.");
        return WriteToHost(session, text);
    }
    if (text[0] == '\0') {
        text = kUnknownError;
    }
    if (std::strstr(text, kQueryMark) != nullptr) {
        SELF_LOG_INFO("get device level succeed.");
    } else {
        SELF_LOG_ERROR("set device level failed, result_info=%s.", text);
    }
    return WriteToHost(session, text);
}

int32_t Converse(const HdcSessionPtr& session, int queue, const SlogdMessage& message) {
    orla::LogLock lock(g_queueMutex);
    AwaitLateReply(queue);
    DrainReplies(queue);
    if (Send(queue, message) != 0) {
        const int error = ToolGetErrorCode();
        SELF_LOG_ERROR("send level info to slogd failed, strerr=%s.", std::strerror(error));
        lock.Release();
        return Refuse(session, IsQueueGone(error) ? kSendFailed : kUnknownError,
                      kLogServiceNotSent);
    }
    SELF_LOG_INFO("send level info to slogd succeed.");
    SlogdMessage reply;
    const char* const failure = WaitForReply(queue, &reply);
    if (failure != nullptr) {
        g_lateReply = {queue, NowMs() + kLateReplyMs};
        return Refuse(session, failure, kLogServiceNoAnswer);
    }
    lock.Release();
    return ForwardReply(session, reply.text);
}

int32_t Relay(const HdcSessionPtr& session, const IdeRequest& request) {
    if (request.len == 0 || request.len > kMaxRequestLength) {
        SELF_LOG_WARN("request length is illegal, request_length=%d.",
                      static_cast<int>(request.len));
        return Refuse(session, "level infomtion is illegal", kLogServiceIllegalLength);
    }
    SlogdMessage message = kEmptyMessage;
    message.type = kSlogdRequest;
    message.deviceId = request.dev_id;
    const errno_t copied = memcpy_s(message.text, kMaxRequestLength, request.value, request.len);
    if (copied != EOK) {
        SELF_LOG_ERROR("memcpy_s request value failed, result=%d, strerr=%s.", copied,
                       SelfLogErrorText());
        return Refuse(session, kUnknownError, kLogServiceWriteFailed);
    }
    SELF_LOG_INFO("request_value=%s, request_length=%d, request_devId=%d.", message.text,
                  static_cast<int>(request.len), static_cast<int>(request.dev_id));
    const int queue = msgget(kSlogdQueueKey, 0);
    if (queue < 0) {
        const int error = ToolGetErrorCode();
        SELF_LOG_ERROR("get message queue failed, strerr=%s.", std::strerror(error));
        return Refuse(session, error == ENOENT ? kSendFailed : kUnknownError, kLogServiceNoQueue);
    }
    return Converse(session, queue, message);
}

int32_t Serve(const HdcSessionPtr& session, const IdeRequest* request) {
    if (request == nullptr) {
        SELF_LOG_WARN("[input] request is null.");
        return Refuse(session, kUnknownError, kLogServiceNoRequest);
    }
    const int32_t result = Relay(session, *request);
    SELF_LOG_INFO("operate device level finished, result=%d.", result);
    return result;
}

}  // namespace

int32_t IdeDeviceLogInit() {
    LogPathInit();
    const int result = g_queueMutex.Init();
    if (result != EN_OK) {
        SELF_LOG_ERROR("init log level setting mutex failed, result=%d, strerr=%s.", result,
                       SelfLogErrorText());
        return kLogServiceNoMutex;
    }
    return kLogServiceDone;
}

int32_t IdeDeviceLogDestroy() {
    LogPathRelease();
    static_cast<void>(g_queueMutex.Destroy());
    return kLogServiceDone;
}

int32_t IdeDeviceLogProcess(const HdcSessionPtr& session, const IdeRequest* request) {
    const int32_t refused = CheckSession(session);
    if (refused != kLogServiceDone) {
        return refused;
    }
    const int32_t result = Serve(session, request);
    const int32_t written = WriteToHost(session, kEndMarker);
    if (written != kLogServiceDone) {
        SELF_LOG_ERROR("response end message to host failed, ret=%d.", written);
        return written;
    }
    return result;
}
