#include "profiling/datapath/hdc_transport.h"

#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "profiling/config/param_validation.h"

namespace analysis::nedra::transport {

using Analysis::Nedra::Common::Statistics::PerfCount;
using common::validation::ParamValidation;
using orla::kProfilingSide;

namespace {

constexpr uint32_t kMarkerLength = sizeof(kContainerNoSupport) - 1;
constexpr int kDeviceSide = 0;  // the node to connect to
constexpr uint64_t kPacketsPerReport = 128;

bool IsRefusal(const IdeRequest& packet, uint32_t length) {
    return packet.len == kMarkerLength && length >= sizeof(IdeRequest) + kMarkerLength &&
           std::memcmp(packet.value, kContainerNoSupport, kMarkerLength) == 0;
}

}  // namespace

HDCTransport::~HDCTransport() {
    HDCTransport::CloseSession();
    if (client_ != nullptr) {
        HdcClientDestroy(client_, kProfilingSide);
    }
}

int HDCTransport::CloseSession() {
    if (!closed_.exchange(true)) {
        PROF_LOGI("close HDC session");
    }
    HdcSessionClose(session_, kProfilingSide);
    return 0;
}

bool HDCTransport::IsPeerGone() {
    return HdcIsPeerGone(session_, kProfilingSide);
}

namespace {

int Outcome(int err, int length) {
    if (err != 0) {
        PROF_LOGE("hdc write failed, outLen=%d, err=%d.", length, err);
        return -1;
    }
    return 0;
}

}  // namespace

int HDCTransport::SendVeltBuffer(void* packet, int length) {
    return Outcome(HdcWrite(session_, packet, length, kProfilingSide), length);
}

int HDCTransport::SendPacketInPlace(char* packet, int length) {
    return Outcome(HdcWriteInPlace(session_, packet, length, kProfilingSide), length);
}

int HDCTransport::RecvPacket(IdeRequest** packet) {
    if (packet == nullptr) {
        return kRecvFailed;
    }
    void* buffer = nullptr;
    uint32_t length = 0;
    const int ret = HdcRead(session_, &buffer, &length, orla::kMaxMessage, kProfilingSide);
    orla::HeapBlock block(static_cast<char*>(buffer));
    if (ret != kHdcReadDone || length < sizeof(IdeRequest)) {
        PROF_LOGW("hdc read failed: ret=%d; bufLen=%d", ret, static_cast<int>(length));
        return kRecvFailed;
    }
    *packet = reinterpret_cast<IdeRequest*>(block.release());
    return IsRefusal(**packet, length) ? kRecvContainerNoSupport : static_cast<int>(length);
}

void HDCTransport::DestroyPacket(IdeRequest* packet) {
    IdeFreePacket(packet);
}

// ---- The factory -------------------------------------------------------------------------------

namespace {

// Null, with a log line, when memory is out; session and client are then still the caller's.
std::shared_ptr<ITransport> MakeTransport(const HdcSessionPtr& session, int devId,
                                          drvHdcClient_t client = nullptr) {
    try {
        auto counter =
            std::make_shared<PerfCount>("HdcTransport_" + std::to_string(devId), kPacketsPerReport);
        auto transport = std::make_shared<HDCTransport>(session, client);
        transport->perfCount = std::move(counter);
        return transport;
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
}

std::shared_ptr<ITransport> FromConnect(int ret, const HdcSessionPtr& session, int devId,
                                        drvHdcClient_t owned) {
    if (ret != 0) {
        PROF_LOGW("CreateHdcTransport failed, ret is %d", ret);
        return nullptr;
    }
    return MakeTransport(session, devId, owned);
}

bool IsClient(drvHdcClient_t client) {
    if (client == nullptr) {
        PROF_LOGE("HDC client is invalid");
    }
    return client != nullptr;
}

bool KnowsDevice(const HdcSessionPtr& session, int* devId) {
    if (const int err = IdeGetDevIdBySession(session, devId, kProfilingSide); err != 0) {
        PROF_LOGE("IdeGetDevIdBySession failed, err: %d", err);
        return false;
    }
    if (!ParamValidation::instance().CheckDeviceIdIsValid(std::to_string(*devId))) {
        PROF_LOGE("[CreateHdcTransport]devId: %d is not valid!", *devId);
        return false;
    }
    return true;
}

}  // namespace

std::shared_ptr<ITransport> HDCTransportFactory::CreateHdcTransport(const HdcSessionPtr& session) {
    if (session == nullptr) {
        PROF_LOGE("HDC session is invalid");
        return nullptr;
    }
    int devId = 0;
    if (!KnowsDevice(session, &devId)) {
        return nullptr;
    }
    PROF_LOGI("IdeGetDevIdBySession success, devid:%d", devId);
    return MakeTransport(session, devId);
}

std::shared_ptr<ITransport> HDCTransportFactory::CreateHdcServerTransport(
    int logicDevId, const HdcServerPtr& server) {
    PROF_LOGI("CreateHdcServerTransport begin, logicDevId:%d", logicDevId);
    const HdcSessionPtr session = HdcServerAccept(server, kProfilingSide);
    if (session == nullptr) {
        PROF_LOGW("HDC session is invalid");
        return nullptr;
    }
    const auto transport = MakeTransport(session, logicDevId);
    if (transport != nullptr) {
        PROF_LOGI("CreateHdcServerTransport success, logicDevId:%d", logicDevId);
    }
    return transport;
}

std::shared_ptr<ITransport> HDCTransportFactory::CreateHdcClientTransport(drvHdcClient_t client,
                                                                          int devId) {
    if (!IsClient(client)) {
        return nullptr;
    }
    HdcSessionPtr session;
    const int ret = HdcSessionConnect(kDeviceSide, devId, client, &session, kProfilingSide);
    return FromConnect(ret, session, devId, nullptr);
}

std::shared_ptr<ITransport> HDCTransportFactory::CreateHdcClientTransport(int hostPid, int devId,
                                                                          drvHdcClient_t client) {
    if (!IsClient(client)) {
        return nullptr;
    }
    PROF_LOGI("CreateHdcClientTransport, hostPid:%d, devId:%d", hostPid, devId);
    HdcSessionPtr session;
    const int ret =
        HdcSessionConnectEx(kDeviceSide, devId, hostPid, client, &session, kProfilingSide);
    return FromConnect(ret, session, devId, client);
}

}  // namespace analysis::nedra::transport
