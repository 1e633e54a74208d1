#include "hdc/hdc_session.h"

#include <new>
#include <utility>

#include "hdc/log_side.h"

namespace {

CallGate::Kind KindOf(uint64_t flag) {
    return flag == HDC_FLAG_NOWAIT ? CallGate::Kind::kBrief : CallGate::Kind::kBlocking;
}

}  // namespace

HdcSessionPtr HdcSession::Adopt(drvHdcSession_t handle) noexcept {
    if (handle == nullptr) {
        return nullptr;
    }
    try {
        return std::make_shared<HdcSession>(handle);
    } catch (const std::bad_alloc&) {
        IDE_LOGE("no memory for a session, it is closed");
        static_cast<void>(drvHdcSessionClose(handle));
        return nullptr;
    }
}

HdcSession::~HdcSession() {
    if (!gate_.BeginClose()) {
        return;
    }
    const drvError_t ret = drvHdcSessionClose(handle_);
    if (ret != DRV_ERROR_NONE) {
        IDE_LOGE("Hdc Session Close Failed, error: %d", ret);
    }
}

drvError_t HdcSession::AllocMsg(drvHdcMsg_t* message, int count) {
    return Enter(CallGate::Kind::kBrief,
                 [&](void* handle) { return drvHdcAllocMsg(handle, message, count); });
}

drvError_t HdcSession::GetAttr(int attribute, int* value) {
    return Enter(CallGate::Kind::kBrief,
                 [&](void* handle) { return halHdcGetSessionAttr(handle, attribute, value); });
}

drvError_t HdcSession::SetReference() {
    return Enter(CallGate::Kind::kBrief,
                 [](void* handle) { return drvHdcSetSessionReference(handle); });
}

drvError_t HdcSession::Close() {
    if (gate_.BeginClose()) {
        closed_ = drvHdcSessionClose(handle_);
        gate_.EndClose(true);
    }
    return closed_;
}

// ---- Turns -----------------------------------------------------------------------------------

HdcSession::Turn::Turn(std::atomic<bool>& taken) : taken_(taken.exchange(true) ? nullptr : &taken) {
    if (taken_ == nullptr) {
        IDE_LOGE("a session is sent on or received on by two threads at once");
    }
}

HdcSession::Turn::~Turn() {
    if (taken_ != nullptr) {
        taken_->store(false);
    }
}

HdcSession::Sending::Sending(HdcSession& session) : session_(session), turn_(session.sending_) {}

HdcSession::Sending::~Sending() {
    if (turn_ && begun_) {
        session_.cut_ = true;
    }
}

drvError_t HdcSession::Sending::refusal() const {
    if (!turn_) {
        return kHdcTurnTaken;
    }
    return session_.cut_ ? DRV_ERROR_SOCKET_CLOSE : DRV_ERROR_NONE;
}

drvError_t HdcSession::Sending::Send(drvHdcMsg_t message, uint64_t flag) {
    if (const drvError_t refused = refusal(); refused != DRV_ERROR_NONE) {
        return refused;
    }
    const drvError_t ret = session_.Enter(
        KindOf(flag), [&](void* handle) { return halHdcSend(handle, message, flag, 0); });
    if (ret == DRV_ERROR_NONE) {
        session_.lastSegment_ = std::chrono::steady_clock::now();
    } else if (ret != DRV_ERROR_NON_BLOCK) {
        session_.cut_ = true;
    }
    begun_ = begun_ || ret != DRV_ERROR_NON_BLOCK;
    return ret;
}

drvError_t HdcSession::Receiving::Receive(drvHdcMsg_t message, int size, uint64_t flag, int* count,
                                          uint32_t timeout) {
    if (!turn_) {
        return kHdcTurnTaken;
    }
    return session_.Enter(KindOf(flag), [&](void* handle) {
        return halHdcRecv(handle, message, size, flag, count, timeout);
    });
}

bool HdcSession::Receiving::Keep(const char* buffer, uint32_t size) noexcept {
    if (!turn_) {
        return false;
    }
    try {
        session_.kept_.emplace_back(buffer, size);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

std::vector<std::string> HdcSession::Receiving::TakeKept() {
    return turn_ ? std::exchange(session_.kept_, {}) : std::vector<std::string>();
}
