#include "hdc/hdc_api.h"

#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "hdc/memory_utils.h"

using orla::kProfilingSide;
using orla::LogSide;
using orla::OperationName;

namespace {

constexpr int kMaxSessions = 96;

int GetAttribute(const HdcSessionPtr& session, int attribute, int* value, const char* nullWords,
                 const char* failure, const LogSide& side) {
    if (SIDE_REFUSES(side, {session == nullptr, "session is nullptr"},
                     {value == nullptr, nullWords})) {
        return -1;
    }
    const drvError_t ret = session->GetAttr(attribute, value);
    if (ret != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "%s%d", failure, ret);
        return -1;
    }
    return 0;
}

// A session that can't be referenced would outlive this process's interest in it: it is closed.
HdcSessionPtr Referenced(HdcSessionPtr session, const char* words, const LogSide& side) {
    if (session != nullptr && session->SetReference() != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "%s", words);
        static_cast<void>(HdcSessionClose(session, side));
        return nullptr;
    }
    return session;
}

int Connect(int peerNode, int peerDevice, std::optional<int> hostPid, drvHdcClient_t client,
            HdcSessionPtr* session, const LogSide& side) {
    if (SIDE_REFUSES(
            side, {peerNode < 0, "peer_node is invalid"}, {peerDevice < 0, "peer_devid is invalid"},
            {hostPid && *hostPid < 0, "host_pid is invalid"},
            {client == nullptr, "client is nullptr"}, {session == nullptr, "session is nullptr"})) {
        return -1;
    }
    *session = nullptr;
    drvHdcSession_t handle = nullptr;
    const drvError_t ret =
        hostPid ? halHdcSessionConnectEx(peerNode, peerDevice, *hostPid, client, &handle)
                : drvHdcSessionConnect(peerNode, peerDevice, client, &handle);
    if (ret != DRV_ERROR_NONE || handle == nullptr) {
        SIDE_LOG(side, kInfo, "Hdc Session Connect, ret: %d", ret);
        return -1;
    }
    *session = Referenced(HdcSession::Adopt(handle), "session reference set failed", side);
    return *session == nullptr ? -1 : 0;
}

}  // namespace

drvHdcClient_t HdcClientCreate(int serviceType, const LogSide& side) {
    drvHdcClient_t client = nullptr;
    const drvError_t ret = drvHdcClientCreate(&client, kMaxSessions, serviceType, 0);
    if (ret != DRV_ERROR_NONE || client == nullptr) {
        SIDE_LOG(side, kError, "Hdc Client Create Failed, error: %d", ret);
        return nullptr;
    }
    return client;
}

int HdcClientDestroy(drvHdcClient_t client, const LogSide& side) {
    if (client == nullptr) {
        return 0;
    }
    const drvError_t ret = drvHdcClientDestroy(client);
    if (ret != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "Hdc Client Destroy error: %d", ret);
        return -1;
    }
    return 0;
}

HdcServerPtr HdcServerCreate(int logicalDevice, int serviceType, const LogSide& side) {
    const char* operation = OperationName(side, "[HdcServerCreate]");
    if (side.namesOperation) {
        SIDE_LOG(side, kDebug, "HdcServerCreate begin");
    }
    drvHdcServer_t server = nullptr;
    const drvError_t ret = drvHdcServerCreate(logicalDevice, serviceType, &server);
    if (ret == DRV_ERROR_DEVICE_NOT_READY) {
        SIDE_LOG(side, kWarning, "%slogDevId %d HDC not ready", operation, logicalDevice);
        return nullptr;
    }
    if (ret != DRV_ERROR_NONE || server == nullptr) {
        SIDE_LOG(side, kError, "logDevId %d create HDC failed, error: %d", logicalDevice, ret);
        return nullptr;
    }
    SIDE_LOG(side, kEvent, "logDevId %d create HDC server successfully", logicalDevice);
    return HdcServer::Adopt(server);
}

int HdcServerDestroy(const HdcServerPtr& server, const LogSide& side) {
    if (server == nullptr && side.namesOperation) {
        return 0;
    }
    if (SIDE_REFUSES(side, {server == nullptr, "server is nullptr"})) {
        return -1;
    }
    const char* operation = OperationName(side, "[HdcServerDestroy]");
    const drvError_t ret = server->Destroy([&](drvError_t error, int times) {
        SIDE_LOG(side, kError, "%shdc server destroy error : %d, times %d", operation, error,
                 times);
    });
    return ret == DRV_ERROR_CLIENT_BUSY ? -1 : 0;
}

HdcSessionPtr HdcServerAccept(const HdcServerPtr& server, const LogSide& side) {
    if (side.namesOperation) {
        SIDE_LOG(side, kDebug, "HdcServerAccept begin");
    }
    const char* operation = OperationName(side, "[HdcServerAccept]");
    if (SIDE_REFUSES(side, {server == nullptr, "server is nullptr"})) {
        return nullptr;
    }
    HdcSessionPtr session;
    const drvError_t ret = server->Accept(&session);
    if (ret != DRV_ERROR_NONE || session == nullptr) {
        SIDE_LOG(side, kWarning, "%shdc accept error", operation);
        return nullptr;
    }
    return Referenced(
        std::move(session),
        side.namesOperation ? "[HdcServerAccept]set reference error" : "set reference error", side);
}

int HdcSessionConnect(int peerNode, int peerDevice, drvHdcClient_t client, HdcSessionPtr* session,
                      const LogSide& side) {
    if (Connect(peerNode, peerDevice, std::nullopt, client, session, side) != 0) {
        return -1;
    }
    SIDE_LOG(side, kInfo, "connect succ, peer_node: %d, peer_devid: %d", peerNode, peerDevice);
    return 0;
}

int HdcSessionConnectEx(int peerNode, int peerDevice, int hostPid, drvHdcClient_t client,
                        HdcSessionPtr* session, const LogSide& side) {
    if (Connect(peerNode, peerDevice, hostPid, client, session, side) != 0) {
        return -1;
    }
    SIDE_LOG(side, kInfo, "connect succ, peer_node: %d, peer_devid: %d, host_pid: %d", peerNode,
             peerDevice, hostPid);
    return 0;
}

int HdcSessionClose(const HdcSessionPtr& session, const LogSide& side) {
    if (SIDE_REFUSES(side, {session == nullptr, "session is nullptr"})) {
        return -1;
    }
    const drvError_t ret = session->Close();
    if (ret != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "Hdc Session Close Failed, error: %d", ret);
        return -1;
    }
    return 0;
}

int HdcGetCapacity(uint32_t* maxSegment, const LogSide& side) {
    drvHdcCapacity capacity{HDC_CHAN_TYPE_SOCKET, 0};
    const drvError_t ret = drvHdcGetCapacity(&capacity);
    if (ret != DRV_ERROR_NONE) {
        SIDE_LOG(side, kError, "Get Hdc Capacity Failed,error: %d", ret);
        return -1;
    }
    if (capacity.maxSegment < orla::kMinMaxSegment || capacity.maxSegment > orla::kMaxMaxSegment) {
        SIDE_LOG(side, kError, "Get Hdc Capacity Segment Invaild: %u", capacity.maxSegment);
        return -1;
    }
    if (maxSegment == nullptr) {
        return -1;
    }
    *maxSegment = capacity.maxSegment;
    return 0;
}

int IdeGetDevIdBySession(const HdcSessionPtr& session, int* devId, const LogSide& side) {
    return GetAttribute(session, HDC_SESSION_ATTR_DEV_ID, devId, "devId is nullptr",
                        "Hdc Get Session DevId Failed, err: ", side);
}

int HdcGetSessionRunEnv(const HdcSessionPtr& session, int* runEnv, const LogSide& side) {
    return GetAttribute(session, HDC_SESSION_ATTR_RUN_ENV, runEnv, "runEnv is nullptr",
                        "Hdc Get Session runEnv Failed, err: ", side);
}

int HdcGetSessionVfId(const HdcSessionPtr& session, int* vfId, const LogSide& side) {
    return GetAttribute(session, HDC_SESSION_ATTR_VFID, vfId, "vfId is nullptr",
                        side.namesOperation ? "Hdc get session vfid failed, err: "
                                            : "Hdc Get Session VfId Failed, err: ",
                        side);
}

int HdcGetSessionPid(const HdcSessionPtr& session, int* pid, const LogSide& side) {
    return GetAttribute(session, HDC_SESSION_ATTR_PEER_PID, pid, "pid is nullptr",
                        "Hdc Get Session Pid Failed, err: ", side);
}

int IdeCreatePacket(uint32_t type, const char* value, uint32_t valueLength, void** packet,
                    uint32_t* packetLength) {
    // A header, and one zero byte behind the value that isn't sent.
    constexpr uint32_t kExtra = sizeof(IdeRequest) + 1;
    if (value == nullptr || packet == nullptr || packetLength == nullptr) {
        SIDE_LOG(kProfilingSide, kError, "[IdeCreatePacket]input invalid parameter");
        return -1;
    }
    if (valueLength > UINT32_MAX - kExtra) {
        SIDE_LOG(kProfilingSide, kError, "[IdeCreatePacket]value_len: %u, tlv_len: %lu",
                 valueLength, sizeof(IdeRequest));
        return -1;
    }
    auto* request = static_cast<IdeRequest*>(IdeXmalloc(size_t{valueLength} + kExtra));
    if (request == nullptr) {
        SIDE_LOG(kProfilingSide, kError, "malloc memory failed");
        return -1;
    }
    request->type = type;
    request->dev_id = 0;
    request->len = valueLength;
    std::memcpy(request->value, value, valueLength);
    *packet = request;
    *packetLength = valueLength + sizeof(IdeRequest);
    return 0;
}

void IdeFreePacket(void* packet) {
    std::free(packet);
}
