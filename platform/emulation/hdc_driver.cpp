// The C operations of the host-device channel: arguments and handles are checked here, the work
// is done by the classes. Each operation runs in RunCall, so that it is counted, can be made to
// fail, and throws nothing; each one on a handle in OnHandle or Closing, which hold the call
// against what others do to the handle.
#include <hdc_driver.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "driver_state.h"
#include "hdc_connect.h"
#include "hdc_frame.h"

using namespace orla::emulation;

namespace {

CallSubject AboutDevice(int device) {
    return device < 0 ? CallSubject{} : CallSubject{static_cast<uint32_t>(device)};
}

template <typename Body>
int OnSession(Call call, drvHdcSession_t handle, Body&& body) noexcept {
    return OnHandle(call, Handles::Get().sessions, handle, body);
}

template <typename Body>
int OnMessage(Call call, drvHdcMsg_t handle, Body&& body) noexcept {
    return OnHandle(call, Handles::Get().messages, handle, body);
}

}  // namespace

// ---- Clients and servers -----------------------------------------------------------------------

drvError_t drvHdcClientCreate(drvHdcClient_t* client, int maxSessions, int serviceType, int flag) {
    return RunCall(Call::drvHdcClientCreate, {}, [&]() -> int {
        if (client == nullptr || maxSessions < 1 || serviceType < 0 || flag != 0) {
            return kInvalidArgument;
        }
        *client = Handles::Get().clients.Add(std::make_shared<Client>(serviceType, maxSessions));
        return kDone;
    });
}

drvError_t drvHdcClientDestroy(drvHdcClient_t handle) {
    return Closing(Call::drvHdcClientDestroy, Handles::Get().clients, handle,
                   [](const auto& client, const Caller&) {
                       return client->Retire() ? kDone : int{DRV_ERROR_CLIENT_BUSY};
                   });
}

drvError_t drvHdcServerCreate(int logicalDevice, int serviceType, drvHdcServer_t* server) {
    return RunCall(Call::drvHdcServerCreate, AboutDevice(logicalDevice), [&]() -> int {
        if (logicalDevice < 0 || serviceType < 0 || server == nullptr) {
            return kInvalidArgument;
        }
        const auto device = static_cast<uint32_t>(logicalDevice);
        const DriverState& driver = DriverState::Get();
        const auto scenario = driver.scenario();
        if (scenario->FindDevice(device) == nullptr) {
            return kNoDevice;
        }
        if (driver.StateOf(device) != DeviceState::kUp) {
            return DRV_ERROR_DEVICE_NOT_READY;
        }
        auto made = Server::Create(device, serviceType, scenario);
        if (made == nullptr) {
            const int reason = errno;
            std::fprintf(stderr, "orla platform: can't listen on %s: %s\n",
                         SocketPath(logicalDevice, serviceType).c_str(), std::strerror(reason));
            return reason == EADDRINUSE ? kAddressInUse : kSystemError;
        }
        *server = Handles::Get().servers.Add(std::move(made));
        return kDone;
    });
}

drvError_t drvHdcServerDestroy(drvHdcServer_t handle) {
    return Closing(Call::drvHdcServerDestroy, Handles::Get().servers, handle,
                   [&](const auto& server, const Caller&) -> int {
                       if (server->IsBusyYet()) {
                           return DRV_ERROR_CLIENT_BUSY;
                       }
                       EventWait::Forget(ValueOf(handle), server.get());
                       server->Stop(EBADF);
                       return kDone;
                   });
}

drvError_t drvHdcSessionAccept(drvHdcServer_t handle, drvHdcSession_t* session) {
    return OnHandle(Call::drvHdcSessionAccept, Handles::Get().servers, handle,
                    [&](const auto& server, const Caller&) -> int {
                        if (session == nullptr) {
                            return kInvalidArgument;
                        }
                        std::shared_ptr<Session> accepted;
                        if (const int result = server->Accept(&accepted); result != kDone) {
                            return result;
                        }
                        *session = Handles::Get().sessions.Add(std::move(accepted));
                        return kDone;
                    });
}

// ---- Sessions ----------------------------------------------------------------------------------

namespace {

// `pid`: in whose name; 0: of this process.
drvError_t ConnectAs(Call call, int peerNode, int peerDevice, int pid, drvHdcClient_t handle,
                     drvHdcSession_t* session) {
    const Caller caller(call);
    const auto client = Handles::Get().clients.Use(handle, caller);
    return RunCall(call, AboutDevice(peerDevice), [&]() -> int {
        if (client == nullptr) {
            return kInvalidHandle;
        }
        if (peerNode != 0 || peerDevice < 0 || pid < 0 || session == nullptr) {
            return kInvalidArgument;
        }
        std::shared_ptr<Session> made;
        const int result =
            Connect(static_cast<uint32_t>(peerDevice), static_cast<uint32_t>(pid), client, &made);
        if (result == kDone) {
            *session = Handles::Get().sessions.Add(std::move(made));
        }
        return result;
    });
}

int AttributeOf(const PeerFacts& peer, int attribute, int* value) {
    switch (attribute) {
        case HDC_SESSION_ATTR_DEV_ID:
            *value = static_cast<int>(peer.device);
            return kDone;
        case HDC_SESSION_ATTR_RUN_ENV:
            *value = static_cast<int>(peer.runEnvironment);
            return kDone;
        case HDC_SESSION_ATTR_VFID:
            *value = static_cast<int>(peer.virtualFunction);
            return kDone;
        case HDC_SESSION_ATTR_PEER_PID:
            *value = static_cast<int>(peer.pid);
            return kDone;
        default:
            return DRV_ERROR_NOT_SUPPORT;
    }
}

}  // namespace

drvError_t drvHdcSessionConnect(int peerNode, int peerDevice, drvHdcClient_t client,
                                drvHdcSession_t* session) {
    return ConnectAs(Call::drvHdcSessionConnect, peerNode, peerDevice, 0, client, session);
}

drvError_t halHdcSessionConnectEx(int peerNode, int peerDevice, int hostPid, drvHdcClient_t client,
                                  drvHdcSession_t* session) {
    return ConnectAs(Call::halHdcSessionConnectEx, peerNode, peerDevice, hostPid, client, session);
}

// The system closes a process's sockets when it ends, so there is nothing to remember.
drvError_t drvHdcSetSessionReference(drvHdcSession_t handle) {
    return OnSession(Call::drvHdcSetSessionReference, handle,
                     [](const auto&, const Caller&) { return kDone; });
}

drvError_t drvHdcSessionClose(drvHdcSession_t handle) {
    return Closing(
        Call::drvHdcSessionClose, Handles::Get().sessions, handle,
        [&](const auto& session, const Caller&) {
            EventWait::Forget(ValueOf(handle), session.get());
            session->End();
            session->LeaveClient();
            while (DriverState::Get().scenario()->liberties.closeWaits && session->busy()) {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
            return kDone;
        });
}

drvError_t halHdcGetSessionAttr(drvHdcSession_t handle, int attribute, int* value) {
    return OnSession(Call::halHdcGetSessionAttr, handle,
                     [&](const auto& session, const Caller&) -> int {
                         return value == nullptr ? kInvalidArgument
                                                 : AttributeOf(session->peer(), attribute, value);
                     });
}

drvError_t drvHdcGetCapacity(drvHdcCapacity* capacity) {
    return RunCall(Call::drvHdcGetCapacity, {}, [&]() -> int {
        if (capacity == nullptr || capacity->chanType != HDC_CHAN_TYPE_SOCKET) {
            return kInvalidArgument;
        }
        capacity->maxSegment = DriverState::Get().scenario()->maxSegment;
        return kDone;
    });
}

// ---- Messages ----------------------------------------------------------------------------------

drvError_t drvHdcAllocMsg(drvHdcSession_t handle, drvHdcMsg_t* message, int count) {
    return OnSession(Call::drvHdcAllocMsg, handle, [&](const auto& session, const Caller&) -> int {
        if (message == nullptr || count != 1) {
            return kInvalidArgument;
        }
        *message = Handles::Get().messages.Add(
            std::make_shared<Message>(ValueOf(handle), session->pool(), session->maxSegment()));
        return kDone;
    });
}

drvError_t drvHdcFreeMsg(drvHdcMsg_t handle) {
    return Closing(Call::drvHdcFreeMsg, Handles::Get().messages, handle,
                   [&](const auto& message, const Caller& caller) {
                       message->CheckOutgoing(ValueOf(handle), caller);
                       return kDone;
                   });
}

drvError_t drvHdcReuseMsg(drvHdcMsg_t handle) {
    return OnMessage(Call::drvHdcReuseMsg, handle, [&](const auto& message, const Caller& caller) {
        message->CheckOutgoing(ValueOf(handle), caller);
        message->Clear();
        return kDone;
    });
}

drvError_t drvHdcAddMsgBuffer(drvHdcMsg_t handle, char* buffer, int length) {
    return OnMessage(Call::drvHdcAddMsgBuffer, handle,
                     [&](const auto& message, const Caller& caller) {
                         return buffer != nullptr && message->SetOutgoing(buffer, length, caller)
                                    ? kDone
                                    : kInvalidArgument;
                     });
}

drvError_t drvHdcGetMsgBuffer(drvHdcMsg_t handle, int index, char** buffer, int* length) {
    return OnMessage(Call::drvHdcGetMsgBuffer, handle, [&](const auto& message, const Caller&) {
        return buffer != nullptr && length != nullptr && message->GetReceived(index, buffer, length)
                   ? kDone
                   : kInvalidArgument;
    });
}

drvError_t halHdcSend(drvHdcSession_t handle, drvHdcMsg_t messageHandle, uint64_t flag,
                      uint32_t timeout) {
    return OnSession(Call::halHdcSend, handle,
                     [&](const auto& session, const Caller& caller) -> int {
                         const auto message = Handles::Get().messages.Use(messageHandle, caller);
                         if (message == nullptr || message->session() != ValueOf(handle)) {
                             return kInvalidHandle;
                         }
                         if ((flag != HDC_FLAG_WAIT && flag != HDC_FLAG_NOWAIT) || timeout != 0 ||
                             !message->outgoing()) {
                             return kInvalidArgument;
                         }
                         message->CheckOutgoing(ValueOf(messageHandle), caller);
                         return session->Send(*message->outgoing(), flag);
                     });
}

drvError_t halHdcRecv(drvHdcSession_t handle, drvHdcMsg_t messageHandle, int size, uint64_t flag,
                      int* bufferCount, uint32_t timeout) {
    return OnSession(
        Call::halHdcRecv, handle, [&](const auto& session, const Caller& caller) -> int {
            const auto message = Handles::Get().messages.Use(messageHandle, caller);
            if (message == nullptr || message->session() != ValueOf(handle)) {
                return kInvalidHandle;
            }
            if (size < 0 || flag > HDC_FLAG_TIMEOUT || bufferCount == nullptr ||
                !message->empty()) {
                return kInvalidArgument;
            }
            const uint32_t largest = size == 0 ? UINT32_MAX : static_cast<uint32_t>(size);
            const int result = session->Receive(message.get(), largest, flag, timeout);
            if (result == kDone) {
                *bufferCount = static_cast<int>(message->receivedCount());
            }
            return result;
        });
}

// ---- Event wait --------------------------------------------------------------------------------

drvError_t drvHdcEpollCreate(int size, drvHdcEpoll_t* epoll) {
    return RunCall(Call::drvHdcEpollCreate, {}, [&]() -> int {
        if (size < 1 || epoll == nullptr) {
            return kInvalidArgument;
        }
        auto wait = std::make_shared<EventWait>(size);
        if (!wait->valid()) {
            return kSystemError;
        }
        *epoll = Handles::Get().epolls.Add(std::move(wait));
        return kDone;
    });
}

drvError_t drvHdcEpollClose(drvHdcEpoll_t handle) {
    return Closing(Call::drvHdcEpollClose, Handles::Get().epolls, handle,
                   [](const auto& wait, const Caller&) {
                       wait->Close();
                       return kDone;
                   });
}

namespace {

// The server or session of a handle, null for null.
std::shared_ptr<EventSource> SourceOf(const void* target, const Caller& caller) {
    if (IsOfKind(target, HandleKind::kServer)) {
        return Handles::Get().servers.Use(target, caller);
    }
    return Handles::Get().sessions.Use(target, caller);
}

bool IsOpen(const void* target) {
    return Handles::Get().servers.Find(target) != nullptr ||
           Handles::Get().sessions.Find(target) != nullptr;
}

int AddToWait(EventWait* wait, void* target, const std::shared_ptr<EventSource>& source,
              const drvHdcEvent* event) {
    constexpr uint32_t kKnown = HDC_EPOLL_CONN_IN | HDC_EPOLL_DATA_IN | HDC_EPOLL_SESSION_CLOSE;
    if (event == nullptr || (event->events & ~kKnown) != 0) {
        return kInvalidArgument;
    }
    const int result = wait->Add(ValueOf(target), source, *event);
    if (result == kDone && !IsOpen(target)) {  // a close may not have known of this wait
        static_cast<void>(wait->Remove(ValueOf(target)));
        return kInvalidHandle;
    }
    return result;
}

}  // namespace

drvError_t drvHdcEpollCtl(drvHdcEpoll_t handle, int operation, void* target,
                          const drvHdcEvent* event) {
    return OnHandle(Call::drvHdcEpollCtl, Handles::Get().epolls, handle,
                    [&](const auto& wait, const Caller& caller) -> int {
                        const auto source = SourceOf(target, caller);
                        if (source == nullptr) {
                            return kInvalidHandle;
                        }
                        switch (operation) {
                            case HDC_EPOLL_CTL_ADD:
                                return AddToWait(wait.get(), target, source, event);
                            case HDC_EPOLL_CTL_DEL:
                                return wait->Remove(ValueOf(target)) ? kDone : kInvalidHandle;
                            default:
                                return kInvalidArgument;
                        }
                    });
}

drvError_t drvHdcEpollWait(drvHdcEpoll_t handle, drvHdcEvent* events, int maxEvents, int timeout,
                           int* eventCount) {
    return OnHandle(
        Call::drvHdcEpollWait, Handles::Get().epolls, handle,
        [&](const auto& wait, const Caller&) -> int {
            if (events == nullptr || maxEvents < 1 || timeout < -1 || eventCount == nullptr) {
                return kInvalidArgument;
            }
            return wait->Wait(events, maxEvents, timeout, eventCount);
        });
}
