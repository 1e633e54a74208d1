// The host's end of the host-device channel: a client of one service type and the sessions that
// it opens, as objects that clean up after themselves. Over the session layer of src/hdc, so
// that segments and packets are the daemon's own.
//
// A client and its sessions belong to one thread, but for Session::Close, which any thread may
// call to end a blocked Send or Receive.
#pragma once

#include <hdc_driver.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hdc/hdc_session.h"

namespace orla::host {

struct Device {
    uint32_t logicalId;
    uint32_t physicalId;
};

// The devices that the driver knows, in its order; nothing when the driver doesn't answer.
[[nodiscard]] std::optional<std::vector<Device>> FindDevices();

enum class ReceiveResult {
    kMessage,
    kClosed,   // the device ended the session
    kTimeout,  // nothing came in time
    kFailed,   // the channel broke, or what came was no message
};

class Session {
public:
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Sends one message of 1 to 2,147,483,647 bytes; blocks while the device doesn't read.
    [[nodiscard]] bool Send(std::string_view message);
    // Sends a request record of service type 4.
    [[nodiscard]] bool SendRequest(uint32_t type, std::string_view value);

    // Waits for at most `timeoutMs` milliseconds (-1: for ever) for the next message to begin.
    // `*message` is replaced for kMessage and left alone otherwise. One that is longer than the
    // client allows is kFailed, before the memory for it is spent.
    [[nodiscard]] ReceiveResult Receive(int timeoutMs, std::string* message);

    // Ends the session; the object then refuses every operation.
    void Close();

private:
    friend class Client;
    Session(HdcSessionPtr session, drvHdcEpoll_t epoll, uint32_t maxMessage)
        : session_(std::move(session)), epoll_(epoll), maxMessage_(maxMessage) {}

    const HdcSessionPtr session_;
    const drvHdcEpoll_t epoll_;  // holds the session alone
    const uint32_t maxMessage_;
};

class Client {
public:
    // `maxMessage`: the most bytes of a message that its sessions receive. Null when the driver
    // refuses.
    [[nodiscard]] static std::unique_ptr<Client> Create(int serviceType,
                                                        uint32_t maxMessage = 1 << 20);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // A session with a logical device; null when nobody listens there. It must not outlive the
    // client.
    [[nodiscard]] std::unique_ptr<Session> Connect(uint32_t device) const;

private:
    Client(drvHdcClient_t client, uint32_t maxMessage) : client_(client), maxMessage_(maxMessage) {}

    const drvHdcClient_t client_;
    const uint32_t maxMessage_;
};

}  // namespace orla::host
