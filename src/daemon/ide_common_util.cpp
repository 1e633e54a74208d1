#include "daemon/ide_common_util.h"

#include <atomic>
#include <cstdio>

#include "hdc/log_side.h"

namespace {

IdeComponent IdeComponentsFuncs[kComponentSlots];
// The table's last field once more, for the session threads: the stop clears it under them.
std::atomic<decltype(IdeComponent::hdcProcess)> handlers[kComponentSlots];

void Fill(uint32_t slot, const IdeComponent& component) {
    IdeComponentsFuncs[slot] = component;
    handlers[slot].store(component.hdcProcess);
}

struct ComponentName {
    uint32_t slot;
    uint32_t requestType;
    const char* shortName;
    const char* displayName;
};

// Searched from the first row to the first match: request type 15 is "hook_reg", never "hdc".
constexpr ComponentName IdeComponentNames[] = {
    {0, 15, "hook_reg", nullptr},
    {kSlotHdc, 15, "hdc", nullptr},
    {kSlotLog, orla::kRequestLog, "log", "SetLogLevel"},
    {kSlotProfiling, orla::kRequestProfiling, "profiling", "Profiling"},
    {kNoComponent, 16, "default", nullptr},
};

constexpr const char* kDefaultName = "default";

const ComponentName* FindName(uint32_t ComponentName::*field, uint32_t value) {
    for (const ComponentName& row : IdeComponentNames) {
        if (row.*field == value) {
            return &row;
        }
    }
    return nullptr;
}

const char* ShortName(const ComponentName* row) {
    return row != nullptr ? row->shortName : kDefaultName;
}

}  // namespace

void IdeRegisterComponent(uint32_t slot, const IdeComponent& component) {
    if (slot < kComponentSlots) {
        Fill(slot, component);
    }
}

int IdeComponentsInit() {
    for (uint32_t slot = 0; slot < kComponentSlots; ++slot) {
        if (IdeComponentsFuncs[slot].init == nullptr) {
            continue;
        }
        if (IdeComponentsFuncs[slot].init() == 0) {
            IDE_LOGI("call [%s] init function succ", IdeSlotName(slot));
            continue;
        }
        IDE_LOGE("call [%s] init function failed", IdeSlotName(slot));
        std::printf("init [%s] failed\n", IdeSlotName(slot));
        if (slot == kSlotHdc) {
            return -1;
        }
    }
    return 0;
}

void IdeComponentsDestroy() {
    for (uint32_t slot = kComponentSlots; slot-- > 0;) {
        const auto destroy = IdeComponentsFuncs[slot].destroy;
        if (destroy != nullptr) {
            if (destroy() == 0) {
                IDE_LOGI("call ideComponents Funcs destroy[%s] success", IdeSlotName(slot));
            } else {
                IDE_LOGE("call ideComponents Funcs destroy[%s] failed", IdeSlotName(slot));
            }
        }
        Fill(slot, {});
    }
}

decltype(IdeComponent::hdcProcess) IdeComponentHandler(uint32_t slot) {
    return slot < kComponentSlots ? handlers[slot].load() : nullptr;
}

const char* IdeSlotName(uint32_t slot) {
    return ShortName(FindName(&ComponentName::slot, slot));
}

const char* IdeRequestName(uint32_t type) {
    return ShortName(FindName(&ComponentName::requestType, type));
}

uint32_t IdeRequestSlot(const IdeRequest* request) {
    if (request == nullptr) {
        IDE_LOGE("input req is nullptr");
        return kNoComponent;
    }
    const ComponentName* row = FindName(&ComponentName::requestType, request->type);
    return row != nullptr ? row->slot : kNoComponent;
}
