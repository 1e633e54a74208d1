// The transport over one HDC session, and the factory that makes one from a session that was
// accepted, from a server or from a client.
//
// The transport owns its session from its making on and closes it with CloseSession or when its
// last owner lets go. A closed one stays closed: reads and writes then fail. A factory that
// answers null has left an accepted session open and with the caller.
#pragma once

#include <hdc_driver.h>

#include <atomic>
#include <memory>

#include "profiling/datapath/transport.h"

namespace analysis::nedra::transport {

class HDCTransport : public VeltTransport {
public:
    // `isClient`: this side made the session by connecting. `client`: the handle that it was made
    // from, to be destroyed with the transport; null when it is somebody else's.
    explicit HDCTransport(drvHdcSession_t session, bool isClient = false,
                          drvHdcClient_t client = nullptr)
        : session_(session), isClient_(isClient), client_(client) {}
    ~HDCTransport() override;
    HDCTransport(const HDCTransport&) = delete;
    HDCTransport& operator=(const HDCTransport&) = delete;

    int CloseSession() override;
    [[nodiscard]] bool IsPeerGone() override;
    [[nodiscard]] int SendVeltBuffer(void* packet, int length) override;
    [[nodiscard]] int RecvPacket(IdeRequest** packet) override;
    void DestroyPacket(IdeRequest* packet) override;

    // Gives session and client handle back to whoever had them; the transport is then closed.
    void Release();

protected:
    [[nodiscard]] int SendPacketInPlace(char* packet, int length) override;

private:
    // Null once closed. The driver refuses a handle that another thread closes just now.
    std::atomic<drvHdcSession_t> session_;
    const bool isClient_;
    drvHdcClient_t client_;
};

// Made on the stack where it is needed. Every operation answers null on a failure, with a log
// line that says why.
class HDCTransportFactory {
public:
    virtual ~HDCTransportFactory() = default;

    // For a session that this side accepted. On null the session is open and the caller's.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcTransport(drvHdcSession_t session);
    // Waits for the next peer of `server`. `logicDevId` is for the log.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcServerTransport(int logicDevId,
                                                                       drvHdcServer_t server);
    // Connects to a device; `client` stays the caller's.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcClientTransport(drvHdcClient_t client,
                                                                       int devId);
    // The same in the name of the host's process `hostPid`. The transport owns `client`; on null
    // it stays the caller's.
    [[nodiscard]] std::shared_ptr<ITransport> CreateHdcClientTransport(int hostPid, int devId,
                                                                       drvHdcClient_t client);
};

}  // namespace analysis::nedra::transport
