#include "hdc/hdc_server.h"

#include <portability.h>

#include <cerrno>
#include <new>

#include "hdc/log_side.h"

namespace {

constexpr int kMaxDestroyAttempts = 30;
constexpr uint32_t kDestroyPauseMs = 100;

}  // namespace

HdcServerPtr HdcServer::Adopt(drvHdcServer_t handle) noexcept {
    if (handle == nullptr) {
        return nullptr;
    }
    try {
        return std::make_shared<HdcServer>(handle);
    } catch (const std::bad_alloc&) {
        IDE_LOGE("no memory for a server, it is destroyed");
        static_cast<void>(drvHdcServerDestroy(handle));
        return nullptr;
    }
}

HdcServer::~HdcServer() {
    static_cast<void>(DestroyOften(1, nullptr));
}

drvError_t HdcServer::Accept(HdcSessionPtr* session) {
    *session = nullptr;
    drvHdcSession_t accepted = nullptr;
    int error = errno;
    const drvError_t ret = Enter(CallGate::Kind::kBlocking, [&](void* handle) {
        const drvError_t answer = drvHdcSessionAccept(handle, &accepted);
        error = errno;
        return answer;
    });
    if (ret == DRV_ERROR_NONE) {
        *session = HdcSession::Adopt(accepted);
    }
    errno = error;
    return ret;
}

drvError_t HdcServer::Destroy(const Report& report) {
    return DestroyOften(kMaxDestroyAttempts, report);
}

drvError_t HdcServer::DestroyOften(int attempts, const Report& report) {
    if (!gate_.BeginClose()) {
        return DRV_ERROR_NONE;
    }
    drvError_t ret = DRV_ERROR_NONE;
    for (int times = 1; times <= attempts; ++times) {
        ret = drvHdcServerDestroy(handle_);
        if (ret == DRV_ERROR_NONE) {
            break;
        }
        if (report != nullptr) {
            report(ret, times);
        }
        if (ret != DRV_ERROR_CLIENT_BUSY) {
            break;
        }
        mmSleep(kDestroyPauseMs);
    }
    gate_.EndClose(ret != DRV_ERROR_CLIENT_BUSY);
    return ret;
}
