// What a server of the framework serves: one component for each kind of request. Also the
// table that tells which component a request's type belongs to.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "server/velt_comm_opt.h"
#include "server/velt_msg_proto.h"

namespace Velt {

// Component types.
constexpr int32_t kComponentFile = 6;
constexpr int32_t kComponentLog = 7;
constexpr int32_t kComponentDump = 10;
constexpr int32_t kComponentNone = 11;

// Request types: MsgProto::type.
constexpr uint16_t kRequestTypeLog = 4;
constexpr uint16_t kRequestTypeDump = 13;
constexpr uint16_t kRequestTypeFile = 14;

// The component that serves a request type; kComponentNone for a type that isn't known.
[[nodiscard]] int32_t ComponentTypeOf(uint16_t requestType);

// No operation may call ComponentServerRegister or ComponentServerCleanup: the clean-up waits
// for the threads that call them.
class VeltComponent {
public:
    virtual ~VeltComponent() = default;

    // Once, on the thread that starts the server, before its first session. The result isn't
    // used.
    virtual int Init() = 0;
    // For log lines.
    virtual std::string GetName() { return "None"; }
    virtual int32_t GetType() = 0;
    // Serves one request, a whole message, on the session's thread; 0 on success. Runs on many
    // threads at once. The session is closed by the framework after it, and may be closed under
    // it when the server ends: reads and writes then fail, and it should return soon.
    virtual int Process(const CommHandle& session, const std::shared_ptr<MsgProto>& message) = 0;
    // Once, when the server has gone and no Process runs any more.
    virtual int UnInit() = 0;
};

}  // namespace Velt
