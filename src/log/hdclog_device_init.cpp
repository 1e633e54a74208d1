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
#include "log/slogd_client.h"

using orla::SlogdClient;

namespace {

constexpr uint32_t kMaxRequestLength = 1023;
constexpr int kVirtualEnvironment = 4;

constexpr char kSetDone[] = "++OK++";
constexpr char kQueryMark[] = "[event]";
constexpr char kEndMarker[] = "###[HDC_MSG]hdc_end_msg_used_by_framework###";
constexpr char kUnknownError[] = "unknown error, please check log file";
constexpr char kSendFailed[] = "send message to slogd failed, maybe slogd has been stoped";
constexpr char kReceiveFailed[] = "receive message from slogd failed, maybe slogd has been stoped";

constexpr SlogdMessage kEmptyMessage = {0, 0xFFFFFFFF, {}};

orla::LogMutex g_queueMutex;
orla::SlogdClient g_slogd;  // guarded by g_queueMutex

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

bool IsQueueGone(int error) {
    return error == EIDRM || error == EINVAL;
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
    SlogdMessage reply;
    SlogdClient::Outcome outcome;
    {
        const orla::LogLock lock(g_queueMutex);
        outcome = g_slogd.Ask(queue, message, &reply);
    }
    const bool isGone = IsQueueGone(outcome.error);
    switch (outcome.result) {
        case SlogdClient::Result::kNotSent:
            return Refuse(session, isGone ? kSendFailed : kUnknownError, kLogServiceNotSent);
        case SlogdClient::Result::kNoAnswer:
            return Refuse(session,
                          isGone || outcome.error == ENOMSG ? kReceiveFailed : kUnknownError,
                          kLogServiceNoAnswer);
        case SlogdClient::Result::kAnswered:
            break;
    }
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
