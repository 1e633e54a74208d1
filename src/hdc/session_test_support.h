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
    HdcSessionPtr Connect() const {
        HdcSessionPtr session;
        static_cast<void>(HdcSessionConnect(0, 0, client_, &session));
        return session;
    }
    // The device's end of the next one.
    HdcSessionPtr Accept() const { return HdcServerAccept(server_); }
    drvHdcClient_t client() const { return client_; }

private:
    const HdcServerPtr server_;
    drvHdcClient_t client_ = HdcClientCreate(kHdcServiceRequests);
};

// One session, of which either end may be closed early. Both are closed at the end,
// whoever shares them.
struct Session {
    explicit Session(const Listener& listener)
        : host(listener.Connect()), device(listener.Accept()) {}
    ~Session() {
        Close(&host);
        Close(&device);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    static void Close(HdcSessionPtr* end) {
        if (*end != nullptr) {
            HdcSessionClose(*end);
            end->reset();
        }
    }

    HdcSessionPtr host;
    HdcSessionPtr device;
};

// The next message, or nothing when the peer has gone.
inline std::optional<std::string> ReadMessage(const HdcSessionPtr& session) {
    void* data = nullptr;
    uint32_t length = 0;
    if (HdcRead(session, &data, &length) != kHdcReadDone) {
        return std::nullopt;
    }
    const HeapBlock owned(static_cast<char*>(data));
    return std::string(owned.get(), length);
}

}  // namespace orla::test
