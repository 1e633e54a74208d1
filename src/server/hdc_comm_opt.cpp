#include "server/hdc_comm_opt.h"

#include <charconv>
#include <exception>
#include <optional>

#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "hdc/velt_dsmi.h"
#include "server/hdc_handles.h"
#include "server/velt_hdc_device.h"

namespace Velt {

namespace {

constexpr int kServiceTypeEnd = 128;
constexpr int kPeerNode = 0;
constexpr int kMaxReadTimes = 800;

// A decimal number that is the whole text.
std::optional<int> ParseNumber(const std::string& text) {
    int value = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || rest != end) {
        return std::nullopt;
    }
    return value;
}

const std::string* Find(const CommOptions& options, const char* key) {
    const auto option = options.find(key);
    return option == options.end() ? nullptr : &option->second;
}

// A client's value is the driver's handle.
int64_t ToValue(drvHdcClient_t client) {
    return client == nullptr ? kNoHandle : reinterpret_cast<intptr_t>(client);
}

drvHdcClient_t ToClient(int64_t value) {
    return reinterpret_cast<drvHdcClient_t>(static_cast<intptr_t>(value));
}

}  // namespace

int64_t HdcCommOpt::OpenServer(const CommOptions& options) {
    if (options.empty()) {
        IDE_LOGE("open server input invalid");
        return kNoHandle;
    }
    const std::string* deviceText = Find(options, kOptionDeviceId);
    if (deviceText == nullptr) {
        IDE_LOGE("open server input parameter invalid, DeviceId not found.");
        return kNoHandle;
    }
    const std::string* serviceText = Find(options, kOptionServiceType);
    if (serviceText == nullptr) {
        IDE_LOGE("open server input parameter invalid, ServiceType not found");
        return kNoHandle;
    }
    const auto device = ParseNumber(*deviceText);
    const auto service = ParseNumber(*serviceText);
    if (!device || !service) {
        IDE_LOGE("Value of device id or service type is not a number");
        return kNoHandle;
    }
    if (*service < 0 || *service >= kServiceTypeEnd || *device < 0) {
        return kNoHandle;
    }
    IDE_EVENT("open device[%d] server[%d]", *device, *service);
    return HdcServers().Add(HdcServerCreate(*device, *service));
}

int HdcCommOpt::CloseServer(int64_t& server) {
    if (server == kNoHandle) {
        IDE_LOGE("close server input invalid");
        return -1;
    }
    IDE_EVENT("close device server");
    if (HdcServerDestroy(HdcServers().Find(server)) != 0) {
        return -1;
    }
    HdcServers().Take(server);
    return 0;
}

int64_t HdcCommOpt::OpenClient(const CommOptions& options) {
    if (options.empty()) {
        IDE_LOGE("open client input invalid");
        return kNoHandle;
    }
    const std::string* serviceText = Find(options, kOptionServiceType);
    if (serviceText == nullptr) {
        IDE_LOGE("open client input parameter invalid, ServiceType not found");
        return kNoHandle;
    }
    const auto service = ParseNumber(*serviceText);
    if (!service) {
        IDE_LOGE("Value of service type is not a number");
        return kNoHandle;
    }
    if (*service < 0 || *service >= kServiceTypeEnd) {
        IDE_LOGE("open client input type out of range");
        return kNoHandle;
    }
    const drvHdcClient_t client = HdcClientCreate(*service);
    if (client == nullptr) {
        IDE_LOGE("hdc client create exception");
    }
    return ToValue(client);
}

int HdcCommOpt::CloseClient(int64_t& client) {
    if (client == kNoHandle) {
        IDE_LOGE("hdc close client input invalid");
        return -1;
    }
    return HdcClientDestroy(ToClient(client));
}

int64_t HdcCommOpt::Accept(int64_t server) {
    if (server == kNoHandle) {
        IDE_LOGE("hdc accept input invalid");
        return kNoHandle;
    }
    return HdcSessions().Add(HdcServerAccept(HdcServers().Find(server)));
}

int64_t HdcCommOpt::Connect(int64_t client, const CommOptions& options) {
    if (client == kNoHandle || options.empty()) {
        IDE_LOGE("hdc connect input invalid");
        return kNoHandle;
    }
    const std::string* deviceText = Find(options, kOptionDeviceId);
    if (deviceText == nullptr) {
        IDE_LOGE("connect input parameter invalid, DeviceId not found");
        return kNoHandle;
    }
    const auto device = ParseNumber(*deviceText);
    if (!device) {
        IDE_LOGE("Value of device id is not a number");
        return kNoHandle;
    }
    if (*device < 0 || *device >= static_cast<int>(kMaxDevices)) {
        IDE_LOGE("devId invalid");
        return kNoHandle;
    }
    HdcSessionPtr session;
    int ret = 0;
    if (const std::string* pidText = Find(options, kOptionPid)) {
        const auto pid = ParseNumber(*pidText);
        if (!pid) {
            IDE_LOGE("Value of host pid is not a number");
            return kNoHandle;
        }
        if (*pid < 0) {
            return kNoHandle;
        }
        ret = HdcSessionConnectEx(kPeerNode, *device, *pid, ToClient(client), &session);
    } else {
        ret = HdcSessionConnect(kPeerNode, *device, ToClient(client), &session);
    }
    if (ret != 0) {
        IDE_LOGE("hdc connect error: %d", ret);
        return kNoHandle;
    }
    return HdcSessions().Add(session);
}

int HdcCommOpt::Close(int64_t& session) {
    if (session == kNoHandle) {
        IDE_LOGE("hdc close input invalid");
        return -1;
    }
    const int ret = HdcSessionClose(HdcSessions().Take(session));
    session = kNoHandle;
    return ret;
}

int HdcCommOpt::Write(int64_t session, const void* buffer, int32_t length, int flag) {
    if (session == kNoHandle || buffer == nullptr || length <= 0) {
        IDE_LOGE("hdc write input invalid");
        return -1;
    }
    const HdcSessionPtr target = HdcSessions().Find(session);
    return flag == 0 ? HdcWrite(target, buffer, length) : HdcWriteNb(target, buffer, length);
}

int HdcCommOpt::Read(int64_t session, void** buffer, int32_t* length, int flag) {
    if (session == kNoHandle || buffer == nullptr || length == nullptr) {
        IDE_LOGE("hdc read input invalid");
        return -1;
    }
    const HdcSessionPtr source = HdcSessions().Find(session);
    uint32_t received = 0;
    const int ret = flag == 0 ? HdcRead(source, buffer, &received)
                              : HdcReadPolling(source, buffer, &received, kMaxReadTimes);
    *length = static_cast<int32_t>(received);
    return ret;
}

std::shared_ptr<VeltDevice> HdcCommOpt::GetDevice() {
    const std::lock_guard<std::mutex> lock(deviceMutex_);
    if (device_ == nullptr) {
        try {
            device_ = std::make_shared<VeltHdcDevice>();
        } catch (const std::exception&) {
            IDE_LOGE("Failed to get hdc device.");
        }
    }
    return device_;
}

}  // namespace Velt
