// What the framework asks of whoever carries its traffic: listening, connecting, sessions,
// messages, and the devices that can be listened on. HdcCommOpt is the one implementation; all
// calls come through VeltCommOptManager.
//
// Handles are 64-bit values of the implementation, -1 for none. Operations answer -1 on a
// failure, after a log line, and throw nothing. Open, close of servers and accept are called by
// the server manager's thread, read, write and close of a session by the session's thread, and
// a session may be closed by another thread to end its reads and writes.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "server/velt_device.h"

namespace Velt {

// Texts by name; numbers are decimal and take the whole text.
using CommOptions = std::map<std::string, std::string>;
constexpr const char* kOptionDeviceId = "DeviceId";        // logical id
constexpr const char* kOptionServiceType = "ServiceType";  // 0..127
constexpr const char* kOptionPid = "Pid";                  // process on the host

constexpr int64_t kNoHandle = -1;

// Option types.
constexpr int32_t kCommOptHdc = 0;
constexpr int32_t kCommOptNone = 3;

// A server, client or session as it travels through the framework. With kCommOptHdc the value of
// a server or session is that of hdc_handles.h.
struct CommHandle {
    int32_t type = kCommOptNone;
    int64_t value = kNoHandle;
};

class VeltCommOpt {
public:
    virtual ~VeltCommOpt() = default;

    virtual std::string CommOptName() = 0;
    virtual int32_t CommOptType() = 0;
    // Listens on "DeviceId" for "ServiceType".
    virtual int64_t OpenServer(const CommOptions& options) = 0;
    // Ends the listening; `server` is unchanged. On a failure the server is still there.
    virtual int CloseServer(int64_t& server) = 0;
    // A client of "ServiceType".
    virtual int64_t OpenClient(const CommOptions& options) = 0;
    virtual int CloseClient(int64_t& client) = 0;
    // The next session of a server that has somebody waiting.
    virtual int64_t Accept(int64_t server) = 0;
    // Connects to "DeviceId", in the name of the process "Pid" if that is given.
    virtual int64_t Connect(int64_t client, const CommOptions& options) = 0;
    // Ends a session and sets it to -1, whatever the result.
    virtual int Close(int64_t& session) = 0;
    // Writes one message of `length` bytes, 1 or above. Flag 0 waits for a slow reader.
    virtual int Write(int64_t session, const void* buffer, int32_t length, int flag) = 0;
    // Reads one message: 0 with a heap block that the caller releases with free() and its
    // length, which as a signed number may be negative; 1 when the peer has gone; -1 on a
    // failure. Without a 0 the buffer is null and the length 0. Flag 0 waits as long as it
    // takes, any other for about 320 s at most.
    virtual int Read(int64_t session, void** buffer, int32_t* length, int flag) = 0;
    // The table of devices, the same at every call; empty when memory is out.
    virtual std::shared_ptr<VeltDevice> GetDevice() = 0;
    // Called once a round of the server manager.
    virtual void Timer() = 0;

protected:
    std::shared_ptr<VeltDevice> device_;
};

}  // namespace Velt
