// One server of the framework: a thread that keeps one listening server open for every device
// that is up, and hands each session that comes in to a thread of its own.
//
//     every round, 500 ms at most: devices that came up    -> open a server
//                                  devices now suspended   -> close theirs
//                                  sessions that knock     -> accept, VeltSessions::Take
//
// A server is configured on one thread (epoll, option, components, Init), then started; from
// then on its own thread alone touches epoll and servers, until the destructor has stopped it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "server/velt_accept_gate.h"
#include "server/velt_component.h"
#include "server/velt_epoll.h"
#include "server/velt_runnable.h"
#include "server/velt_sessions.h"

namespace Velt {

class VeltServerManager final : public Runnable {
public:
    VeltServerManager() = default;
    // Ends everything: the thread, which looks up at least every 500 ms, waits for it and for
    // those who hold the manager, closes servers and sessions, lets the components go. Takes a
    // moment; at worst 3 s for each of two servers that the driver calls busy, 100 ms for each
    // that it fails to close, and 5 s for components that do not return.
    ~VeltServerManager() override;

    // False for null and when there is one already.
    [[nodiscard]] bool RegisterEpoll(std::unique_ptr<VeltEpoll> epoll);
    // `serviceType`: decimal, for "ServiceType". False for null.
    [[nodiscard]] bool RegisterCommOpt(std::shared_ptr<VeltCommOpt> option,
                                       const std::string& serviceType);
    // False for null and for a type that is there already.
    [[nodiscard]] bool AddComponent(std::unique_ptr<VeltComponent> component);
    // Init of all components; false when there is no epoll.
    [[nodiscard]] bool ComponentInit();
    // 0: all devices; any other: the device id alone.
    void SetMode(int32_t mode) { mode_ = mode; }
    // -1: no restriction to one device.
    void SetDeviceId(int32_t deviceId) { deviceId_ = deviceId; }

    void Run() override;

    // A thread that works with the manager holds it, so that the destructor waits for it.
    void Hold();
    void Release();

private:
    // Closes the server that an accept is blocked on: that ends the accept.
    void Wake() override;

    using ServerMap = std::map<std::string, int64_t>;  // device id to server

    void Round(std::vector<VeltEvent>& events);
    void HandleEvent(const VeltEvent& event);
    void Accept(const VeltEvent& event);
    bool BeginAccept(int64_t server);  // false at the stop
    void EndAccept();
    void RefreshDevices();
    void OpenNewServers(const DeviceList& devices);
    void CloseSuspendedServers(VeltDevice& devices);
    void ReopenServer(int64_t handle);
    void DropServer(ServerMap::iterator server);
    bool OpenServer(const CommOptions& options);
    bool CloseServer(int64_t handle);
    bool Listen(int64_t handle);
    void WaitUntilReleased();

    int32_t mode_ = 0;
    int32_t deviceId_ = -1;
    int32_t commOptType_ = kCommOptNone;
    std::string serviceType_;
    std::unique_ptr<VeltEpoll> epoll_;
    const std::shared_ptr<VeltSessions> sessions_ = std::make_shared<VeltSessions>();

    // Touched by the manager's thread alone while it runs.
    ServerMap servers_;
    AcceptGate gate_;

    std::atomic<bool> waitOver_{true};  // false while Run is in its loop

    // The driver tells of a peer whose connection may never be complete. The accept then blocks.
    std::mutex acceptMutex_;
    std::condition_variable acceptEnded_;
    int64_t accepting_ = kNoHandle;  // guarded by acceptMutex_
    int64_t woken_ = kNoHandle;      // the server that Wake has closed; of the stopping thread

    std::mutex holdMutex_;
    std::condition_variable released_;
    uint32_t holders_ = 0;  // guarded by holdMutex_
};

}  // namespace Velt
