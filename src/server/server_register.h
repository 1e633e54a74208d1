// The server managers of the process by server type, and the three calls with which a
// component gets its server:
//
//     ComponentServerRegister(12, component)   the manager comes into being
//     ComponentServerStartup({12, 0, -1})      a thread configures and starts it
//     ComponentServerCleanup(12)               everything ends
//
// The calls may come from any thread that isn't a thread of the framework.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "server/velt_component.h"
#include "server/velt_server_manager.h"
#include "server/velt_singleton.h"

namespace Velt {

struct ComponentServerInfo {
    int32_t serverType;  // also the HDC service type
    int32_t mode;        // 0: all devices; any other: `deviceId` alone, 32..63
    int32_t deviceId;    // -1: no restriction to one device
};

// Takes the component over. 0, or -1 for null and when the server has one of that type.
[[nodiscard]] int ComponentServerRegister(int32_t serverType,
                                          std::unique_ptr<VeltComponent> component);

// Starts the server and returns at once: what fails after it is logged, and the server is then
// absent. The first call's record holds for all calls of the process. 0, or -1 when no thread
// can be made.
[[nodiscard]] int ComponentServerStartup(const ComponentServerInfo& serverInfo);

// Ends the server: closes its servers and sessions and waits for its threads, as long as the
// destructor of VeltServerManager says. Nothing when there is none. A server may be registered
// and started again after it.
void ComponentServerCleanup(int32_t serverType);

// Lets go of a manager that was held.
struct ReleaseManager {
    void operator()(VeltServerManager* manager) const { manager->Release(); }
};
using HeldManager = std::unique_ptr<VeltServerManager, ReleaseManager>;

class ServerRegister : public Common::Singleton::Singleton<ServerRegister> {
public:
    // Gets or creates the manager and adds the component; false when the manager refuses it.
    [[nodiscard]] bool Register(int32_t serverType, std::unique_ptr<VeltComponent> component);
    // The manager, held; null when there is none.
    [[nodiscard]] HeldManager Find(int32_t serverType);
    // Destroys the manager.
    void Cleanup(int32_t serverType);

private:
    friend class Common::Singleton::Singleton<ServerRegister>;
    ServerRegister() = default;

    // Held also while a manager is destroyed: whoever registers meanwhile gets a new one. The
    // threads that the destructor waits for have been here before or come too late.
    std::mutex mutex_;
    std::map<int32_t, VeltServerManager> managers_;
};

}  // namespace Velt
