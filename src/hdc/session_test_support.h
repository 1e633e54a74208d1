// For the unit tests of any module: both ends of sessions in one process.
#pragma once

#include <optional>
#include <string>

#include "hdc/hdc_api.h"
#include "hdc/hdc_packet.h"

namespace orla::test {

// A device's server and a host's client. What is opened here is closed here.
class Listener {
public:
    Listener() : server_(HdcServerCreate(0, kHdcServiceRequests)) {}
    ~Listener() {
        HdcServerDestroy(server_);
        HdcClientDestroy(client_);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // The host's end of a new session; null when it can't connect.
    drvHdcSession_t Connect() const {
        drvHdcSession_t session = nullptr;
        return HdcSessionConnect(0, 0, client_, &session) == 0 ? session : nullptr;
    }
    // The device's end of the next one.
    drvHdcSession_t Accept() const { return HdcServerAccept(server_); }
    drvHdcClient_t client() const { return client_; }

private:
    drvHdcServer_t server_;
    drvHdcClient_t client_ = HdcClientCreate(kHdcServiceRequests);
};

// One session, of which either end may be closed early.
class Session {
public:
    explicit Session(const Listener& listener)
        : host(listener.Connect()), device(listener.Accept()) {}
    ~Session() {
        Close(&host);
        Close(&device);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    static void Close(drvHdcSession_t* end) {
        if (*end != nullptr) {
            HdcSessionClose(*end);
            *end = nullptr;
        }
    }

    drvHdcSession_t host;
    drvHdcSession_t device;
};

// The next message, or nothing when the peer has gone.
inline std::optional<std::string> ReadMessage(drvHdcSession_t session) {
    void* data = nullptr;
    uint32_t length = 0;
    if (HdcRead(session, &data, &length) != kHdcReadDone) {
        return std::nullopt;
    }
    const HeapBlock owned(static_cast<char*>(data));
    return std::string(owned.get(), length);
}

}  // namespace orla::test
