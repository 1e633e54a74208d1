// The component table: which entry points the daemon starts, stops and hands requests to, and
// the names that its log lines give them.
//
// Written by the main thread before any component thread exists and after the server creation
// loop has ended. Session threads look handlers up without a lock, also while the table is
// cleared: a handler may be called for a moment after its component was destroyed.
#pragma once

#include <cstdint>

#include "hdc/hdc_packet.h"
#include "hdc/hdc_session.h"

constexpr uint32_t kComponentSlots = 18;
constexpr uint32_t kNoComponent = 18;  // stands for the absence of a component

constexpr uint32_t kSlotHdc = 2;
constexpr uint32_t kSlotLog = 7;
constexpr uint32_t kSlotProfiling = 10;
constexpr uint32_t kSlotFileServer = 16;
constexpr uint32_t kSlotMonitor = 17;

// Entry points of one component; any may be empty. All answer 0 for success.
struct IdeComponent {
    int32_t (*init)();
    int32_t (*destroy)();
    void (*reserved)();
    // Serves one request on the thread of its session. The record stays the caller's. The session
    // ends with its last share: a component that goes on with it keeps one.
    int32_t (*hdcProcess)(const HdcSessionPtr& session, const IdeRequest* request);
};

// Fills a slot; a slot number of 18 or more is ignored.
void IdeRegisterComponent(uint32_t slot, const IdeComponent& component);

// Runs every `init`, slots 0 to 17. 0, or -1 as soon as the one of the HDC slot fails; any
// other component may fail and the daemon serves on without it.
[[nodiscard]] int IdeComponentsInit();

// Runs every `destroy`, slots 17 down to 0, and clears each slot behind it. A failure stops
// nothing.
void IdeComponentsDestroy();

// The request handler of a slot; null when the slot is empty or 18 or more.
decltype(IdeComponent::hdcProcess) IdeComponentHandler(uint32_t slot);

// Short name of a slot and of a request type; "default" for one that has none.
const char* IdeSlotName(uint32_t slot);
const char* IdeRequestName(uint32_t type);

// Slot that serves a request; kNoComponent for an unknown type and for null.
uint32_t IdeRequestSlot(const IdeRequest* request);
