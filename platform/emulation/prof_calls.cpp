// The driver's profiling operations: checks what came, then leaves it to the channels.
#include <device_driver.h>
#include <prof_driver.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "breach.h"
#include "driver_state.h"
#include "prof_channels.h"
#include "start_records.h"

using namespace orla::emulation;

namespace {

constexpr FrameResults kProfFailures = {PROF_ERROR, PROF_ERROR, PROF_ERROR};

template <typename Body>
int RunProfCall(Call call, const CallSubject& subject, Body&& body) noexcept {
    return RunCall(call, subject, body, kProfFailures);
}

// A device of the scenario that is up; null for all others.
const SimulatedDevice* FindUp(const Scenario& scenario, uint32_t device) {
    return DriverState::Get().StateOf(device) == DeviceState::kUp ? scenario.FindDevice(device)
                                                                  : nullptr;
}

uint32_t ChipTypeOf(const SimulatedDevice& device) {
    const InfoAnswer* version = device.FindInfo(DEV_MODULE_SYSTEM, DEV_INFO_TYPE_VERSION);
    return version == nullptr ? 0 : static_cast<uint32_t>(version->value >> 8 & 0xFF);
}

void FillList(const SimulatedDevice& device, ProfChannelList* list) {
    list->chipType = ChipTypeOf(device);
    list->channelNum = 0;
    for (const SimulatedChannel& channel : device.channels) {  // ids are unique: at most 160
        ProfChannelInfo& info = list->channels[list->channelNum++];
        info = {};
        std::memcpy(info.channelName, channel.name.data(), channel.name.size());
        info.channelType = channel.type;
        info.channelId = channel.id;
    }
}

int Start(uint32_t device, uint32_t channel, const ProfStartPara* para) {
    const auto scenario = DriverState::Get().scenario();
    const SimulatedDevice* found = FindUp(*scenario, device);
    const SimulatedChannel* config = found == nullptr ? nullptr : found->FindChannel(channel);
    if (config == nullptr || para == nullptr) {
        return PROF_ERROR;
    }
    if (const char* problem = StartRecordProblem(config->name, *para)) {
        Breach(problem, "device " + std::to_string(device) + ", channel " + std::to_string(channel),
               Caller(Call::prof_drv_start).Text());
    }
    const int result = ProfChannels::Get().Start(device, *config);
    if (DriverState::Get().StateOf(device) != DeviceState::kUp) {  // it went meanwhile
        ProfChannels::Get().EndDevice(device);
    }
    return result;
}

// For tests. A record that there is no memory for is missed by them, not by the caller.
void Keep(uint32_t device, uint32_t channel, const ProfStartPara* para, int result) noexcept {
    if (para == nullptr) {
        return;
    }
    try {
        orla::control::ProfStart start = {device, channel, *para, {}, result};
        start.para.userData = nullptr;
        if (para->userData != nullptr) {
            start.config.assign(static_cast<const char*>(para->userData), para->userDataSize);
        }
        ProfChannels::Get().KeepStart(std::move(start));
    } catch (...) {
        std::fputs("orla platform: a start record was lost\n", stderr);
    }
}

}  // namespace

int prof_drv_get_channels(uint32_t device, ProfChannelList* channels) {
    return RunProfCall(Call::prof_drv_get_channels, {device}, [&]() -> int {
        const auto scenario = DriverState::Get().scenario();
        const SimulatedDevice* found = FindUp(*scenario, device);
        if (found == nullptr || channels == nullptr) {
            return PROF_ERROR;
        }
        if (const auto told = ProfChannels::Get().ListOf(device)) {
            *channels = *told;
        } else {
            FillList(*found, channels);
        }
        return PROF_OK;
    });
}

int prof_drv_start(uint32_t device, uint32_t channel, const ProfStartPara* para) {
    const int result = RunProfCall(Call::prof_drv_start, {device, channel},
                                   [&] { return Start(device, channel, para); });
    Keep(device, channel, para, result);
    return result;
}

int prof_stop(uint32_t device, uint32_t channel) {
    return RunProfCall(Call::prof_stop, {device, channel}, [&] {
        return ProfChannels::Get().Stop({device, channel});
    });
}

// A buffer of no size is refused: whoever asks for nothing has lost count.
int prof_channel_read(uint32_t device, uint32_t channel, char* buffer, uint32_t size) {
    return RunProfCall(Call::prof_channel_read, {device, channel}, [&]() -> int {
        return buffer == nullptr || size == 0
                   ? PROF_ERROR
                   : ProfChannels::Get().Read({device, channel}, buffer, size);
    });
}

int prof_channel_poll(ProfPollInfo* events, int num, int timeout) {
    return RunProfCall(Call::prof_channel_poll, {}, [&]() -> int {
        return events == nullptr || num < 1 || timeout < 0
                   ? PROF_ERROR
                   : ProfChannels::Get().Poll(events, num, timeout,
                                              DriverState::Get().scenario()->liberties.idlePoll);
    });
}

int halProfDataFlush(uint32_t device, uint32_t channel, uint32_t* size) {
    return RunProfCall(Call::halProfDataFlush, {device, channel}, [&]() -> int {
        return size == nullptr ? PROF_ERROR : ProfChannels::Get().Flush({device, channel}, size);
    });
}
