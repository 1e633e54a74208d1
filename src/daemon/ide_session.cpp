#include "daemon/ide_session.h"

#include <portability.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include "daemon/ide_common_util.h"
#include "hdc/hdc_api.h"
#include "hdc/log_side.h"

using orla::HeapBlock;

namespace {

constexpr int kMaxReadTimes = 142;
constexpr const char* kThreadName = "ide_hdc_process";

struct RequestDeleter {
    void operator()(IdeRequest* request) const { IdeFreeRequest(request); }
};
using RequestPtr = std::unique_ptr<IdeRequest, RequestDeleter>;

bool IsWhole(const IdeRequest* request, uint32_t length) {
    const bool hasHeader = length >= sizeof(IdeRequest);
    const uint32_t stated = hasHeader ? request->len : 0;
    if (!hasHeader || stated != length - sizeof(IdeRequest)) {
        IDE_LOGE("recv len: %u, req len %d, size %zu", length, static_cast<int>(stated),
                 sizeof(IdeRequest));
        return false;
    }
    return true;
}

int CallHandler(const HdcSessionPtr& session, const IdeRequest* request, const char* name) {
    const uint32_t slot = IdeRequestSlot(request);
    const auto handler = IdeComponentHandler(slot);
    if (handler == nullptr) {
        IDE_LOGE("req->type: %d, Invalid request or no hdc process func register",
                 static_cast<int>(request->type));
        return -1;
    }
    mmSetCurrentThreadName((std::string(kThreadName) + "_" + name).c_str());
    return handler(session, request);
}

int ProcessSession(const IdeSession& argument) {
    const IdeTransport transport{kTransportHdc, argument.session};
    IdeRequest* received = nullptr;
    const int ret = IdeHdcReadRequest(&transport, &received);
    const RequestPtr request(received);
    if (ret != 0) {
        IDE_LOGE("Ide Hdc Read Request failed, err: %d", ret);
        return -1;
    }
    const int type = static_cast<int>(request->type);
    const char* name = IdeRequestName(request->type);
    IDE_LOGI("received %s request, type %d, req->dev_id=%d, phyDevId=%d.", name, type,
             static_cast<int>(request->dev_id), static_cast<int>(argument.phyDevId));
    request->dev_id = argument.phyDevId;
    const int status = CallHandler(argument.session, request.get(), name);
    if (status != 0) {
        IDE_LOGE("req->type: %d, call %s process func failed, err: %d", type, name, status);
    }
    return status;
}

}  // namespace

int IdeRead(const IdeTransport* transport, void** buffer, uint32_t* length, int waitFlag) {
    if (SIDE_REFUSES(orla::kCoreSide, {transport == nullptr, "transport is nullptr"},
                     {buffer == nullptr, "recv_buf is nullptr"},
                     {length == nullptr, "recv_len is nullptr"})) {
        return -1;
    }
    return waitFlag == 0
               ? HdcRead(transport->session, buffer, length, kMaxRequest)
               : HdcReadPolling(transport->session, buffer, length, kMaxReadTimes, kMaxRequest);
}

int IdeHdcReadRequest(const IdeTransport* transport, IdeRequest** request) {
    if (SIDE_REFUSES(orla::kCoreSide, {request == nullptr, "req is nullptr"})) {
        return -1;
    }
    *request = nullptr;
    void* message = nullptr;
    uint32_t length = 0;
    const int ret = IdeRead(transport, &message, &length, 1);
    HeapBlock received(static_cast<char*>(message));
    if (ret != 0) {
        IDE_LOGW("Ide Read ret: %d", ret);
        return ret;
    }
    if (!IsWhole(reinterpret_cast<const IdeRequest*>(received.get()), length)) {
        return -1;
    }
    *request = reinterpret_cast<IdeRequest*>(received.release());
    return 0;
}

void IdeFreeRequest(IdeRequest* request) {
    std::free(request);
}

void* IdeDaemonHdcProcessEvent(void* argument) {
    if (SIDE_REFUSES(orla::kCoreSide, {argument == nullptr, "invalid parameter"})) {
        return nullptr;
    }
    const std::unique_ptr<IdeSession> owned(static_cast<IdeSession*>(argument));
    mmSetCurrentThreadName(kThreadName);
    try {
        const int err = ProcessSession(*owned);
        if (err != 0) {
            IDE_LOGE("Daemon Hdc Process Event Process Failed, err: %d", err);
        }
    } catch (const std::exception& e) {
        // A handler that throws costs its own session.
        IDE_LOGE("Daemon Hdc Process Event Process threw: %s", e.what());
    }
    return nullptr;
}
