#include "host/device_session.h"

#include <algorithm>
#include <chrono>

#include "hdc/hdc_api.h"
#include "hdc/velt_dsmi.h"

namespace orla::host {

std::optional<std::vector<Device>> FindDevices() {
    std::vector<uint32_t> logicalIds(kMaxDevices, 0);
    uint32_t count = 0;
    if (IdeGetDevList(&count, logicalIds.data(), kMaxDevices) != 0) {
        return std::nullopt;
    }
    std::vector<uint32_t> physicalIds(kMaxDevices, 0);
    if (IdeGetPhyDevList(&count, physicalIds.data(), kMaxDevices) != 0 || count > kMaxDevices) {
        return std::nullopt;
    }
    std::vector<Device> devices;
    for (uint32_t i = 0; i < count; ++i) {
        devices.push_back({logicalIds[i], physicalIds[i]});
    }
    return devices;
}

Session::~Session() {
    Close();
    static_cast<void>(drvHdcEpollClose(epoll_));
}

bool Session::Send(std::string_view message) {
    return message.size() <= INT32_MAX &&
           HdcWrite(session_, message.data(), static_cast<int>(message.size())) == 0;
}

bool Session::SendRequest(uint32_t type, std::string_view value) {
    void* packet = nullptr;
    uint32_t length = 0;
    if (value.size() > UINT32_MAX ||
        IdeCreatePacket(type, value.data(), static_cast<uint32_t>(value.size()), &packet,
                        &length) != 0) {
        return false;
    }
    const HeapBlock owned(static_cast<char*>(packet));
    return Send({owned.get(), length});
}

ReceiveResult Session::Receive(int timeoutMs, std::string* message) {
    const auto start = std::chrono::steady_clock::now();
    while (true) {
        const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start);
        const int left =
            timeoutMs < 0 ? timeoutMs : std::max(0, timeoutMs - static_cast<int>(spent.count()));
        drvHdcEvent event = {};
        int count = 0;
        if (drvHdcEpollWait(epoll_, &event, 1, left, &count) != DRV_ERROR_NONE) {
            return ReceiveResult::kFailed;
        }
        if (count == 0) {
            return ReceiveResult::kTimeout;
        }
        void* buffer = nullptr;
        uint32_t length = 0;
        const int ret = HdcReadNb(session_, &buffer, &length, maxMessage_);
        const HeapBlock received(static_cast<char*>(buffer));
        if (ret == kHdcReadDone) {
            message->assign(received.get(), length);
            return ReceiveResult::kMessage;
        }
        if (ret != kHdcReadEmpty) {
            return ret == kHdcReadClosed ? ReceiveResult::kClosed : ReceiveResult::kFailed;
        }
        // Only part of a driver buffer has come so far: the event was true all the same.
    }
}

void Session::Close() {
    static_cast<void>(session_->Close());
}

std::unique_ptr<Client> Client::Create(int serviceType, uint32_t maxMessage) {
    const drvHdcClient_t client = HdcClientCreate(serviceType);
    return client != nullptr ? std::unique_ptr<Client>(new Client(client, maxMessage)) : nullptr;
}

Client::~Client() {
    static_cast<void>(HdcClientDestroy(client_));
}

std::unique_ptr<Session> Client::Connect(uint32_t device) const {
    HdcSessionPtr handle;
    if (HdcSessionConnect(0, static_cast<int>(device), client_, &handle) != 0) {
        return nullptr;
    }
    drvHdcEpoll_t epoll = nullptr;
    if (drvHdcEpollCreate(1, &epoll) != DRV_ERROR_NONE) {
        return nullptr;
    }
    std::unique_ptr<Session> session(new Session(handle, epoll, maxMessage_));
    const drvHdcEvent event{HDC_EPOLL_DATA_IN | HDC_EPOLL_SESSION_CLOSE, 0, 0};
    if (handle->EpollCtl(epoll, HDC_EPOLL_CTL_ADD, event) != DRV_ERROR_NONE) {
        return nullptr;
    }
    return session;
}

}  // namespace orla::host
