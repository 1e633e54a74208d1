// The operations of the application monitor's client. The caller's record holds a handle and
// nothing else; it is read and cleared as a whole, because an exit may come on another thread.
#include <app_monitor.h>

#include "driver_state.h"
#include "hdc_handles.h"

using namespace orla::emulation;

namespace {

const void* HandleOf(appmon_client_t* client) {
    const uint64_t value =
        client == nullptr ? 0 : __atomic_load_n(&client->opaque[0], __ATOMIC_ACQUIRE);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle is never followed.
    return reinterpret_cast<const void*>(value);
}

// Runs an operation on the client that the record names.
template <typename Body>
int OnClient(Call call, appmon_client_t* client, Body&& body) noexcept {
    return RunCall(call, {}, [&]() -> int {
        const auto found = Handles::Get().monitors.Find(HandleOf(client));
        return found == nullptr ? kInvalidHandle : body(*found);
    });
}

int Connect(appmon_client_t* client, const char* socketPath) {
    if (client == nullptr || socketPath == nullptr || HandleOf(client) != nullptr) {
        return kInvalidArgument;
    }
    UniqueFd fd = orla::emulation::Connect(socketPath);
    if (!fd.valid()) {
        return kSystemError;
    }
    void* handle = Handles::Get().monitors.Add(std::make_shared<MonitorClient>(std::move(fd)));
    __atomic_store_n(&client->opaque[0], ValueOf(handle), __ATOMIC_RELEASE);
    return kDone;
}

}  // namespace

int appmon_client_init(appmon_client_t* client, const char* socketPath) {
    return RunCall(Call::appmon_client_init, {}, [&] { return Connect(client, socketPath); });
}

int appmon_client_register(appmon_client_t* client, uint32_t timeoutMs, const char* script) {
    return OnClient(Call::appmon_client_register, client, [&](MonitorClient& found) {
        return script == nullptr ? kInvalidArgument : found.Register(timeoutMs, script);
    });
}

int appmon_client_heartbeat(appmon_client_t* client) {
    return OnClient(Call::appmon_client_heartbeat, client,
                    [](MonitorClient& found) { return found.Heartbeat(); });
}

int appmon_client_deregister(appmon_client_t* client, const char* reason) {
    return OnClient(Call::appmon_client_deregister, client, [&](MonitorClient& found) {
        return reason == nullptr ? kInvalidArgument : found.Deregister(reason);
    });
}

int appmon_client_exit(appmon_client_t* client) {
    return OnClient(Call::appmon_client_exit, client, [&](MonitorClient& found) {
        found.Close();
        const bool taken = Handles::Get().monitors.Take(HandleOf(client)) != nullptr;
        __atomic_store_n(&client->opaque[0], 0, __ATOMIC_RELEASE);
        return taken ? kDone : kInvalidHandle;
    });
}
