// The C operations of the host-device channel: arguments and handles are checked here, the work
// is done by the classes. Each operation runs in RunCall, so that it is counted, can be made to
// fail, and throws nothing.
#include <hdc_driver.h>

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver_state.h"
#include "hdc_handles.h"

using namespace orla::emulation;

namespace {

template <typename T>
CallSubject About(const std::shared_ptr<T>& object) {
    return object == nullptr ? CallSubject{} : CallSubject{object->device()};
}

CallSubject About(const std::shared_ptr<Session>& session) {
    return session == nullptr ? CallSubject{} : CallSubject{session->peer().device};
}

CallSubject AboutDevice(int device) {
    return device < 0 ? CallSubject{} : CallSubject{static_cast<uint32_t>(device)};
}

// The number in an environment variable. A text that is none fails, and stderr is told.
bool ReadEnvironment(const char* name, uint32_t* value) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') {
        return true;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || number > INT32_MAX) {
        std::fprintf(stderr, "orla platform: %s is not a number: %s\n", name, text);
        return false;
    }
    *value = static_cast<uint32_t>(number);
    return true;
}

// `pid`: in whose name; 0: what the environment says, or this process.
bool MakeHello(uint32_t pid, Hello* hello) {
    *hello = {};
    std::memcpy(hello->magic, kHelloMagic, sizeof(hello->magic));
    hello->version = kHelloVersion;
    hello->runEnvironment = 1;
    if (!ReadEnvironment("ORLA_HDC_RUN_ENV", &hello->runEnvironment) ||
        !ReadEnvironment("ORLA_HDC_VF_ID", &hello->virtualFunction) ||
        !ReadEnvironment("ORLA_HDC_PID", &hello->pid)) {
        return false;
    }
    hello->pid = pid != 0 ? pid : hello->pid;
    return true;
}

int ConnectFailure() {
    switch (errno) {
        case ENOENT:
        case ECONNREFUSED:
            return DRV_ERROR_DEVICE_NOT_READY;
        case EAGAIN:
            return DRV_ERROR_WAIT_TIMEOUT;
        default:
            return kSystemError;
    }
}

int Connect(int peerNode, int peerDevice, uint32_t pid, drvHdcClient_t clientHandle,
            drvHdcSession_t* session) {
    if (peerNode != 0 || peerDevice < 0 || session == nullptr) {
        return kInvalidArgument;
    }
    const auto client = Handles::Get().clients.Find(clientHandle);
    if (client == nullptr) {
        return kInvalidHandle;
    }
    // A device that this side's scenario doesn't have may well be there on the other side.
    const auto device = static_cast<uint32_t>(peerDevice);
    const DriverState& driver = DriverState::Get();
    const auto scenario = driver.scenario();
    if (scenario->FindDevice(device) != nullptr && driver.StateOf(device) != DeviceState::kUp) {
        return DRV_ERROR_DEVICE_NOT_READY;
    }
    Hello hello;
    if (!MakeHello(pid, &hello)) {
        return kInvalidArgument;
    }
    if (!client->Enter()) {
        return kTooManySessions;
    }
    ClientPlace place(client);
    UniqueFd fd = orla::emulation::Connect(SocketPath(peerDevice, client->serviceType()));
    if (!fd.valid()) {
        return ConnectFailure();
    }
    // 24 bytes always fit into a fresh socket: there is no half of a hello.
    if (send(fd.get(), &hello, sizeof(hello), MSG_NOSIGNAL) != sizeof(hello)) {
        return kSystemError;
    }
    constexpr uint32_t kPhysical = 1;
    const PeerFacts peer = {device, kPhysical, 0, PeerPid(fd.get())};
    *session = Handles::Get().sessions.Add(
        std::make_shared<Session>(std::move(fd), peer, scenario->maxSegment, std::move(place)));
    return kDone;
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
    return RunCall(Call::drvHdcClientDestroy, {}, [&]() -> int {
        auto& clients = Handles::Get().clients;
        const auto client = clients.Find(handle);
        if (client == nullptr) {
            return kInvalidHandle;
        }
        if (!client->Retire()) {
            return DRV_ERROR_CLIENT_BUSY;
        }
        return clients.Take(handle) != nullptr ? kDone : kInvalidHandle;
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
        auto made = Server::Create(device, serviceType, scenario->maxSegment);
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
    auto& servers = Handles::Get().servers;
    return RunCall(Call::drvHdcServerDestroy, About(servers.Find(handle)), [&]() -> int {
        const auto server = servers.Take(handle);
        if (server == nullptr) {
            return kInvalidHandle;
        }
        EventWait::Forget(ValueOf(handle), server.get());
        server->Stop(EBADF);
        return kDone;
    });
}

drvError_t drvHdcSessionAccept(drvHdcServer_t handle, drvHdcSession_t* session) {
    const auto server = Handles::Get().servers.Find(handle);
    return RunCall(Call::drvHdcSessionAccept, About(server), [&]() -> int {
        if (session == nullptr) {
            return kInvalidArgument;
        }
        if (server == nullptr) {
            return kInvalidHandle;
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

drvError_t drvHdcSessionConnect(int peerNode, int peerDevice, drvHdcClient_t client,
                                drvHdcSession_t* session) {
    return RunCall(Call::drvHdcSessionConnect, AboutDevice(peerDevice),
                   [&] { return Connect(peerNode, peerDevice, 0, client, session); });
}

drvError_t halHdcSessionConnectEx(int peerNode, int peerDevice, int hostPid, drvHdcClient_t client,
                                  drvHdcSession_t* session) {
    return RunCall(Call::halHdcSessionConnectEx, AboutDevice(peerDevice), [&]() -> int {
        if (hostPid < 0) {
            return kInvalidArgument;
        }
        return Connect(peerNode, peerDevice, static_cast<uint32_t>(hostPid), client, session);
    });
}

drvError_t drvHdcSetSessionReference(drvHdcSession_t handle) {
    const auto session = Handles::Get().sessions.Find(handle);
    // The system closes a process's sockets when it ends, so there is nothing to remember.
    return RunCall(Call::drvHdcSetSessionReference, About(session),
                   [&] { return session != nullptr ? kDone : kInvalidHandle; });
}

drvError_t drvHdcSessionClose(drvHdcSession_t handle) {
    auto& sessions = Handles::Get().sessions;
    return RunCall(Call::drvHdcSessionClose, About(sessions.Find(handle)), [&]() -> int {
        const auto session = sessions.Take(handle);
        if (session == nullptr) {
            return kInvalidHandle;
        }
        EventWait::Forget(ValueOf(handle), session.get());
        session->End();
        session->LeaveClient();
        return kDone;
    });
}

drvError_t halHdcGetSessionAttr(drvHdcSession_t handle, int attribute, int* value) {
    const auto session = Handles::Get().sessions.Find(handle);
    return RunCall(Call::halHdcGetSessionAttr, About(session), [&]() -> int {
        if (value == nullptr) {
            return kInvalidArgument;
        }
        if (session == nullptr) {
            return kInvalidHandle;
        }
        const PeerFacts& peer = session->peer();
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
    const auto session = Handles::Get().sessions.Find(handle);
    return RunCall(Call::drvHdcAllocMsg, About(session), [&]() -> int {
        if (message == nullptr || count < 1 || count > Message::kMaxBuffers) {
            return kInvalidArgument;
        }
        if (session == nullptr) {
            return kInvalidHandle;
        }
        *message = Handles::Get().messages.Add(std::make_shared<Message>(
            ValueOf(handle), session->pool(), count, session->maxSegment()));
        return kDone;
    });
}

drvError_t drvHdcFreeMsg(drvHdcMsg_t message) {
    return RunCall(Call::drvHdcFreeMsg, {}, [&] {
        return Handles::Get().messages.Take(message) != nullptr ? kDone : kInvalidHandle;
    });
}

drvError_t drvHdcReuseMsg(drvHdcMsg_t handle) {
    return RunCall(Call::drvHdcReuseMsg, {}, [&]() -> int {
        const auto message = Handles::Get().messages.Find(handle);
        if (message == nullptr) {
            return kInvalidHandle;
        }
        message->Clear();
        return kDone;
    });
}

drvError_t drvHdcAddMsgBuffer(drvHdcMsg_t handle, char* buffer, int length) {
    return RunCall(Call::drvHdcAddMsgBuffer, {}, [&]() -> int {
        const auto message = Handles::Get().messages.Find(handle);
        if (message == nullptr) {
            return kInvalidHandle;
        }
        return buffer != nullptr && message->AddOutgoing(buffer, length) ? kDone : kInvalidArgument;
    });
}

drvError_t drvHdcGetMsgBuffer(drvHdcMsg_t handle, int index, char** buffer, int* length) {
    return RunCall(Call::drvHdcGetMsgBuffer, {}, [&]() -> int {
        const auto message = Handles::Get().messages.Find(handle);
        if (message == nullptr) {
            return kInvalidHandle;
        }
        return buffer != nullptr && length != nullptr && message->GetReceived(index, buffer, length)
                   ? kDone
                   : kInvalidArgument;
    });
}

drvError_t halHdcSend(drvHdcSession_t handle, drvHdcMsg_t messageHandle, uint64_t flag,
                      uint32_t timeout) {
    const auto session = Handles::Get().sessions.Find(handle);
    return RunCall(Call::halHdcSend, About(session), [&]() -> int {
        const auto message = Handles::Get().messages.Find(messageHandle);
        if (session == nullptr || message == nullptr || message->session() != ValueOf(handle)) {
            return kInvalidHandle;
        }
        if ((flag != HDC_FLAG_WAIT && flag != HDC_FLAG_NOWAIT) || timeout != 0 ||
            message->outgoing().empty()) {
            return kInvalidArgument;
        }
        return session->Send(message->outgoing(), flag);
    });
}

drvError_t halHdcRecv(drvHdcSession_t handle, drvHdcMsg_t messageHandle, int size, uint64_t flag,
                      int* bufferCount, uint32_t timeout) {
    const auto session = Handles::Get().sessions.Find(handle);
    return RunCall(Call::halHdcRecv, About(session), [&]() -> int {
        const auto message = Handles::Get().messages.Find(messageHandle);
        if (session == nullptr || message == nullptr || message->session() != ValueOf(handle)) {
            return kInvalidHandle;
        }
        if (size < 0 || flag > HDC_FLAG_TIMEOUT || bufferCount == nullptr || !message->empty()) {
            return kInvalidArgument;
        }
        const uint32_t largest = size == 0 ? UINT32_MAX : static_cast<uint32_t>(size);
        const int result = session->Receive(message.get(), largest, flag, timeout);
        if (result == kDone) {
            *bufferCount = 1;
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

drvError_t drvHdcEpollClose(drvHdcEpoll_t epoll) {
    return RunCall(Call::drvHdcEpollClose, {}, [&]() -> int {
        const auto wait = Handles::Get().epolls.Take(epoll);
        if (wait == nullptr) {
            return kInvalidHandle;
        }
        wait->Close();
        return kDone;
    });
}

namespace {

// The live server or session of a handle, null for none.
std::shared_ptr<EventSource> FindSource(const void* target) {
    if (auto server = Handles::Get().servers.Find(target)) {
        return server;
    }
    return Handles::Get().sessions.Find(target);
}

int AddToWait(EventWait* wait, void* target, const drvHdcEvent* event) {
    constexpr uint32_t kKnown = HDC_EPOLL_CONN_IN | HDC_EPOLL_DATA_IN | HDC_EPOLL_SESSION_CLOSE;
    if (event == nullptr || (event->events & ~kKnown) != 0) {
        return kInvalidArgument;
    }
    const auto source = FindSource(target);
    if (source == nullptr) {
        return kInvalidHandle;
    }
    if (!wait->Add(ValueOf(target), source, *event)) {
        return kInvalidArgument;
    }
    if (FindSource(target) == nullptr) {
        // Closed meanwhile, perhaps before the close could know of this wait.
        static_cast<void>(wait->Remove(ValueOf(target)));
        return kInvalidHandle;
    }
    return kDone;
}

}  // namespace

drvError_t drvHdcEpollCtl(drvHdcEpoll_t epoll, int operation, void* target,
                          const drvHdcEvent* event) {
    return RunCall(Call::drvHdcEpollCtl, {}, [&]() -> int {
        const auto wait = Handles::Get().epolls.Find(epoll);
        if (wait == nullptr) {
            return kInvalidHandle;
        }
        switch (operation) {
            case HDC_EPOLL_CTL_ADD:
                return AddToWait(wait.get(), target, event);
            case HDC_EPOLL_CTL_DEL:
                return wait->Remove(ValueOf(target)) ? kDone : kInvalidHandle;
            default:
                return kInvalidArgument;
        }
    });
}

drvError_t drvHdcEpollWait(drvHdcEpoll_t epoll, drvHdcEvent* events, int maxEvents, int timeout,
                           int* eventCount) {
    return RunCall(Call::drvHdcEpollWait, {}, [&]() -> int {
        const auto wait = Handles::Get().epolls.Find(epoll);
        if (wait == nullptr) {
            return kInvalidHandle;
        }
        if (events == nullptr || maxEvents < 1 || timeout < -1 || eventCount == nullptr) {
            return kInvalidArgument;
        }
        return wait->Wait(events, maxEvents, timeout, eventCount);
    });
}
