// The transport over one HDC session, and the factory that makes one from a session that was
// accepted, from a server or from a client.
//
// The transport closes its session with CloseSession or when its last owner lets go, whoever else
// has a share of it. A closed one stays closed: reads and writes then fail. A factory that answers
// null has left an accepted session open and with the caller.
#pragma once

#include <hdc_driver.h>

#include <atomic>
#include <memory>
#include <utility>

#include "hdc/hdc_server.h"
#include "hdc/hdc_session.h"
#include "profiling/datapath/transport.h"

namespace analysis::nedra::transport {

class HDCTransport : public VeltTransport {
public:
    // `client`: the handle that the session was made from, to be destroyed with the transport;
    // null when it is somebody else's.
    explicit HDCTransport(HdcSessionPtr session, drvHdcClient_t client = nullptr)
        : session_(std::move(session)), client_(client) {}
    ~HDCTransport() override;
    HDCTransport(const HDCTransport&) = delete;
    HDCTransport& operator=(const HDCTransport&) = delete;

    int CloseSession() override;
    [[nodiscard]] bool IsPeerGone() override;
    [[nodiscard]] int SendVeltBuffer(void* packet, int length) override;
    [[nodiscard]] int RecvPacket(IdeRequest** packet) override;
    void DestroyPacket(IdeRequest* packet) override;

protected:
    [[nodiscard]] int SendPacketInPlace(char* packet, int length) override;

private:
    const HdcSessionPtr session_;
    const drvHdcClient_t client_;
    std::atomic<bool> closed_{false};  // for the log: a session is closed once by itself
};

// Made on the stack where it is needed. Every operation answers null on a failure, with a log
// line that says why.
class HDCTransportFactory {
public:
    virtual ~HDCTransportFactory() = default;

    // For a session that this side accepted. On null the session is open and the caller's.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcTransport(const HdcSessionPtr& session);
    // Waits for the next peer of `server`. `logicDevId` is for the log.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcServerTransport(int logicDevId,
                                                                       const HdcServerPtr& server);
    // Connects to a device; `client` stays the caller's.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcClientTransport(drvHdcClient_t client,
                                                                       int devId);
    // The same in the name of the host's process `hostPid`. The transport owns `client`; on null
    // it stays the caller's.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcClientTransport(int hostPid, int devId,
                                                                       drvHdcClient_t client);
};

}  // namespace analysis::nedra::transport
