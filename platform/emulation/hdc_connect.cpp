#include "hdc_connect.h"

#include <hdc_driver.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver_state.h"
#include "hdc_wire.h"

namespace orla::emulation {

namespace {

// The run environment that this host tells. A text that is no number fails, and stderr is told.
bool ReadRunEnvironment(uint32_t* value) {
    constexpr const char* kName = "ORLA_HDC_RUN_ENV";
    const char* text = std::getenv(kName);
    if (text == nullptr || *text == '\0') {
        return true;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long number = std::strtoul(text, &end, 10);
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || number > INT32_MAX) {
        std::fprintf(stderr, "orla platform: %s is not a number: %s\n", kName, text);
        return false;
    }
    *value = static_cast<uint32_t>(number);
    return true;
}

bool MakeHello(uint32_t pid, Hello* hello) {
    *hello = {};
    std::memcpy(hello->magic, kHelloMagic, sizeof(hello->magic));
    hello->version = kHelloVersion;
    hello->runEnvironment = 1;
    hello->pid = pid;
    return ReadRunEnvironment(&hello->runEnvironment);
}

int Failure() {
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

}  // namespace

int Connect(uint32_t device, uint32_t pid, const std::shared_ptr<Client>& client,
            std::shared_ptr<Session>* session) {
    // A device that this side's scenario doesn't have may well be there on the other side.
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
    UniqueFd fd = Connect(SocketPath(static_cast<int>(device), client->serviceType()));
    if (!fd.valid()) {
        return Failure();
    }
    SetBufferSizes(fd.get(), scenario->liberties.socketBuffer);
    // 24 bytes always fit into a fresh socket: there is no half of a hello.
    if (send(fd.get(), &hello, sizeof(hello), MSG_NOSIGNAL) != sizeof(hello)) {
        return kSystemError;
    }
    constexpr uint32_t kPhysical = 1;
    const PeerFacts peer = {device, kPhysical, 0, PeerPid(fd.get())};
    *session = std::make_shared<Session>(std::move(fd), peer, *scenario, std::move(place));
    return kDone;
}

}  // namespace orla::emulation
